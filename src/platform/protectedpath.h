#ifndef CORBETH_PROTECTEDPATH_H
#define CORBETH_PROTECTEDPATH_H

#include <filesystem>
#include <vector>

namespace Corbeth {

// Folders that no removal may take away: a drive, share or file system root,
// every user's home folder (and every folder that holds one), the system's
// trees with everything below them, and a few shared folders as such (an
// application's own folder inside them stays removable). Plain C++ without Qt,
// so the self-deleting cleanup tool applies exactly the same rule as the engine.
class ProtectedPath
{
public:
    static bool isProtected(const std::filesystem::path &path);
    // Absolute, with "." and ".." resolved and no trailing separator; links are
    // resolved where the path exists.
    static std::filesystem::path normalised(const std::filesystem::path &path);
    // Absolute, with ".", ".." and links resolved in the folders that lead to
    // it, as the system resolves them; its last name is kept, so a link stays
    // the link. The path a removal checks and then acts on.
    static std::filesystem::path located(const std::filesystem::path &path);

private:
    // Folders refused as such; what they hold is not protected by this list.
    static std::vector<std::filesystem::path> systemFolders();
    // Folders refused together with everything below them, except below the
    // folders of openTrees().
    static std::vector<std::filesystem::path> systemTrees();
    static std::vector<std::filesystem::path> openTrees();
    // Every user's home folder this system knows of.
    static std::vector<std::filesystem::path> homeFolders();
    // Whether path (normalised) is a folder that holds users' homes, each of
    // whose direct sub-folders is a home ("/home", "C:\Users").
    static bool isHomeParent(const std::filesystem::path &path);
    static bool isRoot(const std::filesystem::path &path);
    static bool samePath(const std::filesystem::path &a, const std::filesystem::path &b);
};

} // namespace Corbeth

#endif // CORBETH_PROTECTEDPATH_H
