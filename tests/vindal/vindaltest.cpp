#include "vindaltest.h"

#include <vindal/reply.h>

#include <QtCore/QDir>
#include <QtCore/QDirIterator>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QSaveFile>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QNetworkReply>
#include <QtTest/QSignalSpy>

#include <filesystem>

namespace VindalTest {

QByteArray pseudoRandom(int size, quint32 seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    quint32 x = seed * 2654435761u + 1;
    for (int i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        bytes[i] = char(x & 0xff);
    }
    return bytes;
}

bool writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QMap<QString, QByteArray> snapshot(const QString &folder)
{
    QMap<QString, QByteArray> tree;
    const QDir root(folder);
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        const QString relative = root.relativeFilePath(info.absoluteFilePath());
        if (info.isSymLink())
            tree.insert(relative, "-> " + QByteArray::fromStdString(std::filesystem::read_symlink(QFile::encodeName(info.absoluteFilePath()).toStdString()).string()));
        else if (info.isDir())
            tree.insert(relative, "<dir>");
        else
            tree.insert(relative, readFile(info.absoluteFilePath()));
    }
    return tree;
}

QVariantMap waitFinished(Vindal::Reply *reply, int timeoutMs)
{
    QSignalSpy spy(reply, &Vindal::Reply::finished);
    if (spy.isEmpty() && !spy.wait(timeoutMs))
        return QVariantMap();
    return spy.first().first().toMap();
}

bool Nginx::load()
{
    const QString dir = QStringLiteral(VINDAL_NGINX_DIR);
    QFile ports(dir + QLatin1String("/ports.json"));
    if (!ports.open(QIODevice::ReadOnly))
        return false;
    const QJsonObject object = QJsonDocument::fromJson(ports.readAll()).object();
    http = object.value(QStringLiteral("http")).toInt();
    https = object.value(QStringLiteral("https")).toInt();
    www = dir + QLatin1String("/www");
    caFile = dir + QLatin1String("/tls/ca.pem");
    accessLog = dir + QLatin1String("/logs/access.log");
    return http > 0 && https > 0;
}

FaultServer::~FaultServer()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

bool FaultServer::start(const QString &folder)
{
    m_process.start(QStringLiteral(VINDAL_FAULTSERVER), {folder});
    if (!m_process.waitForStarted(5000) || !m_process.waitForReadyRead(5000))
        return false;
    m_port = m_process.readLine().trimmed().toInt();
    return m_port > 0;
}

QString FaultServer::url(const QString &fault) const
{
    return QStringLiteral("http://127.0.0.1:%1/%2/").arg(m_port).arg(fault);
}

QByteArray FaultServer::log() const
{
    QNetworkAccessManager network;
    network.setProxy(QNetworkProxy::NoProxy);
    QNetworkReply *reply = network.get(QNetworkRequest(QUrl(QStringLiteral("http://127.0.0.1:%1/_log").arg(m_port))));
    QSignalSpy spy(reply, &QNetworkReply::finished);
    spy.wait(5000);
    const QByteArray log = reply->readAll();
    delete reply;
    return log;
}

} // namespace VindalTest
