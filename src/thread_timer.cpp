// The timer side of a message-loop thread.
#include "thread_parts.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = "thread";

}  // namespace

int timer_drive_t::set_precision(unsigned int ms, const thread_wrapper_t* owner) {
    if (ms < MIN_TIMER_PRECISION_MS || ms > MAX_TIMER_PRECISION_MS) {
        UTIL_ASSERT_MSG("thread_wrapper_t::adjust_timer_precision should in scope[ticks_helper::MIN_INTERVAL, 1000ms]",
                        SOURCE_PATH, 1620, ", ms = " << ms << ", this = " << log_ptr(owner));
        return RESULT_INVALID_ARG;
    }
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::adjust_timer_precision, m_timer_precision = "
                           << precision() << ", new_timer_precision = " << ms << ", this = " << log_ptr(owner));
    m_precision.store(ms, std::memory_order_relaxed);
    return RESULT_SUCCESS;
}

int thread_wrapper_t::adjust_timer_precision(unsigned int ms) { return m_parts->timer.set_precision(ms, this); }

unsigned int thread_wrapper_t::get_timer_precision() const { return m_parts->timer.precision(); }

}  // namespace ssb
