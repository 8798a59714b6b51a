#ifndef CORBETH_WIN32JOB_H
#define CORBETH_WIN32JOB_H

// A Windows job object that holds a program and every process it starts, so
// the whole tree can be ended at once. Win32 and the standard library only
// (see win32api.h).

namespace Corbeth {

class Win32Job
{
public:
    // CREATE_SUSPENDED: a program is created suspended, assigned, then resumed,
    // so not even its first child can start outside the job.
    static constexpr unsigned long CreateSuspendedFlag = 0x00000004;

    Win32Job();
    // Programs of the job may start helpers outside it on purpose
    // (CREATE_BREAKAWAY_FROM_JOB). Closing the job leaves its processes
    // running: only a timeout ends them.
    ~Win32Job();
    Win32Job(const Win32Job &) = delete;
    Win32Job &operator=(const Win32Job &) = delete;

    bool isValid() const { return m_handle != nullptr; }
    // Puts the process into the job; children it starts afterwards join it.
    bool assign(unsigned long pid);
    // For a process created suspended: puts it into the job (assigned tells
    // whether that worked) and resumes its thread (the hThread of its
    // PROCESS_INFORMATION). False when the thread could not be resumed; the
    // process is then ended, so that nobody waits for it for ever.
    bool assignAndResume(unsigned long pid, void *thread, bool &assigned);
    // Ends every process of the job.
    bool terminate(unsigned int exitCode = 1);
    // The system error code of the last failed call.
    unsigned long lastError() const { return m_lastError; }

private:
    void *m_handle = nullptr;
    unsigned long m_lastError = 0;
};

} // namespace Corbeth

#endif // CORBETH_WIN32JOB_H
