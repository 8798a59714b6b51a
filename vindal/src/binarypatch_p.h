#ifndef VINDAL_BINARYPATCH_P_H
#define VINDAL_BINARYPATCH_P_H

#include <QtCore/QString>

class QIODevice;

namespace Vindal {

// A compressed binary patch that turns one file into the next version of it.
// Making and applying stream through bounded memory whatever the files' sizes;
// a file larger than maxDiffSize() is not diffed and travels whole instead.
class BinaryPatch
{
public:
    // Writes to patch what turns oldFile into newFile. False, with error set,
    // when either cannot be read or is larger than maxDiffSize().
    static bool make(const QString &oldFile, const QString &newFile, QIODevice *patch,
                     QString *error);
    // Writes to out the file that patch makes of oldFile. False, with error
    // set, when the patch is damaged or does not fit oldFile, or out fails.
    static bool apply(const QString &oldFile, QIODevice *patch, QIODevice *out, QString *error);
    static qint64 maxDiffSize();
};

} // namespace Vindal

#endif // VINDAL_BINARYPATCH_P_H
