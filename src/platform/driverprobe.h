#ifndef CORBETH_DRIVERPROBE_H
#define CORBETH_DRIVERPROBE_H

#include <corbeth/cbenum.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace Corbeth {

// Tells whether a driver is present on this machine by the identifications a
// product gives for it. On Windows an identification is text looked for
// (without regard to case) in the list of installed driver packages that
// "pnputil /enum-drivers" prints. Elsewhere it is a kernel module name, as
// listed in /proc/modules ("-" and "_" count as equal), or, when it starts with
// "/", a device file, which may end in "*" ("/dev/ttyUSB*").
class DriverProbe
{
public:
    // The key under which the configuration's "driverIdentification" entries
    // for this system are found ("windows" or "linux").
    static QString platformKey();
    // The identifications used when the configuration gives none for type.
    static QStringList defaultIdentification(CBEnum::DriverType type);

    // Whether any one of identifications is present.
    bool isPresent(const QStringList &identifications);

private:
    // What the system lists, read once per probe.
    QString m_listing;
    bool m_listed = false;
};

} // namespace Corbeth

#endif // CORBETH_DRIVERPROBE_H
