// Tests what of the Win32 units that need no Qt the engine's own suite cannot
// reach under Wine (scripts/win64.sh runs that suite): a helper started outside
// the job, a program that cannot be resumed, the protected folders of SYSTEM,
// a window brought to the front. Cross-built with MinGW-w64 and run under
// Wine; exits 0 when every check passes.
//   corbeth-win32-test                run the checks
//   corbeth-win32-test --breakaway FILE  (used by the checks) start a sleeping
//                                     child outside the job, write its id to
//                                     FILE, then sleep; exits 3 if refused
//   corbeth-win32-test --sleep        (used by the checks) sleep a minute
#include "protectedpath.h"
#include "win32api.h"
#include "win32job.h"

#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <filesystem>
#include <string>

namespace fs = std::filesystem;

using namespace Corbeth;

namespace {
int s_failures = 0;

#define CHECK(condition)                                                                   \
    do {                                                                                   \
        if (!(condition)) {                                                                \
            std::fprintf(stderr, "FAIL %s:%d: %s\n", __FILE__, __LINE__, #condition);     \
            ++s_failures;                                                                  \
        }                                                                                  \
    } while (0)

std::wstring selfPath()
{
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return path;
}

// The caller closes both handles of info.
bool startProgram(const std::wstring &program, const std::wstring &args, DWORD flags, PROCESS_INFORMATION &info)
{
    std::wstring command = L"\"" + program + L"\" " + args;
    STARTUPINFOW startup;
    ZeroMemory(&startup, sizeof(startup));
    startup.cb = sizeof(startup);
    return CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, flags, nullptr, nullptr, &startup, &info);
}

HANDLE startSelf(const std::wstring &args, DWORD flags, DWORD &pid)
{
    PROCESS_INFORMATION info;
    if (!startProgram(selfPath(), args, flags, info))
        return nullptr;
    CloseHandle(info.hThread);
    pid = info.dwProcessId;
    return info.hProcess;
}

DWORD readPid(const std::wstring &file)
{
    HANDLE handle = CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, 0, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        return 0;
    char text[32] = {};
    DWORD read = 0;
    ReadFile(handle, text, sizeof(text) - 1, &read, nullptr);
    CloseHandle(handle);
    return std::strtoul(text, nullptr, 10);
}

int runTree(const wchar_t *pidFile, DWORD flags)
{
    DWORD pid = 0;
    HANDLE child = startSelf(L"--sleep", flags, pid);
    if (!child)
        return flags ? 3 : 2;
    HANDLE file = CreateFileW(pidFile, GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, 0, nullptr);
    const std::string text = std::to_string(pid);
    DWORD written = 0;
    WriteFile(file, text.data(), DWORD(text.size()), &written, nullptr);
    CloseHandle(file);
    Sleep(60000);
    return 0;
}

std::wstring tempFile(const wchar_t *name)
{
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    const std::wstring file = std::wstring(temp) + name;
    DeleteFileW(file.c_str());
    return file;
}

DWORD waitForPid(const std::wstring &file)
{
    DWORD pid = 0;
    for (int i = 0; i < 400 && !pid; ++i) {
        Sleep(50);
        pid = readPid(file);
    }
    return pid;
}

// The way TreeProcess starts a program: suspended, into the job, then its own
// thread resumed.
HANDLE startInJob(Win32Job &job, const std::wstring &args, DWORD &pid, bool &assigned)
{
    PROCESS_INFORMATION info;
    if (!startProgram(selfPath(), args, Win32Job::CreateSuspendedFlag, info))
        return nullptr;
    const bool resumed = job.assignAndResume(info.dwProcessId, info.hThread, assigned);
    CloseHandle(info.hThread);
    pid = info.dwProcessId;
    CHECK(resumed);
    return info.hProcess;
}

// A program may start a helper outside the job on purpose.
void testJobAllowsBreakaway()
{
    const std::wstring pidFile = tempFile(L"corbeth-win32-test-away.pid");
    Win32Job job;
    DWORD pid = 0;
    bool assigned = false;
    HANDLE parent = startInJob(job, L"--breakaway \"" + pidFile + L"\"", pid, assigned);
    CHECK(parent != nullptr);
    if (!parent)
        return;
    const DWORD child = waitForPid(pidFile);
    CHECK(child != 0);
    DWORD exitCode = 0;
    CHECK(GetExitCodeProcess(parent, &exitCode) && exitCode != 3);
    CHECK(job.terminate());
    CHECK(WaitForSingleObject(parent, 10000) == WAIT_OBJECT_0);
    HANDLE childHandle = child ? OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, child) : nullptr;
    if (childHandle) {
        // Outside the job, so still running: ended here.
        CHECK(WaitForSingleObject(childHandle, 0) == WAIT_TIMEOUT);
        TerminateProcess(childHandle, 0);
        CloseHandle(childHandle);
    }
    CloseHandle(parent);
    DeleteFileW(pidFile.c_str());
}

// A thread that cannot be resumed must not leave a suspended program behind
// for a caller to wait on for ever.
void testFailedResumeEndsTheProgram()
{
    Win32Job job;
    PROCESS_INFORMATION info;
    CHECK(startProgram(selfPath(), L"--sleep", Win32Job::CreateSuspendedFlag, info));
    bool assigned = false;
    CHECK(!job.assignAndResume(info.dwProcessId, nullptr, assigned));
    CHECK(assigned);
    CHECK(WaitForSingleObject(info.hProcess, 10000) == WAIT_OBJECT_0);
    CloseHandle(info.hThread);
    CloseHandle(info.hProcess);
    // A process that is gone cannot be assigned: the caller learns it.
    CHECK(!job.assign(info.dwProcessId));
}

void testProtectedPaths()
{
    struct Row
    {
        const wchar_t *path;
        bool refused;
    };
    const wchar_t *profileVariable = _wgetenv(L"USERPROFILE");
    const std::wstring profile = profileVariable ? profileVariable : L"C:\\Users\\me";
    const Row rows[] = {
        {L"", true},
        {L"C:\\", true},
        {L"C:\\Windows", true},
        {L"c:\\windows\\system32\\drivers", true},
        {L"C:\\Users", true},
        {L"C:\\Users\\", true},
        {L"C:\\Users\\alice", true},
        {L"C:\\Users\\alice\\Product", false},
        {L"C:\\Program Files", true},
        {L"C:\\Program Files\\Product", false},
        {L"C:\\ProgramData", true},
        {L"C:\\ProgramData\\Product", false},
        {L"\\\\server\\share", true},
        {L"\\\\server\\share\\", true},
        {L"\\\\server\\share\\Product", false},
        {profile.c_str(), true},
    };
    const auto check = [&rows](const char *context) {
        for (const Row &row : rows) {
            if (Corbeth::ProtectedPath::isProtected(fs::path(row.path)) != row.refused) {
                std::fprintf(stderr, "FAIL protected path (%s): %ls should be %s\n", context, row.path,
                             row.refused ? "refused" : "removable");
                ++s_failures;
            }
        }
    };
    check("as a user");
    // Running as SYSTEM: no profile of a person, and the users folder found
    // from the system drive alone.
    const std::wstring savedProfile = profile;
    const wchar_t *pub = _wgetenv(L"PUBLIC");
    const std::wstring savedPublic = pub ? pub : L"";
    _wputenv(L"USERPROFILE=C:\\Windows\\system32\\config\\systemprofile");
    _wputenv(L"PUBLIC=");
    check("as SYSTEM");
    _wputenv((L"USERPROFILE=" + savedProfile).c_str());
    _wputenv((L"PUBLIC=" + savedPublic).c_str());
}

void testActivateWindow()
{
    CHECK(!Win32Api::activateWindow(L"CorbethNoSuchClass", L"none"));

    WNDCLASSW windowClass;
    ZeroMemory(&windowClass, sizeof(windowClass));
    windowClass.lpfnWndProc = DefWindowProcW;
    windowClass.hInstance = GetModuleHandleW(nullptr);
    windowClass.lpszClassName = L"CorbethTestWindow";
    HWND window = RegisterClassW(&windowClass)
        ? CreateWindowW(L"CorbethTestWindow", L"corbeth-win32-test", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr,
                        nullptr, windowClass.hInstance, nullptr)
        : nullptr;
    if (!window) {
        std::printf("skipped window activation: no window station (error %lu)\n", GetLastError());
        return;
    }
    CHECK(!IsWindowVisible(window));
    CHECK(Win32Api::activateWindow(L"CorbethTestWindow", L"corbeth-win32-test"));
    CHECK(IsWindowVisible(window));
    DestroyWindow(window);
}
} // namespace

int wmain(int argc, wchar_t *argv[])
{
    if (argc == 3 && std::wcscmp(argv[1], L"--breakaway") == 0)
        return runTree(argv[2], CREATE_BREAKAWAY_FROM_JOB);
    if (argc == 2 && std::wcscmp(argv[1], L"--sleep") == 0) {
        Sleep(60000);
        return 0;
    }
    testJobAllowsBreakaway();
    testFailedResumeEndsTheProgram();
    testProtectedPaths();
    testActivateWindow();
    std::printf("%s: %d failure(s)\n", s_failures ? "FAILED" : "passed", s_failures);
    return s_failures ? 1 : 0;
}
