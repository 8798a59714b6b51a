#include "systeminfo.h"

#include "logging_p.h"
#include "skglobal.h"

#include <QtCore/QRegularExpression>

namespace Corbeth {

namespace {
const char *const s_commands[] = {
    "Get-CimInstance -ClassName Win32_Processor | Format-List Name,NumberOfCores,maxclockspeed",
    "Get-CimInstance -ClassName Win32_VideoController | Format-List Name, AdapterRAM, DriverVersion",
    "Get-CimInstance -ClassName Win32_PhysicalMemory | Format-List Capacity, Speed",
    "Get-CimInstance -ClassName Win32_PageFileUsage | Format-List *",
};

// Reads one property of a block; a missing property logs failure and leaves
// the field at its default.
class BlockReader
{
public:
    explicit BlockReader(const QVariantMap &block)
        : m_block(block)
    {
    }

    void text(const char *key, QString &field, const char *failure) const
    {
        const auto it = m_block.constFind(QLatin1String(key));
        if (it == m_block.cend())
            qCCritical(lcCorbeth) << failure;
        else
            field = it->toString();
    }

    template <typename T, typename Convert>
    void number(const char *key, T &field, const char *failure, Convert convert) const
    {
        bool ok = false;
        const auto value = convert(m_block.value(QLatin1String(key)), &ok);
        if (ok)
            field = static_cast<T>(value);
        else
            qCCritical(lcCorbeth) << failure;
    }

private:
    const QVariantMap &m_block;
};

auto toUInt = [](const QVariant &value, bool *ok) { return value.toUInt(ok); };
auto toLongLong = [](const QVariant &value, bool *ok) { return value.toLongLong(ok); };
} // namespace

SystemInfo::SystemInfo(Source source)
    : m_source(source)
{
}

bool SystemInfo::listOutputToMaps(const QByteArray &output, QList<QVariantMap> &maps)
{
    if (output.isEmpty()) {
        qCCritical(lcCorbeth) << "ret is empty wmic to list fail";
        return false;
    }
    const QString text = QString::fromLocal8Bit(output);
    const QString lineEnd = QStringLiteral("\r\n");
    const QRegularExpression blank(QStringLiteral("\\s"));
    for (const QString &block : text.split(lineEnd + lineEnd, Qt::SkipEmptyParts)) {
        QVariantMap map;
        for (const QString &line : block.split(lineEnd, Qt::SkipEmptyParts)) {
            const QStringList parts = line.split(QStringLiteral(": "));
            if (parts.size() != 2) {
                qCCritical(lcCorbeth) << "error key value" << line;
                continue;
            }
            const QString key = QString(parts.at(0)).remove(blank);
            qCDebug(lcCorbeth) << "keyyyy" << key;
            map.insert(key, parts.at(1).trimmed());
        }
        // The list format ends with several empty lines; they make no block.
        if (!map.isEmpty())
            maps.append(map);
    }
    return true;
}

QList<QVariantMap> SystemInfo::blocksOf(Query query, const char *caller) const
{
    QList<QVariantMap> blocks;
    const bool ok = m_source == Source::PowerShell ? powerShellQuery(query, blocks) : systemQuery(query, blocks);
    if (!ok || blocks.isEmpty()) {
        qCCritical(lcCorbeth) << caller << "to list fail";
        blocks.clear();
    }
    return blocks;
}

bool SystemInfo::powerShellQuery(Query query, QList<QVariantMap> &blocks)
{
    QByteArray output;
    // An overrun leaves the output empty, which the parser reports.
    SKGlobal::instance()->runProcess(QStringLiteral("powershell.exe"), 3,
                                     {QStringLiteral("-Command"), QLatin1String(s_commands[query])}, 0, output);
    return listOutputToMaps(output, blocks);
}

QList<CPUInfo> SystemInfo::getCPUInfo()
{
    QList<CPUInfo> result;
    const QList<QVariantMap> blocks = blocksOf(ProcessorQuery, Q_FUNC_INFO);
    for (const QVariantMap &block : blocks) {
        const BlockReader read(block);
        CPUInfo cpu;
        read.text("Name", cpu.name, "Get CPU name failed!");
        read.number("NumberOfCores", cpu.coreNum, "Get coreNum speed failed!", toUInt);
        read.number("maxclockspeed", cpu.maxClockSpeed, "Get CPU max clock speed failed!", toUInt);
        qCDebug(lcCorbeth) << "Get " << cpu.name << " core " << cpu.coreNum << " clockspeed " << cpu.maxClockSpeed;
        result.append(cpu);
    }
    return result;
}

QList<GPUInfo> SystemInfo::getGPUInfo()
{
    QList<GPUInfo> result;
    const QList<QVariantMap> blocks = blocksOf(VideoControllerQuery, Q_FUNC_INFO);
    for (const QVariantMap &block : blocks) {
        const BlockReader read(block);
        GPUInfo gpu;
        read.text("Name", gpu.name, "Get GPU name failed!");
        // Read as 32 bits, as the CIM property is; kept so on purpose.
        read.number("AdapterRAM", gpu.adapterRAM, "Get GPU RAM failed!", toUInt);
        read.text("DriverVersion", gpu.driverVersion, "Get GPU Driver failed!");
        gpu.driverDate = block.value(QStringLiteral("DriverDate")).toString();
        qCDebug(lcCorbeth) << "get gpu " << gpu.name << " RAM " << gpu.adapterRAM << " Driver " << gpu.driverVersion;
        result.append(gpu);
    }
    return result;
}

QList<MemInfo> SystemInfo::getMemInfo()
{
    QList<MemInfo> result;
    const QList<QVariantMap> blocks = blocksOf(PhysicalMemoryQuery, Q_FUNC_INFO);
    for (const QVariantMap &block : blocks) {
        const BlockReader read(block);
        MemInfo memory;
        read.number("Capacity", memory.capacity, "Get Mem cap failed!", toLongLong);
        read.number("Speed", memory.speed, "Get Mem Speed failed!", toLongLong);
        qCDebug(lcCorbeth) << "meminfo" << memory.capacity << memory.speed;
        result.append(memory);
    }
    return result;
}

VirtualMemInfo SystemInfo::getVirtMemInfo()
{
    VirtualMemInfo page;
    const QList<QVariantMap> blocks = blocksOf(PageFileQuery, Q_FUNC_INFO);
    if (blocks.isEmpty())
        return page;
    const BlockReader read(blocks.first());
    read.number("AllocatedBaseSize", page.allocSize, "Get Virtual Memory AllocatedBaseSize failed!", toUInt);
    read.number("CurrentUsage", page.currentUsage, "Get Virtual Memory CurrentUsage failed!", toUInt);
    read.text("Description", page.description, "Get Virtual Memory Description failed!");
    read.text("InstallDate", page.installDate, "Get Virtual Memory InstallDate failed!");
    read.text("Name", page.pageFileName, "Get Virtual Memory Name failed!");
    read.number("PeakUsage", page.peakUsage, "Get Virtual Memory PeakUsage failed!", toUInt);
    read.text("Status", page.status, "Get Virtual Memory Status failed!");
    QString temporary;
    read.text("TempPageFile", temporary, "Get Virtual Memory TempPageFile failed!");
    // Only the exact text "TRUE" counts.
    page.tempPageFile = temporary == QLatin1String("TRUE");
    qCDebug(lcCorbeth) << "get vmempage " << " allocSize " << page.allocSize << " currentUsage " << page.currentUsage
                       << " description " << page.description << " installDate " << page.installDate
                       << " pageFileName " << page.pageFileName << " peakUsage " << page.peakUsage << " status "
                       << page.status << " tempPageFile " << page.tempPageFile;
    return page;
}

HardwareInfo SystemInfo::getHardwareInfo()
{
    HardwareInfo info;
    info.cpuInfos = getCPUInfo();
    info.gpuInfos = getGPUInfo();
    info.memInfos = getMemInfo();
    info.virtMemInfo = getVirtMemInfo();
    return info;
}

} // namespace Corbeth
