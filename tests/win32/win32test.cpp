// Tests the Win32-only units of src/platform (no Qt), cross-built with
// MinGW-w64 and run under Wine. Exits 0 when every check passes.
//   corbeth-win32-test              run the checks
//   corbeth-win32-test --tree FILE  (used by the checks) start a sleeping
//                                   child, write its id to FILE, then sleep
//   corbeth-win32-test --sleep      (used by the checks) sleep a minute
#include "win32api.h"
#include "win32job.h"

#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string>

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

HANDLE startSelf(const std::wstring &args, DWORD flags, DWORD &pid)
{
    std::wstring command = L"\"" + selfPath() + L"\" " + args;
    STARTUPINFOW startup;
    ZeroMemory(&startup, sizeof(startup));
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info;
    if (!CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, flags, nullptr, nullptr, &startup, &info))
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

int runTree(const wchar_t *pidFile)
{
    DWORD pid = 0;
    HANDLE child = startSelf(L"--sleep", 0, pid);
    if (!child)
        return 2;
    HANDLE file = CreateFileW(pidFile, GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, 0, nullptr);
    const std::string text = std::to_string(pid);
    DWORD written = 0;
    WriteFile(file, text.data(), DWORD(text.size()), &written, nullptr);
    CloseHandle(file);
    Sleep(60000);
    return 0;
}

void testProcessName()
{
    const std::wstring name = Win32Api::processNameById(Win32Api::currentProcessId());
    CHECK(_wcsicmp(name.c_str(), L"corbeth-win32-test.exe") == 0);
    CHECK(Win32Api::processNameById(0xFFFFFFF0ul).empty());
}

void testTokenElevation()
{
    bool elevated = false;
    CHECK(Win32Api::queryTokenElevation(elevated));
    std::printf("token elevated: %d\n", int(elevated));
}

void testStorageQuery()
{
    unsigned short busType = 0xFFFF;
    unsigned long error = 0;
    CHECK(Win32Api::storageBusType("\\\\.\\Q:", busType, error) == Win32Api::StorageOpenFailed);
    CHECK(error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND);
    CHECK(busType == 0xFFFF);
    CHECK(Win32Api::storageBusType("", busType, error) == Win32Api::StorageOpenFailed);

    // The system drive: a real answer, or (where the emulation has no storage
    // stack) a refused query; never a half-read descriptor.
    error = 0;
    const int result = Win32Api::storageBusType("\\\\.\\C:", busType, error);
    std::printf("C: query %d, bus type %u, error %lu\n", result, unsigned(busType), error);
    CHECK(result == Win32Api::StorageQueryOk ? busType <= 0x7F : error != 0);
}

void testJobEndsTree()
{
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    const std::wstring pidFile = std::wstring(temp) + L"corbeth-win32-test-child.pid";
    DeleteFileW(pidFile.c_str());

    Win32Job job;
    CHECK(job.isValid());
    DWORD pid = 0;
    HANDLE parent = startSelf(L"--tree \"" + pidFile + L"\"", Win32Job::CreateSuspendedFlag, pid);
    CHECK(parent != nullptr);
    if (!parent)
        return;
    CHECK(job.assign(pid));
    CHECK(Win32Api::resumeProcess(pid));

    DWORD child = 0;
    for (int i = 0; i < 400 && !child; ++i) {
        Sleep(50);
        child = readPid(pidFile);
    }
    CHECK(child != 0);
    HANDLE childHandle = child ? OpenProcess(SYNCHRONIZE, FALSE, child) : nullptr;
    CHECK(childHandle != nullptr);
    CHECK(WaitForSingleObject(parent, 0) == WAIT_TIMEOUT);

    CHECK(job.terminate());
    CHECK(WaitForSingleObject(parent, 10000) == WAIT_OBJECT_0);
    if (childHandle) {
        CHECK(WaitForSingleObject(childHandle, 10000) == WAIT_OBJECT_0);
        CloseHandle(childHandle);
    }
    CloseHandle(parent);
    DeleteFileW(pidFile.c_str());
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
    if (argc == 3 && std::wcscmp(argv[1], L"--tree") == 0)
        return runTree(argv[2]);
    if (argc == 2 && std::wcscmp(argv[1], L"--sleep") == 0) {
        Sleep(60000);
        return 0;
    }
    testProcessName();
    testTokenElevation();
    testStorageQuery();
    testJobEndsTree();
    testActivateWindow();
    std::printf("%s: %d failure(s)\n", s_failures ? "FAILED" : "passed", s_failures);
    return s_failures ? 1 : 0;
}
