#ifndef VINDAL_ERROR_H
#define VINDAL_ERROR_H

#include <vindal/vindal_export.h>

#include <QtCore/QObject>

namespace Vindal {
namespace Error {

Q_NAMESPACE_EXPORT(VINDAL_EXPORT)

// The status of a reply and the "errorCode" of its finished map.
enum ErrorCode : int {
    NoError = 0,
    Timeout = 0x5003,               // no progress for the stall time-out
    NotFound = 0x5072001,           // module, version or file not in the repository
    ServerError = 0x5072002,        // the server answered with an error status
    DiskFull = 0x5072003,           // the local file could not be written
    ChecksumMismatch = 0x5072004,   // size, MD5 or SHA-256 differ from the index
    DownloadFailed = 0x5072005,     // the transfer failed on every URL
    SignatureInvalid = 0x5072006,   // index unsigned or wrongly signed while a key is configured
    ConfigError = 0x5072007,        // the configuration cannot be used
    UnsafeArchive = 0x5072008,      // an entry would leave the target or is of a refused kind
    CorruptArchive = 0x5072009,     // the archive cannot be read
    Cancelled = 0x507200A,          // abort() was called
    NoUpgrade = 0x507200B,          // nothing newer to upgrade to
    NoReply = 0x507200C,            // no reply object was produced
    DowngradeRefused = 0x507200D,   // older than a version installed before, and not pinned
    InvalidIndex = 0x507200E,       // an index or upgrades document is malformed
    StateFileError = 0x507200F,     // the client's state file (downgrade marks) cannot be read or written
    IndexExpired = 0x5072010,       // the index is past the expiry its publisher signed into it
};
Q_ENUM_NS(ErrorCode)

} // namespace Error
} // namespace Vindal

#endif // VINDAL_ERROR_H
