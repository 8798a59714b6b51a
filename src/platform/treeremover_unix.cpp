#include "platform/treeremover.h"

#include "platform/protectedpath.h"

#include <cerrno>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace Corbeth {

namespace {

// A folder's handle, closed with it.
class Handle
{
public:
    explicit Handle(int fd)
        : m_fd(fd)
    {
    }
    ~Handle()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    int fd() const { return m_fd; }

private:
    int m_fd;
};

// Fails on a link (ELOOP) or anything but a folder (ENOTDIR).
int openFolder(int parent, const char *name)
{
    return ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

std::vector<std::string> namesIn(int folder)
{
    std::vector<std::string> names;
    // fdopendir takes the descriptor it is given: a duplicate.
    const int listing = ::dup(folder);
    DIR *dir = listing >= 0 ? ::fdopendir(listing) : nullptr;
    if (!dir) {
        if (listing >= 0)
            ::close(listing);
        return names;
    }
    while (const dirent *entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    ::closedir(dir);
    return names;
}

struct Walk
{
    // Empties the open folder at path as the rule says.
    void folder(int fd, const fs::path &path, dev_t device)
    {
        for (const std::string &name : namesIn(fd)) {
            const fs::path entryPath = path / name;
            const TreeRemover::Entry what = rule(entryPath);
            if (what == TreeRemover::Entry::Keep)
                continue;
            struct stat st;
            if (::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
                failIf(errno != ENOENT);
                continue;
            }
            if (S_ISDIR(st.st_mode)) {
                const Handle child(openFolder(fd, name.c_str()));
                struct stat opened;
                if (child.fd() < 0 && (errno == ELOOP || errno == ENOTDIR)) {
                    // Replaced by a link or a file since it was looked at.
                    failIf(what == TreeRemover::Entry::Remove && ::unlinkat(fd, name.c_str(), 0) != 0);
                    continue;
                }
                // Another file system mounted inside is not entered.
                if (child.fd() < 0 || ::fstat(child.fd(), &opened) != 0 || opened.st_dev != device) {
                    failIf(true);
                    continue;
                }
                folder(child.fd(), entryPath, device);
                // A folder that still holds what the rule keeps stays.
                failIf(what == TreeRemover::Entry::Remove && ::unlinkat(fd, name.c_str(), AT_REMOVEDIR) != 0
                       && errno != ENOTEMPTY && errno != EEXIST);
            } else if (what == TreeRemover::Entry::Remove) {
                failIf(::unlinkat(fd, name.c_str(), 0) != 0 && errno != ENOENT);
            }
        }
    }

    void failIf(bool failure) { failed = failed || failure; }

    const TreeRemover::Rule &rule;
    bool failed = false;
};

} // namespace

TreeRemover::Status TreeRemover::removeLocated(const fs::path &path, const fs::path &folder, const Rule &rule)
{
    const Handle parent(::open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (parent.fd() < 0)
        return errno == ENOENT ? Status::Missing : Status::Refused;
    const Handle top(openFolder(parent.fd(), path.filename().c_str()));
    if (top.fd() < 0)
        return errno == ENOENT ? Status::Missing : Status::Refused;
    // The folder as the system names it now: a folder above it replaced by a
    // link since the path was resolved leads somewhere else.
    std::error_code ec;
    const fs::path opened = fs::read_symlink("/proc/self/fd/" + std::to_string(top.fd()), ec);
    struct stat st;
    if ((!ec && (opened != path || ProtectedPath::isProtected(opened))) || ::fstat(top.fd(), &st) != 0)
        return Status::Refused;

    Walk walk{rule};
    walk.folder(top.fd(), folder, st.st_dev);
    if (rule(folder) == Entry::Remove)
        walk.failIf(::unlinkat(parent.fd(), path.filename().c_str(), AT_REMOVEDIR) != 0 && errno != ENOTEMPTY
                    && errno != EEXIST);
    return walk.failed ? Status::Incomplete : Status::Done;
}

} // namespace Corbeth
