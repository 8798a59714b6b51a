#include "vindaltest.h"

#include <vindal/reply.h>

#include <QtCore/QDir>
#include <QtCore/QDirIterator>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
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

QMap<QString, QByteArray> snapshot(const QString &folder)
{
    QMap<QString, QByteArray> tree;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        const QString relative = QDir(folder).relativeFilePath(info.absoluteFilePath());
        if (info.isSymLink())
            tree.insert(relative, "-> " + QByteArray::fromStdString(std::filesystem::read_symlink(QFile::encodeName(it.filePath()).toStdString()).string()));
        else
            tree.insert(relative, info.isDir() ? QByteArray("<dir>") : readFile(info.absoluteFilePath()));
    }
    return tree;
}

QVariantMap waitFinished(Vindal::Reply *reply, int timeoutMs)
{
    QSignalSpy spy(reply, &Vindal::Reply::finished);
    // An unpack finishes on its worker thread, possibly before the spy was there.
    if (reply->isFinished())
        return reply->result();
    if (spy.isEmpty() && !spy.wait(timeoutMs))
        return QVariantMap();
    return spy.first().first().toMap();
}

bool Nginx::load()
{
    const QString dir = QStringLiteral(VINDAL_NGINX_DIR);
    const QJsonObject ports = QJsonDocument::fromJson(readFile(dir + "/ports.json"_s)).object();
    http = ports.value("http"_s).toInt();
    https = ports.value("https"_s).toInt();
    www = dir + "/www"_s;
    caFile = dir + "/tls/ca.pem"_s;
    accessLog = dir + "/logs/access.log"_s;
    return http > 0 && https > 0;
}

FaultServer::~FaultServer()
{
    m_process.kill();
    m_process.waitForFinished(30000);
}

bool FaultServer::start(const QString &folder)
{
    m_log = folder + ".faultlog"_s;
    m_process.setStandardErrorFile(m_log);
    m_process.start(QStringLiteral(VINDAL_FAULTSERVER), {folder});
    if (!m_process.waitForStarted(30000) || !m_process.waitForReadyRead(30000))
        return false;
    m_port = m_process.readLine().trimmed().toInt();
    return m_port > 0;
}

} // namespace VindalTest
