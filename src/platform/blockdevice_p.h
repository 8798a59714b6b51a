#ifndef CORBETH_BLOCKDEVICE_P_H
#define CORBETH_BLOCKDEVICE_P_H

#include <QtCore/QString>

namespace Corbeth {

// Finds the block device behind a path and the bus it hangs off (Linux only).
// Bus types use Windows' STORAGE_BUS_TYPE numbers, so callers compare against
// the same values on every platform.
class BlockDevice
{
public:
    enum BusType : quint16 {
        BusUnknown = 0,
        BusScsi = 1,
        BusUsb = 7,
        BusSata = 11,
        BusSd = 12,
        BusVirtual = 14,
        BusFileBackedVirtual = 15,
        BusNvme = 17,
    };

    // The canonical sysfs folder of the block device that holds path: the
    // device itself when path is a device node, otherwise the device of the
    // file system the path lies on (found through the mount table when the file
    // system reports no real device, as btrfs does). Empty, with error set,
    // when there is none.
    static QString sysfsFolderOf(const QString &path, QString *error = nullptr);
    // The bus type of a sysfs block device folder; a mapped device (LVM,
    // dm-crypt) counts as USB when any disk below it is on USB.
    static quint16 busTypeOf(const QString &sysfsFolder);
    // The bus type judged from a canonical sysfs device path alone.
    static quint16 busTypeOfPath(const QString &canonicalPath);
};

} // namespace Corbeth

#endif // CORBETH_BLOCKDEVICE_P_H
