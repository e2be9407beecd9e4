#include <windows.h>

#include "../platform.h"

namespace ssb {
namespace plat {

bool perf_frequency(int64_t* counts_per_second) {
    LARGE_INTEGER f;
    if (!QueryPerformanceFrequency(&f) || f.QuadPart == 0)
        return false;
    *counts_per_second = f.QuadPart;
    return true;
}

bool perf_counter(int64_t* counts) {
    LARGE_INTEGER c;
    if (!QueryPerformanceCounter(&c))
        return false;
    *counts = c.QuadPart;
    return true;
}

uint32_t tick_count_ms() { return GetTickCount(); }

uint64_t system_time_100ns() {
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    return (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

}  // namespace plat
}  // namespace ssb
