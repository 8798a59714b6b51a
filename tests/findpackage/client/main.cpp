// A client of the installed package: the public header, the exported
// facade and its types, nothing else.
#include <corbeth/manager.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QMetaEnum>

#include <cstdio>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    Corbeth::Manager manager;
    const QMetaEnum codes = QMetaEnum::fromType<Corbeth::CBEnum::ErrorCode>();
    // No remote section configured: the facade answers with its code.
    manager.setConfigData({{QStringLiteral("install"), QVariantMap()}});
    const Corbeth::CBEnum::ErrorCode code = manager.initRemote();
    Corbeth::HardwareInfo info;
    info.cpuInfos.append(Corbeth::CPUInfo{});
    std::printf("%s %s %d %u\n", codes.valueToKey(Corbeth::CBEnum::EC_VerifyFailed), codes.valueToKey(code),
                int(info.cpuInfos.size()), manager.taskStatus());
    return 0;
}
