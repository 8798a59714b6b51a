#include "testplatform.h"

#include "platform/shelllink_win.h"

#include <QtCore/QFileInfo>
#include <QtCore/QSettings>

#include <windows.h>

QVariant storedUserSetting(const QString &key)
{
    return QSettings(QStringLiteral("HKEY_CURRENT_USER"), QSettings::NativeFormat).value(key);
}

void storeUserSetting(const QString &key, const QVariant &value)
{
    QSettings(QStringLiteral("HKEY_CURRENT_USER"), QSettings::NativeFormat).setValue(key, value);
}

QString shortcutFile(const QString &lnk)
{
    return lnk;
}

QString shortcutTarget(const QString &lnk)
{
    return QFileInfo(lnk).symLinkTarget();
}

QString shortcutIcon(const QString &lnk)
{
    return Corbeth::ShellLink(lnk, STGM_READ).icon();
}

bool processEnded(qint64 pid)
{
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, DWORD(pid));
    if (!process)
        return true;
    const bool ended = WaitForSingleObject(process, 0) == WAIT_OBJECT_0;
    CloseHandle(process);
    return ended;
}

bool runsAsRoot()
{
    return false;
}

bool giveToNobody(const QString &)
{
    return false;
}

// A console program's Ctrl+C goes to every program of its console; the tests'
// programs share the test's, so none can be interrupted alone.
bool interruptProcess(qint64)
{
    return false;
}

void becomeNobody() {}

struct FileSizeLimit::Old
{
};

FileSizeLimit::FileSizeLimit(qint64) {}

FileSizeLimit::~FileSizeLimit() = default;

bool FileSizeLimit::isSupported()
{
    return false;
}

bool canExchangePaths()
{
    return false;
}

void exchangePaths(const QByteArray &, const QByteArray &) {}
