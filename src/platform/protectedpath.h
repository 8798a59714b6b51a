#ifndef CORBETH_PROTECTEDPATH_H
#define CORBETH_PROTECTEDPATH_H

#include <filesystem>
#include <vector>

namespace Corbeth {

// Folders that no removal may take away: a drive root, the user's home (or a
// folder that holds it) and the system's own folders. Plain C++ without Qt, so
// the self-deleting cleanup tool applies exactly the same rule as the engine.
class ProtectedPath
{
public:
    static bool isProtected(const std::filesystem::path &path);

private:
    // Folders refused as such (their sub-folders are not protected by this list).
    static std::vector<std::filesystem::path> systemFolders();
    // Folders refused together with everything below them.
    static std::vector<std::filesystem::path> systemTrees();
    static std::filesystem::path homeFolder();
    static bool samePath(const std::filesystem::path &a, const std::filesystem::path &b);
};

} // namespace Corbeth

#endif // CORBETH_PROTECTEDPATH_H
