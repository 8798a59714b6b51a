#include "platform/protectedpath.h"

#include <cstdlib>
#include <cwchar>
#include <iterator>

namespace fs = std::filesystem;

namespace Corbeth {

namespace {

fs::path environmentPath(const wchar_t *name)
{
    const wchar_t *value = _wgetenv(name);
    return value && *value ? fs::path(value) : fs::path();
}

// "C:" names the current folder on drive C, not its root: the root is "C:\".
fs::path systemDrive()
{
    const fs::path drive = environmentPath(L"SystemDrive");
    return (drive.empty() ? fs::path(L"C:") : drive) / L"\\";
}

fs::path usersFolder()
{
    // %PUBLIC% is a profile folder beside the others.
    const fs::path publicProfile = environmentPath(L"PUBLIC");
    return publicProfile.has_relative_path() ? ProtectedPath::normalised(publicProfile).parent_path()
                                             : systemDrive() / L"Users";
}

} // namespace

std::vector<fs::path> ProtectedPath::systemFolders()
{
    std::vector<fs::path> folders;
    for (const wchar_t *name : {L"ProgramFiles", L"ProgramFiles(x86)", L"ProgramW6432", L"ProgramData",
                                L"CommonProgramFiles", L"CommonProgramFiles(x86)", L"CommonProgramW6432",
                                L"APPDATA", L"LOCALAPPDATA", L"TEMP", L"TMP", L"ALLUSERSPROFILE"}) {
        const fs::path p = environmentPath(name);
        if (!p.empty())
            folders.push_back(p);
    }
    // The defaults, for a process started with an empty environment.
    folders.push_back(systemDrive() / L"Program Files");
    folders.push_back(systemDrive() / L"Program Files (x86)");
    folders.push_back(systemDrive() / L"ProgramData");
    return folders;
}

std::vector<fs::path> ProtectedPath::systemTrees()
{
    const fs::path windows = environmentPath(L"SystemRoot");
    return {windows.empty() ? systemDrive() / L"Windows" : windows};
}

std::vector<fs::path> ProtectedPath::openTrees()
{
    return {};
}

std::vector<fs::path> ProtectedPath::homeFolders()
{
    std::vector<fs::path> homes;
    const fs::path profile = environmentPath(L"USERPROFILE");
    if (!profile.empty())
        homes.push_back(profile);
    return homes;
}

bool ProtectedPath::isHomeParent(const fs::path &path)
{
    return samePath(path, normalised(usersFolder()));
}

// A drive root ("C:\"), and the root of a network share ("\\server\share"),
// which Windows treats as a drive of its own.
bool ProtectedPath::isRoot(const fs::path &path)
{
    if (!path.has_relative_path())
        return true;
    const std::wstring name = path.root_name().wstring();
    const bool unc = name.size() > 2 && (name[0] == L'\\' || name[0] == L'/') && (name[1] == L'\\' || name[1] == L'/');
    const fs::path rest = path.relative_path();
    return unc && std::distance(rest.begin(), rest.end()) <= 1;
}

bool ProtectedPath::samePath(const fs::path &a, const fs::path &b)
{
    // Windows file names compare without regard to case.
    return _wcsicmp(a.wstring().c_str(), b.wstring().c_str()) == 0;
}

} // namespace Corbeth
