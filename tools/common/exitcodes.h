#ifndef CORBETH_TOOLS_EXITCODES_H
#define CORBETH_TOOLS_EXITCODES_H

#include <corbeth/cbenum.h>

// The exit codes of the command-line installers: 0 success, 2 bad usage, 100
// an update is available (check), 130 cancelled, one code per engine error, and one per cause the engine reports
// under a broader code (see FailureCause), so a script can tell them apart.
namespace CorbethExit {

enum : int {
    Success = 0,
    Failure = 1,
    Usage = 2,
    NotInRepository = 22,
    Untrusted = 23,
    Damaged = 24,
    CannotWrite = 25,
    ToolMissing = 26,
    Unreadable = 27,
    Downgrade = 28,
    // `corbeth check`: the repository offers a newer version (not a failure).
    UpdateAvailable = 100,
    Cancelled = 130
};

inline int fromError(Corbeth::CBEnum::ErrorCode code)
{
    using Corbeth::CBEnum;
    switch (code) {
    case CBEnum::EC_NoError: return Success;
    case CBEnum::EC_Timeout: return 10;
    case CBEnum::EC_UnknownNetworkError: return 11;
    case CBEnum::EC_NetworkError_FileDownloadedError: return 12;
    case CBEnum::EC_UnknownError: return 13;
    case CBEnum::EC_SoftwarePathError: return 14;
    case CBEnum::EC_FileNotOpen: return 15;
    case CBEnum::EC_DriverError: return 16;
    case CBEnum::EC_UninstallOlderSoftwareFail: return 17;
    case CBEnum::EC_ProcessTimeout: return 18;
    case CBEnum::EC_VerifyFailed: return 19;
    case CBEnum::EC_ConfigDataError: return 20;
    case CBEnum::EC_RequestNameNotExist: return 21;
    }
    return Failure;
}

} // namespace CorbethExit

#endif // CORBETH_TOOLS_EXITCODES_H
