#include <algorithm>

#include "msg.h"
#include "msg_queue.h"
#include "ring_queue.h"

#include "memlog.h"
#include "notifier.h"
#include "timer.h"
#include "live_count.h"
#include "stats_internal.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = ".\\msg_queue";

// The in-memory log the library writes its reports to.
const unsigned int MSG_MEM_LOG_SIZE = 0x800000;

// The over-stay report goes to the registry and, as the same bytes, to the
// memory log, whether or not the registry passes the level.
void report_long_stay(uint32_t used, uint32_t ticks, uint32_t now, MSG_TYPE type, const void* msg) {
    signed char buf[LOG_LINE_BUFFER];
    log_stream_t line(buf, LOG_LINE_BUFFER, reinterpret_cast<const signed char*>("WARNING"),
                      reinterpret_cast<const signed char*>("UTIL"));
    line << "msg_it::release the message stay in message queue over 5s, used = " << used << " m_ticks =" << ticks
         << ", now = " << now << ", type = " << static_cast<unsigned int>(type) << ", this = " << msg;
    warn_into_memlog(line);
}

}  // namespace

void warn_into_memlog(log_stream_t& line) {
    detail::finish_line(line);
    signed char* buf = line;
    const unsigned int length = line.length();

    // The registry first and outside the memory log's lock: the memory log
    // may itself be a registry logger, so its lock is never held while the
    // registry's is taken.
    log_control_t* control = log_control_t::instance();
    signed char* module_name = nullptr;
    signed char* level_name = nullptr;
    if (control && control->trace_enable(UTIL_MODULE_ID, module_name, LOG_WARNING, level_name))
        control->trace_out(UTIL_MODULE_ID, LOG_WARNING, buf, length, nullptr);

    mem_log_file::plugin_lock guard;
    mem_log_file* mem = mem_log_file::instance(MSG_MEM_LOG_SIZE);
    // A line that does not fit is skipped here rather than handed to cout,
    // whose refusal logs through the registry and would do so while this
    // lock is held.
    if (mem && length < mem->space())
        mem->cout(UTIL_MODULE_ID, LOG_WARNING, buf, length);
}

// ---- messages -------------------------------------------------------------------

msg_it::msg_it(MSG_TYPE type, unsigned int load, unsigned int timeout, bool lockable)
    : m_type(type), m_load(load), m_timeout(timeout), m_ticks(ticks_drv_t::now()), m_lockable(lockable) {}

msg_it::~msg_it() {}

void msg_it::release() {
    const uint32_t now = ticks_drv_t::now();
    const uint32_t used = age_of(m_ticks, now);
    if (used > MSG_STAY_WARNING_MS)
        report_long_stay(used, m_ticks, now, m_type, this);
    delete this;
}

// No age exceeds the largest time-out, so a message that never times out
// skips the clock.
bool msg_it::overtime() { return m_timeout != MSG_TIMEOUT_NEVER && age_of(m_ticks, ticks_drv_t::now()) > m_timeout; }

void msg_it::dump() {}

void* msg_it::query_interface(uint64_t) { return nullptr; }

sync_msg_t::sync_msg_t(msg_it* msg)
    : msg_it(MSG_TYPE_SYNC, 1, MSG_TIMEOUT_NEVER, false), m_event(false, false), m_msg(msg) {
    increment();
    if (!msg)
        UTIL_ASSERT_MSG("sync_msg_t::sync_msg_t"
                            << ", "
                            << "m_msg"
                            << " = " << static_cast<const void*>(msg),
                        SOURCE_PATH, __LINE__, "");
}

sync_msg_t::~sync_msg_t() {}

void sync_msg_t::on_message() {
    if (m_msg)
        m_msg->on_message();
}

void sync_msg_t::release() {
    if (m_msg) {
        m_msg->release();
        m_msg = nullptr;
    }
    m_event.signal();
    // May destroy this object (the sender has already dropped its reference).
    decrement();
}

void* sync_msg_t::query_interface(uint64_t iid) {
    if (iid == IID_SYNC_MSG)
        return this;
    return ref_count_t<null_lock>::query_interface(iid);
}

void sync_msg_t::on_self_destroy() { delete this; }

int sync_msg_t::wait_for_finish(int timeout) { return m_event.wait(timeout); }

// ---- ring queue log lines ------------------------------------------------------

namespace detail {

void ring_queue_log_created(unsigned int requested, unsigned int recorded, const void* ring) {
    UTIL_LOG(LOG_INFO, "ring_queue_t::ring_queue_t()"
                           << ", "
                           << "capacity"
                           << " = " << requested << ", "
                           << "m_capacity"
                           << " = " << recorded << ", this = " << ring);
}

void ring_queue_log_no_nodes(unsigned int requested, const void* ring) {
    UTIL_LOG(LOG_ERROR, "ring_queue_t::ring_queue_t() failed to allocate the nodes, capacity = "
                            << requested << ", this = " << ring);
}

void ring_queue_log_dump(const void* write, const void* read, const void* header, unsigned int capacity) {
    UTIL_LOG(LOG_INFO, "ring_queue_t::dump "
                           << "this->m_write"
                           << " = " << write << ", "
                           << "this->m_read"
                           << " = " << read << ", "
                           << "this->m_header"
                           << " = " << header << ", "
                           << "this->m_capacity"
                           << " = " << capacity);
}

}  // namespace detail

// ---- message queues -------------------------------------------------------------

namespace {

const char QUEUE_SOURCE_PATH[] = ".\\msg_queue";

}  // namespace

namespace {

std::atomic<int> s_live_queues(0);

// The store-load barrier of the wake-up protocol below. ThreadSanitizer does
// not model fences (GCC warns at compile time) but runs them; the fence only
// orders atomics against each other, never publishes plain data, so its
// reports stay exact.
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 11
#  pragma GCC diagnostic push
#  pragma GCC diagnostic ignored "-Wtsan"
#endif
inline void store_load_fence() { std::atomic_thread_fence(std::memory_order_seq_cst); }
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 11
#  pragma GCC diagnostic pop
#endif

}  // namespace

int live_msg_queues() { return s_live_queues.load(std::memory_order_relaxed); }

namespace {

std::atomic<refused_push_hook_t> s_refused_push_hook(nullptr);

}  // namespace

void set_refused_push_hook(refused_push_hook_t hook) { s_refused_push_hook.store(hook, std::memory_order_relaxed); }

msg_queue_base_t::msg_queue_base_t(notifier_it* reader)
    : m_reader(reader),
      m_counters(new queue_counters_t),
      m_status(MSG_QUEUE_STATUS_NORMAL),
      m_status_pad(),
      m_idle(1),
      m_idle_pad(),
      m_idle_marked(false),
      m_reader_pad(),
      m_ref(0) {
    s_live_queues.fetch_add(1, std::memory_order_relaxed);
}

msg_queue_base_t::~msg_queue_base_t() { s_live_queues.fetch_sub(1, std::memory_order_relaxed); }

void* msg_queue_base_t::query_interface(uint64_t iid) {
    if (iid == IID_REF_COUNT || iid == IID_REF_COUNT_IT)
        return static_cast<ref_count_it*>(this);
    return nullptr;
}

uint32_t msg_queue_base_t::decrement() {
    uint32_t n = m_ref.dec();
    if (n == 0)
        on_self_destroy();
    return n;
}

int msg_queue_base_t::open_notifier(notifier_it* notifier) {
    UTIL_LOG(LOG_INFO, "msg_queue_base_t::open_notifier, m_reader = " << static_cast<void*>(get_notifier())
                                                                      << ", notifier = " << static_cast<void*>(notifier)
                                                                      << ", this = " << static_cast<void*>(this));
    m_reader.store(notifier, std::memory_order_release);
    return RESULT_SUCCESS;
}

void msg_queue_base_t::signal_reader() {
    if (notifier_it* reader = get_notifier())
        reader->signal();
}

// Both answer 10 when `sink` is listed; add_sink appends it otherwise.
// unregister leaves it listed on purpose: only the next wake-up empties it.
int msg_queue_base_t::sink_op(msg_queue_sink_it* sink, bool add) {
    if (!sink) {
        UTIL_ASSERT_LINE(QUEUE_SOURCE_PATH, __LINE__, ", this = " << static_cast<void*>(this));
        return RESULT_INVALID_ARG;
    }
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    if (std::find(m_sinks.begin(), m_sinks.end(), sink) != m_sinks.end())
        return RESULT_ALREADY_EXISTS;
    if (!add)
        return RESULT_NOT_FOUND;
    m_sinks.push_back(sink);
    return RESULT_SUCCESS;
}

void msg_queue_base_t::on_sink() {
    UTIL_LOG(LOG_INFO,
             "msg_queue_base_t::on_sink(), m_status = " << status() << ", this = " << static_cast<void*>(this));
    // The sinks are called without the queue's lock, so a sink may do
    // anything a message may (post, send, stop the reader) without meeting
    // the reader on that lock. A sink that registers again from its
    // call-back waits for the next wake-up.
    m_lock.acquire();
    m_firing.splice(m_firing.end(), m_sinks);
    while (!m_firing.empty()) {
        msg_queue_sink_it* sink = m_firing.front();
        m_firing.pop_front();
        m_calling = sink;
        m_calling_tid = get_cur_tid();
        m_lock.release();
        sink->on_queue_room(0);
        m_lock.acquire();
        m_calling = nullptr;
        m_calling_tid = 0;
    }
    m_lock.release();
}

int msg_queue_base_t::withdraw_sink(msg_queue_sink_it* sink) {
    if (!sink)
        return refuse_null(__LINE__);
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    const size_t before = m_sinks.size() + m_firing.size();
    m_sinks.remove(sink);
    m_firing.remove(sink);
    bool found = m_sinks.size() + m_firing.size() != before;
    // A call already under way on the writer's thread ends before this
    // returns, unless this runs inside that call-back.
    while (m_calling == sink && m_calling_tid != get_cur_tid()) {
        found = true;
        m_lock.release();
        thread_yield();
        m_lock.acquire();
    }
    return found || m_calling == sink ? RESULT_SUCCESS : RESULT_NOT_FOUND;
}

int msg_queue_base_t::lanuch_on_sink(thread_wrapper_t* writer) {
    uint32_t old = m_status.exchange(MSG_QUEUE_STATUS_NORMAL, std::memory_order_relaxed);
    if (!writer)
        return RESULT_REFUSED;
    if (old != MSG_QUEUE_STATUS_FULL)
        return RESULT_SUCCESS;
    bool has_sinks;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_lock);
        has_sinks = !m_sinks.empty();
    }
    if (!has_sinks)
        return RESULT_SUCCESS;
    if (!loop_is_running(writer)) {
        UTIL_LOG(LOG_WARNING, "msg_queue_base_t::lanuch_on_sink , thr = " << static_cast<void*>(writer)
                                                                          << " already has been stopped, this = "
                                                                          << static_cast<void*>(this));
        return RESULT_NOTHING_TO_DO;
    }
    // A wake-up must not be lost to a full control queue: the writer's loop
    // then keeps it aside and runs it at its next pass.
    if (deferred_msg_op_t::launch(writer, new on_sink_oper(this)) == RESULT_QUEUE_FULL)
        loop_hold_sink_wakeup(writer, this);
    return RESULT_SUCCESS;
}

// Writers and the reader meet on m_idle as in Dekker's protocol: a writer
// stores its value (the ring's cursor), fences, then reads m_idle; the
// reader stores m_idle, fences, then looks at the ring again. Either the
// writer sees the reader idle or the reader sees the value, so a reader
// never sleeps on a queued message. While messages flow the flag is 0 and
// only read, so it stays in every side's cache; one writer takes it when it
// is set, so a burst into an idle queue signals once.
bool msg_queue_base_t::take_idle() {
    store_load_fence();
    return m_idle.load(std::memory_order_relaxed) != 0 && m_idle.exchange(0, std::memory_order_relaxed) != 0;
}

bool msg_queue_base_t::wake_needed(unsigned int mode) { return mode == MSG_QUEUE_SIGNAL_ALWAYS || take_idle(); }

bool msg_queue_base_t::going_idle() {
    // Nothing taken since the last fence and the flag still set: a writer
    // that pushes now reads the 1 left there. Once a writer took it, the
    // signal it sent may have been spent on a message already taken, so
    // the flag is set again and the ring looked at again.
    if (m_idle_marked && m_idle.load(std::memory_order_relaxed) != 0)
        return false;
    m_idle.store(1, std::memory_order_relaxed);
    store_load_fence();
    m_idle_marked = true;
    return true;
}

uint32_t msg_queue_base_t::depth_mark() const { return m_counters->high_water.load(std::memory_order_relaxed); }

void msg_queue_base_t::note_depth(uint32_t depth) {
    if (depth > depth_mark())
        m_counters->note_depth(depth);
}

bool msg_queue_base_t::before_post(msg_it* msg) {
    return stats_on() && m_counters->claim_sample(msg, msg->get_ticks());
}

void msg_queue_base_t::after_post(int rv, msg_it* msg, bool sampled) {
    if (rv != RESULT_SUCCESS && sampled)
        m_counters->drop_sample(msg);
}

void msg_queue_base_t::counted_pop(int rv, msg_it* msg) {
    if (rv == RESULT_SUCCESS && stats_on())
        m_counters->note_popped(msg);
}

int msg_queue_base_t::refuse_null(int line) {
    // A null message would reach the reader as a crash; refuse it here.
    UTIL_ASSERT_LINE(QUEUE_SOURCE_PATH, line, ", this = " << static_cast<void*>(this));
    return RESULT_INVALID_ARG;
}

int msg_queue_base_t::after_push(int rv, unsigned int mode, uint32_t depth) {
    // Mode 0 signals even when the push failed; otherwise only a write the
    // reader may be asleep for does.
    bool wake = mode == MSG_QUEUE_SIGNAL_ALWAYS;
    if (rv == RESULT_SUCCESS) {
        if (stats_on())
            note_depth(depth);
        wake = wake_needed(mode);
    } else if (rv == RESULT_QUEUE_FULL) {
        if (stats_on()) {
            m_counters->refused.fetch_add(1, std::memory_order_relaxed);
            note_depth(m_counters->depth_limit);
        }
        if (refused_push_hook_t hook = s_refused_push_hook.load(std::memory_order_relaxed))
            hook(this);
        m_status.exchange(MSG_QUEUE_STATUS_FULL, std::memory_order_relaxed);
        // The reader may have emptied the ring between the refused push and
        // the mark, and then sleep without another pop to see it. The same
        // meeting as the wake-up: the reader fences after its last pop and
        // before it reads the status, so either this check sees the room or
        // the reader sees the mark.
        if (take_idle())
            wake = true;
        if (!ring_full())
            lanuch_on_sink(sink_thread());
    }
    if (wake)
        signal_reader();
    return rv;
}

int msg_queue_base_t::after_pop(int rv, thread_wrapper_t* writer) {
    if (rv == RESULT_SUCCESS)
        m_idle_marked = false;
    // Successful or not, a pop after a full post hands the wake-up over.
    if (status() == MSG_QUEUE_STATUS_FULL)
        lanuch_on_sink(writer);
    return rv;
}

int msg_queue_base_t::send_through(const char* name, msg_it* msg, int timeout) {
    sync_msg_t* wrapper = new sync_msg_t(msg);
    wrapper->increment();  // the sender's own reference
    int rv = push_signalled(wrapper);
    if (rv == RESULT_SUCCESS) {
        rv = wrapper->wait_for_finish(timeout);
        if (rv != RESULT_SUCCESS)
            UTIL_LOG(LOG_WARNING, name << ", msg = " << static_cast<void*>(msg) << " failed , rv = " << rv
                                       << ", timeout = " << timeout << ", this = " << static_cast<void*>(this));
    } else {
        // A writer filled the queue in between: drop the queue's reference
        // too. The wrapper never owns the wrapped message, which stays the
        // caller's.
        wrapper->decrement();
    }
    wrapper->decrement();
    return rv;
}

// ---- o2o_msg_queue_t ------------------------------------------------------------

o2o_msg_queue_t::o2o_msg_queue_t(notifier_it* reader, thread_wrapper_t* writer, unsigned int capacity,
                                 unsigned int mode)
    : msg_queue_base_t(reader), m_writer(writer), m_ring(capacity), m_mode(mode) {
    m_counters->depth_limit = capacity > 1 ? capacity - 1 : 0;
    if (!reader)
        UTIL_ASSERT_LINE(QUEUE_SOURCE_PATH, __LINE__, ", this = " << static_cast<void*>(this));
}

o2o_msg_queue_t::~o2o_msg_queue_t() {
    m_ring.dump();
    if (!m_ring.is_empty())
        UTIL_LOG(LOG_INFO, "o2o_msg_queue_t::~o2o_msg_queue_t() is not empty, m_reader = "
                               << static_cast<void*>(get_notifier()) << ", m_writer = " << static_cast<void*>(m_writer)
                               << ", this = " << static_cast<void*>(this));
}

int o2o_msg_queue_t::push_counted(msg_it* msg, uint32_t& depth) {
    const int rv = m_ring.push(msg);
    depth = rv == RESULT_SUCCESS && stats_on() ? m_ring.depth_above(depth_mark()) : 0;
    return rv;
}

int o2o_msg_queue_t::push_signalled(msg_it* msg) {
    uint32_t depth;
    const int rv = push_counted(msg, depth);
    return after_push(rv, m_mode, depth);
}

int o2o_msg_queue_t::post_msg(msg_it* msg, msg_queue_sink_it* sink) {
    if (!msg)
        return refuse_null(__LINE__);
    const bool sampled = before_post(msg);
    uint32_t depth;
    const int rv = push_counted(msg, depth);
    after_post(rv, msg, sampled);
    // The sink is registered and the status set before the reader is woken.
    if (rv == RESULT_QUEUE_FULL && sink)
        add_sink(sink);
    return after_push(rv, m_mode, depth);
}

int o2o_msg_queue_t::send_msg(msg_it* msg, msg_queue_sink_it*, int timeout) {
    if (!msg)
        return refuse_null(__LINE__);
    if (m_ring.is_full())
        return RESULT_QUEUE_FULL;
    return send_through("o2o_msg_queue_t::send_msg", msg, timeout);
}

int o2o_msg_queue_t::pop_msg(msg_it*& msg) {
    int rv = m_ring.pop(msg);
    if (rv != RESULT_SUCCESS && going_idle())
        rv = m_ring.pop(msg);
    counted_pop(rv, msg);
    return after_pop(rv, m_writer);
}

// ---- msg_queue_t ------------------------------------------------------------------

msg_queue_t::msg_queue_t(notifier_it* reader, thread_wrapper_t* writer, unsigned int capacity, unsigned int mode)
    : msg_queue_base_t(reader), m_writer(writer), m_ring(capacity), m_mode(mode) {
    m_counters->depth_limit = capacity > 1 ? capacity - 1 : 0;
    if (writer)
        UTIL_LOG(LOG_INFO, "msg_queue_t::msg_queue_t reader = " << static_cast<void*>(reader)
                                                                << ", writer = " << static_cast<void*>(writer)
                                                                << ", capacity = " << capacity << ", mode = " << mode
                                                                << ", this = " << static_cast<void*>(this));
    else
        UTIL_LOG(LOG_INFO, "msg_queue_t::msg_queue_t thr_read = " << static_cast<void*>(reader)
                                                                  << ", capacity = " << capacity << ", mode = " << mode
                                                                  << ", this = " << static_cast<void*>(this));
}

msg_queue_t::~msg_queue_t() {
    m_ring.dump();
    UTIL_LOG(LOG_INFO, (m_ring.is_empty() ? "msg_queue_t::~msg_queue_t()" : "msg_queue_t::~msg_queue_t() is not empty")
                           << ", m_reader = " << static_cast<void*>(get_notifier()) << ", m_writer = "
                           << static_cast<void*>(m_writer) << ", this = " << static_cast<void*>(this));
}

int msg_queue_t::push_counted(msg_it* msg, uint32_t& depth) {
    if (!stats_on()) {
        depth = 0;
        return m_ring.push(msg);
    }
    return m_ring.push(msg, depth_mark(), depth);
}

int msg_queue_t::push_signalled(msg_it* msg) {
    uint32_t depth;
    const int rv = push_counted(msg, depth);
    return after_push(rv, m_mode, depth);
}

int msg_queue_t::post_msg(msg_it* msg, msg_queue_sink_it*) {
    if (!msg)
        return refuse_null(__LINE__);
    const bool sampled = before_post(msg);
    uint32_t depth;
    const int rv = push_counted(msg, depth);
    after_post(rv, msg, sampled);
    return after_push(rv, m_mode, depth);
}

int msg_queue_t::send_msg(msg_it* msg, msg_queue_sink_it*, int timeout) {
    if (!msg)
        return refuse_null(__LINE__);
    if (m_ring.is_full())
        return RESULT_QUEUE_FULL;
    return send_through("msg_queue_t::send_msg", msg, timeout);
}

int msg_queue_t::pop_msg(msg_it*& msg) {
    int rv = m_ring.pop(msg);
    if (rv != RESULT_SUCCESS && going_idle())
        rv = m_ring.pop(msg);
    counted_pop(rv, msg);
    return after_pop(rv, m_writer);
}

}  // namespace ssb
