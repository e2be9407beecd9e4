#include "thread.h"

#include "notifier.h"
#include "platform/platform.h"
#include "thread_mgr.h"
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

// Binds one end of a channel on that end's thread. Holds the queues while
// in flight; the sender waits, so it may leave its result on its stack.
class create_ch_msg_t : public msg_it {
public:
    create_ch_msg_t(thread_wrapper_t* from, thread_wrapper_t* to, r_msg_queue_it* r, w_msg_queue_it* w, int* result)
        : msg_it(MSG_TYPE_CREATE_CHANNEL, 1, MSG_TIMEOUT_NEVER, false),
          m_from(from),
          m_to(to),
          m_read(r),
          m_write(w),
          m_result(result) {
        m_read->increment();
        m_write->increment();
    }

    void on_message() override {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::create_ch_msg_t::on_message from = "
                               << log_ptr(m_from) << ", to = " << log_ptr(m_to) << ", this = " << log_ptr(this));
        if (!m_from || !m_to) {
            UTIL_ASSERT_LINE(SOURCE_PATH, 572, ", from = " << log_ptr(m_from) << ", to = " << log_ptr(m_to));
            return;
        }
        const int rv = m_to->bind_queue(m_from, m_read, m_write);
        if (m_result)
            *m_result = rv;
    }

protected:
    ~create_ch_msg_t() override {
        m_read->decrement();
        m_write->decrement();
    }

private:
    thread_wrapper_t* m_from;
    thread_wrapper_t* m_to;
    r_msg_queue_it* m_read;
    w_msg_queue_it* m_write;
    int* m_result;
};

// Unbinds one end of a channel on that end's thread. Holds a reference on
// the peer it names, so the key stays valid while in flight.
class release_ch_msg_t : public msg_it {
public:
    release_ch_msg_t(thread_wrapper_t* from, thread_wrapper_t* to, int* result)
        : msg_it(MSG_TYPE_RELEASE_CHANNEL, 1, MSG_TIMEOUT_NEVER, false), m_from(from), m_to(to), m_result(result) {
        m_from->increment();
    }

    void on_message() override {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::release_ch_msg_t::on_message from = "
                               << log_ptr(m_from) << ", to = " << log_ptr(m_to) << ", this = " << log_ptr(this));
        const int rv = m_to->detach_queue(m_from);
        if (m_result)
            *m_result = rv;
    }

protected:
    ~release_ch_msg_t() override { m_from->decrement(); }

private:
    thread_wrapper_t* m_from;
    thread_wrapper_t* m_to;
    int* m_result;
};

}  // namespace

thread_wrapper_t::thread_wrapper_t(unsigned int mode, unsigned int type, unsigned int queue_size,
                                   thread_mgr_t* thr_manager, unsigned int waits, bool interact_timer,
                                   const signed char* name)
    : m_mode(mode),
      m_type(type),
      m_id((mode & THREAD_MODE_WRAP) ? get_cur_tid() : 0),
      m_status(THREAD_RUNNING),
      m_thread_manager(thr_manager),
      m_queue_size(queue_size),
      m_ctrl_queue(nullptr),
      m_notifier(nullptr),
      m_idle(true),
      m_interact_timer(interact_timer),
      m_in_pass(false),
      m_bind_changed(false),
      m_cut_short(false),
      m_timer_precision(MIN_TIMER_PRECISION_MS),
      m_name(name ? reinterpret_cast<const char*>(name) : "orca.user"),
      m_pending(nullptr),
      m_pending_for(nullptr) {
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::thread_wrapper_t, mode = "
                           << mode << ", id = " << get_id() << ", type = " << type << ", thr_manager = "
                           << log_ptr(thr_manager) << ", waits = " << waits << ", interact_timer = " << interact_timer
                           << ", m_timer_precision = " << get_timer_precision() << ", this = " << log_ptr(this));
    // Any thread may write the control queue; its reader is this loop.
    m_ctrl_queue = new msg_queue_t(nullptr, nullptr, queue_size, MSG_QUEUE_SIGNAL_WHEN_EMPTY);
    m_ctrl_queue->increment();
}

thread_wrapper_t::~thread_wrapper_t() {
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::~thread_wrapper_t, id = " << get_id() << ", this = " << log_ptr(this));
    // Normally empty by now: stop_i released the channels. A wrapper that
    // never stopped lets go of its peers here.
    for (channel_t& c : m_channels) {
        drain(c.read);
        c.read->decrement();
        c.write->decrement();
        c.peer->decrement();
    }
    for (r_msg_queue_it* q : m_retired) {
        drain(q);
        q->decrement();
    }
    if (m_pending)
        m_pending->release();
    if (m_pending_for)
        m_pending_for->decrement();
    drain(m_ctrl_queue);
    m_ctrl_queue->decrement();
    delete m_notifier;
}

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
    m_ctrl_queue->open_notifier(m_notifier);
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
    const unsigned int load = process_msg(WAIT_INFINITE_MS);
    // A pass cut short by a channel change may have left messages behind
    // that no writer will signal again.
    m_idle = load < THREAD_PASS_LOAD && !m_cut_short;
    return !m_idle;
}

void thread_wrapper_t::abandon() {
    unsigned int status = m_status.exchange(THREAD_STOPPED, std::memory_order_acq_rel);
    if (status != THREAD_STOPPED)
        UTIL_LOG(LOG_WARNING, "thread_wrapper_t::abandon() the loop ended without stop, this = " << log_ptr(this));
    drain_all();
}

void thread_wrapper_t::thread_run(void*) {
    // The host may drop its last reference from inside a message (a
    // wrapped thread stopping itself): keep this object for the pass.
    increment();
    // A poll, never a sleep: a wrapped thread blocks in its own loop (the
    // host's window loop for the main thread).
    wait(0);
    run_pass();
    decrement();
}

unsigned int thread_wrapper_t::run_msg(msg_it* msg, bool control) {
    if (msg->overtime()) {
        if (control)
            UTIL_LOG(LOG_WARNING,
                     "thread_wrapper_t::process_msg() the control msg already overtime, "
                     "(uint32_t)msg->get_type() = "
                         << static_cast<uint32_t>(msg->get_type()) << ", this = " << log_ptr(this));
        else
            UTIL_LOG(LOG_WARNING,
                     "thread_wrapper_t::process_msg() the msg already overtime, "
                     "(uint32_t)msg->get_type() = "
                         << static_cast<uint32_t>(msg->get_type()) << ", this = " << log_ptr(this));
        msg->release();
        return 0;
    }
    const unsigned int load = msg->load();
    msg->on_message();
    msg->release();
    return load;
}

void thread_wrapper_t::drain(r_msg_queue_it* queue) {
    msg_it* msg = nullptr;
    while (queue->pop_msg(msg) == RESULT_SUCCESS)
        msg->release();
}

void thread_wrapper_t::drain_all() {
    for (channel_t& c : m_channels)
        drain(c.read);
    drain(m_ctrl_queue);
}

unsigned int thread_wrapper_t::process_msg(unsigned int max) {
    if (is_stopped()) {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::process_msg already has been stopped, this = " << log_ptr(this));
        return 0;
    }
    if (!m_ctrl_queue) {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::process_msg waiting for control message has been created, this = "
                               << log_ptr(this));
        return 0;
    }
    const unsigned int bound = max < THREAD_PASS_LOAD ? max : THREAD_PASS_LOAD;
    unsigned int total = 0;
    m_in_pass = true;
    m_bind_changed = false;
    m_cut_short = false;
    // One message per peer per round, so no busy peer starves the others.
    bool took = true;
    while (took && total < bound) {
        took = false;
        for (size_t i = 0; i < m_channels.size(); ++i) {
            msg_it* msg = nullptr;
            if (m_channels[i].read->pop_msg(msg) != RESULT_SUCCESS)
                continue;
            took = true;
            total += run_msg(msg, false);
            if (m_bind_changed) {
                // The list may have moved under the index; the control
                // queue waits for the next pass.
                UTIL_LOG(LOG_INFO,
                         "thread_wrapper_t::process_msg the thread bind list has been changed by event in "
                         "message queue, this = "
                             << log_ptr(this));
                m_bind_changed = false;
                m_in_pass = false;
                m_cut_short = true;
                return total;
            }
        }
    }
    m_in_pass = false;
    if (total >= THREAD_PASS_LOAD)
        UTIL_LOG(LOG_DEBUG, "thread_wrapper_t::process_msg, loads = " << total << ", this = " << log_ptr(this));
    msg_it* msg = nullptr;
    while (!is_stopped() && m_ctrl_queue->pop_msg(msg) == RESULT_SUCCESS)
        total += run_msg(msg, true);
    if (is_stopped())
        drain_all();
    return total;
}

// ---- stopping ------------------------------------------------------------------

int thread_wrapper_t::request_stop() {
    unsigned int expected = THREAD_RUNNING;
    if (!m_status.compare_exchange_strong(expected, THREAD_STOPPING, std::memory_order_acq_rel))
        return RESULT_NOTHING_TO_DO;
    if (on_own_thread())
        return stop_i(this);
    msg_it* msg = new stop_thread_msg_t(nullptr, this);
    if (m_ctrl_queue->post_msg(msg, nullptr) != RESULT_SUCCESS) {
        msg->release();
        m_status.store(THREAD_RUNNING, std::memory_order_release);
        return RESULT_QUEUE_FULL;
    }
    return RESULT_SUCCESS;
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
    msg_it* msg = new stop_thread_msg_t(caller, this);
    // The wrapper (and the channel ends it holds) cannot go while the stop
    // runs; the caller's own end to it is dropped here, on its thread.
    increment();
    int rv = m_ctrl_queue->send_msg(msg, nullptr, -1);
    if (rv == RESULT_QUEUE_FULL) {
        // Not delivered: the thread runs on, and a later stop may retry.
        msg->release();
        m_status.store(THREAD_RUNNING, std::memory_order_release);
    }
    if (caller && caller->on_own_thread() && caller->find_channel(this))
        caller->detach_queue(this);
    decrement();
    return rv == RESULT_QUEUE_FULL ? rv : RESULT_SUCCESS;
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
        while (!m_channels.empty()) {
            thread_wrapper_t* peer = m_channels.back().peer;
            peer->increment();
            detach_queue(peer);
            if (peer != from && peer->is_running())
                unbind_end(peer, this, false);
            peer->decrement();
        }
    }
    // Nothing queued runs any more; a synchronous sender is woken.
    drain(m_ctrl_queue);
    if (m_mode & THREAD_MODE_WRAP)
        cleanup_tls();
    // The manager that made this thread may be gone (a wrapped thread that
    // ran a requested stop late): ask for the current one.
    thread_mgr_t* mgr = thread_mgr_t::holder();
    if (!mgr)
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::stop_i could not get thread manager instance, this = " << log_ptr(this));
    else
        mgr->detach(this);
    return RESULT_SUCCESS;
}

// ---- thread-local self ----------------------------------------------------------

void thread_wrapper_t::init_tls() {
    const unsigned int tid = get_cur_tid();
    if (m_mode != THREAD_MODE_WRAP || get_id() == 0)
        m_id.store(tid, std::memory_order_relaxed);
    if (get_id() != tid) {
        UTIL_ASSERT_MSG(
            "thread_wrapper_t::init_tls() should be in same thread, id = " << get_id() << ", current id = " << tid,
            SOURCE_PATH, 1657, ", this = " << log_ptr(this));
        return;
    }
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::init_tls(), m_thread_manager = " << log_ptr(m_thread_manager)
                                                                           << ", this = " << log_ptr(this));
    thread_mgr_t::register_tls(this);
}

void thread_wrapper_t::cleanup_tls() {
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::cleanup_tls(), m_thread_manager = " << log_ptr(m_thread_manager)
                                                                              << ", this = " << log_ptr(this));
    if (!on_own_thread()) {
        UTIL_ASSERT_MSG("thread_wrapper_t::cleanup_tls() should be in same thread, current tid = " << get_cur_tid(),
                        SOURCE_PATH, __LINE__, ", this = " << log_ptr(this));
        return;
    }
    thread_mgr_t::unregister_tls(this);
    tls_cleanup();
}

thread_wrapper_t* thread_wrapper_t::self() { return thread_mgr_t::tls_value(); }

int thread_wrapper_t::adjust_timer_precision(unsigned int ms) {
    if (ms < MIN_TIMER_PRECISION_MS || ms > MAX_TIMER_PRECISION_MS) {
        UTIL_ASSERT_MSG("thread_wrapper_t::adjust_timer_precision should in scope[ticks_helper::MIN_INTERVAL, 1000ms]",
                        SOURCE_PATH, 1620, ", ms = " << ms << ", this = " << log_ptr(this));
        return RESULT_INVALID_ARG;
    }
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::adjust_timer_precision, m_timer_precision = "
                           << get_timer_precision() << ", new_timer_precision = " << ms
                           << ", this = " << log_ptr(this));
    m_timer_precision.store(ms, std::memory_order_relaxed);
    return RESULT_SUCCESS;
}

// ---- channels -------------------------------------------------------------------

thread_wrapper_t::channel_t* thread_wrapper_t::find_channel(thread_wrapper_t* peer) {
    for (channel_t& c : m_channels)
        if (c.peer == peer)
            return &c;
    return nullptr;
}

int thread_wrapper_t::bind_end(thread_wrapper_t* end, thread_wrapper_t* peer, r_msg_queue_it* r, w_msg_queue_it* w) {
    if (end->on_own_thread())
        return end->bind_queue(peer, r, w);
    int result = RESULT_SUCCESS;
    msg_it* msg = new create_ch_msg_t(peer, end, r, w, &result);
    const int rv = end->send_ctrl_msg(msg, nullptr, -1);
    if (rv != RESULT_SUCCESS) {
        msg->release();
        UTIL_LOG(LOG_ERROR, "thread_wrapper_t::create_channel() bind_thr = " << log_ptr(end) << " failed, rv = " << rv
                                                                             << ", peer = " << log_ptr(peer));
        return rv;
    }
    return result;
}

int thread_wrapper_t::unbind_end(thread_wrapper_t* end, thread_wrapper_t* peer, bool wait) {
    if (end->on_own_thread())
        return end->detach_queue(peer);
    int result = RESULT_SUCCESS;
    msg_it* msg = new release_ch_msg_t(peer, end, wait ? &result : nullptr);
    const int rv = wait ? end->send_ctrl_msg(msg, nullptr, -1) : end->post_ctrl_msg(msg, nullptr);
    if (rv != RESULT_SUCCESS) {
        msg->release();
        return rv;
    }
    return result;
}

int thread_wrapper_t::create_channel(thread_wrapper_t* bind_thr, unsigned int read_capacity,
                                     unsigned int write_capacity) {
    if (!bind_thr) {
        UTIL_ASSERT_MSG("thread_wrapper_t::create_channel bind thread should valid!, bind_thr = " << log_ptr(bind_thr),
                        SOURCE_PATH, __LINE__, ", this = " << log_ptr(this));
        return RESULT_INVALID_ARG;
    }
    if (bind_thr == this) {
        UTIL_ASSERT_MSG("thread_wrapper_t::create_channel bind thread should not be itself", SOURCE_PATH, __LINE__,
                        ", this = " << log_ptr(this));
        return RESULT_REFUSED;
    }
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::create_channel(), bind_thr = "
                           << log_ptr(bind_thr) << ", read_capacity = " << read_capacity
                           << ", write_capacity = " << write_capacity << ", this = " << log_ptr(this));
    // Writers signal only an empty queue: the reader drains per wake-up.
    o2o_msg_queue_t* r = new o2o_msg_queue_t(m_notifier, bind_thr, read_capacity, MSG_QUEUE_SIGNAL_WHEN_EMPTY);
    o2o_msg_queue_t* w = new o2o_msg_queue_t(bind_thr->m_notifier, this, write_capacity, MSG_QUEUE_SIGNAL_WHEN_EMPTY);
    r->increment();
    w->increment();
    int rv = bind_end(bind_thr, this, w, r);
    if (rv == RESULT_SUCCESS || rv == RESULT_ALREADY_EXISTS) {
        const int own = bind_end(this, bind_thr, r, w);
        if (own != RESULT_SUCCESS)
            rv = own;
    }
    r->decrement();
    w->decrement();
    return rv;
}

int thread_wrapper_t::release_channel(thread_wrapper_t* bind_thr) {
    UTIL_LOG(LOG_INFO,
             "thread_wrapper_t::release_channel() bind_thr = " << log_ptr(bind_thr) << ", this = " << log_ptr(this));
    if (!bind_thr)
        return RESULT_INVALID_ARG;
    bind_thr->increment();
    const int own = unbind_end(this, bind_thr, true);
    const int peer = unbind_end(bind_thr, this, true);
    bind_thr->decrement();
    if (own == RESULT_SUCCESS || peer == RESULT_SUCCESS)
        return RESULT_SUCCESS;
    return own == RESULT_NOT_FOUND && peer == RESULT_NOT_FOUND ? RESULT_NOT_FOUND : own;
}

int thread_wrapper_t::bind_queue(thread_wrapper_t* bind_thr, r_msg_queue_it* r_queue, w_msg_queue_it* w_queue) {
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::bind_queue, self_id = "
                           << get_id() << ", bind_thr = " << log_ptr(bind_thr) << ", r_queue = " << log_ptr(r_queue)
                           << ", w_queue = " << log_ptr(w_queue) << ", this = " << log_ptr(this));
    if (!bind_thr || !r_queue || !w_queue)
        return RESULT_INVALID_ARG;
    if (!on_own_thread()) {
        UTIL_ASSERT_MSG("thread_wrapper_t::bind_queue should be in same thread, current tid = " << get_cur_tid(),
                        SOURCE_PATH, __LINE__, ", this = " << log_ptr(this));
        return RESULT_REFUSED;
    }
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    if (find_channel(bind_thr)) {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::bind_queue bind_thr = "
                               << log_ptr(bind_thr) << " already be existed, skip it, this = " << log_ptr(this));
        return RESULT_ALREADY_EXISTS;
    }
    bind_thr->increment();
    r_queue->increment();
    w_queue->increment();
    m_channels.push_back(channel_t{bind_thr, r_queue, w_queue});
    if (m_in_pass)
        m_bind_changed = true;
    return RESULT_SUCCESS;
}

int thread_wrapper_t::detach_queue(thread_wrapper_t* bind_thr) {
    UTIL_LOG(LOG_INFO,
             "thread_wrapper_t::detach_queue bind_thr = " << log_ptr(bind_thr) << ", this = " << log_ptr(this));
    if (!on_own_thread()) {
        UTIL_ASSERT_MSG("thread_wrapper_t::detach_queue should be in same thread, current tid = " << get_cur_tid(),
                        SOURCE_PATH, __LINE__, ", this = " << log_ptr(this));
        return RESULT_REFUSED;
    }
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    channel_t* c = find_channel(bind_thr);
    if (!c) {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::detach_queue has not found reader queue for bind_thr = "
                               << log_ptr(bind_thr) << ", this = " << log_ptr(this));
        return RESULT_NOT_FOUND;
    }
    channel_t gone = *c;
    m_channels.erase(m_channels.begin() + (c - m_channels.data()));
    if (m_in_pass)
        m_bind_changed = true;
    if (!gone.read->is_empty())
        UTIL_LOG(LOG_WARNING, "thread_wrapper_t::release_channel, bind_thr = "
                                  << log_ptr(bind_thr)
                                  << " has pending message, should be release, this = " << log_ptr(this));
    drain(gone.read);
    m_retired.push_back(gone.read);
    gone.write->decrement();
    gone.peer->decrement();
    return RESULT_SUCCESS;
}

r_msg_queue_it* thread_wrapper_t::get_read_msgq(thread_wrapper_t* peer) {
    if (peer == this) {
        UTIL_LOG(LOG_WARNING,
                 "thread_wrapper_t::get_read_msgq() should return control message queue, this = " << log_ptr(this));
        return m_ctrl_queue;
    }
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    channel_t* c = find_channel(peer);
    return c ? c->read : nullptr;
}

w_msg_queue_it* thread_wrapper_t::get_write_msgq(thread_wrapper_t* peer) {
    if (peer == this) {
        UTIL_LOG(LOG_WARNING,
                 "thread_wrapper_t::get_write_msgq() should return control message queue, this = " << log_ptr(this));
        return m_ctrl_queue;
    }
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    channel_t* c = find_channel(peer);
    return c ? c->write : nullptr;
}

bool thread_wrapper_t::is_available(thread_wrapper_t* peer) {
    bool bound = false;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_lock);
        bound = find_channel(peer) != nullptr;
    }
    // A bound peer is alive (the channel holds it), so asking it is safe.
    if (bound && peer->is_running())
        return true;
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::is_available, peer = "
                           << log_ptr(peer) << " already has been not availabed, this = " << log_ptr(this));
    return false;
}

unsigned int thread_wrapper_t::channel_count() {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    return static_cast<unsigned int>(m_channels.size());
}

void thread_wrapper_t::dump_queue() {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::dump_queue() self_id = [" << get_id() << "], this = " << log_ptr(this));
    for (const channel_t& c : m_channels)
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::dump_queue(), peer_thr = " << log_ptr(c.peer)
                                                                         << ", readq = " << log_ptr(c.read)
                                                                         << ", writeq = " << log_ptr(c.write));
}

// ---- delivery -------------------------------------------------------------------

int thread_wrapper_t::post_msg(msg_it* msg, msg_queue_sink_it* sink) {
    if (!is_running()) {
        UTIL_ASSERT_LINE(SOURCE_PATH, 632, ", this = " << log_ptr(this));
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
    return m_ctrl_queue->post_msg(msg, sink);
}

int thread_wrapper_t::send_msg(msg_it* msg, msg_queue_sink_it* sink, int timeout) {
    if (!is_running()) {
        UTIL_ASSERT_LINE(SOURCE_PATH, 632, ", this = " << log_ptr(this));
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

thread_wrapper_t* thread_wrapper_t::calling_thread() {
    thread_wrapper_t* caller = thread_mgr_t::tls_value();
    if (!caller) {
        if (thread_mgr_t* mgr = thread_mgr_t::peek())
            caller = mgr->find_by_id(get_cur_tid());
    }
    return caller;
}

w_msg_queue_it* thread_wrapper_t::route_to(thread_wrapper_t* target, const char* name) {
    if (!target || !target->is_running()) {
        UTIL_ASSERT_LINE(SOURCE_PATH, 685, ", target = " << log_ptr(target) << ", this = " << log_ptr(this));
        return nullptr;
    }
    // The calling thread reads its own list without the lock: only it
    // changes the list.
    channel_t* c = find_channel(target);
    if (!c) {
        UTIL_LOG(LOG_ERROR, "thread_wrapper_t::" << name << " has been not found , post_thr = " << log_ptr(target)
                                                 << ", this = " << log_ptr(this));
        return nullptr;
    }
    return c->write;
}

int thread_wrapper_t::post_msg_i(thread_wrapper_t* target, msg_it* msg, msg_queue_sink_it* sink) {
    w_msg_queue_it* queue = route_to(target, "post_msg_i");
    if (!queue)
        return target && target->is_running() ? RESULT_NOT_FOUND : RESULT_NOTHING_TO_DO;
    const int rv = queue->post_msg(msg, sink);
    if (rv == RESULT_QUEUE_FULL)
        UTIL_LOG(LOG_DEBUG, "thread_wrapper_t::post_msg_i post_thr = " << log_ptr(target)
                                                                       << " failed, no room, sink = " << log_ptr(sink)
                                                                       << ", this = " << log_ptr(this));
    return rv;
}

int thread_wrapper_t::send_msg_i(thread_wrapper_t* target, msg_it* msg, msg_queue_sink_it* sink, int timeout) {
    w_msg_queue_it* queue = route_to(target, "send_msg_i");
    if (!queue)
        return target && target->is_running() ? RESULT_NOT_FOUND : RESULT_NOTHING_TO_DO;
    return queue->send_msg(msg, sink, timeout);
}

int thread_wrapper_t::post_ctrl_msg(msg_it* msg, msg_queue_sink_it* sink) {
    UTIL_LOG(LOG_DEBUG, "thread_wrapper_t::post_ctrl_msg msg = " << log_ptr(msg) << ", (uint32_t)m_id = " << get_id()
                                                                 << ", this = " << log_ptr(this));
    if (is_stopped()) {
        UTIL_ASSERT_LINE(SOURCE_PATH, __LINE__, ", this = " << log_ptr(this));
        return RESULT_INVALID_ARG;
    }
    return m_ctrl_queue->post_msg(msg, sink);
}

int thread_wrapper_t::send_ctrl_msg(msg_it* msg, msg_queue_sink_it* sink, int timeout) {
    UTIL_LOG(LOG_DEBUG, "thread_wrapper_t::send_ctrl_msg msg = " << log_ptr(msg) << ", (uint32_t)m_id = " << get_id()
                                                                 << ", timeout = " << timeout
                                                                 << ", this = " << log_ptr(this));
    if (is_stopped()) {
        UTIL_ASSERT_LINE(SOURCE_PATH, 740, ", this = " << log_ptr(this));
        return RESULT_INVALID_ARG;
    }
    return m_ctrl_queue->send_msg(msg, sink, timeout);
}

// ---- parked messages ------------------------------------------------------------

int thread_wrapper_t::pend(msg_it* msg, thread_wrapper_t* target) {
    if (!msg || !target)
        return RESULT_INVALID_ARG;
    if (m_pending)
        return RESULT_ALREADY_EXISTS;
    target->increment();
    m_pending = msg;
    m_pending_for = target;
    return RESULT_SUCCESS;
}

int thread_wrapper_t::pend_on_msg(msg_it* pending_msg, thread_wrapper_t* pending_for) {
    if (pending_for && !pending_for->is_running()) {
        UTIL_LOG(LOG_WARNING,
                 "thread_wrapper_t::pend_on_msg, pending_for = "
                     << log_ptr(pending_for)
                     << " already has been released, drop the peeding msg for it, this = " << log_ptr(this));
        if (pending_msg)
            pending_msg->release();
        return RESULT_INVALID_ARG;
    }
    return pend(pending_msg, pending_for);
}

int thread_wrapper_t::try_pending_msg() {
    if (!m_pending)
        return RESULT_SUCCESS;
    msg_it* msg = m_pending;
    thread_wrapper_t* target = m_pending_for;
    int rv = RESULT_INVALID_ARG;
    if (target->is_running()) {
        channel_t* c = target == this ? nullptr : find_channel(target);
        rv = c ? c->write->post_msg(msg, nullptr) : target->get_rw_msgq()->post_msg(msg, nullptr);
        if (rv == RESULT_QUEUE_FULL)
            return rv;
    }
    m_pending = nullptr;
    m_pending_for = nullptr;
    if (rv != RESULT_SUCCESS) {
        UTIL_LOG(LOG_WARNING, "thread_wrapper_t::try_pending_msg, pend_thr = "
                                  << log_ptr(target)
                                  << " already has been dropped, release the msg for it, this = " << log_ptr(this));
        msg->release();
        rv = RESULT_INVALID_ARG;
    }
    target->decrement();
    return rv;
}

}  // namespace ssb
