#include "treeprocess_p.h"

#include "logging_p.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QHash>
#include <QtCore/QSet>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#include <sys/syscall.h>
#endif

namespace Corbeth {

namespace {

// Each running process's parent, from /proc.
QHash<pid_t, pid_t> parentsOfAll()
{
    QHash<pid_t, pid_t> parents;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        bool isPid = false;
        const pid_t pid = entry.toInt(&isPid);
        if (!isPid)
            continue;
        QFile stat(QStringLiteral("/proc/%1/stat").arg(entry));
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        // "pid (name) state ppid ...": the name may hold blanks and parentheses.
        const QByteArray line = stat.readAll();
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 1)
            parents.insert(pid, pid_t(fields.at(1).toInt()));
    }
    return parents;
}

QSet<pid_t> descendantsOf(pid_t root)
{
    const QHash<pid_t, pid_t> parents = parentsOfAll();
    QSet<pid_t> found;
    QList<pid_t> pending{root};
    while (!pending.isEmpty()) {
        const pid_t parent = pending.takeLast();
        for (auto it = parents.cbegin(); it != parents.cend(); ++it) {
            if (it.value() == parent && !found.contains(it.key())) {
                found.insert(it.key());
                pending.append(it.key());
            }
        }
    }
    return found;
}

#ifdef __linux__
void closeAllFiles()
{
#ifdef SYS_close_range
    if (::syscall(SYS_close_range, 0u, ~0u, 0u) == 0)
        return;
#endif
    const long max = ::sysconf(_SC_OPEN_MAX);
    for (int fd = 0; fd < (max > 0 && max < 65536 ? max : 65536); ++fd)
        ::close(fd);
}

// The keeper: waits for the program and ends as it ended. Being a subreaper,
// it also adopts (and reaps) every process the program's descendants orphan,
// so the whole tree stays below it however a program detaches.
[[noreturn]] void keep(pid_t program)
{
    // Its copies of QProcess's pipes would hold the start report and the
    // program's output open.
    closeAllFiles();
    int status = 0;
    for (;;) {
        int st = 0;
        const pid_t ended = ::waitpid(-1, &st, 0);
        if (ended == program) {
            status = st;
            break;
        }
        if (ended < 0 && errno != EINTR)
            ::_exit(127);
    }
    if (WIFSIGNALED(status)) {
        const int sig = WTERMSIG(status);
        ::signal(sig, SIG_DFL);
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, sig);
        ::sigprocmask(SIG_UNBLOCK, &set, nullptr);
        ::kill(::getpid(), sig);
    }
    ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 127);
}
#endif

} // namespace

// Nothing to keep: the tree is found below the process's own id.
struct TreeProcess::Group
{
};

TreeProcess::TreeProcess(QObject *parent)
    : QProcess(parent)
{
}

TreeProcess::~TreeProcess() = default;

// Runs in the child between fork and exec, so only async-signal-safe calls.
// The child becomes a keeper that is a child subreaper and forks once more;
// the program is exec'd in the grandchild. A process that calls setsid() or
// double-forks is then still below the keeper, where killTree() finds it.
void TreeProcess::setupChildProcess()
{
    ::setpgid(0, 0);
#ifdef __linux__
    if (::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0)
        return; // the program runs here itself; its process group is still ended
    // Qt's own SIGCHLD handler must not reap the program behind the keeper's back.
    ::signal(SIGCHLD, SIG_DFL);
    const pid_t program = ::fork();
    if (program > 0)
        keep(program);
#endif
}

bool TreeProcess::killTree()
{
    const auto root = static_cast<pid_t>(processId());
    if (root <= 0)
        return true;
    // Stop first, so that nothing forks between listing and killing; repeat
    // until a listing finds no process that was not stopped already.
    QSet<pid_t> stopped;
    for (int round = 0; round < 100; ++round) {
        const QSet<pid_t> found = descendantsOf(root);
        bool grew = false;
        for (const pid_t pid : found) {
            if (stopped.contains(pid))
                continue;
            ::kill(pid, SIGSTOP);
            stopped.insert(pid);
            grew = true;
        }
        if (!grew)
            break;
    }
    ::kill(-root, SIGKILL);
    for (const pid_t pid : qAsConst(stopped))
        ::kill(pid, SIGKILL);
    if (::kill(root, SIGKILL) != 0 && errno != ESRCH) {
        qCWarning(lcCorbeth) << "kill process tree fail" << root << std::strerror(errno);
        return false;
    }
    return true;
}

} // namespace Corbeth
