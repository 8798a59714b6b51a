#include "peakmemory.h"

#include <sys/resource.h>

long long peakMemoryKiB()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}
