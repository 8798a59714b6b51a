#ifndef CORBETH_DOWNLOADCACHE_H
#define CORBETH_DOWNLOADCACHE_H

#include <QtCore/QString>

namespace Corbeth {

// The download cache "<install path>/arvenorDownloadCache". Others may be
// able to write the install path, so the cache is used, cleaned or removed
// only while it is a folder of the running user: a link in its place is
// removed as a link and never followed, a folder of another user is
// refused, and every removal also passes the protected-folder rule.
class DownloadCache
{
public:
    static QString folderOf(const QString &installPath);
    // Makes the cache folder ready for a download (a link in its place is
    // replaced by a fresh folder); false when it cannot be used.
    static bool prepare(const QString &installPath);
    // Removes the files in the cache whose names do not begin with keep.
    static void clean(const QString &installPath, const QString &keep);
    // Removes the cache folder with everything in it (links as links).
    static bool remove(const QString &installPath);

private:
    static bool removeLink(const QString &folder);
    static bool removable(const QString &folder);
};

} // namespace Corbeth

#endif // CORBETH_DOWNLOADCACHE_H
