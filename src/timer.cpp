#include "timer.h"

#include "platform/platform.h"
#include "trace.h"

namespace ssb {

// ---- clocks -------------------------------------------------------------------

namespace {

// A backward step makes the distance huge (the -3 keeps even a step of one
// ms huge), and any distance beyond a week freezes the clock.
const uint64_t MAX_TICK_STEP_MS = 604800000000ULL;
// 100-ns units between 1601-01-01 and 1970-01-01.
const uint64_t EPOCH_1601_100NS = 116444736000000000ULL;

struct tick_state_t {
    tick_state_t() : frequency(0), available(false), last_ms(0) {
        int64_t f = 0, c = 0;
        if (plat::perf_frequency(&f) && f > 0 && plat::perf_counter(&c)) {
            frequency = f;
            available = true;
            last_ms.store(static_cast<uint64_t>(c * 1000.0 / f), std::memory_order_relaxed);
        }
    }
    int64_t frequency;
    bool available;
    std::atomic<uint64_t> last_ms;
};

// Lives for the process: the frequency never changes, and readers on other
// threads may still ask for the time during tear-down.
tick_state_t& tick_state() {
    static tick_state_t* s_state = new tick_state_t;
    return *s_state;
}

}  // namespace

uint32_t tick_strategy::step(uint64_t reading_ms, std::atomic<uint64_t>& last_ms) {
    uint64_t last = last_ms.load(std::memory_order_relaxed);
    for (;;) {
        uint64_t distance = reading_ms >= last ? reading_ms - last : reading_ms - last - 3;
        if (distance > MAX_TICK_STEP_MS)
            return static_cast<uint32_t>(last);
        // Only ever move forward, even when readers race.
        if (last_ms.compare_exchange_weak(last, reading_ms, std::memory_order_relaxed))
            return static_cast<uint32_t>(reading_ms);
    }
}

uint32_t tick_strategy::now() {
    tick_state_t& s = tick_state();
    int64_t counter = 0;
    if (!s.available || !plat::perf_counter(&counter))
        return plat::tick_count_ms();
    return step(static_cast<uint64_t>(counter * 1000.0 / s.frequency), s.last_ms);
}

uint64_t time_strategy::now() { return (plat::system_time_100ns() - EPOCH_1601_100NS) / 10; }

std::atomic<bool> ticks_drv_t::s_start(false);
std::atomic<uint32_t> ticks_drv_t::s_tag(0);
std::atomic<bool> times_drv_t::s_start(false);
std::atomic<uint64_t> times_drv_t::s_tag(0);

// The cached tags may be one driver pass old; relaxed is enough because no
// other data is published with them.
uint32_t ticks_drv_t::now() {
    if (s_start.load(std::memory_order_relaxed))
        return s_tag.load(std::memory_order_relaxed);
    return tick_strategy::now();
}

uint64_t times_drv_t::now() {
    if (s_start.load(std::memory_order_relaxed))
        return s_tag.load(std::memory_order_relaxed);
    return time_strategy::now() / 1000;
}

}  // namespace ssb
