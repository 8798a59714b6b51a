#include "settingsstore_p.h"

namespace Corbeth {

QString SettingsStore::rootFor(Hive)
{
    return QString();
}

QStringList SettingsStore::readRootsFor(Hive)
{
    return {QString()};
}

// The registry itself, on the path in its one spelling: the long hive name and
// backslashes, so "HKCU/SOFTWARE/X" reaches the same key as on Unix.
std::unique_ptr<QSettings> SettingsStore::openKnown(Hive hive, const QString &keyPath, const QString &)
{
    return std::make_unique<QSettings>(nativePath(hive, keyPath), QSettings::NativeFormat);
}

} // namespace Corbeth
