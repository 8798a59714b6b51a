#ifndef CORBETH_LINUXHARDWARE_P_H
#define CORBETH_LINUXHARDWARE_P_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QVariantMap>

#include <functional>

namespace Corbeth {

// Turns what Linux shows in /proc and /sys into the property blocks that
// Windows' CIM classes give (see SystemInfo), with the same keys and units
// where Linux has them: clock speeds in MHz, capacities in bytes, page-file
// sizes in MiB. Values are texts, as PowerShell prints them.
class LinuxHardware
{
public:
    // One Win32_Processor-like block per physical package of /proc/cpuinfo.
    // maxFrequencyKHz gives cpufreq's maximum for a logical processor number,
    // or 0; the current "cpu MHz" stands in when it is 0.
    static QList<QVariantMap> processorBlocks(const QByteArray &cpuinfo,
                                              const std::function<qint64(int)> &maxFrequencyKHz);
    // One Win32_PhysicalMemory-like block per populated memory device
    // (structure type 17) of a raw SMBIOS table, as in
    // /sys/firmware/dmi/tables/DMI.
    static QList<QVariantMap> memoryBlocksFromSmbios(const QByteArray &table);
    // One Win32_PageFileUsage-like block per swap area of /proc/swaps.
    static QList<QVariantMap> swapBlocks(const QByteArray &swaps);
};

} // namespace Corbeth

#endif // CORBETH_LINUXHARDWARE_P_H
