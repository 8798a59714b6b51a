#ifndef CORBETH_SYSTEMINFO_H
#define CORBETH_SYSTEMINFO_H

#include <corbeth/hardwareinfo.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QVariantMap>

namespace Corbeth {

// Fills the hardware inventory: processors, video controllers, memory modules
// and the page file. Every query yields the property blocks of one CIM class
// (Win32_Processor, Win32_VideoController, Win32_PhysicalMemory,
// Win32_PageFileUsage), one map per instance; on Windows they come from
// PowerShell's CIM cmdlets, on Linux from /proc and /sys in the same shape, so
// one set of readers turns them into records. No failure stops the inventory:
// a failed query gives an empty list or a default record, a missing property
// is logged and leaves its field at the default. The calls block (up to the
// process runner's start wait plus 3 s each for PowerShell); run them on a
// pool thread.
class SystemInfo
{
public:
    enum class Source {
        System,     // the platform's own: PowerShell on Windows, /proc and /sys elsewhere
        PowerShell, // "powershell.exe" found on PATH, on any platform
    };

    explicit SystemInfo(Source source = Source::System);

    QList<CPUInfo> getCPUInfo();
    QList<GPUInfo> getGPUInfo();
    QList<MemInfo> getMemInfo();
    VirtualMemInfo getVirtMemInfo();
    // The four above, in this order.
    HardwareInfo getHardwareInfo();

    // Parses PowerShell's Format-List output: blocks separated by an empty
    // line, lines "Key   : value". False (and logged) for an empty output.
    static bool listOutputToMaps(const QByteArray &output, QList<QVariantMap> &maps);

    enum Query { ProcessorQuery, VideoControllerQuery, PhysicalMemoryQuery, PageFileQuery };

private:
    // The blocks of one query; none (and caller's failure logged) when the
    // query fails or finds nothing.
    QList<QVariantMap> blocksOf(Query query, const char *caller) const;
    static bool powerShellQuery(Query query, QList<QVariantMap> &blocks);
    // The platform's own source.
    static bool systemQuery(Query query, QList<QVariantMap> &blocks);

    Source m_source;
};

} // namespace Corbeth

#endif // CORBETH_SYSTEMINFO_H
