#include "settingsstore_p.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QStandardPaths>

namespace Corbeth {

namespace {
const char s_machineRoot[] = "/var/lib/corbeth/registry";

QString userRoot()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
        + QLatin1String("/corbeth/registry");
}

// The machine-wide folder is used when this process may write it (or create
// it); otherwise the machine hive lives beside the user's hives, much as
// Windows redirects an unelevated program's machine-wide writes.
bool machineRootUsable()
{
    const QString root = QLatin1String(s_machineRoot);
    QFileInfo info(root);
    if (info.isDir())
        return info.isWritable();
    QFileInfo parent(QFileInfo(root).absolutePath());
    while (!parent.exists() && !parent.isRoot())
        parent.setFile(parent.absolutePath());
    return parent.isDir() && parent.isWritable();
}
} // namespace

QString SettingsStore::rootFor(Hive hive)
{
    const QString overridden = qEnvironmentVariable("CORBETH_SETTINGS_ROOT");
    if (!overridden.isEmpty())
        return overridden;
    if (hive == LocalMachine && machineRootUsable())
        return QLatin1String(s_machineRoot);
    return userRoot();
}

std::unique_ptr<QSettings> SettingsStore::openKnown(Hive hive, const QString &, const QString &keyPath)
{
    const QString file = QDir(rootFor(hive)).filePath(hiveName(hive) + QLatin1String(".ini"));
    auto settings = std::make_unique<QSettings>(file, QSettings::IniFormat);
    if (!keyPath.isEmpty())
        settings->beginGroup(keyPath);
    return settings;
}

} // namespace Corbeth
