#include "win32api.h"

#include <windows.h>
#include <winioctl.h>
#include <tlhelp32.h>

#include <cstddef>
#include <cstdio>
#include <vector>

// The 8-bit snapshot entries are used on purpose, whatever UNICODE says: their
// names are converted from the ANSI code page below.
#undef PROCESSENTRY32
#undef Process32First
#undef Process32Next

namespace Corbeth {
namespace Win32Api {

namespace {
std::wstring fromAnsi(const char *text)
{
    const int size = MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
    if (size <= 1)
        return std::wstring();
    std::wstring out(static_cast<size_t>(size), L'\0');
    MultiByteToWideChar(CP_ACP, 0, text, -1, &out[0], size);
    out.resize(static_cast<size_t>(size - 1));
    return out;
}

// One property query into buffer; false (with the error printed) on failure.
bool queryStorageProperty(HANDLE device, void *buffer, DWORD size, unsigned long &error)
{
    STORAGE_PROPERTY_QUERY query;
    ZeroMemory(&query, sizeof(query)); // StorageDeviceProperty, PropertyStandardQuery
    DWORD returned = 0;
    if (DeviceIoControl(device, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof(query), buffer, size, &returned,
                        nullptr))
        return true;
    error = GetLastError();
    std::fprintf(stderr, "IOCTL_STORAGE_QUERY_PROPERTY Error: %ld\n", static_cast<long>(error));
    return false;
}
} // namespace

std::wstring processNameById(unsigned long pid)
{
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot == INVALID_HANDLE_VALUE)
        return std::wstring();
    std::wstring name;
    PROCESSENTRY32 entry;
    entry.dwSize = sizeof(entry);
    for (BOOL more = Process32First(snapshot, &entry); more; more = Process32Next(snapshot, &entry)) {
        if (entry.th32ProcessID == pid) {
            name = fromAnsi(entry.szExeFile);
            break;
        }
    }
    CloseHandle(snapshot);
    return name;
}

unsigned long currentProcessId()
{
    return GetCurrentProcessId();
}

std::vector<std::pair<unsigned long, std::wstring>> runningProcesses()
{
    std::vector<std::pair<unsigned long, std::wstring>> processes;
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot == INVALID_HANDLE_VALUE)
        return processes;
    PROCESSENTRY32W entry;
    entry.dwSize = sizeof(entry);
    for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry))
        processes.emplace_back(entry.th32ProcessID, entry.szExeFile);
    CloseHandle(snapshot);
    return processes;
}

bool queryTokenElevation(bool &elevated)
{
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
        return false;
    TOKEN_ELEVATION elevation;
    DWORD size = 0;
    const bool ok = GetTokenInformation(token, TokenElevation, &elevation, sizeof(elevation), &size);
    CloseHandle(token);
    if (ok)
        elevated = elevation.TokenIsElevated != 0;
    return ok;
}

bool activateWindow(const std::wstring &windowClass, const std::wstring &title)
{
    HWND window = FindWindowW(windowClass.c_str(), title.c_str());
    if (!window)
        return false;
    const bool found = IsWindow(window);
    ShowWindow(window, SW_SHOWNORMAL);
    SetForegroundWindow(window);
    return found;
}

int storageBusType(const char *devicePath, unsigned short &busType, unsigned long &error)
{
    HANDLE device = CreateFileA(devicePath, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                nullptr, OPEN_EXISTING, 0, nullptr);
    if (device == INVALID_HANDLE_VALUE) {
        error = GetLastError();
        std::fprintf(stderr, "CreateFile() Error: %ld\n", static_cast<long>(error));
        return StorageOpenFailed;
    }
    // First the header, which announces the size of the whole descriptor.
    STORAGE_DESCRIPTOR_HEADER header;
    ZeroMemory(&header, sizeof(header));
    bool ok = queryStorageProperty(device, &header, sizeof(header), error);
    std::vector<unsigned char> buffer;
    if (ok && header.Size < offsetof(STORAGE_DEVICE_DESCRIPTOR, BusType) + sizeof(DWORD)) {
        error = ERROR_INSUFFICIENT_BUFFER;
        std::fprintf(stderr, "IOCTL_STORAGE_QUERY_PROPERTY Error: %ld\n", static_cast<long>(error));
        ok = false;
    }
    if (ok) {
        buffer.resize(header.Size);
        ok = queryStorageProperty(device, buffer.data(), header.Size, error);
    }
    CloseHandle(device);
    if (!ok)
        return StorageIoctlFailed;
    const auto *descriptor = reinterpret_cast<const STORAGE_DEVICE_DESCRIPTOR *>(buffer.data());
    busType = static_cast<unsigned short>(descriptor->BusType & 0xFFFF);
    std::printf("%d\n", static_cast<int>(busType));
    return StorageQueryOk;
}

} // namespace Win32Api
} // namespace Corbeth
