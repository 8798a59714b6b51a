#ifndef CORBETH_TEST_PACKTOOL_H
#define CORBETH_TEST_PACKTOOL_H

#include "vindaltest.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QtDebug>

// corbeth-pack run as a real process, shared by the tool's and the adapter's tests.
namespace PackTool {

using VindalTest::operator""_s;

struct Run
{
    int exitCode = -1;
    QString out;
    QString err;
};

inline Run run(const QStringList &arguments, const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(CORBETH_PACK), arguments);
    if (!process.waitForFinished(120000)) {
        process.kill();
        process.waitForFinished();
        return {-1, QString(), "corbeth-pack did not finish: "_s + process.errorString()};
    }
    // (Windows ends a line with CR LF.)
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromLocal8Bit(process.readAllStandardOutput().replace("\r\n", "\n")),
            QString::fromLocal8Bit(process.readAllStandardError().replace("\r\n", "\n"))};
}

// Runs a command that must succeed; logs its standard error when it does not.
inline bool ok(const QStringList &arguments)
{
    const Run result = run(arguments);
    if (result.exitCode != 0)
        qWarning().noquote() << arguments.join(QLatin1Char(' ')) << "->" << result.exitCode << result.err;
    return result.exitCode == 0;
}

// Packs into package a tree of nested folders, an empty folder, an empty file,
// a non-ASCII name and a file of several MiB, made in source.
inline bool makePackage(const QString &source, const QString &package)
{
    using VindalTest::writeFile;
    const QDir dir(source);
    return QDir().mkpath(dir.filePath("share/doc/empty"_s))
        && writeFile(dir.filePath("app.exe"_s), VindalTest::pseudoRandom(4096, 1))
        && writeFile(dir.filePath("bin/data.bin"_s), VindalTest::pseudoRandom(6 << 20, 2))
        && writeFile(dir.filePath("bin/plugins/readme.txt"_s), "plug-ins go here\n")
        && writeFile(dir.filePath(QStringLiteral("share/doc/notes \u00e9t\u00e9.txt")), "non-ASCII name\n")
        && writeFile(dir.filePath("share/empty.cfg"_s), QByteArray()) && ok({"create"_s, source, "-o"_s, package});
}

#ifdef CORBETH_CLEANUP_TOOL
// The example product the client tests install: a program, two data files, a
// blob of blobSize bytes (big enough for a download to be seen moving) and the
// cleanup tool, which the uninstall runs from outside the install folder.
inline bool makeDemoPackage(const QString &source, const QString &package, int blobSize)
{
    using VindalTest::writeFile;
    return writeFile(source + "/bin/demo"_s, "demo 1.0") && writeFile(source + "/data/changes.txt"_s, "changes 1.0")
        && writeFile(source + "/data/sample.txt"_s, "sample")
        && writeFile(source + "/data/blob.bin"_s, VindalTest::pseudoRandom(blobSize, 3))
        && QFile::copy(QStringLiteral(CORBETH_CLEANUP_TOOL), source + "/corbeth-cleanup"_s)
        && ok({"create"_s, source, "-o"_s, package});
}
#endif

inline QString md5Of(const QString &file)
{
    return QString::fromLatin1(QCryptographicHash::hash(VindalTest::readFile(file), QCryptographicHash::Md5).toHex());
}

} // namespace PackTool

#endif // CORBETH_TEST_PACKTOOL_H
