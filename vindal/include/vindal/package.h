#ifndef VINDAL_PACKAGE_H
#define VINDAL_PACKAGE_H

#include <vindal/outcome.h>
#include <vindal/vindal_export.h>

#include <QtCore/QString>

#include <functional>

namespace Vindal {

// Progress of a long operation: amounts done and total in bytes. Returning
// false cancels the operation (it ends with Error::Cancelled).
using ProgressCallback = std::function<bool(qint64 done, qint64 total)>;

// Limits of safe unpacking. The defaults refuse decompression bombs: at most
// maxRatio times the archive's size is unpacked (and never more than
// maxTotalBytes), at most maxEntries entries (grown with the archive's size).
struct VINDAL_EXPORT ExtractLimits
{
    qint64 maxTotalBytes = Q_INT64_C(64) * 1024 * 1024 * 1024;
    qint64 maxRatio = 200;
    qint64 maxEntries = 1000000;
};

// Making, checking and unpacking package files (".tolmpkg"). All functions
// are synchronous, stream their files and may be called from any thread.
class VINDAL_EXPORT Package
{
public:
    enum Format {
        TarZstd = 0, // the default
        TarGzip = 1,
        Tar = 2,
        Zip = 3,
    };

    // Packs the folder's files, folders and symbolic links (relative targets
    // only) into packageFile, entries in a stable (sorted) order, replacing
    // packageFile atomically. Progress counts the bytes of the source files.
    static Outcome create(const QString &folder, const QString &packageFile, Format format = TarZstd,
                          const ProgressCallback &progress = ProgressCallback());

    // Writes "<packageFile>.verify" holding exactly the 32 lower-case hex
    // characters of the package's MD5, nothing else.
    static Outcome writeVerifyFile(const QString &packageFile);

    // Checks packageFile against its ".verify" companion; a missing companion
    // is an error here (Error::NotFound).
    static Outcome verify(const QString &packageFile);

    // Unpacks packageFile into targetFolder with every safety rule in force:
    // entries never leave the target (no absolute paths, "..", backslash
    // tricks or escaping links), no hard links, device files or setuid bits,
    // size and entry caps against bombs. Existing files are replaced
    // atomically. Progress counts the package file's bytes read against its
    // size, ending with (size, size). A delta package is applied to the
    // installed version in targetFolder instead (see docs/repository.md,
    // "Delta updates"), and an apply that was interrupted there is
    // completed first.
    static Outcome extract(const QString &packageFile, const QString &targetFolder,
                           const ProgressCallback &progress = ProgressCallback(),
                           const ExtractLimits &limits = ExtractLimits());

    // "zstd", "gzip", "tar", "zip"; formatFromName returns false for others.
    static QString formatName(Format format);
    static bool formatFromName(const QString &name, Format *format);

private:
    Package() = delete;
};

} // namespace Vindal

#endif // VINDAL_PACKAGE_H
