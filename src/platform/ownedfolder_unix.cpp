#include "platform/ownedfolder.h"

#include <QtCore/QFile>

#include <sys/stat.h>
#include <unistd.h>

namespace Corbeth {

OwnedFolder::Kind OwnedFolder::kindOf(const QString &path)
{
    struct stat status;
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return Missing;
    if (S_ISLNK(status.st_mode))
        return Link;
    return S_ISDIR(status.st_mode) && status.st_uid == ::geteuid() ? Own : Foreign;
}

} // namespace Corbeth
