#ifndef CORBETH_CBENUM_H
#define CORBETH_CBENUM_H

#include <corbeth/corbeth_export.h>

#include <QtCore/QObject>

namespace Corbeth {

Q_NAMESPACE_EXPORT(CORBETH_EXPORT)

// The configuration names these by key name without the prefix ("critical",
// "waitExecOlderUninstall"), so the keys are vocabulary and must not change.
enum Operation {
    O_Uninstall = 0,
    O_OfflineInstall = 1,
    O_OfflineDownload = 2,
    O_Update = 3,
    O_SelfUpdate = 4,
    O_OnlineInstall = 5,
    O_UpdatePatch = 6,
    O_Close = 7,
    O_Waiting = 8,
    O_Installing = 9,
};
Q_ENUM_NS(Operation)

enum ErrorLevel {
    EL_Warn = 0,
    EL_Critical = 1,
};
Q_ENUM_NS(ErrorLevel)

enum ExtraProcess {
    EP_CheckDriver = 0,
    EP_WaitExecOlderUninstall = 1,
};
Q_ENUM_NS(ExtraProcess)

class CORBETH_EXPORT CBEnum : public QObject
{
    Q_OBJECT
public:
    // Clients compare against these numbers: never renumber them. The gaps are
    // deliberate and stay unused.
    enum ErrorCode : qint32 {
        EC_NoError = 0x0,
        EC_Timeout = 0x5100,
        EC_UnknownNetworkError = 0x5101,
        EC_NetworkError_FileDownloadedError = 0x5102,
        EC_UnknownError = 0x5103,
        EC_SoftwarePathError = 0x511F,
        EC_FileNotOpen = 0x5120,
        EC_DriverError = 0x5121,
        EC_UninstallOlderSoftwareFail = 0x5122,
        EC_ProcessTimeout = 0x5123,
        EC_VerifyFailed = 0x5124,
        EC_ConfigDataError = 0x515D,
        EC_RequestNameNotExist = 0x515E,
    };
    Q_ENUM(ErrorCode)

    enum TaskStatus : quint32 {
        TS_Freeing = 0,
        TS_Downloading = 1,
        TS_Uninstalling = 2,
        TS_Uncompressing = 3,
        TS_Installing = 4,
        TS_Finished = 5,
        TS_Aborted = 6,
        TS_Verifying = 7,
    };
    Q_ENUM(TaskStatus)

    // 2 is not used and must not be given to a new key.
    enum DriverType {
        DT_3W = 0,
        DT_3W_V4 = 1,
        DT_Vimba = 3,
        DT_3DCamera = 4,
        DT_Turntable = 5,
    };
    Q_ENUM(DriverType)

    CBEnum();
    ~CBEnum() override;
};

} // namespace Corbeth

#endif // CORBETH_CBENUM_H
