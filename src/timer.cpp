#include "timer.h"

#include "platform/platform.h"
#include "trace.h"

namespace ssb {

// ---- clocks -------------------------------------------------------------------

namespace {

// A backward step wraps to a huge distance (less 3, an odd correction kept as
// it stands), and any distance beyond a week freezes the clock.
const uint64_t MAX_TICK_STEP_MS = 604800000000ULL;
// 100-ns units between 1601-01-01 and 1970-01-01.
const uint64_t EPOCH_1601_100NS = 116444736000000000ULL;

struct tick_state_t {
    tick_state_t() : frequency(0), counts_per_ms(0), available(false), last_ms(0) {
        int64_t f = 0, c = 0;
        if (plat::perf_frequency(&f) && f > 0 && plat::perf_counter(&c)) {
            frequency = f;
            // A frequency in whole kHz converts exactly by integer division,
            // which is also cheaper than the floating-point form.
            counts_per_ms = f % 1000 == 0 ? f / 1000 : 0;
            available = true;
            last_ms.store(to_ms(c), std::memory_order_relaxed);
        }
    }
    uint64_t to_ms(int64_t counter) const {
        if (counts_per_ms)
            return static_cast<uint64_t>(counter / counts_per_ms);
        return static_cast<uint64_t>(counter * 1000.0 / frequency);
    }
    int64_t frequency;
    int64_t counts_per_ms;
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
    // Most readings fall in the millisecond already stored: no write.
    if (reading_ms == last)
        return static_cast<uint32_t>(last);
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
    return step(s.to_ms(counter), s.last_ms);
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

// ---- positional counters ----------------------------------------------------

namespace {

const char* const TIMER_HEADER_PATH = "common/platform/util/h/timer";

// Adds n to digit 0 and ripples the carries upward; the quotient moves whole,
// so a large n carries several units at once. Returns the carry mask: 1, then
// widened to 3, 7, 15 for each digit that received a carry. Works in 64 bits
// so digit 0 plus a near-2^32 amount cannot wrap.
uint32_t add_with_carry(uint32_t digits[4], uint32_t n, const uint32_t radix[3]) {
    uint32_t mask = 1;
    uint64_t sum = static_cast<uint64_t>(digits[0]) + n;
    for (int k = 0; k < 3; ++k) {
        uint64_t carry = sum / radix[k];
        digits[k] = static_cast<uint32_t>(sum % radix[k]);
        if (carry == 0)
            return mask;
        mask = (mask << 1) | 1u;
        sum = digits[k + 1] + carry;
    }
    digits[3] = static_cast<uint32_t>(sum);
    return mask;
}

// Subtracts other's digits below the highest non-zero digit of `digits`; that
// digit only pays the last borrow, never other's digit, and the digits above
// it are left alone.
void sub_below_top(uint32_t digits[4], const uint32_t other[4], const uint32_t radix[3]) {
    int top = 3;
    while (top > 0 && digits[top] == 0)
        --top;
    int64_t d[4] = {digits[0], digits[1], digits[2], digits[3]};
    for (int k = 0; k < top; ++k) {
        // A digit that has just lent is at least -1, so one borrow suffices.
        if (d[k] < static_cast<int64_t>(other[k])) {
            d[k] += radix[k];
            d[k + 1] -= 1;
        }
        d[k] -= other[k];
    }
    for (int k = 0; k <= top; ++k)
        digits[k] = static_cast<uint32_t>(d[k]);
}

const uint32_t TICKS_RADIX[3] = {64, 64, 64};
// Centiseconds, seconds, minutes; hours above.
const uint32_t TIMER_RADIX[3] = {100, 60, 60};

}  // namespace

ticks_helper::ticks_helper(uint32_t ticks) : m_ticks(0), m_digits(), m_mask(0) { set(ticks); }

void ticks_helper::set(uint32_t ticks) {
    if (ticks > MAX_INTERVAL) {
        // "limited" reports 10, not the limit: the text is matched by log
        // readers as it stands.
        UTIL_LOG(LOG_WARNING, "ticks_helper::reset greater than the max interval, ticks_count = "
                                  << ticks << ", limited = " << 10 << ", this = " << this);
        ticks = MAX_INTERVAL;
    }
    m_ticks = ticks;
    // The limit needs 28 bits and four digits hold 24: the top bits of a
    // clamped value are dropped, by design of the wheel.
    for (int k = 0; k < 4; ++k)
        m_digits[k] = (ticks >> (6 * k)) & 63u;
}

uint32_t ticks_helper::get_ticks() const {
    return ((m_digits[3] * 64 + m_digits[2]) * 64 + m_digits[1]) * 64 + m_digits[0];
}

ticks_helper& ticks_helper::operator++() {
    increase(1);
    return *this;
}

ticks_helper ticks_helper::operator++(int) {
    ticks_helper before(*this);
    increase(1);
    return before;
}

void ticks_helper::increase(uint32_t n) {
    if (n == 0) {
        m_mask = 0;
        return;
    }
    m_mask = add_with_carry(m_digits, n, TICKS_RADIX);
    m_digits[3] &= 63u;
}

void ticks_helper::sub(const ticks_helper& other) { sub_below_top(m_digits, other.m_digits, TICKS_RADIX); }

uint32_t ticks_helper::calc_remainder(uint32_t value, uint32_t level) {
    if (level < 4)
        return value & 63u;
    if (level == 4)
        return value;
    UTIL_ASSERT_LINE(TIMER_HEADER_PATH, 230, "");
    return 0;
}

timer_helper::timer_helper(uint32_t ticks) : m_ticks(0), m_digits(), m_mask(0) { set(ticks); }

void timer_helper::set(uint32_t ticks) {
    if (ticks > MAX_TIMER_HELPER_TICKS) {
        UTIL_LOG(LOG_WARNING, "timer_helper::timer_helper greater than the max interval, ticks_count = "
                                  << ticks << ", this = " << this);
        ticks = MAX_TIMER_HELPER_TICKS;
    }
    m_ticks = ticks;
    const uint32_t q = ticks / 100;
    m_digits[0] = ticks % 100;
    m_digits[1] = q % 60;
    m_digits[2] = (q / 60) % 60;
    m_digits[3] = q / 3600;
}

uint32_t timer_helper::get_ticks() const {
    return ((m_digits[3] * 60 + m_digits[2]) * 60 + m_digits[1]) * 100 + m_digits[0];
}

timer_helper& timer_helper::operator++() {
    increase(1);
    return *this;
}

timer_helper timer_helper::operator++(int) {
    timer_helper before(*this);
    increase(1);
    return before;
}

void timer_helper::increase(uint32_t n) {
    if (n == 0) {
        m_mask = 0;
        return;
    }
    m_mask = add_with_carry(m_digits, n, TIMER_RADIX);
    // Hours are meant to be unbounded; this rule only bites from 100 hours on
    // (and on a freshly set value of that size) and is kept as it stands.
    if (m_digits[3] > 45)
        m_digits[3] %= 100;
}

void timer_helper::sub(const timer_helper& other) { sub_below_top(m_digits, other.m_digits, TIMER_RADIX); }

uint32_t timer_helper::calc_remainder(uint32_t value, uint32_t level) {
    switch (level) {
    case 0:
    case 3:
        return value % 100;
    case 1:
    case 2:
        return value % 60;
    case 4:
        return value;
    default:
        UTIL_ASSERT_LINE(TIMER_HEADER_PATH, 156, "");
        return 0;
    }
}

}  // namespace ssb
