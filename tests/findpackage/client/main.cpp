#include <corbeth/cbenum.h>
#include <corbeth/hardwareinfo.h>

#include <QtCore/QMetaEnum>

#include <cstdio>

int main()
{
    const QMetaEnum codes = QMetaEnum::fromType<Corbeth::CBEnum::ErrorCode>();
    Corbeth::HardwareInfo info;
    info.cpuInfos.append(Corbeth::CPUInfo{});
    Corbeth::HardwareInfo copy(info);
    std::printf("%s %d\n", codes.valueToKey(Corbeth::CBEnum::EC_VerifyFailed), int(copy.cpuInfos.size()));
    return 0;
}
