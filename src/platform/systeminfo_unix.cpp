#include "systeminfo.h"

#include "linuxhardware_p.h"
#include "logging_p.h"
#include "skglobal.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QHash>
#include <QtCore/QStandardPaths>

namespace Corbeth {

namespace {
QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString readText(const QString &path)
{
    return QString::fromUtf8(readAll(path).trimmed());
}

struct PciDevice
{
    QString name;
    QString driver;
};

// Display controllers as lspci names them, by PCI slot ("0000:00:02.0").
// Nothing when lspci is not installed.
QHash<QString, PciDevice> lspciDisplayDevices()
{
    QHash<QString, PciDevice> devices;
    if (QStandardPaths::findExecutable(QStringLiteral("lspci")).isEmpty())
        return devices;
    QByteArray output;
    SKGlobal::instance()->runProcess(QStringLiteral("lspci"), 3,
                                     {QStringLiteral("-vmm"), QStringLiteral("-k"), QStringLiteral("-D")}, 0, output);
    for (const QString &entry : QString::fromUtf8(output).split(QStringLiteral("\n\n"), Qt::SkipEmptyParts)) {
        QHash<QString, QString> fields;
        for (const QString &line : entry.split(QLatin1Char('\n'))) {
            const int colon = line.indexOf(QLatin1Char(':'));
            if (colon > 0)
                fields.insert(line.left(colon), line.mid(colon + 1).trimmed());
        }
        const QString deviceClass = fields.value(QStringLiteral("Class"));
        if (!deviceClass.contains(QLatin1String("VGA")) && !deviceClass.contains(QLatin1String("3D controller"))
            && !deviceClass.contains(QLatin1String("Display controller")))
            continue;
        devices.insert(fields.value(QStringLiteral("Slot")),
                       {fields.value(QStringLiteral("Vendor")) + QLatin1Char(' ') + fields.value(QStringLiteral("Device")),
                        fields.value(QStringLiteral("Driver"))});
    }
    return devices;
}

bool videoControllerBlocks(QList<QVariantMap> &blocks)
{
    const QHash<QString, PciDevice> named = lspciDisplayDevices();
    // Each graphics card's device folder, once (cards and render nodes share it).
    QStringList folders;
    const QDir drm(QStringLiteral("/sys/class/drm"));
    for (const QString &card : drm.entryList({QStringLiteral("card*")}, QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString folder = QFileInfo(drm.filePath(card) + QLatin1String("/device")).canonicalFilePath();
        if (!card.contains(QLatin1Char('-')) && !folder.isEmpty() && !folders.contains(folder))
            folders.append(folder);
    }
    if (folders.isEmpty()) {
        for (auto it = named.cbegin(); it != named.cend(); ++it)
            folders.append(QStringLiteral("/sys/bus/pci/devices/") + it.key());
    }

    for (const QString &folder : qAsConst(folders)) {
        const PciDevice pci = named.value(QFileInfo(folder).fileName());
        QVariantMap block;
        QString name = pci.name;
        if (name.isEmpty() && QFile::exists(folder + QLatin1String("/vendor")))
            name = QLatin1String("PCI ") + readText(folder + QLatin1String("/vendor")).mid(2) + QLatin1Char(':')
                + readText(folder + QLatin1String("/device")).mid(2);
        if (!name.isEmpty())
            block.insert(QStringLiteral("Name"), name);
        QString driver = QFileInfo(QFileInfo(folder + QLatin1String("/driver")).symLinkTarget()).fileName();
        if (driver.isEmpty())
            driver = pci.driver;
        if (!driver.isEmpty()) {
            // Drivers built with the kernel carry its version.
            QString version = readText(QStringLiteral("/sys/module/%1/version").arg(driver));
            if (version.isEmpty())
                version = readText(QStringLiteral("/proc/sys/kernel/osrelease"));
            block.insert(QStringLiteral("DriverVersion"), driver + QLatin1Char(' ') + version);
        }
        bool ok = false;
        const quint64 vram = readText(folder + QLatin1String("/mem_info_vram_total")).toULongLong(&ok);
        // The CIM property is 32 bits wide; larger memories report its maximum.
        if (ok)
            block.insert(QStringLiteral("AdapterRAM"), QString::number(qMin<quint64>(vram, 0xFFFFFFFFu)));
        blocks.append(block);
    }
    return !blocks.isEmpty();
}

bool physicalMemoryBlocks(QList<QVariantMap> &blocks)
{
    // The firmware's own table lists the modules; it is readable by root only.
    blocks = LinuxHardware::memoryBlocksFromSmbios(readAll(QStringLiteral("/sys/firmware/dmi/tables/DMI")));
    if (!blocks.isEmpty())
        return true;

    // Otherwise the whole of the memory as one module: first the hot-plug
    // blocks that are online, then the kernel's own total.
    qint64 capacity = 0;
    const QDir memory(QStringLiteral("/sys/devices/system/memory"));
    bool ok = false;
    const qint64 blockSize = readText(memory.filePath(QStringLiteral("block_size_bytes"))).toLongLong(&ok, 16);
    if (ok) {
        for (const QString &entry : memory.entryList({QStringLiteral("memory*")}, QDir::Dirs)) {
            if (readText(memory.filePath(entry) + QLatin1String("/state")) == QLatin1String("online"))
                capacity += blockSize;
        }
    }
    if (capacity == 0) {
        const QByteArray meminfo = readAll(QStringLiteral("/proc/meminfo"));
        const int at = meminfo.indexOf("MemTotal:");
        if (at >= 0)
            capacity = meminfo.mid(at + 9, meminfo.indexOf('\n', at) - at - 9).replace("kB", "").trimmed().toLongLong()
                * 1024;
    }
    if (capacity > 0)
        blocks.append(QVariantMap{{QStringLiteral("Capacity"), QString::number(capacity)}});
    return !blocks.isEmpty();
}
} // namespace

bool SystemInfo::systemQuery(Query query, QList<QVariantMap> &blocks)
{
    bool found = false;
    switch (query) {
    case ProcessorQuery:
        blocks = LinuxHardware::processorBlocks(readAll(QStringLiteral("/proc/cpuinfo")), [](int cpu) {
            return readText(QStringLiteral("/sys/devices/system/cpu/cpu%1/cpufreq/cpuinfo_max_freq").arg(cpu))
                .toLongLong();
        });
        found = !blocks.isEmpty();
        break;
    case VideoControllerQuery:
        found = videoControllerBlocks(blocks);
        break;
    case PhysicalMemoryQuery:
        found = physicalMemoryBlocks(blocks);
        break;
    case PageFileQuery:
        blocks = LinuxHardware::swapBlocks(readAll(QStringLiteral("/proc/swaps")));
        found = !blocks.isEmpty();
        break;
    }
    static const char *const classes[] = {"Win32_Processor", "Win32_VideoController", "Win32_PhysicalMemory",
                                          "Win32_PageFileUsage"};
    if (!found)
        qCInfo(lcCorbeth) << "nothing found on this system for" << classes[query];
    return found;
}

} // namespace Corbeth
