#ifndef CORBETH_SETTINGSSTORE_P_H
#define CORBETH_SETTINGSSTORE_P_H

#include <QtCore/QSettings>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <memory>
#include <vector>

namespace Corbeth {

// The settings store behind SKGlobal's settings helpers. Paths are
// registry-style key paths that begin with a hive ("HKEY_CURRENT_USER\SOFTWARE\X"
// or its short form "HKCU\SOFTWARE\X"). On Windows they address the registry;
// elsewhere one INI file per hive below the store root, with the key path as a
// group, so that nothing is ever created under a file name made from the path.
class SettingsStore
{
public:
    enum Hive { UnknownHive, CurrentUser, LocalMachine, ClassesRoot, Users };

    // Opens the key path. The returned object's current group is the key, so
    // allKeys(), value() and remove(QString()) work on that key and its
    // sub-keys only. Null (and a warning) for a path without a known hive.
    static std::unique_ptr<QSettings> open(const QString &path);
    // The stores a read of the key path looks in, in order (more than one only
    // for HKLM on Unix: the machine-wide store, then the user's own).
    static std::vector<std::unique_ptr<QSettings>> openForRead(const QString &path);

    // Splits "HKCU\SOFTWARE\X" into the hive and "SOFTWARE/X".
    static Hive parse(const QString &path, QString *keyPath = nullptr);
    // The long registry name of a hive, such as "HKEY_CURRENT_USER".
    static QString hiveName(Hive hive);
    // The registry path of a key: the long hive name and the key path joined
    // by backslashes, whichever separators and hive name the caller wrote.
    static QString nativePath(Hive hive, const QString &keyPath);
    // The folder that holds the hive's file for writes (Unix only; empty on
    // Windows), and the folders reads look in, in order.
    static QString rootFor(Hive hive);
    static QStringList readRootsFor(Hive hive);

private:
    // Platform part of open(): the store for a path whose hive is known, in
    // the given root folder (Unix).
    static std::unique_ptr<QSettings> openKnown(Hive hive, const QString &keyPath, const QString &root);
};

} // namespace Corbeth

#endif // CORBETH_SETTINGSSTORE_P_H
