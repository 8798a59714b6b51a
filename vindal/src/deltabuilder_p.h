#ifndef VINDAL_DELTABUILDER_P_H
#define VINDAL_DELTABUILDER_P_H

#include <vindal/outcome.h>

#include <QtCore/QString>

namespace Vindal {

// Makes the delta package that turns an install of one package into an
// install of the next: both are unpacked into a scratch folder beside the
// output, compared path by path, and each changed file is diffed
// (BinaryPatch) or, when that does not pay or the file is too large to
// diff, carried whole.
class DeltaBuilder
{
public:
    struct Version
    {
        QString package; // the package file
        QString version;
    };

    // Refuses (ConfigError) a pair where a path turns from a file into a
    // folder or back: such a change goes with the full package.
    static Outcome make(const QString &module, const Version &from, const Version &to, const QString &output);
};

} // namespace Vindal

#endif // VINDAL_DELTABUILDER_P_H
