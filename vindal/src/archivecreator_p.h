#ifndef VINDAL_ARCHIVECREATOR_P_H
#define VINDAL_ARCHIVECREATOR_P_H

#include <vindal/package.h>

namespace Vindal {

// Packs a folder into a package file: entries sorted by path so the same tree
// always gives the same entry order, owners left out, the file written
// through a temporary file and renamed into place.
class ArchiveCreator
{
public:
    ArchiveCreator(const QString &folder, const QString &packageFile, Package::Format format);

    // Progress counts the bytes of the source files.
    Outcome run(const ProgressCallback &progress);

private:
    QString m_folder;
    QString m_package;
    Package::Format m_format;
};

} // namespace Vindal

#endif // VINDAL_ARCHIVECREATOR_P_H
