#include "platform/driverprobe.h"

#include "platform/skglobal.h"

namespace Corbeth {

QString DriverProbe::platformKey()
{
    return QStringLiteral("windows");
}

QStringList DriverProbe::defaultIdentification(CBEnum::DriverType type)
{
    switch (type) {
    case CBEnum::DT_Vimba:
        return {QStringLiteral("Allied Vision")};
    case CBEnum::DT_Turntable:
        return {QStringLiteral("CH341"), QStringLiteral("FTDI"), QStringLiteral("Silicon Labs")};
    case CBEnum::DT_3DCamera:
        return {QStringLiteral("RealSense"), QStringLiteral("Orbbec")};
    default:
        return {};
    }
}

bool DriverProbe::isPresent(const QStringList &identifications)
{
    if (!m_listed) {
        QByteArray output;
        SKGlobal::instance()->runProcess(QStringLiteral("pnputil"), 60, {QStringLiteral("/enum-drivers")}, 0, output);
        m_listing = QString::fromLocal8Bit(output);
        m_listed = true;
    }
    for (const QString &id : identifications) {
        if (!id.isEmpty() && m_listing.contains(id, Qt::CaseInsensitive))
            return true;
    }
    return false;
}

} // namespace Corbeth
