#ifndef CORBETH_FILETRUST_H
#define CORBETH_FILETRUST_H

#include <QtCore/QString>

namespace Corbeth {

// Whether the engine may run code from a file or folder: only the running user
// and the administrator can change it. Plug-ins are loaded into the engine,
// which often runs as root or elevated, so a library another user can write
// (or put there) would run that user's code with the engine's rights.
//
// Linux: the path (links resolved) must be owned by the running user or root
// and not be writable by its group or others; so must each folder above it,
// where a shared folder with the sticky bit (/tmp) is allowed. Windows, when
// the engine runs elevated: the path's owner and every account its access list
// lets write or take it over must be the engine's own user, an administrator,
// SYSTEM or TrustedInstaller; an engine that is not elevated trusts what its
// user can change.
class FileTrust
{
public:
    // Empty when path can be trusted; otherwise why not, naming the path at fault.
    static QString whyUntrusted(const QString &path);
};

} // namespace Corbeth

#endif // CORBETH_FILETRUST_H
