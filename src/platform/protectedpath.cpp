#include "platform/protectedpath.h"

namespace fs = std::filesystem;

namespace Corbeth {

namespace {

template<typename Same>
bool isInside(const fs::path &path, const fs::path &tree, Same same)
{
    for (fs::path q = path; q.has_relative_path(); q = q.parent_path()) {
        if (same(q, tree))
            return true;
    }
    return false;
}

} // namespace

fs::path ProtectedPath::normalised(const fs::path &path)
{
    std::error_code ec;
    fs::path result = fs::weakly_canonical(fs::absolute(path, ec), ec);
    if (ec)
        result = fs::absolute(path, ec).lexically_normal();
    // "C:\dir\" and "C:\dir" name the same folder.
    while (result.has_relative_path() && !result.has_filename())
        result = result.parent_path();
    return result;
}

fs::path ProtectedPath::located(const fs::path &path)
{
    fs::path p = path;
    while (p.has_relative_path() && !p.has_filename())
        p = p.parent_path();
    const fs::path name = p.filename();
    if (name.empty() || name == "." || name == ".." || !p.has_relative_path() || !p.has_parent_path())
        return normalised(p);
    return normalised(p.parent_path()) / name;
}

bool ProtectedPath::isProtected(const fs::path &path)
{
    if (path.empty())
        return true;
    const fs::path p = normalised(path);
    if (isRoot(path) || isRoot(p))
        return true;
    const auto same = [](const fs::path &a, const fs::path &b) { return samePath(a, b); };

    // A home, or a folder that holds one.
    if (isHomeParent(p) || (p.has_relative_path() && isHomeParent(p.parent_path())))
        return true;
    for (const fs::path &home : homeFolders()) {
        if (isInside(normalised(home), p, same))
            return true;
    }
    for (const fs::path &folder : systemFolders()) {
        if (samePath(p, normalised(folder)))
            return true;
    }
    for (const fs::path &tree : systemTrees()) {
        if (!isInside(p, normalised(tree), same))
            continue;
        bool open = false;
        for (const fs::path &openTree : openTrees()) {
            const fs::path o = normalised(openTree);
            open = open || (!samePath(p, o) && isInside(p, o, same));
        }
        if (!open)
            return true;
    }
    return false;
}

} // namespace Corbeth
