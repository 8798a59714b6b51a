#include "treeprocess_p.h"

#include "logging_p.h"
#include "win32api.h"
#include "win32job.h"

namespace Corbeth {

struct TreeProcess::Group
{
    Win32Job job;
};

TreeProcess::TreeProcess(QObject *parent)
    : QProcess(parent)
    , m_group(std::make_unique<Group>())
{
    // Created suspended and resumed only once it is in the job, so every
    // process it starts belongs to the job as well.
    setCreateProcessArgumentsModifier(
        [](QProcess::CreateProcessArguments *args) { args->flags |= Win32Job::CreateSuspendedFlag; });
    connect(this, &QProcess::started, this, [this] {
        const auto pid = static_cast<unsigned long>(processId());
        if (!m_group->job.assign(pid))
            qCWarning(lcCorbeth) << "process job assign fail" << pid << m_group->job.lastError();
        Win32Api::resumeProcess(pid);
    });
}

TreeProcess::~TreeProcess() = default;

// Windows never calls this; the job object does the grouping.
void TreeProcess::setupChildProcess()
{
}

void TreeProcess::killTree()
{
    if (!m_group->job.terminate())
        qCWarning(lcCorbeth) << "process job terminate fail" << m_group->job.lastError();
}

} // namespace Corbeth
