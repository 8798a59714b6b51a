#ifndef CORBETH_WIN32API_H
#define CORBETH_WIN32API_H

// Win32 calls of the platform utilities. Only the Win32 API and the C++
// standard library are used here (no Qt, no <windows.h> in this header), so the
// units build and are tested with a MinGW-w64 cross compiler under Wine; the
// Qt adapters beside them (skglobal_win.cpp, treeprocess_win.cpp) do the
// logging and the Qt types.

#include <string>
#include <utility>
#include <vector>

namespace Corbeth {
namespace Win32Api {

// The executable file name ("app.exe") of the process with this id, from a
// Toolhelp snapshot, converted from the ANSI code page; empty when no running
// process has the id.
std::wstring processNameById(unsigned long pid);
unsigned long currentProcessId();
// Every running process: its id and executable file name (wide entries).
std::vector<std::pair<unsigned long, std::wstring>> runningProcesses();

// Whether this process's token is elevated. Returns false, leaving elevated
// untouched, when the token cannot be queried.
bool queryTokenElevation(bool &elevated);

// Finds the top-level window of this class and title, shows it normally and
// brings it to the front. False when there is no such window.
bool activateWindow(const std::wstring &windowClass, const std::wstring &title);

enum StorageQueryResult { StorageQueryOk = 0, StorageOpenFailed = -1, StorageIoctlFailed = -2 };
// The storage bus type (STORAGE_BUS_TYPE; 7 is USB) of a device such as
// "\\.\D:", through IOCTL_STORAGE_QUERY_PROPERTY. On failure error is the
// system error code, and the failing call is reported on standard error.
int storageBusType(const char *devicePath, unsigned short &busType, unsigned long &error);

} // namespace Win32Api
} // namespace Corbeth

#endif // CORBETH_WIN32API_H
