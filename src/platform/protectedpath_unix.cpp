#include "platform/protectedpath.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

namespace Corbeth {

namespace {

// The folders a desktop and its applications share in each home. Removing one
// would empty the desktop, every application's settings or the menu.
const char *const kUserFolders[] = {
    "Desktop", "Documents", "Downloads", "Music", "Pictures", "Public", "Templates", "Videos", ".local", ".local/bin",
    ".local/lib", ".local/share", ".local/share/applications", ".local/share/icons", ".local/state", ".config",
    ".config/autostart", ".cache",
};

// The folders a home's user-dirs.dirs names (translated or moved ones):
// lines such as XDG_DESKTOP_DIR="$HOME/Schreibtisch".
void addUserDirs(const fs::path &home, const fs::path &configHome, std::vector<fs::path> &folders)
{
    std::ifstream dirs(configHome / "user-dirs.dirs");
    std::string line;
    while (std::getline(dirs, line)) {
        const std::size_t open = line.find("=\"");
        if (line.rfind("XDG_", 0) != 0 || open == std::string::npos || line.size() < open + 3 || line.back() != '"')
            continue;
        std::string value = line.substr(open + 2, line.size() - open - 3);
        if (value.rfind("$HOME", 0) == 0)
            folders.push_back(home / fs::u8path(value.substr(std::min<std::size_t>(value.size(), 6))));
        else if (!value.empty() && value.front() == '/')
            folders.emplace_back(fs::u8path(value));
    }
}

fs::path environmentPath(const char *name)
{
    const char *value = std::getenv(name);
    return value && *value ? fs::u8path(value) : fs::path();
}

} // namespace

std::vector<fs::path> ProtectedPath::systemFolders()
{
    std::vector<fs::path> folders = {
        "/home", "/media", "/mnt", "/opt", "/srv", "/tmp", "/usr/local", "/usr/local/bin", "/usr/local/etc",
        "/usr/local/include", "/usr/local/lib", "/usr/local/libexec", "/usr/local/man", "/usr/local/sbin",
        "/usr/local/share", "/usr/local/src",
    };
    if (const fs::path tmp = environmentPath("TMPDIR"); !tmp.empty())
        folders.push_back(tmp);
    for (const fs::path &home : homeFolders()) {
        for (const char *folder : kUserFolders)
            folders.push_back(home / folder);
        addUserDirs(home, home / ".config", folders);
    }
    // The running user's, where the environment moves them.
    for (const char *name : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME"}) {
        if (const fs::path folder = environmentPath(name); !folder.empty())
            folders.push_back(folder);
    }
    if (const fs::path data = environmentPath("XDG_DATA_HOME"); !data.empty())
        folders.push_back(data / "applications");
    if (const fs::path config = environmentPath("XDG_CONFIG_HOME"); !config.empty())
        addUserDirs(environmentPath("HOME"), config, folders);
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
