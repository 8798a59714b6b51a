#include "singleinstance.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QFileInfo>
#include <QtNetwork/QLocalServer>
#include <QtNetwork/QLocalSocket>

namespace Corbeth {

namespace {
const char kActivate[] = "activate\n";
}

SingleInstance::SingleInstance(const QString &configFile, QObject *parent)
    : QObject(parent)
{
    // The user's name keeps two users of one machine apart where local
    // sockets are shared (Windows pipes, a common temporary folder).
    const QByteArray user = qgetenv("USER") + qgetenv("USERNAME");
    const QByteArray key = QFileInfo(configFile).absoluteFilePath().toUtf8() + '\0' + user;
    m_name = QStringLiteral("corbeth-setup-")
        + QString::fromLatin1(QCryptographicHash::hash(key, QCryptographicHash::Sha1).toHex().left(20));
}

bool SingleInstance::askRunning()
{
    QLocalSocket socket;
    socket.connectToServer(m_name);
    if (!socket.waitForConnected(1000))
        return false;
    socket.write(kActivate);
    socket.waitForBytesWritten(1000);
    socket.disconnectFromServer();
    return true;
}

bool SingleInstance::claim()
{
    if (askRunning())
        return false;
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_server->listen(m_name)) {
        // Another start won the race, or a crashed one left its socket behind.
        if (askRunning())
            return false;
        QLocalServer::removeServer(m_name);
        if (!m_server->listen(m_name))
            return true; // no guard is better than no installer
    }
    connect(m_server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *socket = m_server->nextPendingConnection()) {
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
                if (socket->readAll().contains('\n'))
                    emit activationRequested();
            });
        }
    });
    return true;
}

} // namespace Corbeth
