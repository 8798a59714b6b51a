// Makes and applies the binary patches of a delta update file by file, for
// bench/delta.sh.
//
//   corbeth-bench-delta make OLD NEW PATCHES [smallest|zstd|suffix]
//       for each file of the tree NEW that the tree OLD holds with other
//       content, PATCHES/<path>.patch; a file OLD lacks, or one too large to
//       diff, is copied whole into PATCHES/<path>; unchanged files are left out
//   corbeth-bench-delta apply OLD PATCHES OUT
//       OUT/<path> from each patch and whole file of PATCHES
//
// Prints per-file lines on standard error and, on standard output,
// "<seconds> <peak resident KiB> <files patched> <files whole> <patch bytes>".
#include "binarypatch_p.h"
#include "peakmemory.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDirIterator>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

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

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 5 || (args.at(1) != QLatin1String("make") && args.at(1) != QLatin1String("apply"))) {
        std::fprintf(stderr, "usage: corbeth-bench-delta make OLD NEW PATCHES [smallest|zstd|suffix]\n"
                             "       corbeth-bench-delta apply OLD PATCHES OUT\n");
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
