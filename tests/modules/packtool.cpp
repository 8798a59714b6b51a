#include "packtool.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QDir>
#include <QtCore/QDirIterator>
#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>

QString PackTool::program()
{
    return QStringLiteral(CORBETH_PACK);
}

PackTool::Run PackTool::run(const QStringList &arguments)
{
    QProcess process;
    process.start(program(), arguments);
    Run result;
    if (!process.waitForFinished(120000)) {
        process.kill();
        process.waitForFinished();
        result.err = QStringLiteral("corbeth-pack did not finish: ") + process.errorString();
        return result;
    }
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.out = QString::fromLocal8Bit(process.readAllStandardOutput());
    result.err = QString::fromLocal8Bit(process.readAllStandardError());
    return result;
}

namespace {
bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}
} // namespace

bool PackTool::makeTree(const QString &folder)
{
    QDir dir(folder);
    if (!dir.mkpath(QStringLiteral("bin/plugins")) || !dir.mkpath(QStringLiteral("share/doc/empty")))
        return false;
    QByteArray binary;
    for (int i = 0; i < 4096; ++i)
        binary.append(char(i * 7 % 256));
    // Several MiB of content that compresses only a little, so progress and
    // streaming are exercised.
    QByteArray large;
    quint32 x = 2463534242u;
    large.reserve(6 * 1024 * 1024);
    while (large.size() < 6 * 1024 * 1024) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        large.append(char(x & 0x3f));
    }
    return writeFile(dir.filePath(QStringLiteral("app.exe")), binary)
        && writeFile(dir.filePath(QStringLiteral("bin/data.bin")), large)
        && writeFile(dir.filePath(QStringLiteral("bin/plugins/readme.txt")), "plug-ins go here\n")
        && writeFile(dir.filePath(QStringLiteral("share/doc/notes \u00e9t\u00e9.txt")), "non-ASCII name\n")
        && writeFile(dir.filePath(QStringLiteral("share/empty.cfg")), QByteArray());
}

namespace {
QStringList listTree(const QString &root)
{
    QStringList entries;
    QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    const QDir base(root);
    while (it.hasNext()) {
        it.next();
        entries << base.relativeFilePath(it.filePath()) + (it.fileInfo().isDir() ? QStringLiteral("/") : QString());
    }
    entries.sort();
    return entries;
}
} // namespace

QString PackTool::compareTrees(const QString &expected, const QString &actual)
{
    const QStringList want = listTree(expected);
    const QStringList got = listTree(actual);
    if (want != got)
        return QStringLiteral("entries differ: expected %1, got %2")
            .arg(want.join(QLatin1Char(',')), got.join(QLatin1Char(',')));
    for (const QString &entry : want) {
        if (entry.endsWith(QLatin1Char('/')))
            continue;
        QFile a(QDir(expected).filePath(entry));
        QFile b(QDir(actual).filePath(entry));
        if (!a.open(QIODevice::ReadOnly) || !b.open(QIODevice::ReadOnly))
            return QStringLiteral("cannot read %1").arg(entry);
        while (!a.atEnd() || !b.atEnd()) {
            if (a.read(1 << 20) != b.read(1 << 20))
                return QStringLiteral("content differs: %1").arg(entry);
        }
    }
    return QString();
}

QString PackTool::md5Of(const QString &file)
{
    QFile f(file);
    QCryptographicHash hash(QCryptographicHash::Md5);
    if (!f.open(QIODevice::ReadOnly) || !hash.addData(&f))
        return QString();
    return QString::fromLatin1(hash.result().toHex());
}

bool PackTool::servedFolder(const QString &name, QString *folder, QString *url)
{
    const QDir nginx(QStringLiteral(VINDAL_NGINX_DIR));
    QFile ports(nginx.filePath(QStringLiteral("ports.json")));
    if (!ports.open(QIODevice::ReadOnly))
        return false;
    const int port = QJsonDocument::fromJson(ports.readAll()).object().value(QStringLiteral("http")).toInt();
    *folder = nginx.filePath(QStringLiteral("www/") + name);
    *url = QStringLiteral("http://127.0.0.1:%1/%2").arg(port).arg(name);
    return port > 0;
}
