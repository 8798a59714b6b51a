#include "settingsstore_p.h"

namespace Corbeth {

QString SettingsStore::rootFor(Hive)
{
    return QString();
}

// The registry itself: QSettings' native format takes the path as written.
std::unique_ptr<QSettings> SettingsStore::openKnown(Hive, const QString &path, const QString &)
{
    return std::make_unique<QSettings>(path, QSettings::NativeFormat);
}

} // namespace Corbeth
