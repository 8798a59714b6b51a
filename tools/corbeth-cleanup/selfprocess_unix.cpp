#include "selfprocess.h"

#include <cerrno>
#include <csignal>
#include <fstream>
#include <string>
#include <thread>

#include <sys/types.h>
#include <unistd.h>

namespace SelfProcess {

namespace {

// An ended process whose parent has not collected it yet still answers kill().
bool isZombie(std::int64_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const auto close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'Z';
}

} // namespace

bool waitForExit(std::int64_t pid, std::chrono::seconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    // The engine's process is not our parent, so it cannot be waited for; poll.
    while ((::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM) && !isZombie(pid)) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return true;
}

std::filesystem::path executablePath()
{
    std::error_code ec;
    return std::filesystem::read_symlink("/proc/self/exe", ec);
}

bool removeExecutable()
{
    // A running program's file can be unlinked here.
    std::error_code ec;
    return std::filesystem::remove(executablePath(), ec);
}

} // namespace SelfProcess
