#include "platform/filetrust.h"

#include "platform/skglobal.h"

#include <QtCore/QDir>

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include <vector>

namespace Corbeth {

namespace {

// The accounts that may change what an elevated engine runs.
bool isAdministrative(PSID sid)
{
    if (IsWellKnownSid(sid, WinBuiltinAdministratorsSid) || IsWellKnownSid(sid, WinLocalSystemSid)
        || IsWellKnownSid(sid, WinCreatorOwnerSid)) // stands for the owner, checked on its own
        return true;
    LPWSTR text = nullptr;
    if (!ConvertSidToStringSidW(sid, &text))
        return false;
    // NT SERVICE\TrustedInstaller.
    const bool trustedInstaller
        = wcscmp(text, L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464") == 0;
    LocalFree(text);
    return trustedInstaller;
}

// The user this engine runs as: elevated, an administrator itself, so what it
// owns or may write is no more than it could change anyway.
bool isCaller(PSID sid)
{
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
        return false;
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    std::vector<char> buffer(size);
    const bool known = size && GetTokenInformation(token, TokenUser, buffer.data(), size, &size);
    CloseHandle(token);
    return known && EqualSid(reinterpret_cast<TOKEN_USER *>(buffer.data())->User.Sid, sid);
}

bool isTrusted(PSID sid)
{
    return isAdministrative(sid) || isCaller(sid);
}

} // namespace

QString FileTrust::whyUntrusted(const QString &path)
{
    if (!SKGlobal::instance()->isProcessElevated())
        return QString();
    const std::wstring name = QDir::toNativeSeparators(path).toStdWString();
    PSID owner = nullptr;
    PACL dacl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (GetNamedSecurityInfoW(name.c_str(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                              &owner, nullptr, &dacl, nullptr, &descriptor)
        != ERROR_SUCCESS)
        return QStringLiteral("\"%1\": its access list cannot be read").arg(path);
    QString why;
    if (!isTrusted(owner))
        why = QStringLiteral("\"%1\" belongs to an account that is not an administrator").arg(path);
    // No access list at all lets everyone write.
    if (!dacl)
        why = QStringLiteral("\"%1\" can be written by everyone").arg(path);
    const ACCESS_MASK writes = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_EA | FILE_WRITE_ATTRIBUTES | DELETE
        | WRITE_DAC | WRITE_OWNER | GENERIC_WRITE | GENERIC_ALL;
    for (DWORD i = 0; why.isEmpty() && dacl && i < dacl->AceCount; ++i) {
        ACE_HEADER *ace = nullptr;
        if (!GetAce(dacl, i, reinterpret_cast<LPVOID *>(&ace)) || ace->AceType != ACCESS_ALLOWED_ACE_TYPE
            || (ace->AceFlags & INHERIT_ONLY_ACE))
            continue;
        auto *allowed = reinterpret_cast<ACCESS_ALLOWED_ACE *>(ace);
        if ((allowed->Mask & writes) && !isTrusted(reinterpret_cast<PSID>(&allowed->SidStart)))
            why = QStringLiteral("\"%1\" can be written by accounts that are not administrators").arg(path);
    }
    LocalFree(descriptor);
    return why;
}

} // namespace Corbeth
