#include "../plainfile_p.h"

#include <QtCore/QDir>

#include <windows.h>

#include <aclapi.h>
#include <fcntl.h>
#include <io.h>

#include <memory>

namespace Vindal {

namespace {

std::wstring nativePath(const QString &path)
{
    return QDir::toNativeSeparators(path).toStdWString();
}

QString lastError(const QString &path)
{
    return QStringLiteral("\"%1\": %2").arg(path, qt_error_string(int(GetLastError())));
}

// Neither a link nor a junction (reparse points), nor a folder.
bool plainInfo(HANDLE handle, BY_HANDLE_FILE_INFORMATION *info)
{
    return GetFileInformationByHandle(handle, info)
        && !(info->dwFileAttributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY));
}

QByteArray identityOf(const BY_HANDLE_FILE_INFORMATION &info)
{
    return QByteArray::number(quint64(info.dwVolumeSerialNumber)) + ':'
        + QByteArray::number((quint64(info.nFileIndexHigh) << 32) | info.nFileIndexLow);
}

// Whether sid is the token's user or owner (kind TokenUser or TokenOwner:
// both records begin with the SID's pointer).
bool tokenSidIs(HANDLE token, TOKEN_INFORMATION_CLASS kind, PSID sid)
{
    DWORD size = 0;
    GetTokenInformation(token, kind, nullptr, 0, &size);
    std::unique_ptr<char[]> buffer(new char[size ? size : 1]);
    return size && GetTokenInformation(token, kind, buffer.get(), size, &size)
        && EqualSid(sid, *reinterpret_cast<PSID *>(buffer.get()));
}

// Whether the file's owner is the owner this process gives what it creates
// (the user, or the administrators when elevated), or the user itself. (Wine
// gives new files the user while the token names another default owner.)
bool ownedByThisProcess(HANDLE file)
{
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (GetSecurityInfo(file, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr, nullptr, &descriptor)
        != ERROR_SUCCESS)
        return false;
    std::unique_ptr<void, decltype(&LocalFree)> freeDescriptor(descriptor, &LocalFree);
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
        return false;
    const bool own = tokenSidIs(token, TokenOwner, owner) || tokenSidIs(token, TokenUser, owner);
    CloseHandle(token);
    return own;
}

} // namespace

bool PlainFile::open(QFile *file, const QString &path, QIODevice::OpenMode mode, QString *error)
{
    const bool write = mode & QIODevice::WriteOnly;
    // The flag opens a link itself rather than what it points to.
    HANDLE handle = CreateFileW(nativePath(path).c_str(), write ? GENERIC_WRITE | GENERIC_READ : GENERIC_READ,
                                FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, write ? OPEN_ALWAYS : OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        *error = lastError(path);
        return false;
    }
    BY_HANDLE_FILE_INFORMATION info;
    if (!plainInfo(handle, &info) || info.nNumberOfLinks != 1 || !ownedByThisProcess(handle)) {
        CloseHandle(handle);
        *error = QStringLiteral("\"%1\" is not a plain file of this user with a single name").arg(path);
        return false;
    }
    const int flags = _O_BINARY | (write ? (mode & QIODevice::Append ? _O_APPEND : 0) : _O_RDONLY);
    const int fd = _open_osfhandle(intptr_t(handle), flags);
    if (fd < 0) {
        CloseHandle(handle);
        *error = QStringLiteral("\"%1\" cannot be opened").arg(path);
        return false;
    }
    if (!file->open(fd, mode, QFileDevice::AutoCloseHandle)) {
        _close(fd);
        *error = file->errorString();
        return false;
    }
    return true;
}

QByteArray PlainFile::identity(const QFile &file)
{
    BY_HANDLE_FILE_INFORMATION info;
    const HANDLE handle = file.handle() >= 0 ? HANDLE(_get_osfhandle(file.handle())) : INVALID_HANDLE_VALUE;
    return handle != INVALID_HANDLE_VALUE && plainInfo(handle, &info) ? identityOf(info) : QByteArray();
}

QByteArray PlainFile::identityAt(const QString &path)
{
    HANDLE handle = CreateFileW(nativePath(path).c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        return QByteArray();
    BY_HANDLE_FILE_INFORMATION info;
    const QByteArray id = plainInfo(handle, &info) ? identityOf(info) : QByteArray();
    CloseHandle(handle);
    return id;
}

bool PlainFile::replace(const QString &from, const QString &to, QString *error)
{
    if (MoveFileExW(nativePath(from).c_str(), nativePath(to).c_str(), MOVEFILE_REPLACE_EXISTING))
        return true;
    *error = lastError(to);
    return false;
}

} // namespace Vindal
