// A slow disk for one process: loaded with LD_PRELOAD, it makes write() to
// files whose name ends in ".part" take as long as a disk writing
// SLOWDISK_BYTES_PER_SECOND (default 16 MiB/s) would, by sleeping before
// each write. Other files and sockets are left alone. With SLOWDISK_REPORT
// set, the process's peak resident memory (KiB) is written to that file when
// it exits. Linux only.

#include <dlfcn.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using WriteFunction = ssize_t (*)(int, const void *, size_t);

bool isPartFile(int fd)
{
    char link[64];
    char target[4096];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link, target, sizeof target - 1);
    return n > 5 && std::memcmp(target + n - 5, ".part", 5) == 0;
}

double rate()
{
    const char *value = std::getenv("SLOWDISK_BYTES_PER_SECOND");
    const double parsed = value ? std::atof(value) : 0;
    return parsed > 0 ? parsed : 16.0 * 1024 * 1024;
}

} // namespace

extern "C" ssize_t write(int fd, const void *buffer, size_t size)
{
    static const auto real = reinterpret_cast<WriteFunction>(dlsym(RTLD_NEXT, "write"));
    static const double bytesPerSecond = rate();
    if (size >= 4096 && isPartFile(fd)) {
        const double seconds = double(size) / bytesPerSecond;
        timespec pause{time_t(seconds), long((seconds - time_t(seconds)) * 1e9)};
        nanosleep(&pause, nullptr);
    }
    return real(fd, buffer, size);
}

// Runs when the process exits normally, after main().
__attribute__((destructor)) static void reportPeakMemory()
{
    const char *report = std::getenv("SLOWDISK_REPORT");
    std::FILE *status = report ? std::fopen("/proc/self/status", "r") : nullptr;
    if (!status)
        return;
    char line[256];
    long peak = -1;
    while (std::fgets(line, sizeof line, status)) {
        if (std::sscanf(line, "VmHWM: %ld kB", &peak) == 1)
            break;
    }
    std::fclose(status);
    if (std::FILE *out = std::fopen(report, "w")) {
        std::fprintf(out, "%ld\n", peak);
        std::fclose(out);
    }
}
