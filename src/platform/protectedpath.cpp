#include "platform/protectedpath.h"

namespace fs = std::filesystem;

namespace Corbeth {

namespace {

// Symbolic links and "." / ".." are resolved where the path exists, so a link
// to the home folder is recognised as the home folder.
fs::path normalised(const fs::path &path)
{
    std::error_code ec;
    fs::path result = fs::weakly_canonical(fs::absolute(path, ec), ec);
    if (ec)
        result = fs::absolute(path, ec).lexically_normal();
    // "C:\dir\" and "C:\dir" name the same folder.
    if (result.has_relative_path() && !result.has_filename())
        result = result.parent_path();
    return result;
}

} // namespace

bool ProtectedPath::isProtected(const fs::path &path)
{
    if (path.empty())
        return true;
    const fs::path p = normalised(path);
    if (!p.has_relative_path())
        return true; // a drive or file system root

    // The home folder and every folder above it.
    const fs::path home = homeFolder();
    if (!home.empty()) {
        for (fs::path h = normalised(home); h.has_relative_path(); h = h.parent_path()) {
            if (samePath(p, h))
                return true;
        }
    }
    for (const fs::path &folder : systemFolders()) {
        if (samePath(p, normalised(folder)))
            return true;
    }
    for (const fs::path &tree : systemTrees()) {
        const fs::path t = normalised(tree);
        for (fs::path q = p; q.has_relative_path(); q = q.parent_path()) {
            if (samePath(q, t))
                return true;
        }
    }
    return false;
}

} // namespace Corbeth
