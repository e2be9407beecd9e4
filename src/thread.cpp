#include "thread.h"

#include <mutex>

#include "notifier.h"
#include "platform/platform.h"
#include "tls.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = "thread";
const unsigned int DEFAULT_TIMER_PRECISION_MS = 10;

// The key of the slot in which each loop thread keeps its own wrapper.
unsigned int self_key() {
    static std::once_flag s_once;
    static unsigned int s_key = 0;
    std::call_once(s_once, [] { tls_allocate_key(s_key); });
    return s_key;
}

// Stops a loop on its own thread; sent by stop() from another thread.
class stop_thread_msg_t : public msg_it {
public:
    stop_thread_msg_t(thread_wrapper_t* from, thread_wrapper_t* to)
        : msg_it(MSG_TYPE_STOP_THREAD, 1, MSG_TIMEOUT_NEVER, false), m_from(from), m_to(to) {}

    void on_message() override {
        UTIL_LOG(LOG_INFO, "stop_thread_msg_t::on_message, from = " << static_cast<void*>(m_from)
                                                                    << ", to = " << static_cast<void*>(m_to)
                                                                    << ", this = " << static_cast<void*>(this));
        if (!m_to) {
            UTIL_ASSERT_LINE(SOURCE_PATH, 888, ", this = " << static_cast<void*>(this));
            return;
        }
        m_to->stop_i(m_from);
    }

private:
    thread_wrapper_t* m_from;
    thread_wrapper_t* m_to;
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
      m_timer_precision(DEFAULT_TIMER_PRECISION_MS),
      m_name(name ? reinterpret_cast<const char*>(name) : "orca.user") {
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::thread_wrapper_t, mode = "
                           << mode << ", id = " << get_id() << ", type = " << type
                           << ", thr_manager = " << static_cast<void*>(thr_manager) << ", waits = " << waits
                           << ", interact_timer = " << interact_timer << ", m_timer_precision = " << m_timer_precision
                           << ", this = " << static_cast<void*>(this));
    // Any thread may write the control queue; its reader is this loop.
    m_ctrl_queue = new msg_queue_t(nullptr, nullptr, queue_size, MSG_QUEUE_SIGNAL_ALWAYS);
    m_ctrl_queue->increment();
}

thread_wrapper_t::~thread_wrapper_t() {
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::~thread_wrapper_t, id = " << get_id() << ", this = "
                                                                    << static_cast<void*>(this));
    if (m_ctrl_queue) {
        drain(m_ctrl_queue);
        m_ctrl_queue->decrement();
    }
    delete m_notifier;
}

int thread_wrapper_t::open_notifier(unsigned int waits) {
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::open_notifier, waits = " << waits << ", this = "
                                                                  << static_cast<void*>(this));
    if (m_notifier) {
        UTIL_ASSERT_LINE(SOURCE_PATH, 1751, ", this = " << static_cast<void*>(this));
        return RESULT_ALREADY_EXISTS;
    }
    m_notifier = new notifier_event_t(waits != 0, false, false);
    m_ctrl_queue->open_notifier(m_notifier);
    return RESULT_SUCCESS;
}

int thread_wrapper_t::notify() { return m_notifier ? m_notifier->signal() : RESULT_NOTHING_TO_DO; }

int thread_wrapper_t::wait(unsigned int timeout_ms) {
    if (!m_idle)
        return RESULT_SUCCESS;
    if (!m_notifier) {
        UTIL_LOG(LOG_WARNING, "thread_wrapper_t::wait notifier is empty, this = " << static_cast<void*>(this));
        plat::sleep_ms(timeout_ms == WAIT_INFINITE_MS ? 0 : timeout_ms);
        return RESULT_SUCCESS;
    }
    return m_notifier->wait(timeout_ms == WAIT_INFINITE_MS ? -1 : static_cast<int>(timeout_ms), false);
}

void thread_wrapper_t::thread_run(void*) {
    // A poll, never a sleep: threads that block do so in their own wait
    // (the I/O repository, or the host's window loop for the main thread).
    wait(0);
    m_idle = process_msg(WAIT_INFINITE_MS) < THREAD_PASS_LOAD;
}

unsigned int thread_wrapper_t::run_msg(msg_it* msg, bool control) {
    if (msg->overtime()) {
        if (control)
            UTIL_LOG(LOG_WARNING, "thread_wrapper_t::process_msg() the control msg already overtime, "
                                  "(uint32_t)msg->get_type() = "
                                      << static_cast<uint32_t>(msg->get_type()) << ", this = "
                                      << static_cast<void*>(this));
        else
            UTIL_LOG(LOG_WARNING, "thread_wrapper_t::process_msg() the msg already overtime, "
                                  "(uint32_t)msg->get_type() = "
                                      << static_cast<uint32_t>(msg->get_type()) << ", this = "
                                      << static_cast<void*>(this));
        msg->release();
        return 0;
    }
    unsigned int load = msg->load();
    msg->on_message();
    msg->release();
    return load;
}

void thread_wrapper_t::drain(r_msg_queue_it* queue) {
    msg_it* msg = nullptr;
    while (queue->pop_msg(msg) == RESULT_SUCCESS)
        msg->release();
}

unsigned int thread_wrapper_t::process_msg(unsigned int) {
    if (is_stopped()) {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::process_msg already has been stopped, this = "
                               << static_cast<void*>(this));
        return 0;
    }
    if (!m_ctrl_queue) {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::process_msg waiting for control message has been created, this = "
                               << static_cast<void*>(this));
        return 0;
    }
    // This wrapper has no peers' read queues: the pass is the control queue.
    unsigned int total = 0;
    msg_it* msg = nullptr;
    while (!is_stopped() && m_ctrl_queue->pop_msg(msg) == RESULT_SUCCESS)
        total += run_msg(msg, true);
    if (is_stopped())
        drain(m_ctrl_queue);
    return total;
}

int thread_wrapper_t::post_ctrl_msg(msg_it* msg, msg_queue_sink_it* sink) {
    UTIL_LOG(LOG_DEBUG, "thread_wrapper_t::post_ctrl_msg msg = " << static_cast<void*>(msg)
                                                                << ", (uint32_t)m_id = " << get_id()
                                                                << ", this = " << static_cast<void*>(this));
    if (is_stopped()) {
        UTIL_ASSERT_LINE(SOURCE_PATH, __LINE__, ", this = " << static_cast<void*>(this));
        return RESULT_INVALID_ARG;
    }
    return m_ctrl_queue->post_msg(msg, sink);
}

int thread_wrapper_t::send_ctrl_msg(msg_it* msg, msg_queue_sink_it* sink, int timeout) {
    UTIL_LOG(LOG_DEBUG, "thread_wrapper_t::send_ctrl_msg msg = " << static_cast<void*>(msg)
                                                                << ", (uint32_t)m_id = " << get_id()
                                                                << ", timeout = " << timeout
                                                                << ", this = " << static_cast<void*>(this));
    if (is_stopped()) {
        UTIL_ASSERT_LINE(SOURCE_PATH, 740, ", this = " << static_cast<void*>(this));
        return RESULT_INVALID_ARG;
    }
    return m_ctrl_queue->send_msg(msg, sink, timeout);
}

int thread_wrapper_t::stop() {
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::stop(), m_status = " << m_status.load() << ", m_type = " << m_type
                                                               << ", id = " << get_id() << ", this = "
                                                               << static_cast<void*>(this));
    unsigned int expected = THREAD_RUNNING;
    // Only the first caller goes on: a second stop() returns 9.
    if (!m_status.compare_exchange_strong(expected, THREAD_STOPPING, std::memory_order_acq_rel))
        return RESULT_NOTHING_TO_DO;
    thread_wrapper_t* caller = self();
    if (caller == this || get_id() == get_cur_tid()) {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::stop() same thread with id " << get_id() << ", this = "
                                                                           << static_cast<void*>(this));
        return stop_i(this);
    }
    msg_it* msg = new stop_thread_msg_t(caller, this);
    int rv = m_ctrl_queue->send_msg(msg, nullptr, -1);
    if (rv == RESULT_QUEUE_FULL)
        msg->release();
    return rv == RESULT_QUEUE_FULL ? rv : RESULT_SUCCESS;
}

int thread_wrapper_t::stop_i(thread_wrapper_t* from) {
    m_status.store(THREAD_STOPPED, std::memory_order_release);
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::stop_i, running = " << is_running() << ", sef_id = " << get_id()
                                                              << ", from = " << static_cast<void*>(from)
                                                              << ", from_id = " << (from ? from->get_id() : 0)
                                                              << ", queue_size = " << m_queue_size
                                                              << ", this = " << static_cast<void*>(this));
    if (get_id() != get_cur_tid())
        UTIL_ASSERT_MSG("thread_wrapper_t::stop_i MUST IN SAME THREAD!", SOURCE_PATH, __LINE__,
                        ", this = " << static_cast<void*>(this));
    if (m_mode & THREAD_MODE_WRAP)
        cleanup_tls();
    return RESULT_SUCCESS;
}

void thread_wrapper_t::init_tls() {
    const unsigned int tid = get_cur_tid();
    if (m_mode != THREAD_MODE_WRAP || get_id() == 0)
        m_id.store(tid, std::memory_order_relaxed);
    if (get_id() != tid) {
        UTIL_ASSERT_MSG("thread_wrapper_t::init_tls() should be in same thread, id = " << get_id()
                                                                                       << ", current id = " << tid,
                        SOURCE_PATH, 1657, ", this = " << static_cast<void*>(this));
        return;
    }
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::init_tls(), m_thread_manager = "
                           << static_cast<void*>(m_thread_manager) << ", this = " << static_cast<void*>(this));
    tls_setspecific_value(self_key(), this, nullptr);
}

void thread_wrapper_t::cleanup_tls() {
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::cleanup_tls(), m_thread_manager = "
                           << static_cast<void*>(m_thread_manager) << ", this = " << static_cast<void*>(this));
    if (get_id() != get_cur_tid()) {
        UTIL_ASSERT_MSG("thread_wrapper_t::cleanup_tls() should be in same thread, current tid = " << get_cur_tid(),
                        SOURCE_PATH, __LINE__, ", this = " << static_cast<void*>(this));
        return;
    }
    tls_setspecific_value(self_key(), nullptr, nullptr);
    tls_cleanup();
}

thread_wrapper_t* thread_wrapper_t::self() {
    void* value = nullptr;
    if (tls_getspecific_value(self_key(), value) != RESULT_SUCCESS)
        return nullptr;
    return static_cast<thread_wrapper_t*>(value);
}

}  // namespace ssb
