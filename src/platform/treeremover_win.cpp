#include "platform/treeremover.h"

#include "platform/protectedpath.h"

#include <vector>

#include <windows.h>

namespace fs = std::filesystem;

namespace Corbeth {

namespace {

// A folder held open without delete sharing: nobody can move, rename or
// replace it while it is open, so its path keeps naming this folder.
class HeldFolder
{
public:
    explicit HeldFolder(const fs::path &path)
        : m_handle(CreateFileW(path.c_str(), FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES,
                               FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                               FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr))
    {
        BY_HANDLE_FILE_INFORMATION info;
        // A junction or folder link is opened as itself and is no folder to walk.
        m_isFolder = m_handle != INVALID_HANDLE_VALUE && GetFileInformationByHandle(m_handle, &info)
            && (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            && !(info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT);
        m_error = m_handle == INVALID_HANDLE_VALUE ? GetLastError() : ERROR_SUCCESS;
    }
    ~HeldFolder()
    {
        if (m_handle != INVALID_HANDLE_VALUE)
            CloseHandle(m_handle);
    }
    HeldFolder(const HeldFolder &) = delete;
    HeldFolder &operator=(const HeldFolder &) = delete;

    bool isFolder() const { return m_isFolder; }
    DWORD error() const { return m_error; }
    HANDLE handle() const { return m_handle; }

private:
    HANDLE m_handle;
    bool m_isFolder = false;
    DWORD m_error;
};

bool missing(DWORD error)
{
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

// Removes one entry that is not walked: a file, or a junction or folder link
// (RemoveDirectoryW takes the link, not what it points to).
bool removeEntry(const fs::path &path, DWORD attributes)
{
    if (attributes & FILE_ATTRIBUTE_READONLY)
        SetFileAttributesW(path.c_str(), attributes & ~FILE_ATTRIBUTE_READONLY);
    const bool removed = (attributes & FILE_ATTRIBUTE_DIRECTORY) ? RemoveDirectoryW(path.c_str())
                                                                  : DeleteFileW(path.c_str());
    return removed || missing(GetLastError());
}

struct Walk
{
    // Empties the held folder at path (shown to the rule as shown).
    void folder(const fs::path &path, const fs::path &shown)
    {
        WIN32_FIND_DATAW found;
        const HANDLE search = FindFirstFileW((path / L"*").c_str(), &found);
        if (search == INVALID_HANDLE_VALUE)
            return;
        std::vector<WIN32_FIND_DATAW> entries;
        do {
            const std::wstring name = found.cFileName;
            if (name != L"." && name != L"..")
                entries.push_back(found);
        } while (FindNextFileW(search, &found));
        FindClose(search);

        for (const WIN32_FIND_DATAW &entry : entries) {
            const fs::path entryPath = path / entry.cFileName;
            const TreeRemover::Entry what = rule(shown / entry.cFileName);
            if (what == TreeRemover::Entry::Keep)
                continue;
            const bool isLink = entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT;
            if (!(entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) || isLink) {
                failIf(what == TreeRemover::Entry::Remove && !removeEntry(entryPath, entry.dwFileAttributes));
                continue;
            }
            {
                const HeldFolder child(entryPath);
                if (!child.isFolder()) {
                    // Replaced by a link since it was listed: removed as the link.
                    failIf(what == TreeRemover::Entry::Remove
                           && !removeEntry(entryPath, GetFileAttributesW(entryPath.c_str())));
                    continue;
                }
                folder(entryPath, shown / entry.cFileName);
            }
            failIf(what == TreeRemover::Entry::Remove && !RemoveDirectoryW(entryPath.c_str())
                   && GetLastError() != ERROR_DIR_NOT_EMPTY && !missing(GetLastError()));
        }
    }

    void failIf(bool failure) { failed = failed || failure; }

    const TreeRemover::Rule &rule;
    bool failed = false;
};

} // namespace

TreeRemover::Status TreeRemover::removeLocated(const fs::path &path, const fs::path &folder, const Rule &rule)
{
    // The parent is held too: the folder cannot be moved out of it and another
    // put in its place.
    const HeldFolder parent(path.parent_path());
    Walk walk{rule};
    {
        const HeldFolder top(path);
        if (!top.isFolder())
            return missing(top.error()) ? Status::Missing : Status::Refused;
        // The folder as the system names it once it is held.
        std::vector<wchar_t> name(32768);
        const DWORD length = GetFinalPathNameByHandleW(top.handle(), name.data(), DWORD(name.size()), 0);
        std::wstring opened(name.data(), length < name.size() ? length : 0);
        if (opened.rfind(L"\\\\?\\UNC\\", 0) == 0)
            opened = L"\\\\" + opened.substr(8);
        else if (opened.rfind(L"\\\\?\\", 0) == 0)
            opened = opened.substr(4);
        if (!opened.empty() && ProtectedPath::isProtected(fs::path(opened)))
            return Status::Refused;
        walk.folder(path, folder);
    }
    if (rule(folder) == Entry::Remove)
        walk.failIf(!RemoveDirectoryW(path.c_str()) && GetLastError() != ERROR_DIR_NOT_EMPTY);
    return walk.failed ? Status::Incomplete : Status::Done;
}

} // namespace Corbeth
