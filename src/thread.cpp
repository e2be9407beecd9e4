// The loop of a message-loop thread: its pass, its stop, delivery to it and
// messages parked on it. Channels (and held sink wake-ups) live in
// thread_channels.cpp, the synchronous waits in thread_waits.cpp, the
// calling thread's identity in thread_identity.cpp, the timer side in
// thread_timer.cpp.
#include "thread.h"

#include <chrono>

#include "notifier.h"
#include "platform/platform.h"
#include "thread_identity.h"
#include "stats_internal.h"
#include "thread_parts.h"
#include "thread_waits.h"
#include "tls.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = "thread";

// Stops a loop on its own thread; sent by stop() from another thread.
class stop_thread_msg_t : public msg_it {
public:
    stop_thread_msg_t(thread_wrapper_t* from, thread_wrapper_t* to)
        : msg_it(MSG_TYPE_STOP_THREAD, 1, MSG_TIMEOUT_NEVER, false), m_from(from), m_to(to) {}

    void on_message() override {
        UTIL_LOG(LOG_INFO, "stop_thread_msg_t::on_message, from = " << log_ptr(m_from) << ", to = " << log_ptr(m_to)
                                                                    << ", this = " << log_ptr(this));
        if (!m_to) {
            UTIL_ASSERT_LINE(SOURCE_PATH, 888, ", this = " << log_ptr(this));
            return;
        }
        m_to->stop_i(m_from);
    }

private:
    thread_wrapper_t* m_from;
    thread_wrapper_t* m_to;
};

}  // namespace

namespace {

std::atomic<int> s_live_wrappers(0);

// A control queue must hold at least a stop and a few control messages, and
// a size near 2^32 would fail to allocate and leave a ring that is always
// full: sizes outside the ring's own range are clamped to it.
unsigned int sane_queue_size(unsigned int size) {
    return size < RING_QUEUE_MIN_CAPACITY ? RING_QUEUE_MIN_CAPACITY
                                          : (size > RING_QUEUE_MAX_CAPACITY ? RING_QUEUE_MAX_CAPACITY : size);
}

// The log lines of the message hot paths, kept out of line: inlined, their
// 2 KiB line buffer and stream calls make every post and every message run
// save and restore registers for a path that almost never runs.
[[gnu::cold]] [[gnu::noinline]] void log_not_running(const void* self) {
    UTIL_ASSERT_LINE(SOURCE_PATH, 632, ", this = " << log_ptr(self));
}

[[gnu::cold]] [[gnu::noinline]] void log_bad_target(const void* target, const void* self) {
    UTIL_ASSERT_LINE(SOURCE_PATH, 685, ", target = " << log_ptr(target) << ", this = " << log_ptr(self));
}

[[gnu::cold]] [[gnu::noinline]] void log_no_channel(const char* name, const void* target, const void* self) {
    UTIL_LOG(LOG_ERROR, "thread_wrapper_t::" << name << " has been not found , post_thr = " << log_ptr(target)
                                             << ", this = " << log_ptr(self));
}

[[gnu::cold]] [[gnu::noinline]] void log_post_full(const void* target, const void* sink, const void* self) {
    UTIL_LOG(LOG_DEBUG, "thread_wrapper_t::post_msg_i post_thr = " << log_ptr(target) << " failed, no room, sink = "
                                                                   << log_ptr(sink) << ", this = " << log_ptr(self));
}

[[gnu::cold]] [[gnu::noinline]] void log_overtime(bool control, uint32_t type, const void* self) {
    UTIL_LOG(LOG_WARNING, "thread_wrapper_t::process_msg() the " << (control ? "control msg" : "msg")
                                                                 << " already overtime, (uint32_t)msg->get_type() = "
                                                                 << type << ", this = " << log_ptr(self));
}

}  // namespace

int live_thread_wrappers() { return s_live_wrappers.load(std::memory_order_relaxed); }

thread_wrapper_t::thread_wrapper_t(unsigned int mode, unsigned int type, unsigned int queue_size,
                                   thread_mgr_t* thr_manager, unsigned int waits, bool interact_timer,
                                   const signed char* name)
    : m_mode(mode),
      m_type(type),
      m_id((mode & THREAD_MODE_WRAP) ? get_cur_tid() : 0),
      m_status(THREAD_RUNNING),
      m_thread_manager(thr_manager),
      m_queue_size(sane_queue_size(queue_size)),
      m_notifier(nullptr),
      m_interact_timer(interact_timer),
      m_idle(true),
      m_pass_end(PASS_IDLE),
      m_name(name ? reinterpret_cast<const char*>(name) : "orca.user"),
      m_parts(new parts_t) {
    s_live_wrappers.fetch_add(1, std::memory_order_relaxed);
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::thread_wrapper_t, mode = "
                           << mode << ", id = " << get_id() << ", type = " << type << ", thr_manager = "
                           << log_ptr(thr_manager) << ", waits = " << waits << ", interact_timer = " << interact_timer
                           << ", m_timer_precision = " << get_timer_precision() << ", this = " << log_ptr(this));
    if (m_queue_size != queue_size)
        UTIL_LOG(LOG_WARNING, "thread_wrapper_t::thread_wrapper_t control queue size out of range, queue_size = "
                                  << queue_size << ", used = " << m_queue_size << ", this = " << log_ptr(this));
    // Any thread may write the control queue; its reader is this loop.
    m_parts->ctrl_queue =
        ref_holder_t<msg_queue_t>(new msg_queue_t(nullptr, nullptr, m_queue_size, MSG_QUEUE_SIGNAL_WHEN_EMPTY));
}

thread_wrapper_t::~thread_wrapper_t() {
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::~thread_wrapper_t, id = " << get_id() << ", this = " << log_ptr(this));
    // The channels (and the peers they hold) go with the parts; the
    // control queue's messages are dropped first, as a queue never
    // releases what it holds.
    drain_queue(m_parts->ctrl_queue.get());
    m_parts.reset();
    delete m_notifier;
    s_live_wrappers.fetch_sub(1, std::memory_order_relaxed);
}

rw_msg_queue_it* thread_wrapper_t::get_rw_msgq() const { return m_parts->ctrl_queue.get(); }

bool thread_wrapper_t::is_pending() const { return static_cast<bool>(m_parts->parked.msg); }

unsigned int thread_wrapper_t::start(void (*)(void*), void*, unsigned int, unsigned int) {
    UTIL_ASSERT_LINE(SOURCE_PATH, 1814, ", this = " << log_ptr(this));
    return 0;
}

notifier_it* thread_wrapper_t::make_notifier(unsigned int waits) {
    return new notifier_event_t(waits != 0, false, false);
}

int thread_wrapper_t::open_notifier(unsigned int waits) {
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::open_notifier, waits = " << waits << ", this = " << log_ptr(this));
    if (m_notifier) {
        UTIL_ASSERT_LINE(SOURCE_PATH, 1751, ", this = " << log_ptr(this));
        return RESULT_ALREADY_EXISTS;
    }
    m_notifier = make_notifier(waits);
    m_parts->ctrl_queue->open_notifier(m_notifier);
    return RESULT_SUCCESS;
}

int thread_wrapper_t::notify() { return m_notifier ? m_notifier->signal() : RESULT_NOTHING_TO_DO; }

int thread_wrapper_t::wait(unsigned int timeout_ms) {
    if (!m_idle)
        return RESULT_SUCCESS;
    if (!m_notifier) {
        UTIL_LOG(LOG_WARNING, "thread_wrapper_t::wait notifier is empty, this = " << log_ptr(this));
        plat::sleep_ms(timeout_ms == WAIT_INFINITE_MS ? 0 : timeout_ms);
        return RESULT_SUCCESS;
    }
    return m_notifier->wait(timeout_ms == WAIT_INFINITE_MS ? -1 : static_cast<int>(timeout_ms), false);
}

bool thread_wrapper_t::run_pass() {
    if (is_pending()) {
        const int rv = try_pending_msg();
        if (rv != RESULT_SUCCESS && rv != RESULT_QUEUE_FULL)
            UTIL_LOG(LOG_ERROR, "thread_wrapper_t::thread_run failed to pending message, this = " << log_ptr(this));
    }
    process_msg(WAIT_INFINITE_MS);
    // A pass cut short by a channel change may have left messages behind
    // that no writer will signal again.
    m_idle = m_pass_end == PASS_IDLE;
    return !m_idle;
}

void thread_wrapper_t::abandon() {
    unsigned int status = m_status.exchange(THREAD_STOPPED, std::memory_order_acq_rel);
    if (status != THREAD_STOPPED)
        UTIL_LOG(LOG_WARNING, "thread_wrapper_t::abandon() the loop ended without stop, this = " << log_ptr(this));
    close_timer();
    drain_all();
    m_parts->stopped.signal();
}

void thread_wrapper_t::thread_run(void*) {
    // The host may drop its last reference from inside a message (a
    // wrapped thread stopping itself): keep this object for the pass.
    ref_holder_t<thread_wrapper_t> keep(this);
    parts_t& parts = *m_parts;
    if (parts.pass_depth == 0) {
        // A loop taken over by a stop from outside never runs again.
        unsigned int free_state = PASS_FREE;
        if (!parts.pass_owner.compare_exchange_strong(free_state, PASS_RUNNING, std::memory_order_acq_rel))
            return;
    }
    ++parts.pass_depth;
    // A poll, never a sleep: a wrapped thread blocks in its own loop (the
    // host's window loop for the main thread).
    wait(0);
    run_pass();
    if (--parts.pass_depth != 0)
        return;
    // A stop from outside that could not take the loop over waits for this
    // pass to run it; the host may never pump again, so it runs now.
    if (is_stopping())
        process_msg(0);
    parts.pass_owner.store(PASS_FREE, std::memory_order_release);
}

unsigned int thread_wrapper_t::run_msg(msg_it* popped, bool control, queue_counters_t* counters) {
    msg_holder_t msg(popped);
    if (popped->overtime()) {
        if (counters && stats_on())
            bump(counters->overtime);
        log_overtime(control, static_cast<uint32_t>(popped->get_type()), this);
        return 0;
    }
    if (counters && stats_on())
        bump(counters->run);
    const unsigned int load = popped->load();
    popped->on_message();
    return load;
}

void thread_wrapper_t::drain_all() {
    m_parts->channels.drain_all();
    drain_queue(m_parts->ctrl_queue.get());
}

unsigned int thread_wrapper_t::process_msg(unsigned int max) {
    if (is_stopped()) {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::process_msg already has been stopped, this = " << log_ptr(this));
        return 0;
    }
    if (!m_parts->ctrl_queue) {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::process_msg waiting for control message has been created, this = "
                               << log_ptr(this));
        return 0;
    }
    if (m_parts->stop_requested.load(std::memory_order_acquire)) {
        stop_i(nullptr);
        drain_all();
        m_pass_end = PASS_IDLE;
        return 0;
    }
    if (m_parts->has_held_wakeups.load(std::memory_order_acquire))
        run_held_wakeups();
    if (m_interact_timer && get_timer_queue())
        process_timer();
    channel_map_t& channels = m_parts->channels;
    channels.free_retired();
    const unsigned int bound = max < THREAD_PASS_LOAD ? max : THREAD_PASS_LOAD;
    const uint64_t epoch = channels.epoch();
    unsigned int total = 0;
    pass_meter_t meter(m_parts->stats);
    bool took = true;
    while (took && total < bound) {
        took = false;
        for (size_t i = 0; i < channels.size(); ++i) {
            msg_it* msg = nullptr;
            channel_map_t::channel_t& channel = channels.at(i);
            if (channel.read->pop_msg(msg) != RESULT_SUCCESS)
                continue;
            took = true;
            meter.count();
            total += run_msg(msg, false, channel.counters);
            if (channels.epoch() != epoch) {
                // The list may have moved under the index; the control
                // queue waits for the next pass.
                UTIL_LOG(LOG_INFO,
                         "thread_wrapper_t::process_msg the thread bind list has been changed by event in "
                         "message queue, this = "
                             << log_ptr(this));
                m_pass_end = PASS_CUT_SHORT;
                return total;
            }
        }
    }
    if (total >= THREAD_PASS_LOAD)
        UTIL_LOG(LOG_DEBUG, "thread_wrapper_t::process_msg, loads = " << total << ", this = " << log_ptr(this));
    msg_queue_t* control = m_parts->ctrl_queue.get();
    msg_it* msg = nullptr;
    while (!is_stopped() && control->pop_msg(msg) == RESULT_SUCCESS) {
        meter.count();
        total += run_msg(msg, true, control->counters());
    }
    if (is_stopped())
        drain_all();
    m_pass_end = total < THREAD_PASS_LOAD ? PASS_IDLE : PASS_BUSY;
    return total;
}

// ---- stopping ------------------------------------------------------------------

int thread_wrapper_t::request_stop() {
    unsigned int expected = THREAD_RUNNING;
    if (!m_status.compare_exchange_strong(expected, THREAD_STOPPING, std::memory_order_acq_rel))
        return RESULT_NOTHING_TO_DO;
    if (on_own_thread())
        return stop_i(this);
    post_stop();
    return RESULT_SUCCESS;
}

void thread_wrapper_t::post_stop() {
    // No sender to name: whoever waits drops its own end afterwards, and a
    // sender that gave up waiting may be gone when the stop runs.
    msg_holder_t msg(new stop_thread_msg_t(nullptr, this));
    if (msg.handed_over(m_parts->ctrl_queue->post_msg(msg.get(), nullptr)) != RESULT_SUCCESS)
        request_stop_by_flag();
}

int thread_wrapper_t::stop_within(unsigned int timeout_ms) {
    // On its own thread (a shut-down from inside one of its messages) the
    // loop stops at once, whoever asked for the stop before.
    if (on_own_thread())
        return is_stopped() ? RESULT_SUCCESS : stop_i(this);
    unsigned int expected = THREAD_RUNNING;
    // Not running: stopped, or another stop is in flight and is waited for.
    if (m_status.compare_exchange_strong(expected, THREAD_STOPPING, std::memory_order_acq_rel))
        post_stop();
    const bool wrapped = (m_mode & THREAD_MODE_WRAP) != 0;
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    for (;;) {
        if (is_stopped())
            return RESULT_SUCCESS;
        // A stop in flight that was refused put the loop back to running.
        expected = THREAD_RUNNING;
        if (m_status.compare_exchange_strong(expected, THREAD_STOPPING, std::memory_order_acq_rel))
            post_stop();
        // A wrapped loop whose thread is not inside a pass is taken over:
        // that thread may never pump again (a host that stopped calling
        // main_heartbeat), and it will not start a pass once this holds it.
        unsigned int free_state = PASS_FREE;
        if (wrapped && m_parts->pass_owner.compare_exchange_strong(free_state, PASS_TAKEN, std::memory_order_acq_rel)) {
            if (!is_stopped())
                stop_taken_over();
            return RESULT_SUCCESS;
        }
        const long long waited =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
        if (waited >= static_cast<long long>(timeout_ms))
            return RESULT_BUSY;
        // A wrapped loop signals nothing when its pass ends: look again
        // soon.
        const long long left = static_cast<long long>(timeout_ms) - waited;
        m_parts->stopped.wait(static_cast<int>(wrapped && left > 10 ? 10 : left));
    }
}

void thread_wrapper_t::stop_taken_over() {
    m_status.store(THREAD_STOPPED, std::memory_order_release);
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::stop_i taken over from outside, sef_id = "
                           << get_id() << ", current tid = " << get_cur_tid() << ", this = " << log_ptr(this));
    {
        auto_lock_t<thread_mutex_recursive> guard(m_lock);
        channel_map_t& channels = m_parts->channels;
        while (!channels.empty()) {
            ref_holder_t<thread_wrapper_t> peer(channels.last_peer());
            bool had_pending = false;
            channels.detach(peer.get(), had_pending);
            if (peer->is_running())
                unbind_end(peer.get(), this, false);
        }
    }
    drain_all();
    m_parts->stopped.signal();
    // The thread's slot still names this loop; the manager's next
    // generation makes it stale, and nothing reads it before.
    thread_registry_it* registry = thread_registry();
    if (!registry || registry->detach(this) == RESULT_NOTHING_TO_DO)
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::stop_i could not get thread manager instance, this = " << log_ptr(this));
}

int thread_wrapper_t::stop() {
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::stop(), m_status = " << m_status.load() << ", m_type = " << m_type
                                                               << ", id = " << get_id()
                                                               << ", this = " << log_ptr(this));
    unsigned int expected = THREAD_RUNNING;
    // Only the first caller goes on: a second stop() returns 9.
    if (!m_status.compare_exchange_strong(expected, THREAD_STOPPING, std::memory_order_acq_rel))
        return RESULT_NOTHING_TO_DO;
    if (on_own_thread()) {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::stop() same thread with id " << get_id() << ", this = " << log_ptr(this));
        return stop_i(this);
    }
    thread_wrapper_t* caller = calling_thread();
    // The wrapper (and the channel ends it holds) cannot go while the stop
    // runs; the caller's own end to it is dropped here, on its thread.
    ref_holder_t<thread_wrapper_t> keep(this);
    wait_for_t wait("thread_wrapper_t::stop()", this);
    if (wait.refused()) {
        m_status.store(THREAD_RUNNING, std::memory_order_release);
        return wait.refused();
    }
    msg_holder_t msg(new stop_thread_msg_t(caller, this));
    const int rv = msg.handed_over(m_parts->ctrl_queue->send_msg(msg.get(), nullptr, -1));
    if (rv == RESULT_QUEUE_FULL) {
        // The control queue is full: the flag that every pass reads takes
        // the stop instead, and this waits as the message would have.
        request_stop_by_flag();
        m_parts->stopped.wait(-1);
    }
    if (caller && caller->on_own_thread() && caller->m_parts->channels.find(this))
        caller->detach_queue(this);
    return RESULT_SUCCESS;
}

void thread_wrapper_t::request_stop_by_flag() {
    UTIL_LOG(LOG_WARNING, "thread_wrapper_t::stop() the control queue is full, the loop stops at its next pass, this = "
                              << log_ptr(this));
    m_parts->stop_requested.store(true, std::memory_order_release);
    notify();
}

int thread_wrapper_t::stop_i(thread_wrapper_t* from) {
    m_status.store(THREAD_STOPPED, std::memory_order_release);
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::stop_i, running = "
                           << is_running() << ", sef_id = " << get_id() << ", from = " << log_ptr(from)
                           << ", from_id = " << (from ? from->get_id() : 0) << ", queue_size = " << m_queue_size
                           << ", this = " << log_ptr(this));
    if (!on_own_thread()) {
        UTIL_ASSERT_MSG("thread_wrapper_t::stop_i MUST IN SAME THREAD!", SOURCE_PATH, __LINE__,
                        ", this = " << log_ptr(this));
        return RESULT_REFUSED;
    }
    {
        auto_lock_t<thread_mutex_recursive> guard(m_lock);
        // `from` waits for this stop, so it drops its own end itself; the
        // others are told without waiting, as a stopping thread must never
        // block on a peer that may be stopping too.
        channel_map_t& channels = m_parts->channels;
        while (!channels.empty()) {
            ref_holder_t<thread_wrapper_t> peer(channels.last_peer());
            detach_queue(peer.get());
            if (peer.get() != from && peer->is_running())
                unbind_end(peer.get(), this, false);
        }
    }
    close_timer();
    // Nothing queued runs any more; a synchronous sender is woken.
    drain_queue(m_parts->ctrl_queue.get());
    m_parts->stopped.signal();
    if (m_mode & THREAD_MODE_WRAP)
        cleanup_tls();
    // Whoever lists the threads now: the manager that made this one may be
    // gone (a wrapped thread that ran a requested stop late).
    thread_registry_it* registry = thread_registry();
    if (!registry || registry->detach(this) == RESULT_NOTHING_TO_DO)
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::stop_i could not get thread manager instance, this = " << log_ptr(this));
    return RESULT_SUCCESS;
}

// ---- delivery -------------------------------------------------------------------

int thread_wrapper_t::post_msg(msg_it* msg, msg_queue_sink_it* sink) {
    if (!is_running()) {
        log_not_running(this);
        return RESULT_NOTHING_TO_DO;
    }
    thread_wrapper_t* caller = calling_thread();
    // A parked message goes before anything newer from the same thread.
    if (caller && caller->is_pending()) {
        const int rv = caller->try_pending_msg();
        if (rv != RESULT_SUCCESS && rv != RESULT_INVALID_ARG)
            return rv;
    }
    if (caller && caller != this)
        return caller->post_msg_i(this, msg, sink);
    return m_parts->ctrl_queue->post_msg(msg, sink);
}

int thread_wrapper_t::send_msg(msg_it* msg, msg_queue_sink_it* sink, int timeout) {
    if (!is_running()) {
        log_not_running(this);
        return RESULT_NOTHING_TO_DO;
    }
    thread_wrapper_t* caller = calling_thread();
    if (caller == this || (!caller && on_own_thread())) {
        UTIL_LOG(LOG_ERROR, "thread_wrapper_t::send_msg cannot send event to self, this = " << log_ptr(this));
        return RESULT_REFUSED;
    }
    if (!caller)
        return send_ctrl_msg(msg, sink, timeout);
    return caller->send_msg_i(this, msg, sink, timeout);
}

w_msg_queue_it* thread_wrapper_t::route_to(thread_wrapper_t* target, const char* name) {
    if (!target || !target->is_running()) {
        log_bad_target(target, this);
        return nullptr;
    }
    // The calling thread reads its own list without the lock: only it
    // changes the list.
    channel_map_t::channel_t* c = m_parts->channels.find(target);
    if (!c) {
        log_no_channel(name, target, this);
        return nullptr;
    }
    return c->write.get();
}

int thread_wrapper_t::post_msg_i(thread_wrapper_t* target, msg_it* msg, msg_queue_sink_it* sink) {
    w_msg_queue_it* queue = route_to(target, "post_msg_i");
    if (!queue)
        return target && target->is_running() ? RESULT_NOT_FOUND : RESULT_NOTHING_TO_DO;
    const int rv = queue->post_msg(msg, sink);
    if (rv == RESULT_QUEUE_FULL)
        log_post_full(target, sink, this);
    return rv;
}

int thread_wrapper_t::send_msg_i(thread_wrapper_t* target, msg_it* msg, msg_queue_sink_it* sink, int timeout) {
    w_msg_queue_it* queue = route_to(target, "send_msg_i");
    if (!queue)
        return target && target->is_running() ? RESULT_NOT_FOUND : RESULT_NOTHING_TO_DO;
    wait_for_t wait("thread_wrapper_t::send_msg_i", target);
    return wait.refused() ? wait.refused() : send_tracked(queue, msg, sink, timeout);
}

int thread_wrapper_t::post_ctrl_msg(msg_it* msg, msg_queue_sink_it* sink) {
    UTIL_LOG(LOG_DEBUG, "thread_wrapper_t::post_ctrl_msg msg = " << log_ptr(msg) << ", (uint32_t)m_id = " << get_id()
                                                                 << ", this = " << log_ptr(this));
    if (is_stopped()) {
        UTIL_ASSERT_LINE(SOURCE_PATH, __LINE__, ", this = " << log_ptr(this));
        return RESULT_INVALID_ARG;
    }
    // The loop may run the message, and free itself with its queue and
    // notifier, before the post has signalled; the poster holds it until
    // then.
    ref_holder_t<thread_wrapper_t> keep(this);
    return m_parts->ctrl_queue->post_msg(msg, sink);
}

int thread_wrapper_t::send_ctrl_msg(msg_it* msg, msg_queue_sink_it* sink, int timeout) {
    UTIL_LOG(LOG_DEBUG, "thread_wrapper_t::send_ctrl_msg msg = " << log_ptr(msg) << ", (uint32_t)m_id = " << get_id()
                                                                 << ", timeout = " << timeout
                                                                 << ", this = " << log_ptr(this));
    if (is_stopped()) {
        UTIL_ASSERT_LINE(SOURCE_PATH, 740, ", this = " << log_ptr(this));
        return RESULT_INVALID_ARG;
    }
    ref_holder_t<thread_wrapper_t> keep(this);  // as in post_ctrl_msg
    wait_for_t wait("thread_wrapper_t::send_ctrl_msg", this);
    return wait.refused() ? wait.refused() : send_tracked(m_parts->ctrl_queue.get(), msg, sink, timeout);
}

// ---- parked messages ------------------------------------------------------------

int thread_wrapper_t::pend(msg_it* msg, thread_wrapper_t* target) {
    if (!msg || !target)
        return RESULT_INVALID_ARG;
    parked_msg_t& parked = m_parts->parked;
    if (parked.msg)
        return RESULT_ALREADY_EXISTS;
    parked.msg.reset(msg);
    parked.target = ref_holder_t<thread_wrapper_t>(target);
    return RESULT_SUCCESS;
}

int thread_wrapper_t::pend_on_msg(msg_it* pending_msg, thread_wrapper_t* pending_for) {
    if (pending_for && !pending_for->is_running()) {
        UTIL_LOG(LOG_WARNING,
                 "thread_wrapper_t::pend_on_msg, pending_for = "
                     << log_ptr(pending_for)
                     << " already has been released, drop the peeding msg for it, this = " << log_ptr(this));
        msg_holder_t dropped(pending_msg);
        return RESULT_INVALID_ARG;
    }
    return pend(pending_msg, pending_for);
}

int thread_wrapper_t::try_pending_msg() {
    parked_msg_t& parked = m_parts->parked;
    if (!parked.msg)
        return RESULT_SUCCESS;
    thread_wrapper_t* target = parked.target.get();
    int rv = RESULT_INVALID_ARG;
    if (target->is_running()) {
        channel_map_t::channel_t* c = target == this ? nullptr : m_parts->channels.find(target);
        w_msg_queue_it* queue = c ? c->write.get() : target->get_rw_msgq();
        rv = queue->post_msg(parked.msg.get(), nullptr);
        if (rv == RESULT_QUEUE_FULL)
            return rv;
    }
    if (rv == RESULT_SUCCESS) {
        parked.msg.take();
    } else {
        UTIL_LOG(LOG_WARNING, "thread_wrapper_t::try_pending_msg, pend_thr = "
                                  << log_ptr(target)
                                  << " already has been dropped, release the msg for it, this = " << log_ptr(this));
        parked.msg.reset();
        rv = RESULT_INVALID_ARG;
    }
    parked.target.reset();
    return rv;
}

}  // namespace ssb
