#include "platform/ownedfolder.h"

#include <QtCore/QDir>

#include <windows.h>

#include <aclapi.h>

#include <memory>

namespace Corbeth {

namespace {

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

// The owner this process gives what it creates (the user, or the
// administrators when it runs elevated), or the user itself. (Wine gives new
// files the user while the token names another default owner.)
bool isDefaultOwner(PSID owner)
{
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
        return false;
    const bool own = tokenSidIs(token, TokenOwner, owner) || tokenSidIs(token, TokenUser, owner);
    CloseHandle(token);
    return own;
}

} // namespace

OwnedFolder::Kind OwnedFolder::kindOf(const QString &path)
{
    const std::wstring native = QDir::toNativeSeparators(path).toStdWString();
    const DWORD attributes = GetFileAttributesW(native.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return Missing;
    if (attributes & FILE_ATTRIBUTE_REPARSE_POINT)
        return Link;
    if (!(attributes & FILE_ATTRIBUTE_DIRECTORY))
        return Foreign;
    // Opened as the folder itself: a link swapped in meanwhile is not followed.
    HANDLE folder = CreateFileW(native.c_str(), READ_CONTROL, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (folder == INVALID_HANDLE_VALUE)
        return Foreign;
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const bool read = GetSecurityInfo(folder, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr, nullptr, &descriptor)
        == ERROR_SUCCESS;
    CloseHandle(folder);
    std::unique_ptr<void, decltype(&LocalFree)> freeDescriptor(descriptor, &LocalFree);
    return read && isDefaultOwner(owner) ? Own : Foreign;
}

} // namespace Corbeth
