#include "platform/driverprobe.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

namespace Corbeth {

QString DriverProbe::platformKey()
{
    return QStringLiteral("linux");
}

QStringList DriverProbe::defaultIdentification(CBEnum::DriverType type)
{
    switch (type) {
    case CBEnum::DT_Turntable: // turntables are driven over a USB serial line
        return {QStringLiteral("/dev/ttyUSB*"), QStringLiteral("/dev/ttyACM*")};
    case CBEnum::DT_3DCamera:
        return {QStringLiteral("/dev/video*")};
    default:
        return {};
    }
}

bool DriverProbe::isPresent(const QStringList &identifications)
{
    if (!m_listed) {
        QFile modules(QStringLiteral("/proc/modules"));
        if (modules.open(QIODevice::ReadOnly))
            m_listing = QString::fromLatin1(modules.readAll()).replace(QLatin1Char('-'), QLatin1Char('_'));
        m_listed = true;
    }
    for (const QString &id : identifications) {
        if (id.startsWith(QLatin1Char('/'))) {
            const QFileInfo info(id);
            if (!QDir(info.absolutePath()).entryList({info.fileName()}, QDir::System | QDir::AllEntries).isEmpty())
                return true;
            continue;
        }
        // Each line of /proc/modules begins with the module's name and a blank.
        const QString module = QString(id).replace(QLatin1Char('-'), QLatin1Char('_'));
        const QString line = QLatin1Char('\n') + m_listing;
        if (!module.isEmpty() && line.contains(QLatin1Char('\n') + module + QLatin1Char(' ')))
            return true;
    }
    return false;
}

} // namespace Corbeth
