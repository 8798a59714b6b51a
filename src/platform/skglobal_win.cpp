#include "skglobal.h"

#include "logging_p.h"
#include "win32api.h"

namespace Corbeth {

std::wstring SKGlobal::processNameById(quint32 pid)
{
    return Win32Api::processNameById(pid);
}

void SKGlobal::activateOwnWindow()
{
    const std::wstring name = processNameById(Win32Api::currentProcessId());
    if (name.size() < 4)
        return;
    // A top-level window with its own device context and an icon gets this
    // class from the Qt 5.15.8 runtime; its title is the program's name.
    Win32Api::activateWindow(L"Qt5158QWindowOwnDCIcon", name.substr(0, name.size() - 4));
}

QByteArray SKGlobal::devicePathOf(const QString &path)
{
    return QByteArrayLiteral("\\\\.\\") + path.left(2).toLocal8Bit();
}

int SKGlobal::GetDriveTypeByBus(const char *devicePath, quint16 &busType)
{
    unsigned short type = 0;
    unsigned long error = 0;
    const int result = Win32Api::storageBusType(devicePath ? devicePath : "", type, error);
    if (result == Win32Api::StorageOpenFailed)
        qCCritical(lcCorbeth) << "CreateFile() Error:" << error;
    if (result != Win32Api::StorageQueryOk)
        return -1;
    qCDebug(lcCorbeth) << "is driver bugstype" << type;
    busType = type;
    return 0;
}

bool SKGlobal::isProcessElevated()
{
    bool elevated = false;
    return Win32Api::queryTokenElevation(elevated) && elevated;
}

} // namespace Corbeth
