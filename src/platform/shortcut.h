#ifndef CORBETH_SHORTCUT_H
#define CORBETH_SHORTCUT_H

#include <QtCore/QString>

namespace Corbeth {

// A shortcut to an installed program, as the platform has them. The
// configuration names shortcuts as Windows does ("${desktop}/Product.lnk").
//
// Windows: the file named, made with QFile::link. Linux: a name ending in
// ".lnk" becomes a freedesktop launcher "Product.desktop" beside it (Name from
// the file's name, Exec and Path from the target, Icon when one is given),
// which desktops and application menus show with its name and icon and which
// starts the program from its own folder; any other name stays a symbolic link.
class Shortcut
{
public:
    // The file that stands for the shortcut named dest on this platform.
    static QString fileFor(const QString &dest);
    // Creates it for target, replacing what is there; false when it cannot be written.
    static bool create(const QString &target, const QString &dest, const QString &icon);
};

} // namespace Corbeth

#endif // CORBETH_SHORTCUT_H
