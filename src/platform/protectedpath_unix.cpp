#include "platform/protectedpath.h"

#include <cstdlib>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

namespace Corbeth {

std::vector<fs::path> ProtectedPath::systemFolders()
{
    std::vector<fs::path> folders = {
        "/home", "/media", "/mnt", "/opt", "/srv", "/tmp", "/usr/local", "/usr/local/bin", "/usr/local/etc",
        "/usr/local/include", "/usr/local/lib", "/usr/local/libexec", "/usr/local/man", "/usr/local/sbin",
        "/usr/local/share", "/usr/local/src",
    };
    if (const char *tmp = std::getenv("TMPDIR"); tmp && *tmp)
        folders.emplace_back(tmp);
    return folders;
}

std::vector<fs::path> ProtectedPath::systemTrees()
{
    return {"/bin", "/boot", "/dev", "/etc", "/lib", "/lib32", "/lib64", "/libx32", "/proc", "/run", "/sbin", "/sys", "/usr", "/var"};
}

// A product may install itself as /usr/local/<product>.
std::vector<fs::path> ProtectedPath::openTrees()
{
    return {"/usr/local"};
}

// The running user's, and every account of a person (user id 1000 and up) or
// of root in the password file, so that another user's home is refused as
// well when the engine runs through sudo.
std::vector<fs::path> ProtectedPath::homeFolders()
{
    std::vector<fs::path> homes;
    if (const char *home = std::getenv("HOME"); home && *home)
        homes.emplace_back(home);
    std::ifstream passwd("/etc/passwd");
    std::string line;
    while (std::getline(passwd, line)) {
        // name:password:uid:gid:gecos:home:shell
        std::vector<std::string> fields;
        std::size_t start = 0;
        for (std::size_t colon; (colon = line.find(':', start)) != std::string::npos; start = colon + 1)
            fields.push_back(line.substr(start, colon - start));
        if (fields.size() < 6)
            continue;
        const long uid = std::strtol(fields[2].c_str(), nullptr, 10);
        if ((uid == 0 || (uid >= 1000 && uid < 65534)) && fields[5].size() > 1)
            homes.emplace_back(fields[5]);
    }
    return homes;
}

bool ProtectedPath::isHomeParent(const fs::path &path)
{
    return path == "/home";
}

bool ProtectedPath::isRoot(const fs::path &path)
{
    return !path.has_relative_path();
}

bool ProtectedPath::samePath(const fs::path &a, const fs::path &b)
{
    return a == b;
}

} // namespace Corbeth
