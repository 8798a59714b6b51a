#include "platform/protectedpath.h"

#include <cstdlib>
#include <cwchar>

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
    // The shared per-user folders: the desktop, the documents and the start
    // menus, the user's and everyone's.
    for (const wchar_t *name : {L"USERPROFILE", L"PUBLIC"}) {
        const fs::path profile = environmentPath(name);
        for (const wchar_t *folder : {L"Desktop", L"Documents", L"Downloads", L"Music", L"Pictures", L"Videos"}) {
            if (!profile.empty())
                folders.push_back(profile / folder);
        }
    }
    for (const wchar_t *name : {L"APPDATA", L"ProgramData"}) {
        const fs::path startMenu = environmentPath(name) / L"Microsoft\\Windows\\Start Menu";
        if (startMenu.has_root_path()) {
            folders.push_back(startMenu);
            folders.push_back(startMenu / L"Programs");
            folders.push_back(startMenu / L"Programs\\Startup");
        }
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
    // Counted by hand: not every standard library splits "\\server" off as the
    // root name.
    const std::wstring text = path.wstring();
    const auto isSeparator = [](wchar_t c) { return c == L'\\' || c == L'/'; };
    if (text.size() < 3 || !isSeparator(text[0]) || !isSeparator(text[1]) || isSeparator(text[2]))
        return false;
    int parts = 0;
    bool inPart = false;
    for (std::size_t i = 2; i < text.size(); ++i) {
        if (isSeparator(text[i])) {
            inPart = false;
        } else if (!inPart) {
            inPart = true;
            ++parts;
        }
    }
    return parts <= 2; // server and share
}

bool ProtectedPath::samePath(const fs::path &a, const fs::path &b)
{
    // Windows file names compare without regard to case.
    return _wcsicmp(a.wstring().c_str(), b.wstring().c_str()) == 0;
}

} // namespace Corbeth
