#include "config/installinfo.h"

#include <QtCore/QDebug>

namespace Corbeth {

bool operator==(const LinkInfo &a, const LinkInfo &b)
{
    return a.src == b.src && a.dest == b.dest && a.icon == b.icon;
}

bool operator==(const ProcessHelper &a, const ProcessHelper &b)
{
    return a.level == b.level && a.program == b.program && a.args == b.args && a.extraProcess == b.extraProcess
        && a.waitTime == b.waitTime && a.runingTimeout == b.runingTimeout;
}

bool operator==(const CoverFileInfo &a, const CoverFileInfo &b)
{
    return a.pair == b.pair && a.level == b.level;
}

QDebug operator<<(QDebug debug, const InstallInfo &info)
{
    const QDebugStateSaver saver(debug);
    debug.nospace();
    const char *const nl = "\n    ";
    debug << "----InstallInfo show begin----";
    debug << nl << "links:";
    for (const LinkInfo &link : info.links)
        debug << nl << "  src: " << link.src << " dest: " << link.dest;
    debug << nl << "settings:";
    for (const SettingInfo &setting : info.settings)
        debug << nl << "  path: " << setting.path << " key: " << setting.key;
    debug << nl << "process:";
    for (const ProcessHelper &process : info.process)
        debug << nl << "  arg: " << process.args << " program: " << process.program
              << " waitTime: " << process.waitTime;
    debug << nl << "coverFiles:";
    for (const CoverFileInfo &cover : info.coverFiles)
        debug << nl << "  pair: " << cover.pair << " level: " << cover.level;
    debug << nl << "removeFiles: " << info.removeFiles;
    debug << nl << "removeSettings: " << info.removeSettings;
    const OlderSoftwareInfo &older = info.olderSoftwareInfo;
    debug << nl << "olderSoftwareInfo: " << older.settingPath << " " << older.key << " " << older.olderInstallPath;
    debug << nl << "  olderSoftwareInfo remove settings " << older.removeSettings;
    debug << nl << "  olderSoftwareInfo remove files " << older.removeFiles;
    debug << nl << "whiteList: " << info.whiteList;
    debug << nl << "forceinstall: " << info.forceInstall;
    debug << nl << "----InstallInfo show end----";
    return debug;
}

} // namespace Corbeth
