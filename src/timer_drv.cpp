#include "timer_drv.h"

#include "platform/platform.h"
#include "stats_internal.h"
#include "thread_event.h"
#include "timer.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = "timer_drv";

void refresh_clocks() {
    times_drv_t::s_tag.store(time_strategy::now() / 1000, std::memory_order_relaxed);
    ticks_drv_t::s_tag.store(tick_strategy::now(), std::memory_order_relaxed);
}

// Readers take the raw clocks in the low-power mode: a sleeping loop would
// leave them a stale cache.
void use_cached_clocks(bool on) {
    if (on)
        refresh_clocks();
    ticks_drv_t::s_start.store(on, std::memory_order_release);
    times_drv_t::s_start.store(on, std::memory_order_release);
}

}  // namespace

std::atomic<bool> timer_drv_t::s_low_power(false);
std::atomic<uint32_t> timer_drv_t::s_wake_at(0);

void timer_drv_t::set_low_power(bool on) {
    UTIL_LOG(LOG_INFO, "timer_drv_t::set_low_power, on = " << on);
    s_low_power.store(on, std::memory_order_relaxed);
}

int timer_drv_t::low_power_wait() const {
    const uint32_t now = ticks_drv_t::now();
    // Far ahead while the wheels are read: a thread whose wheel becomes
    // due meanwhile wakes this loop.
    s_wake_at.store(now + 0x40000000u, std::memory_order_seq_cst);
    unsigned int due = m_working ? m_working->next_due_ms() : WAIT_INFINITE_MS;
    due = due >= LOW_POWER_MAX_WAIT_MS ? LOW_POWER_MAX_WAIT_MS : (due < 1 ? 1 : due);
    s_wake_at.store(now + due, std::memory_order_seq_cst);
    return static_cast<int>(due);
}

timer_drv_t::timer_drv_t(thread_event_t* working)
    : events_t(nullptr),
      m_working(working),
      m_start_ticks(tick_strategy::now()),
      m_start_time_us(time_strategy::now()),
      m_status_us(0) {
    UTIL_LOG(LOG_INFO, "timer_drv_t::timer_drv_t working = " << static_cast<void*>(working)
                                                             << ", this = " << static_cast<void*>(this));
}

timer_drv_t::~timer_drv_t() { UTIL_LOG(LOG_INFO, "timer_drv_t::~timer_drv_t(), this = " << static_cast<void*>(this)); }

int timer_drv_t::wait_time(int process_result) const {
    if (process_result == 0)
        return 0;
    const unsigned int wait = m_working ? m_working->get_timer_precision() / 10 : 1;
    return wait < 1 ? 1 : static_cast<int>(wait);
}

void timer_drv_t::loop() {
    UTIL_LOG(LOG_INFO, "timer_drv_t::loop () begin, this = " << static_cast<void*>(this));
    use_cached_clocks(!low_power());
    m_status_us = time_strategy::now();
    // One core, so the performance counter is always read on the same one.
    plat::set_current_thread_affinity(1);

    while (!is_stopping()) {
        const uint64_t now_us = time_strategy::now();
        note_driver_wakeup(now_us);
        if (now_us >= m_status_us + STATUS_INTERVAL_US) {
            UTIL_LOG(LOG_INFO, "timer_drv_t::loop (), this = "
                                   << static_cast<void*>(this) << ", ticks_drv_t::s_tag = " << ticks_drv_t::s_tag.load()
                                   << ", m_ticks.elapsed() = " << (tick_strategy::now() - m_start_ticks));
            m_status_us = now_us;
        } else if (now_us < m_status_us) {
            m_status_us = now_us;
        }
        const bool low = low_power();
        use_cached_clocks(!low);
        if (m_working)
            m_working->notify_ticks(ticks_drv_t::now());
        // The working thread's messages; the hook stops this loop once the
        // thread has stopped.
        int timeout_ms = wait_time(process());
        if (low && timeout_ms != 0)
            timeout_ms = low_power_wait();
        if (is_stopping())
            break;
        if (count() == 0) {
            UTIL_LOG(LOG_WARNING, "timer_drv_t::loop has no event registered, broken the thread, this = "
                                      << static_cast<void*>(this));
            stop();
            break;
        }
        unsigned int index = 0;
        int error = 0;
        const int rv = wait(timeout_ms, &index, &error);
        if (rv == RESULT_BUSY)
            continue;
        if (is_stopping()) {
            UTIL_LOG(LOG_INFO, "timer_drv_t::loop thread is in stopping progress, this = " << static_cast<void*>(this));
            continue;
        }
        if (rv == RESULT_FAILURE) {
            UTIL_LOG(LOG_ERROR, "timer_drv_t::loop had no events and thread stopped failed, errno = "
                                    << error << ", this = " << static_cast<void*>(this));
            plat::sleep_ms(1);
            continue;
        }
        if (rv != RESULT_SUCCESS)
            continue;
        if (index >= count() % (MAX_EVENTS + 1)) {
            UTIL_ASSERT_LINE(SOURCE_PATH, 116, ", index = " << index << ", this = " << static_cast<void*>(this));
            continue;
        }
        dispatch(index);
    }
    use_cached_clocks(false);
    UTIL_LOG(LOG_INFO, "timer_drv_t::loop end, this = " << static_cast<void*>(this));
}

}  // namespace ssb
