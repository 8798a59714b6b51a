#include "installer/downloadcache.h"

#include "logging_p.h"
#include "platform/ownedfolder.h"
#include "platform/protectedpath.h"
#include "platform/treeremover.h"

#include <QtCore/QDir>
#include <QtCore/QFile>

namespace Corbeth {

QString DownloadCache::folderOf(const QString &installPath)
{
    return installPath + QLatin1String("/arvenorDownloadCache");
}

bool DownloadCache::prepare(const QString &installPath)
{
    const QString folder = folderOf(installPath);
    const OwnedFolder::Kind kind = OwnedFolder::kindOf(folder);
    if (kind == OwnedFolder::Own)
        return true;
    if (kind == OwnedFolder::Link && !removeLink(folder))
        return false;
    // Made afresh, then checked again: a link planted meanwhile refuses it.
    if (kind != OwnedFolder::Foreign && QDir().mkpath(folder) && OwnedFolder::kindOf(folder) == OwnedFolder::Own)
        return true;
    qCCritical(lcCorbeth) << "download cache refused: not a folder of this user" << folder;
    return false;
}

void DownloadCache::clean(const QString &installPath, const QString &keep)
{
    const QString folder = folderOf(installPath);
    if (!removable(folder))
        return;
    const QFileInfoList files = QDir(folder).entryInfoList(QDir::Files | QDir::Hidden | QDir::System);
    for (const QFileInfo &file : files) {
        if (file.fileName().startsWith(keep))
            continue;
        qCDebug(lcCorbeth) << "remove file" << file.absoluteFilePath();
        QFile::remove(file.absoluteFilePath());
    }
}

bool DownloadCache::remove(const QString &installPath)
{
    const QString folder = folderOf(installPath);
    switch (OwnedFolder::kindOf(folder)) {
    case OwnedFolder::Missing:
        return true;
    case OwnedFolder::Link:
        return removeLink(folder);
    default:
        // Walked through open folders: one swapped for a link meanwhile is not followed.
        return removable(folder)
            && TreeRemover::remove(std::filesystem::u8path(folder.toStdString()),
                                   [](const std::filesystem::path &) { return TreeRemover::Entry::Remove; })
            == TreeRemover::Status::Done;
    }
}

bool DownloadCache::removeLink(const QString &folder)
{
    qCWarning(lcCorbeth) << "download cache is a link, removed as a link" << folder;
    // A link to a folder is a folder of its own to Windows.
    return QFile::remove(folder) || QDir().rmdir(folder);
}

bool DownloadCache::removable(const QString &folder)
{
    if (OwnedFolder::kindOf(folder) == OwnedFolder::Own && !ProtectedPath::isProtected(std::filesystem::u8path(folder.toStdString())))
        return true;
    qCWarning(lcCorbeth) << "download cache not removed: not a folder of this user, or protected" << folder;
    return false;
}

} // namespace Corbeth
