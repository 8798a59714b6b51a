#include "platform/shortcut.h"

#include <QtCore/QFile>

namespace Corbeth {

QString Shortcut::fileFor(const QString &dest)
{
    return dest;
}

bool Shortcut::create(const QString &target, const QString &dest, const QString &icon)
{
    Q_UNUSED(icon) // a .lnk shows its target's own icon
    return QFile::link(target, dest);
}

} // namespace Corbeth
