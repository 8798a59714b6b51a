#include "platform/filetrust.h"

#include "platform/skglobal.h"

#include <QtCore/QDir>

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

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
    if (!isAdministrative(owner))
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
        if ((allowed->Mask & writes) && !isAdministrative(reinterpret_cast<PSID>(&allowed->SidStart)))
            why = QStringLiteral("\"%1\" can be written by accounts that are not administrators").arg(path);
    }
    LocalFree(descriptor);
    return why;
}

} // namespace Corbeth
