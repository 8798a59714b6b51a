#include "platform/protectedpath.h"

#include <cstdlib>

namespace fs = std::filesystem;

namespace Corbeth {

std::vector<fs::path> ProtectedPath::systemFolders()
{
    std::vector<fs::path> folders = {
        "/bin", "/boot", "/etc", "/home", "/lib", "/lib32", "/lib64", "/libx32", "/media", "/mnt", "/opt",
        "/root", "/run", "/sbin", "/srv", "/tmp", "/usr", "/usr/bin", "/usr/include", "/usr/lib", "/usr/lib32",
        "/usr/lib64", "/usr/libexec", "/usr/local", "/usr/local/bin", "/usr/local/lib", "/usr/local/share",
        "/usr/sbin", "/usr/share", "/var", "/var/cache", "/var/lib", "/var/log", "/var/tmp",
    };
    if (const char *tmp = std::getenv("TMPDIR"); tmp && *tmp)
        folders.emplace_back(tmp);
    return folders;
}

std::vector<fs::path> ProtectedPath::systemTrees()
{
    return {"/proc", "/sys", "/dev", "/etc", "/boot"};
}

fs::path ProtectedPath::homeFolder()
{
    const char *home = std::getenv("HOME");
    return home && *home ? fs::path(home) : fs::path();
}

bool ProtectedPath::samePath(const fs::path &a, const fs::path &b)
{
    return a == b;
}

} // namespace Corbeth
