// A package unpacked into a temporary folder. Whatever the archive holds,
// nothing may appear outside the target folder and no link in it may point
// out of it.
#include "fuzzsupport.h"

#include <vindal/package.h>

#include <QtCore/QDir>
#include <QtCore/QDirIterator>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QTemporaryDir>

using namespace Vindal;

namespace {

bool inside(const QString &path, const QString &root)
{
    return path == root || path.startsWith(root + QLatin1Char('/'));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    QTemporaryDir scratch;
    if (!scratch.isValid())
        fuzzFailure("no temporary folder");
    const QString base = QFileInfo(scratch.path()).canonicalFilePath();
    const QString package = base + QLatin1String("/input.tolmpkg");
    const QString root = base + QLatin1String("/target");
    QFile file(package);
    if (!file.open(QIODevice::WriteOnly) || file.write(fuzzInput(data, size)) != qint64(size))
        fuzzFailure("cannot write the package");
    file.close();

    // Small caps keep each run quick; that they hold is checked too.
    ExtractLimits limits;
    limits.maxTotalBytes = 4 * 1024 * 1024;
    limits.maxEntries = 1000;
    Package::extract(package, root, ProgressCallback(), limits);

    qint64 bytes = 0;
    QDirIterator it(base, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo entry(it.next());
        const QString path = entry.absoluteFilePath();
        if (path == package)
            continue;
        if (!inside(path, root))
            fuzzFailure("an entry written outside the target folder");
        // symLinkTarget() is the absolute, cleaned path the link names.
        if (entry.isSymLink() && !inside(entry.symLinkTarget(), root))
            fuzzFailure("a link pointing out of the target folder");
        if (entry.isFile() && !entry.isSymLink())
            bytes += entry.size();
    }
    if (bytes > limits.maxTotalBytes)
        fuzzFailure("more bytes unpacked than the limit allows");
    return 0;
}
