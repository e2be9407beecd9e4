// The timer driver: the loop of the "orca.timer.do" thread.
#ifndef SSB_TIMER_DRV_H
#define SSB_TIMER_DRV_H

#include <stdint.h>

#include <atomic>

#include "io_repo.h"

namespace ssb {

class thread_event_t;

// Keeps the cached clocks (ticks_drv_t, times_drv_t) fresh and gives its
// thread's message pass a turn on every pass, waiting in between on the
// registered events for a tenth of the thread's timer precision (at least
// 1 ms): that wait is the library's tick. The caches are authoritative
// exactly while the loop runs.
//
// Threading: the loop runs on the working thread; registration and stop as
// events_t.
class UTIL_API timer_drv_t : public events_t {
public:
    // `working` is the thread that runs the loop (not owned).
    explicit timer_drv_t(thread_event_t* working);
    ~timer_drv_t() override;

    // The low-power mode (off by default; any thread, at any time): the
    // loop sleeps until the earliest wheel is due, or a second at most, a
    // thread whose wheel is empty gets no ticks, and ticks_drv_t::now() and
    // times_drv_t::now() read the raw clocks. Timers keep their accuracy.
    static void set_low_power(bool on);
    static bool low_power() { return s_low_power.load(std::memory_order_relaxed); }
    // In the low-power mode: whether the loop's planned wake-up comes after
    // `due_at` (a tick stamp), so that the wheel due then must wake it.
    // Any thread.
    static bool sleeps_past(uint32_t due_at) {
        return static_cast<int32_t>(due_at - s_wake_at.load(std::memory_order_seq_cst)) < 0;
    }
    // The longest sleep in the low-power mode: a hung thread is still
    // reported.
    static const unsigned int LOW_POWER_MAX_WAIT_MS = 1000;

    // Ten minutes between status lines, in microseconds.
    static const uint64_t STATUS_INTERVAL_US = 600000000ull;

protected:
    void loop() override;

private:
    // The wait for one pass: 0 when the pass left work (a load of 100 or
    // more), else a tenth of the working thread's precision, at least 1 ms.
    int wait_time(int process_result) const;

    // The sleep until the earliest bound wheel is due.
    int low_power_wait() const;

    static std::atomic<bool> s_low_power;
    // When the loop plans to wake, a tick stamp: stored before it reads the
    // wheels' due stamps, which their threads store before they read this
    // (both sequentially consistent), so either it sees a new due stamp or
    // that thread sees it must wake it.
    static std::atomic<uint32_t> s_wake_at;

    thread_event_t* const m_working;
    const uint32_t m_start_ticks;
    const uint64_t m_start_time_us;
    uint64_t m_status_us;
};

}  // namespace ssb

#endif
