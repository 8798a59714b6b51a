#ifndef CORBETH_OWNEDFOLDER_H
#define CORBETH_OWNEDFOLDER_H

#include <QtCore/QString>

namespace Corbeth {

// What stands at a path the engine wants as a folder of its own, found
// without following a link: the path's parent may be writable by others.
class OwnedFolder
{
public:
    enum Kind {
        Missing,
        Own,     // a folder whose owner is the owner of what this process creates
        Link,    // a symbolic link, or on Windows any reparse point (a junction)
        Foreign, // a file, or a folder of another user
    };
    static Kind kindOf(const QString &path);
};

} // namespace Corbeth

#endif // CORBETH_OWNEDFOLDER_H
