// Timer handles and deposits.
#include "live_count.h"
#include "thread.h"
#include "timer.h"
#include "timer_firing.h"
#include "trace.h"

namespace ssb {

namespace {

const char TIMER_PATH[] = ".\\timer";

std::atomic<int> s_live_handles(0);

const uint32_t TICK_MS = 10;
// Intervals below this are one tick.
const unsigned int MIN_INTERVAL_MS = 11;
const unsigned int LEVEL1_WIDTH_MS = 640;

// A reference-counted view of a sink, or null when it has none.
ref_count_it* sink_ref_of(const timer_sink_it* sink) {
    timer_sink_it* s = const_cast<timer_sink_it*>(sink);
    if (void* p = s->query_interface(IID_REF_COUNT_IT))
        return static_cast<ref_count_it*>(p);
    return dynamic_cast<ref_count_it*>(s);
}

}  // namespace

int live_timer_handles() { return s_live_handles.load(std::memory_order_relaxed); }

void* timer_sink_it::query_interface(uint64_t) { return nullptr; }

timer_sink_it::~timer_sink_it() {
    UTIL_LOG(LOG_INFO, "timer_sink_it::~timer_sink_it()"
                           << ", this = " << log_ptr(this));
}

// ---- timer_it ------------------------------------------------------------------------

timer_it::timer_it(uint32_t id, thread_wrapper_t* thread)
    : m_id(id),
      m_times(0),
      m_interval_ticks(0),
      m_carrier(nullptr),
      m_own_thr(thread),
      m_creator_thr(thread_wrapper_t::self()),
      m_owned(nullptr),
      m_helper(0) {
    s_live_handles.fetch_add(1, std::memory_order_relaxed);
    UTIL_LOG(LOG_INFO,
             "timer_it::timer_it id = " << id << ", m_own_thr = " << log_ptr(thread) << ", this = " << log_ptr(this));
}

timer_it::~timer_it() {
    UTIL_LOG(LOG_INFO, "timer_it::~timer_it id = " << m_id << ", m_own_thr = " << log_ptr(m_own_thr) << ", m_carrier = "
                                                   << log_ptr(m_carrier) << ", m_times = " << m_times
                                                   << ", m_interval_ticks = " << m_interval_ticks
                                                   << ", this = " << log_ptr(this));
    timer_it::remove_timer();
    timer_firing_t::forget(this);
    thread_wrapper_t* thr = thread_wrapper_t::self();
    if (thr != m_creator_thr)
        UTIL_LOG(LOG_WARNING, "timer_it::~timer_it() constructor is not in same thead with destructor"
                                  << ", m_creator_thr = " << log_ptr(m_creator_thr) << ", thr = " << log_ptr(thr)
                                  << ", this = " << log_ptr(this));
    if (m_owned)
        m_owned->decrement();
    s_live_handles.fetch_sub(1, std::memory_order_relaxed);
}

void timer_it::open(timer_carrier_t* carrier) {
    if (m_carrier && !carrier)
        m_carrier->mark_removed();
    m_carrier = carrier;
}

void timer_it::own(ref_count_it* obj) {
    if (m_owned)
        m_owned->decrement();
    m_owned = obj;
}

int timer_it::add_timer(const timer_sink_it* sink, unsigned int interval_ms, unsigned int times, bool is_exact) {
    return arm(sink, interval_ms, times, is_exact);
}

int timer_it::arm(const timer_sink_it* sink, unsigned int interval_ms, unsigned int times, bool is_exact) {
    UTIL_LOG(LOG_INFO, "timer_it::add_timer sink = " << log_ptr(sink) << ", interval = " << interval_ms
                                                     << ", times = " << times << ", is_exact = " << is_exact
                                                     << ", m_id = " << m_id << ", this = " << log_ptr(this));
    if (!is_exact && interval_ms >= LEVEL1_WIDTH_MS)
        interval_ms = interval_ms / LEVEL1_WIDTH_MS * LEVEL1_WIDTH_MS;
    if (!m_own_thr) {
        thread_wrapper_t* current = thread_wrapper_t::self();
        if (!current) {
            UTIL_LOG(LOG_WARNING, "timer_it::add_timer no thread found for the timer, this = " << log_ptr(this));
            return RESULT_NOTHING_TO_DO;
        }
        m_own_thr = current;
    }
    if (!m_own_thr->has_timer_support()) {
        UTIL_LOG(LOG_WARNING, "timer_it::add_timer thread has no timer support, m_own_thr = "
                                  << log_ptr(m_own_thr) << ", this = " << log_ptr(this));
        return RESULT_REFUSED;
    }
    timer_queue_t* wheel = m_own_thr->get_timer_queue();
    if (!wheel) {
        UTIL_LOG(LOG_WARNING, "timer_it::add_timer thread has no timer queue, m_own_thr = "
                                  << log_ptr(m_own_thr) << ", this = " << log_ptr(this));
        return RESULT_NOTHING_TO_DO;
    }
    // The wheel has no lock: only its own thread may arm on it.
    if (m_own_thr->get_id() != get_cur_tid()) {
        UTIL_ASSERT_MSG("timer_it::add_timer should in same thread with the timer's thread", TIMER_PATH, __LINE__,
                        ", m_own_thr = " << log_ptr(m_own_thr)
                                         << ", current_thread = " << log_ptr(thread_wrapper_t::self())
                                         << ", m_id = " << m_id << ", this = " << log_ptr(this));
        return RESULT_REFUSED;
    }
    if (!sink)
        return RESULT_INVALID_ARG;
    if (interval_ms >= MAX_INTERVAL) {
        UTIL_LOG(LOG_WARNING,
                 "timer_it::add_timer out of limitation, interval = " << interval_ms << ", this = " << log_ptr(this));
        return RESULT_OUT_OF_LIMIT;
    }
    if (is_scheduled())
        return RESULT_ALREADY_EXISTS;
    if (interval_ms < MIN_INTERVAL_MS)
        interval_ms = TICK_MS;
    m_interval_ticks = interval_ms / TICK_MS;
    m_times = times;
    // The wheel stands where its thread last drove it: what it lags behind
    // the clock goes on the first delay, so the timer fires on time.
    m_helper.set(m_interval_ticks + m_own_thr->timer_lag_ticks());
    return wheel->add_timer(this, m_helper, is_exact);
}

int timer_it::remove_timer() {
    UTIL_LOG(LOG_INFO, "timer_it::remove_timer(), times = " << m_times << ", "
                                                            << "m_carrier"
                                                            << " = " << log_ptr(m_carrier) << ", "
                                                            << "m_id"
                                                            << " = " << m_id << ", "
                                                            << "m_interval_ticks"
                                                            << " = " << m_interval_ticks
                                                            << ", this = " << log_ptr(this));
    if (!m_carrier)
        return RESULT_NOTHING_TO_DO;
    // An armed handle's thread is alive: its wheel still holds the handle.
    if (!m_own_thr || m_own_thr->get_id() != get_cur_tid())
        UTIL_ASSERT_MSG("timer_it::remove_timer() should in same thread with add_timer", TIMER_PATH, __LINE__,
                        ", m_own_thr = " << log_ptr(m_own_thr)
                                         << ", current_thread = " << log_ptr(thread_wrapper_t::self())
                                         << ", m_id = " << m_id << ", m_interval_ticks = " << m_interval_ticks
                                         << ", m_times = " << m_times << ", this = " << log_ptr(this));
    return m_carrier->queue()->remove_timer(this);
}

// ---- timer_elem_t / timer_elem_ref_sink_t ---------------------------------------------

timer_elem_t::timer_elem_t(uint32_t id, thread_wrapper_t* thread) : timer_it(id, thread), m_sink(nullptr) {}

timer_elem_t::~timer_elem_t() {}

int timer_elem_t::add_timer(const timer_sink_it* sink, unsigned int interval_ms, unsigned int times, bool is_exact) {
    const int rv = arm(sink, interval_ms, times, is_exact);
    if (rv == RESULT_SUCCESS)
        m_sink = const_cast<timer_sink_it*>(sink);
    return rv;
}

timer_elem_ref_sink_t::timer_elem_ref_sink_t(uint32_t id, thread_wrapper_t* thread)
    : timer_it(id, thread), m_sink(nullptr), m_sink_ref(nullptr) {
    UTIL_LOG(LOG_INFO, "timer_elem_ref_sink_t::timer_elem_ref_sink_t(), id = " << id << ", this = " << log_ptr(this));
}

timer_elem_ref_sink_t::~timer_elem_ref_sink_t() {
    UTIL_LOG(LOG_INFO,
             "timer_elem_ref_sink_t::~timer_elem_ref_sink_t(), id = " << get_id() << ", this = " << log_ptr(this));
    timer_it::remove_timer();
    drop_sink();
}

int timer_elem_ref_sink_t::add_timer(const timer_sink_it* sink, unsigned int interval_ms, unsigned int times,
                                     bool is_exact) {
    const int rv = arm(sink, interval_ms, times, is_exact);
    if (rv != RESULT_SUCCESS)
        return rv;
    // Taken before the old one is dropped: the same sink armed again keeps
    // a reference throughout.
    ref_count_it* ref = sink_ref_of(sink);
    if (ref)
        ref->increment();
    drop_sink();
    m_sink = const_cast<timer_sink_it*>(sink);
    m_sink_ref = ref;
    return rv;
}

int timer_elem_ref_sink_t::remove_timer() {
    const int rv = timer_it::remove_timer();
    drop_sink();
    return rv;
}

void timer_elem_ref_sink_t::drop_sink() {
    ref_count_it* ref = m_sink_ref;
    m_sink_ref = nullptr;
    m_sink = nullptr;
    if (ref)
        ref->decrement();
}

// ---- deposits ----------------------------------------------------------------------------

timer_deposit_t::timer_deposit_t(uint32_t id, thread_wrapper_t* thread) : timer_elem_t(id, thread) {
    UTIL_LOG(LOG_INFO, "timer_deposit_t::timer_deposit_t(), id = " << id << ", this = " << log_ptr(this));
}

timer_deposit_t::~timer_deposit_t() {
    UTIL_LOG(LOG_INFO, "timer_deposit_t::~timer_deposit_t(), id = " << get_id() << ", this = " << log_ptr(this));
}

timer_deposit_t* timer_deposit_t::new_instance(uint32_t id, thread_wrapper_t* thread) {
    return new timer_deposit_t(id, thread);
}

void timer_deposit_t::release(timer_deposit_t*& deposit) {
    if (!deposit)
        return;
    deposit->release();
    deposit = nullptr;
}

void timer_deposit_t::release_i() { delete this; }

int timer_deposit_t::add_timer(const timer_sink_it* sink, unsigned int interval_ms, unsigned int times, bool is_exact) {
    if (times == 0) {
        UTIL_ASSERT_MSG("timer_deposit_t::add_timer not allow unlimited times", TIMER_PATH, __LINE__,
                        ", this = " << log_ptr(this));
        return RESULT_REFUSED;
    }
    return timer_elem_t::add_timer(sink, interval_ms, times, is_exact);
}

timer_deposit_ref_sink_t::timer_deposit_ref_sink_t(uint32_t id, thread_wrapper_t* thread)
    : timer_elem_ref_sink_t(id, thread) {
    UTIL_LOG(LOG_INFO,
             "timer_deposit_ref_sink_t::timer_deposit_ref_sink_t(), id = " << id << ", this = " << log_ptr(this));
}

timer_deposit_ref_sink_t::~timer_deposit_ref_sink_t() {
    UTIL_LOG(LOG_INFO, "timer_deposit_ref_sink_t::~timer_deposit_ref_sink_t(), id = " << get_id()
                                                                                      << ", this = " << log_ptr(this));
}

timer_deposit_ref_sink_t* timer_deposit_ref_sink_t::new_instance(uint32_t id, thread_wrapper_t* thread) {
    return new timer_deposit_ref_sink_t(id, thread);
}

void timer_deposit_ref_sink_t::release(timer_deposit_ref_sink_t*& deposit) {
    if (!deposit)
        return;
    deposit->release();
    deposit = nullptr;
}

void timer_deposit_ref_sink_t::release_i() { delete this; }

int timer_deposit_ref_sink_t::add_timer(const timer_sink_it* sink, unsigned int interval_ms, unsigned int times,
                                        bool is_exact) {
    if (times == 0) {
        UTIL_ASSERT_MSG("timer_deposit_ref_sink_t::add_timer not allow unlimited times", TIMER_PATH, __LINE__,
                        ", this = " << log_ptr(this));
        return RESULT_REFUSED;
    }
    return timer_elem_ref_sink_t::add_timer(sink, interval_ms, times, is_exact);
}

}  // namespace ssb
