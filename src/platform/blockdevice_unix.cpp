#include "blockdevice_p.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace Corbeth {

namespace {
QString sysfsFolderOfDevice(dev_t device)
{
    return QFileInfo(QStringLiteral("/sys/dev/block/%1:%2").arg(major(device)).arg(minor(device)))
        .canonicalFilePath();
}

// The mount table escapes blanks and backslashes in paths as octal "\ooo".
QString unescapeMountField(const QByteArray &field)
{
    QByteArray out;
    for (int i = 0; i < field.size(); ++i) {
        if (field.at(i) == '\\' && i + 3 < field.size()) {
            bool ok = false;
            const int code = field.mid(i + 1, 3).toInt(&ok, 8);
            if (ok) {
                out.append(char(code));
                i += 3;
                continue;
            }
        }
        out.append(field.at(i));
    }
    return QFile::decodeName(out);
}

// The source device of the mount whose device number is device, such as
// "/dev/sdb1" for a btrfs volume that reports an anonymous device number.
QString mountSourceOf(dev_t device)
{
    QFile table(QStringLiteral("/proc/self/mountinfo"));
    if (!table.open(QIODevice::ReadOnly))
        return QString();
    const QByteArray wanted = QByteArray::number(major(device)) + ':' + QByteArray::number(minor(device));
    // Fields: id parent major:minor root mount-point options [optional...] - type source ...
    for (const QByteArray &line : table.readAll().split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() < 3 || fields.at(2) != wanted)
            continue;
        const int dash = fields.indexOf("-");
        if (dash > 0 && dash + 2 < fields.size())
            return unescapeMountField(fields.at(dash + 2));
    }
    return QString();
}
} // namespace

QString BlockDevice::sysfsFolderOf(const QString &path, QString *error)
{
    struct stat info;
    if (path.isEmpty() || ::stat(QFile::encodeName(path).constData(), &info) != 0) {
        if (error)
            *error = path.isEmpty() ? QStringLiteral("empty path") : QString::fromLocal8Bit(std::strerror(errno));
        return QString();
    }
    if (S_ISBLK(info.st_mode))
        return sysfsFolderOfDevice(info.st_rdev);
    QString folder = sysfsFolderOfDevice(info.st_dev);
    if (folder.isEmpty()) {
        const QString source = mountSourceOf(info.st_dev);
        struct stat sourceInfo;
        if (source.startsWith(QLatin1String("/dev/"))
            && ::stat(QFile::encodeName(source).constData(), &sourceInfo) == 0 && S_ISBLK(sourceInfo.st_mode))
            folder = sysfsFolderOfDevice(sourceInfo.st_rdev);
    }
    if (folder.isEmpty() && error)
        *error = QStringLiteral("no block device holds the path");
    return folder;
}

quint16 BlockDevice::busTypeOf(const QString &sysfsFolder)
{
    const QDir slaves(sysfsFolder + QLatin1String("/slaves"));
    const QStringList below = slaves.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    if (below.isEmpty())
        return busTypeOfPath(QFileInfo(sysfsFolder).canonicalFilePath());
    quint16 first = BusUnknown;
    for (const QString &name : below) {
        const quint16 type = busTypeOf(QFileInfo(slaves.filePath(name)).canonicalFilePath());
        if (type == BusUsb)
            return type;
        if (name == below.first())
            first = type;
    }
    return first;
}

quint16 BlockDevice::busTypeOfPath(const QString &canonicalPath)
{
    const QStringList parts = canonicalPath.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    auto has = [&parts](const char *prefix) {
        for (const QString &part : parts) {
            if (part.startsWith(QLatin1String(prefix)))
                return true;
        }
        return false;
    };
    // USB first: a USB disk also shows the SCSI host its bridge emulates.
    if (has("usb"))
        return BusUsb;
    if (has("nvme"))
        return BusNvme;
    if (has("mmc"))
        return BusSd;
    if (has("ata"))
        return BusSata;
    if (canonicalPath.startsWith(QLatin1String("/sys/devices/virtual/")))
        return has("loop") ? BusFileBackedVirtual : BusVirtual;
    if (has("host") && has("target"))
        return BusScsi;
    return BusUnknown;
}

} // namespace Corbeth
