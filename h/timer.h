// Clocks and the positional counters of the timer wheel.
//
// ticks_drv_t::now() is the library's interval clock (unsigned 32-bit
// milliseconds, wrapping); times_drv_t::now() its wall clock (milliseconds
// since 1970). Both read a cached value refreshed by the timer driver thread
// while it runs, and the raw source otherwise. Any thread may read them.
#ifndef SSB_TIMER_H
#define SSB_TIMER_H

#include <atomic>

#include "util_def.h"

namespace ssb {

// Raw millisecond tick count from the high-resolution counter. A counter
// that steps backwards freezes the result until it passes the last value.
class UTIL_API tick_strategy {
public:
    static uint32_t now();

    // Not for hosts: converts a counter reading against the previous one,
    // which is what now() does with the live counter. Exposed so the
    // backward-step rule can be exercised with chosen readings.
    static uint32_t step(uint64_t reading_ms, std::atomic<uint64_t>& last_ms);
};

// Raw wall clock: microseconds since 1970-01-01 UTC.
class UTIL_API time_strategy {
public:
    static uint64_t now();
};

class UTIL_API ticks_drv_t {
public:
    static uint32_t now();
    // Written by the timer driver thread alone; read by any thread.
    static std::atomic<bool> s_start;
    static std::atomic<uint32_t> s_tag;
};

class UTIL_API times_drv_t {
public:
    static uint64_t now();
    static std::atomic<bool> s_start;
    static std::atomic<uint64_t> s_tag;
};

// The longest interval the counters hold, in milliseconds.
const uint32_t MAX_INTERVAL = 165150710u;
const uint32_t MAX_TIMER_HELPER_TICKS = 356399990u;

// Four base-64 digits, digit 0 lowest: the index arithmetic of the timer
// wheel. Owned by one thread.
class UTIL_API ticks_helper {
public:
    explicit ticks_helper(uint32_t ticks = 0);

    void set(uint32_t ticks);
    uint32_t get_ticks() const;
    ticks_helper& operator++();
    ticks_helper operator++(int);
    void increase(uint32_t n);
    void sub(const ticks_helper& other);
    static uint32_t calc_remainder(uint32_t value, uint32_t level);

    uint32_t digit(int k) const { return m_digits[k]; }
    // Which digits the last step changed: 0, 1, 3, 7 or 15.
    uint32_t carry_mask() const { return m_mask; }
    uint32_t value() const { return m_ticks; }

private:
    uint32_t m_ticks;
    uint32_t m_digits[4];
    uint32_t m_mask;
};

// Centiseconds, seconds, minutes, hours: the same shape as ticks_helper with
// a mixed radix. Owned by one thread.
class UTIL_API timer_helper {
public:
    explicit timer_helper(uint32_t ticks = 0);

    void set(uint32_t ticks);
    uint32_t get_ticks() const;
    timer_helper& operator++();
    timer_helper operator++(int);
    void increase(uint32_t n);
    void sub(const timer_helper& other);
    static uint32_t calc_remainder(uint32_t value, uint32_t level);

    uint32_t digit(int k) const { return m_digits[k]; }
    uint32_t carry_mask() const { return m_mask; }
    uint32_t value() const { return m_ticks; }

private:
    uint32_t m_ticks;
    uint32_t m_digits[4];
    uint32_t m_mask;
};

}  // namespace ssb

#endif
