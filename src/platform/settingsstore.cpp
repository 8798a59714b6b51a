#include "settingsstore_p.h"

#include "logging_p.h"

#include <QtCore/QRegularExpression>

namespace Corbeth {

namespace {
struct HiveName
{
    const char *name;
    SettingsStore::Hive hive;
};

// Long and short names address the same hive, as they do in the registry.
const HiveName s_hiveNames[] = {
    {"HKEY_CURRENT_USER", SettingsStore::CurrentUser},
    {"HKCU", SettingsStore::CurrentUser},
    {"HKEY_LOCAL_MACHINE", SettingsStore::LocalMachine},
    {"HKLM", SettingsStore::LocalMachine},
    {"HKEY_CLASSES_ROOT", SettingsStore::ClassesRoot},
    {"HKCR", SettingsStore::ClassesRoot},
    {"HKEY_USERS", SettingsStore::Users},
    {"HKU", SettingsStore::Users},
};

bool isSeparator(QChar c)
{
    return c == QLatin1Char('\\') || c == QLatin1Char('/');
}
} // namespace

SettingsStore::Hive SettingsStore::parse(const QString &path, QString *keyPath)
{
    int start = 0;
    while (start < path.size() && isSeparator(path.at(start)))
        ++start;
    for (const HiveName &entry : s_hiveNames) {
        const QLatin1String name(entry.name);
        if (path.midRef(start, name.size()) != name)
            continue;
        const int end = start + name.size();
        // "HKCUX\..." is not HKCU.
        if (end < path.size() && !isSeparator(path.at(end)))
            continue;
        if (keyPath) {
            const QStringList parts = path.mid(end).split(QRegularExpression(QStringLiteral("[\\\\/]")), Qt::SkipEmptyParts);
            *keyPath = parts.join(QLatin1Char('/'));
        }
        return entry.hive;
    }
    return UnknownHive;
}

QString SettingsStore::hiveName(Hive hive)
{
    for (const HiveName &entry : s_hiveNames) {
        if (entry.hive == hive)
            return QLatin1String(entry.name);
    }
    return QString();
}

QString SettingsStore::nativePath(Hive hive, const QString &keyPath)
{
    QString path = hiveName(hive);
    if (!keyPath.isEmpty())
        path += QLatin1Char('\\') + QString(keyPath).replace(QLatin1Char('/'), QLatin1Char('\\'));
    return path;
}

std::unique_ptr<QSettings> SettingsStore::open(const QString &path)
{
    QString keyPath;
    const Hive hive = parse(path, &keyPath);
    if (hive == UnknownHive) {
        qCWarning(lcCorbeth) << "settings path has no known hive" << path;
        return nullptr;
    }
    return openKnown(hive, keyPath, rootFor(hive));
}

std::vector<std::unique_ptr<QSettings>> SettingsStore::openForRead(const QString &path)
{
    std::vector<std::unique_ptr<QSettings>> stores;
    QString keyPath;
    const Hive hive = parse(path, &keyPath);
    if (hive == UnknownHive) {
        qCWarning(lcCorbeth) << "settings path has no known hive" << path;
        return stores;
    }
    const QStringList roots = readRootsFor(hive);
    for (const QString &root : roots)
        stores.push_back(openKnown(hive, keyPath, root));
    return stores;
}

} // namespace Corbeth
