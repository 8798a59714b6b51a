#include "peakmemory.h"

#include <windows.h>
#include <psapi.h>

long long peakMemoryKiB()
{
    PROCESS_MEMORY_COUNTERS counters = {};
    counters.cb = sizeof(counters);
    if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters)))
        return 0;
    return static_cast<long long>(counters.PeakWorkingSetSize / 1024);
}
