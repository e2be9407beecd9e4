#include <time.h>

#include "../platform.h"

namespace ssb {
namespace plat {

bool perf_frequency(int64_t* counts_per_second) {
    *counts_per_second = 1000000000LL;
    return true;
}

bool perf_counter(int64_t* counts) {
    struct timespec ts;
    if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0)
        return false;
    *counts = static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
    return true;
}

uint32_t tick_count_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000u +
                                 static_cast<uint64_t>(ts.tv_nsec) / 1000000u);
}

uint64_t system_time_100ns() {
    // 100-ns units between 1601-01-01 and 1970-01-01.
    const uint64_t EPOCH_1601 = 116444736000000000ULL;
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return EPOCH_1601 + static_cast<uint64_t>(ts.tv_sec) * 10000000u + static_cast<uint64_t>(ts.tv_nsec) / 100u;
}

}  // namespace plat
}  // namespace ssb
