#include "settingsstore_p.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QStandardPaths>

namespace Corbeth {

namespace {
QString machineRoot()
{
    // Tests put the machine-wide store into a folder of their own.
    const QString overridden = qEnvironmentVariable("CORBETH_SETTINGS_MACHINE_ROOT");
    return overridden.isEmpty() ? QStringLiteral("/var/lib/corbeth/registry") : overridden;
}

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
    const QString root = machineRoot();
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
        return machineRoot();
    return userRoot();
}

// The machine-wide store is read whenever it is readable, whoever may write
// it, so a normal user sees what root wrote; the user's own machine hive (the
// redirected writes of an unprivileged install) is read after it.
QStringList SettingsStore::readRootsFor(Hive hive)
{
    const QString write = rootFor(hive);
    if (hive != LocalMachine || !qEnvironmentVariable("CORBETH_SETTINGS_ROOT").isEmpty())
        return {write};
    QStringList roots;
    const QFileInfo machineHive(QDir(machineRoot()).filePath(hiveName(hive) + QLatin1String(".ini")));
    if (machineHive.isFile() && machineHive.isReadable())
        roots << machineRoot();
    if (!roots.contains(write))
        roots << write;
    return roots;
}

std::unique_ptr<QSettings> SettingsStore::openKnown(Hive hive, const QString &keyPath, const QString &root)
{
    const QString file = QDir(root).filePath(hiveName(hive) + QLatin1String(".ini"));
    auto settings = std::make_unique<QSettings>(file, QSettings::IniFormat);
    if (!keyPath.isEmpty())
        settings->beginGroup(keyPath);
    return settings;
}

} // namespace Corbeth
