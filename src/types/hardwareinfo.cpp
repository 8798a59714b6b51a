#include <corbeth/hardwareinfo.h>

#include <utility>

namespace Corbeth {

HardwareInfo::HardwareInfo() = default;
HardwareInfo::HardwareInfo(const HardwareInfo &other) = default;
HardwareInfo::~HardwareInfo() = default;

HardwareInfo::HardwareInfo(HardwareInfo &&other) noexcept
    : cpuInfos(std::move(other.cpuInfos))
    , gpuInfos(std::move(other.gpuInfos))
    , memInfos(std::move(other.memInfos))
    , virtMemInfo(other.virtMemInfo)
{
    // A moved-from record keeps its texts but no longer owns the lists.
    other.cpuInfos.clear();
    other.gpuInfos.clear();
    other.memInfos.clear();
}

HardwareInfo &HardwareInfo::operator=(const HardwareInfo &other)
{
    // Lists are implicitly shared: assigning one already shared would only
    // touch the reference count, so it is skipped.
    if (!cpuInfos.isSharedWith(other.cpuInfos))
        cpuInfos = other.cpuInfos;
    if (!gpuInfos.isSharedWith(other.gpuInfos))
        gpuInfos = other.gpuInfos;
    if (!memInfos.isSharedWith(other.memInfos))
        memInfos = other.memInfos;
    virtMemInfo = other.virtMemInfo;
    return *this;
}

HardwareInfo &HardwareInfo::operator=(HardwareInfo &&other) noexcept
{
    if (this == &other)
        return *this;
    cpuInfos = std::move(other.cpuInfos);
    gpuInfos = std::move(other.gpuInfos);
    memInfos = std::move(other.memInfos);
    other.cpuInfos.clear();
    other.gpuInfos.clear();
    other.memInfos.clear();
    virtMemInfo = other.virtMemInfo;
    return *this;
}

} // namespace Corbeth
