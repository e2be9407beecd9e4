// The timer driver: the loop of the "orca.timer.do" thread.
#ifndef SSB_TIMER_DRV_H
#define SSB_TIMER_DRV_H

#include <stdint.h>

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

    // Ten minutes between status lines, in microseconds.
    static const uint64_t STATUS_INTERVAL_US = 600000000ull;

protected:
    void loop() override;

private:
    // The wait for one pass: 0 when the pass left work (a load of 100 or
    // more), else a tenth of the working thread's precision, at least 1 ms.
    int wait_time(int process_result) const;

    thread_event_t* const m_working;
    const uint32_t m_start_ticks;
    const uint64_t m_start_time_us;
    uint64_t m_status_us;
};

}  // namespace ssb

#endif
