#include "win32job.h"

#include <windows.h>

namespace Corbeth {

Win32Job::Win32Job()
    : m_handle(CreateJobObjectW(nullptr, nullptr))
{
    if (!m_handle) {
        m_lastError = GetLastError();
        return;
    }
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits;
    ZeroMemory(&limits, sizeof(limits));
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_BREAKAWAY_OK;
    if (!SetInformationJobObject(m_handle, JobObjectExtendedLimitInformation, &limits, sizeof(limits)))
        m_lastError = GetLastError();
}

Win32Job::~Win32Job()
{
    if (m_handle)
        CloseHandle(m_handle);
}

bool Win32Job::assign(unsigned long pid)
{
    HANDLE process = OpenProcess(PROCESS_SET_QUOTA | PROCESS_TERMINATE, FALSE, pid);
    const bool ok = m_handle && process && AssignProcessToJobObject(m_handle, process);
    if (!ok)
        m_lastError = GetLastError();
    if (process)
        CloseHandle(process);
    return ok;
}

bool Win32Job::assignAndResume(unsigned long pid, void *thread, bool &assigned)
{
    assigned = assign(pid);
    if (thread && ResumeThread(static_cast<HANDLE>(thread)) != static_cast<DWORD>(-1))
        return true;
    m_lastError = GetLastError();
    HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, pid);
    if (process) {
        TerminateProcess(process, 1);
        CloseHandle(process);
    }
    return false;
}

bool Win32Job::terminate(unsigned int exitCode)
{
    if (m_handle && TerminateJobObject(m_handle, exitCode))
        return true;
    m_lastError = GetLastError();
    return false;
}

} // namespace Corbeth
