#include "skglobal.h"

#include "blockdevice_p.h"
#include "logging_p.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <unistd.h>

namespace Corbeth {

// The full executable name where /proc shows it (it may not for another
// user's process), else the kernel's short command name.
std::wstring SKGlobal::processNameById(quint32 pid)
{
    const QString folder = QStringLiteral("/proc/%1/").arg(pid);
    const QString exe = QFileInfo(folder + QLatin1String("exe")).symLinkTarget();
    if (!exe.isEmpty())
        return QFileInfo(exe).fileName().toStdWString();
    QFile comm(folder + QLatin1String("comm"));
    if (comm.open(QIODevice::ReadOnly))
        return QString::fromLocal8Bit(comm.readAll()).trimmed().toStdWString();
    return std::wstring();
}

void SKGlobal::activateOwnWindow()
{
    qCDebug(lcCorbeth) << "activateOwnWindow does nothing on this platform";
}

QByteArray SKGlobal::devicePathOf(const QString &path)
{
    return QFile::encodeName(path);
}

// devicePath is a device node such as "/dev/sdb1" or any path on a mounted
// file system.
int SKGlobal::GetDriveTypeByBus(const char *devicePath, quint16 &busType)
{
    const QString path = QFile::decodeName(devicePath ? devicePath : "");
    QString error;
    const QString folder = BlockDevice::sysfsFolderOf(path, &error);
    if (folder.isEmpty()) {
        qCCritical(lcCorbeth) << "block device not found" << path << error;
        return -1;
    }
    busType = BlockDevice::busTypeOf(folder);
    qCDebug(lcCorbeth) << "is driver bugstype" << busType << folder;
    return 0;
}

bool SKGlobal::isProcessElevated()
{
    return ::geteuid() == 0;
}

} // namespace Corbeth
