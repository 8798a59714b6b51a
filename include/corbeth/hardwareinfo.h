#ifndef CORBETH_HARDWAREINFO_H
#define CORBETH_HARDWAREINFO_H

#include <corbeth/corbeth_export.h>

#include <QtCore/QList>
#include <QtCore/QMetaType>
#include <QtCore/QString>

namespace Corbeth {

// Numbers are stored in the units the system reports; nothing is converted.
struct CPUInfo
{
    QString name;
    qint32 maxClockSpeed = 0;
    qint32 coreNum = 0;
};

struct GPUInfo
{
    QString name;
    qint64 adapterRAM = 0;
    QString driverVersion;
    QString driverDate;
};

struct MemInfo
{
    qint64 capacity = 0;
    qint64 speed = 0;
};

struct VirtualMemInfo
{
    quint32 allocSize = 0;
    quint32 currentUsage = 0;
    QString description;
    QString installDate;
    QString pageFileName;
    quint32 peakUsage = 0;
    QString status;
    bool tempPageFile = false;
};

class CORBETH_EXPORT HardwareInfo
{
public:
    HardwareInfo();
    HardwareInfo(const HardwareInfo &other);
    HardwareInfo(HardwareInfo &&other) noexcept;
    HardwareInfo &operator=(const HardwareInfo &other);
    HardwareInfo &operator=(HardwareInfo &&other) noexcept;
    ~HardwareInfo();

    QList<CPUInfo> cpuInfos;
    QList<GPUInfo> gpuInfos;
    QList<MemInfo> memInfos;
    VirtualMemInfo virtMemInfo;
};

} // namespace Corbeth

Q_DECLARE_METATYPE(Corbeth::HardwareInfo)

#endif // CORBETH_HARDWAREINFO_H
