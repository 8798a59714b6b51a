#include "platform/shortcut.h"

#include "logging_p.h"
#include "platform/shelllink_win.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

namespace Corbeth {

QString Shortcut::fileFor(const QString &dest)
{
    return dest;
}

bool Shortcut::create(const QString &target, const QString &dest, const QString &icon)
{
    if (!QFile::link(target, dest))
        return false;
    // A bare name is an icon theme's, which Windows does not have: the .lnk
    // then shows its target's own icon.
    if (!QFileInfo(icon).isAbsolute())
        return true;
    ShellLink link(dest, STGM_READWRITE);
    if (link.setIcon(icon))
        return true;
    qCWarning(lcCorbeth) << "link icon fail" << dest << icon << Qt::hex << quint32(link.result());
    return false;
}

} // namespace Corbeth
