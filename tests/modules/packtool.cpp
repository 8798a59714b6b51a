#include "packtool.h"

#include "vindaltest.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QProcess>

PackTool::Run PackTool::run(const QStringList &arguments)
{
    QProcess process;
    process.start(QStringLiteral(CORBETH_PACK), arguments);
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

bool PackTool::makeTree(const QString &folder)
{
    using VindalTest::writeFile;
    const QDir dir(folder);
    return QDir().mkpath(dir.filePath(QStringLiteral("share/doc/empty")))
        && writeFile(dir.filePath(QStringLiteral("app.exe")), VindalTest::pseudoRandom(4096, 1))
        && writeFile(dir.filePath(QStringLiteral("bin/data.bin")), VindalTest::pseudoRandom(6 << 20, 2))
        && writeFile(dir.filePath(QStringLiteral("bin/plugins/readme.txt")), "plug-ins go here\n")
        && writeFile(dir.filePath(QStringLiteral("share/doc/notes \u00e9t\u00e9.txt")), "non-ASCII name\n")
        && writeFile(dir.filePath(QStringLiteral("share/empty.cfg")), QByteArray());
}

QString PackTool::md5Of(const QString &file)
{
    QFile f(file);
    QCryptographicHash hash(QCryptographicHash::Md5);
    if (!f.open(QIODevice::ReadOnly) || !hash.addData(&f))
        return QString();
    return QString::fromLatin1(hash.result().toHex());
}
