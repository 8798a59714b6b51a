#ifndef CORBETH_CLEANUP_SELFPROCESS_H
#define CORBETH_CLEANUP_SELFPROCESS_H

#include <chrono>
#include <cstdint>
#include <filesystem>

// What the cleanup tool needs of the operating system beyond std::filesystem.
namespace SelfProcess {

// Waits until the process pid has ended; false when it still runs after timeout.
bool waitForExit(std::int64_t pid, std::chrono::seconds timeout);
// The running program's own file.
std::filesystem::path executablePath();
// Removes the running program's own file, at once where the system allows it
// and otherwise by a helper that deletes it a moment after this process ended.
bool removeExecutable();

} // namespace SelfProcess

#endif // CORBETH_CLEANUP_SELFPROCESS_H
