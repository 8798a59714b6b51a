#include "selfprocess.h"

#include <string>
#include <vector>

#include <windows.h>

namespace SelfProcess {

bool waitForExit(std::int64_t pid, std::chrono::seconds timeout)
{
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
    if (!process)
        return true; // no such process (any more)
    const DWORD result = WaitForSingleObject(process, static_cast<DWORD>(timeout.count() * 1000));
    CloseHandle(process);
    return result == WAIT_OBJECT_0;
}

std::filesystem::path executablePath()
{
    std::vector<wchar_t> buffer(32768);
    const DWORD length = GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
    return std::filesystem::path(std::wstring(buffer.data(), length));
}

bool removeExecutable()
{
    // A running program's file cannot be deleted on Windows: a hidden command
    // shell deletes it once this process has had a few seconds to end.
    std::wstring command = L"cmd.exe /C ping 127.0.0.1 -n 3 > nul & del /F /Q \"" + executablePath().wstring() + L"\"";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info = {};
    if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW | DETACHED_PROCESS,
                        nullptr, nullptr, &startup, &info)) {
        return false;
    }
    CloseHandle(info.hThread);
    CloseHandle(info.hProcess);
    return true;
}

} // namespace SelfProcess
