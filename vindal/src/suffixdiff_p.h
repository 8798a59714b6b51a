#ifndef VINDAL_SUFFIXDIFF_P_H
#define VINDAL_SUFFIXDIFF_P_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <functional>

class QFile;
class QIODevice;

namespace Vindal {

// The codec of binary patches for files whose pieces move and change a
// little, as compiled code does from one release to the next: every
// address in it shifts a bit. The new file is described as runs copied from
// the old one with a bytewise difference (mostly zeros, which compress to
// almost nothing) and runs of bytes of its own; the runs are found with a
// suffix array of the old file.
//
// Applying streams: it reads the old file where each run starts and holds a
// chunk of the patch at a time, whatever the files' sizes.
class SuffixDiff
{
public:
    // Writes to body what turns oldData into newData; false, with error
    // set, when compressing fails.
    static bool make(const QByteArray &oldData, const QByteArray &newData, QByteArray *body, QString *error);
    // Reads a body from patch and hands the new file's bytes, in order, to
    // write (which returns false to stop). False when the body is damaged
    // or reaches outside oldFile, or write stopped. The caller checks the
    // length and digest of what was written.
    static bool apply(QFile *oldFile, QIODevice *patch, qint64 newSize,
                      const std::function<bool(const char *, qint64)> &write);
};

} // namespace Vindal

#endif // VINDAL_SUFFIXDIFF_P_H
