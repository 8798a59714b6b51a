#ifndef VINDAL_BINARYPATCH_P_H
#define VINDAL_BINARYPATCH_P_H

#include <QtCore/QString>

class QIODevice;

namespace Vindal {

// A compressed binary patch that turns one file into the next version of it.
// Applying streams through bounded memory whatever the files' sizes (see
// docs/repository.md, "Binary patches"); making holds both files and more,
// so a file larger than maxDiffSize() is not diffed and travels whole instead.
class BinaryPatch
{
public:
    // The codecs, as a patch names them: the old file as a prefix that zstd
    // compresses the new one against (held whole when applying, so only for
    // files up to maxZstdSize() together), or runs found with a suffix array
    // (SuffixDiff). Smallest makes each that fits and keeps the smaller patch.
    enum Codec : quint8 { Smallest = 0, ZstdPrefix = 1, Suffix = 2 };

    // Writes to patch what turns oldFile into newFile. False, with error set,
    // when either cannot be read or is larger than maxDiffSize().
    static bool make(const QString &oldFile, const QString &newFile, QIODevice *patch,
                     QString *error, Codec codec = Smallest);
    // Writes to out the file that patch makes of oldFile. False, with error
    // set, when the patch is damaged or does not fit oldFile, or out fails.
    // The result is checked against the SHA-256 the patch names, which goes
    // to *sha256 (lower-case hex), so the caller need not hash it again.
    static bool apply(const QString &oldFile, QIODevice *patch, QIODevice *out, QString *error,
                      QString *sha256 = nullptr);
    static qint64 maxDiffSize();
    static qint64 maxZstdSize();

    // Reads up to size bytes, fewer only at the end: a sequential device
    // may hand them over in pieces. -1 on a read error.
    static qint64 readFull(QIODevice *device, char *data, qint64 size);
};

} // namespace Vindal

#endif // VINDAL_BINARYPATCH_P_H
