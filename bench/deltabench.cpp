// Makes and applies the binary patches of a delta update file by file, for
// bench/delta.sh.
//
//   corbeth-bench-delta make OLD NEW PATCHES [smallest|zstd|suffix]
//       for each file of the tree NEW that the tree OLD holds with other
//       content, PATCHES/<path>.patch; a file OLD lacks, or one too large to
//       diff, is copied whole into PATCHES/<path>; unchanged files are left out
//   corbeth-bench-delta apply OLD PATCHES OUT
//       OUT/<path> from each patch and whole file of PATCHES
//   corbeth-bench-delta update REPOSITORY MODULE VERSION INSTALL STORE
//       downloads VERSION of MODULE and unpacks it into INSTALL through the
//       library, as the engine's update does: a delta when the library knows
//       the installed version (VINDAL_STATE_FILE) and one is listed
//
// make and apply print per-file lines on standard error and, on standard
// output, "<seconds> <peak resident KiB> <files patched> <files whole>
// <patch bytes>"; update prints "<seconds> <peak resident KiB> <package
// bytes> delta|full|fell-back".
#include "binarypatch_p.h"
#include "peakmemory.h"

#include <vindal/manager.h>
#include <vindal/reply.h>
#include <vindal/vdbasicinfo.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDirIterator>
#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QLoggingCategory>

#include <cstdio>

using namespace Vindal;

namespace {

const QString Suffix = QStringLiteral(".patch");

QStringList filesUnder(const QString &root)
{
    QStringList files;
    const QDir dir(root);
    QDirIterator it(dir.absolutePath(), QDir::Files | QDir::Hidden | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << dir.relativeFilePath(it.next());
    files.sort();
    return files;
}

bool sameContent(const QString &a, const QString &b)
{
    QFile fa(a), fb(b);
    if (!fa.open(QIODevice::ReadOnly) || !fb.open(QIODevice::ReadOnly) || fa.size() != fb.size())
        return false;
    while (!fa.atEnd())
        if (fa.read(1 << 20) != fb.read(1 << 20))
            return false;
    return true;
}

bool copyWhole(const QString &from, const QString &to)
{
    QFile::remove(to);
    return QDir().mkpath(QFileInfo(to).path()) && QFile::copy(from, to);
}

QVariantMap waitFinished(Reply *reply)
{
    QEventLoop loop;
    QObject::connect(reply, &Reply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished())
        loop.exec();
    const QVariantMap result = reply->result();
    delete reply;
    return result;
}

int update(const QStringList &args)
{
    QElapsedTimer timer;
    timer.start();
    Manager manager;
    const QVariantMap config{{QStringLiteral("repository"), args.at(2)},
                             {QStringLiteral("proxy"), QStringLiteral("none")},
                             {QStringLiteral("moduleInfo"), QVariantMap{{QStringLiteral("module"), args.at(3)}, {QStringLiteral("version"), args.at(4)}}},
                             {QStringLiteral("startDownload"), QVariantMap{{QStringLiteral("temporaryStoragePath"), args.at(6)}}}};
    waitFinished(manager.setConfigData(config));
    const QVariantMap downloaded = waitFinished(manager.downloadOfflineModule(args.at(5), VDBasicInfo())).value(QStringLiteral("result")).toMap();
    auto *unpack = new Reply;
    manager.loadOfflinePackage(unpack, downloaded.value(QStringLiteral("path")).toString(), args.at(5));
    const QVariantMap unpacked = waitFinished(unpack);
    if (unpacked.value(QStringLiteral("errorCode")).toInt() != 0) {
        std::fprintf(stderr, "%s\n", qPrintable(unpacked.value(QStringLiteral("errorMessage")).toString()));
        return 1;
    }
    const QVariantMap result = unpacked.value(QStringLiteral("result")).toMap();
    const QVariant delta = result.value(QStringLiteral("delta"));
    std::printf("%.3f %lld %lld %s\n", timer.nsecsElapsed() / 1e9, peakMemoryKiB(), result.value(QStringLiteral("bytesTotal")).toLongLong(),
                !delta.isValid() ? "full" : delta.toMap().value(QStringLiteral("applied")).toBool() ? "delta" : "fell-back");
    return 0;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    // The library logs every step; that is not what is measured.
    QLoggingCategory::setFilterRules(QStringLiteral("corbeth.lib=false"));
    if (args.value(1) == QLatin1String("update") && args.size() == 7)
        return update(args);
    if (args.size() < 5 || (args.at(1) != QLatin1String("make") && args.at(1) != QLatin1String("apply"))) {
        std::fprintf(stderr, "usage: corbeth-bench-delta make OLD NEW PATCHES [smallest|zstd|suffix]\n"
                             "       corbeth-bench-delta apply OLD PATCHES OUT\n"
                             "       corbeth-bench-delta update REPOSITORY MODULE VERSION INSTALL STORE\n");
        return 2;
    }
    const QString method = args.value(5, QStringLiteral("smallest"));
    const BinaryPatch::Codec codec = method == QLatin1String("zstd") ? BinaryPatch::ZstdPrefix
        : method == QLatin1String("suffix")                        ? BinaryPatch::Suffix
                                                                   : BinaryPatch::Smallest;
    const QDir first(args.at(2)), second(args.at(3)), third(args.at(4));
    QElapsedTimer timer;
    timer.start();
    int patched = 0, whole = 0;
    qint64 bytes = 0;
    for (const QString &name : filesUnder(second.path())) {
        QString error;
        if (args.at(1) == QLatin1String("make")) {
            const QString oldFile = first.filePath(name), newFile = second.filePath(name);
            if (QFileInfo::exists(oldFile) && sameContent(oldFile, newFile))
                continue;
            const qint64 oldSize = QFileInfo(oldFile).size(), newSize = QFileInfo(newFile).size();
            if (!QFileInfo::exists(oldFile) || qMax(oldSize, newSize) > BinaryPatch::maxDiffSize()) {
                if (!copyWhole(newFile, third.filePath(name)))
                    return 1;
                ++whole;
                bytes += newSize;
                continue;
            }
            QFile patch(third.filePath(name + Suffix));
            if (!QDir().mkpath(QFileInfo(patch).path()) || !patch.open(QIODevice::WriteOnly)
                || !BinaryPatch::make(oldFile, newFile, &patch, &error, codec)) {
                std::fprintf(stderr, "%s: %s\n", qPrintable(name), qPrintable(error));
                return 1;
            }
            ++patched;
            bytes += patch.size();
            std::fprintf(stderr, "%10lld -> %9lld  %5.1f%%  %s\n", newSize, patch.size(),
                         newSize ? 100.0 * patch.size() / newSize : 0.0, qPrintable(name));
        } else if (name.endsWith(Suffix)) {
            const QString target = name.chopped(Suffix.size());
            QFile patch(second.filePath(name)), out(third.filePath(target));
            if (!QDir().mkpath(QFileInfo(out).path()) || !patch.open(QIODevice::ReadOnly)
                || !out.open(QIODevice::WriteOnly) || !BinaryPatch::apply(first.filePath(target), &patch, &out, &error)) {
                std::fprintf(stderr, "%s: %s\n", qPrintable(name), qPrintable(error));
                return 1;
            }
            ++patched;
            bytes += patch.size();
        } else {
            if (!copyWhole(second.filePath(name), third.filePath(name)))
                return 1;
            ++whole;
            bytes += QFileInfo(second.filePath(name)).size();
        }
    }
    std::printf("%.3f %lld %d %d %lld\n", timer.nsecsElapsed() / 1e9, peakMemoryKiB(), patched, whole, bytes);
    return 0;
}
