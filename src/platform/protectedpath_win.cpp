#include "platform/protectedpath.h"

#include <cwchar>
#include <cwctype>
#include <cstdlib>

namespace fs = std::filesystem;

namespace Corbeth {

namespace {

fs::path environmentPath(const wchar_t *name)
{
    const wchar_t *value = _wgetenv(name);
    return value && *value ? fs::path(value) : fs::path();
}

} // namespace

std::vector<fs::path> ProtectedPath::systemFolders()
{
    std::vector<fs::path> folders;
    for (const wchar_t *name : {L"ProgramFiles", L"ProgramFiles(x86)", L"ProgramW6432", L"ProgramData",
                                L"CommonProgramFiles", L"CommonProgramFiles(x86)", L"APPDATA", L"LOCALAPPDATA",
                                L"TEMP", L"TMP", L"PUBLIC", L"ALLUSERSPROFILE"}) {
        const fs::path p = environmentPath(name);
        if (!p.empty())
            folders.push_back(p);
    }
    const fs::path drive = environmentPath(L"SystemDrive");
    if (!drive.empty())
        folders.push_back(drive / L"Users");
    return folders;
}

std::vector<fs::path> ProtectedPath::systemTrees()
{
    std::vector<fs::path> trees;
    const fs::path windows = environmentPath(L"SystemRoot");
    trees.push_back(windows.empty() ? fs::path(L"C:\\Windows") : windows);
    return trees;
}

fs::path ProtectedPath::homeFolder()
{
    return environmentPath(L"USERPROFILE");
}

bool ProtectedPath::samePath(const fs::path &a, const fs::path &b)
{
    // Windows file names compare without regard to case.
    return _wcsicmp(a.wstring().c_str(), b.wstring().c_str()) == 0;
}

} // namespace Corbeth
