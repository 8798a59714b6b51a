#ifndef CORBETH_SKGLOBAL_H
#define CORBETH_SKGLOBAL_H

#include <QtCore/QByteArray>
#include <QtCore/QJsonObject>
#include <QtCore/QJsonValue>
#include <QtCore/QObject>
#include <QtCore/QStringList>
#include <QtCore/QVariant>
#include <QtCore/QVariantMap>

#include <string>

namespace Corbeth {

// The engine's platform helpers: external programs, whole files and JSON
// documents, the settings store (the registry on Windows, a registry-like store
// of INI files elsewhere), maps, drive bus types and the client's window.
// One instance exists per process; none of its operations keeps state between
// calls, so they may be used from any thread.
class SKGlobal : public QObject
{
    Q_OBJECT
public:
    // The process-wide instance; made when the library loads and made again on
    // first use after destroyInstance().
    static SKGlobal *instance();
    // Deletes the process-wide instance and clears its pointer.
    static void destroyInstance();

    // Runs program and waits. timeout is in seconds (-1: no limit, 0: fails at
    // once); linger seconds of event processing follow a finished run. Returns
    // false only when the program overran its timeout; a program that cannot
    // be started is logged and reported as success, with output and exitCode
    // left untouched.
    bool runProcess(const QString &program, int timeout, const QStringList &args, int linger,
                    QByteArray &output, int &exitCode);
    bool runProcess(const QString &program, int timeout, const QStringList &args, int linger,
                    QByteArray &output);

    bool readFile(const QString &path, QByteArray &content);
    bool readJsonMap(const QString &path, QVariantMap &map);
    QJsonObject readJsonObject(const QString &path);
    bool writeFile(const QString &path, const QByteArray &data);
    bool writeJsonMap(const QString &path, const QVariantMap &map);
    bool writeJsonValue(const QString &key, const QJsonValue &value, const QString &path);

    // Every entry of source replaces or adds the entry of the same key in target.
    void mergeMap(QVariantMap &target, const QVariantMap &source);

    // path is a registry-style key path beginning with its hive, such as
    // "HKEY_CURRENT_USER\SOFTWARE\Arvenor\TolmInstaller" or "HKLM\SOFTWARE\...".
    // key is matched case-sensitively, character for character; an absent key
    // gives an invalid QVariant.
    QVariant settingValue(const QString &path, const QString &key);
    void setSettingValue(const QString &path, const QString &key, const QVariant &value);
    // Removes the values and sub-keys below path, and nothing else.
    void clearSettings(const QString &path);

    std::wstring processNameById(quint32 pid);
    void activateOwnWindow();
    // devicePath is of the form "\\.\D:". Returns 0 and the bus type on
    // success, -1 on failure.
    int GetDriveTypeByBus(const char *devicePath, quint16 &busType);
    // A drive whose bus cannot be read counts as fixed. On Windows the drive is
    // the path's first two characters; elsewhere the block device that holds
    // the path (or the device node the path names).
    bool isDriveFixed(const QString &path);

    // Whether this process runs with administrator rights (an elevated token on
    // Windows, effective user id 0 elsewhere). A failed query counts as not
    // elevated.
    bool isProcessElevated();

    // The storage bus type of USB devices, as Windows numbers bus types.
    static constexpr quint16 BusTypeUsb = 7;

private:
    SKGlobal();
    ~SKGlobal() override;

    // The device path that GetDriveTypeByBus() takes for a path.
    static QByteArray devicePathOf(const QString &path);
};

} // namespace Corbeth

#endif // CORBETH_SKGLOBAL_H
