#include "treeprocess_p.h"

#include "logging_p.h"

#include <cerrno>
#include <cstring>
#include <signal.h>
#include <unistd.h>

namespace Corbeth {

// The process group is the program's own id, so nothing needs keeping.
struct TreeProcess::Group
{
};

TreeProcess::TreeProcess(QObject *parent)
    : QProcess(parent)
{
}

TreeProcess::~TreeProcess() = default;

// Runs in the child between fork and exec: a group of its own, which every
// process it starts inherits unless it deliberately leaves.
void TreeProcess::setupChildProcess()
{
    ::setpgid(0, 0);
}

void TreeProcess::killTree()
{
    const qint64 pid = processId();
    if (pid <= 0)
        return;
    if (::kill(-static_cast<pid_t>(pid), SIGKILL) != 0 && errno != ESRCH)
        qCWarning(lcCorbeth) << "kill process group fail" << pid << std::strerror(errno);
}

} // namespace Corbeth
