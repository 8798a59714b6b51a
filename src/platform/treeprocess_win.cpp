#include "treeprocess_p.h"

#include "logging_p.h"
#include "win32job.h"

#include <windows.h>

namespace Corbeth {

struct TreeProcess::Group
{
    Win32Job job;
    // QProcess's own PROCESS_INFORMATION, filled by CreateProcess; it lives
    // until the process is cleaned up, so its thread handle is valid in started.
    PROCESS_INFORMATION *information = nullptr;
    bool contained = false;
};

TreeProcess::TreeProcess(QObject *parent)
    : QProcess(parent)
    , m_group(std::make_unique<Group>())
{
    // Created suspended and resumed only once it is in the job, so every
    // process it starts belongs to the job as well.
    setCreateProcessArgumentsModifier([group = m_group.get()](QProcess::CreateProcessArguments *args) {
        args->flags |= Win32Job::CreateSuspendedFlag;
        group->information = args->processInformation;
    });
    connect(this, &QProcess::started, this, [this] {
        const auto pid = static_cast<unsigned long>(processId());
        void *thread = m_group->information ? m_group->information->hThread : nullptr;
        if (!m_group->job.assignAndResume(pid, thread, m_group->contained))
            qCCritical(lcCorbeth) << "process resume fail" << pid << m_group->job.lastError();
        if (!m_group->contained)
            qCCritical(lcCorbeth) << "process job assign fail" << pid << m_group->job.lastError();
    });
}

TreeProcess::~TreeProcess() = default;

// Windows never calls this; the job object does the grouping.
void TreeProcess::setupChildProcess()
{
}

bool TreeProcess::killTree()
{
    if (m_group->contained && m_group->job.terminate())
        return true;
    if (m_group->contained)
        qCWarning(lcCorbeth) << "process job terminate fail" << m_group->job.lastError();
    // Outside a job only the program itself can be ended.
    kill();
    return false;
}

} // namespace Corbeth
