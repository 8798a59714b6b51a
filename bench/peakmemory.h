// The peak memory of this process, for the benchmarks.
#pragma once

// Peak resident (Windows: working set) size of this process in KiB.
long long peakMemoryKiB();
