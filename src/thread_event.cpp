#include "thread_event.h"

#include "notifier.h"
#include "timer_drv.h"
#include "trace.h"

namespace ssb {

namespace {

const char EVENT_SOURCE_PATH[] = "thread_event";
const char THREAD_SOURCE_PATH[] = "thread";
const unsigned int SELECT_CAPACITY = 1024;

// m_exit_owner: the holder joins and releases; the thread releases itself;
// the thread has ended its routine (the holder joins).
const int EXIT_JOINED = 0;
const int EXIT_SELF = 1;
const int EXIT_ENDED = 2;

}  // namespace

// ---- thread_loop_base_t ------------------------------------------------------------------

thread_loop_base_t::thread_loop_base_t(const char* name, unsigned int mode, unsigned int type, unsigned int queue_size,
                                       thread_mgr_t* thr_manager, unsigned int waits, bool interact_timer,
                                       const signed char* thr_name)
    : thread_base_t(),
      thread_wrapper_t(mode, type, queue_size, thr_manager, waits, interact_timer, thr_name),
      m_running(false),
      m_repo(nullptr),
      m_class_name(name),
      m_exit_owner(EXIT_JOINED) {}

thread_loop_base_t::~thread_loop_base_t() {
    // The OS thread goes before the loop's state it may still touch.
    if (thread_base_t::get_id() != 0 && thread_base_t::get_id() != get_cur_tid())
        thread_base_t::stop();
    delete m_repo.load(std::memory_order_acquire);
}

unsigned int thread_loop_base_t::start(void (*)(void*), void*, unsigned int stack_size, unsigned int priority) {
    if (m_running.exchange(true, std::memory_order_acq_rel)) {
        // One OS thread per object: the running one keeps it.
        UTIL_ASSERT_LINE(THREAD_SOURCE_PATH, __LINE__, ", this = " << log_ptr(this));
        return 0;
    }
    const unsigned int id = thread_base_t::start(&thread_loop_base_t::routine, this, stack_size, priority);
    if (id == 0)
        m_running.store(false, std::memory_order_release);
    else
        set_id(id);
    return id;
}

void thread_loop_base_t::routine(void* arg) {
    thread_loop_base_t* self = static_cast<thread_loop_base_t*>(arg);
    self->init_tls();
    self->thread_run(nullptr);
    // A loop that never ran (or ended by itself) leaves no sender waiting.
    self->abandon();
    self->cleanup_tls();
    int expected = EXIT_JOINED;
    if (!self->m_exit_owner.compare_exchange_strong(expected, EXIT_ENDED, std::memory_order_acq_rel)) {
        // Nobody joins this thread (a shut-down ran on it, or gave up
        // waiting for it): it lets go of itself and drops the reference it
        // was handed, and touches nothing of the library after that.
        self->m_running.store(false, std::memory_order_release);
        self->let_go();
        self->decrement();
        return;
    }
    self->m_running.store(false, std::memory_order_release);
}

bool thread_loop_base_t::hand_over_to_thread() {
    int expected = EXIT_JOINED;
    return m_exit_owner.compare_exchange_strong(expected, EXIT_SELF, std::memory_order_acq_rel);
}

int thread_loop_base_t::on_process() {
    const bool busy = run_pass();
    if (thread_wrapper_t::is_stopped()) {
        repo()->stop();
        return 0;
    }
    return busy ? 0 : -1;
}

void thread_loop_base_t::serve(io_repo_t* repo) {
    m_repo.store(repo, std::memory_order_release);
    repo->set_process(this);
    notifier_handler_t handler(get_notifier(), repo);
    if (handler.attach() != RESULT_SUCCESS)
        UTIL_LOG(LOG_ERROR, m_class_name << "::thread_run() failed to watch the notifier, this = " << log_ptr(this));
    repo->start();
    handler.detach();
}

int thread_loop_base_t::stop_loop(const char* source, int line) {
    if (!m_running.load(std::memory_order_acquire)) {
        UTIL_ASSERT_LINE(source, line, ", this = " << log_ptr(this));
        return RESULT_NOTHING_TO_DO;
    }
    const int rv = thread_wrapper_t::stop();
    // A stop that was refused (it would wait for a thread that waits for
    // us) or never delivered leaves the loop running: nothing to join.
    if (rv == RESULT_REFUSED || rv == RESULT_QUEUE_FULL)
        return rv;
    // On the thread itself the loop ends when this message returns, and
    // the OS thread is waited for by whoever releases it.
    if (!on_own_thread())
        thread_base_t::stop();
    return RESULT_SUCCESS;
}

int thread_loop_base_t::stop() { return stop_loop(EVENT_SOURCE_PATH, 132); }

// ---- thread_event_t ----------------------------------------------------------------------

thread_event_t::thread_event_t(unsigned int mode, unsigned int type, unsigned int queue_size, thread_mgr_t* thr_manager,
                               unsigned int waits, bool interact_timer, const signed char* name)
    : thread_loop_base_t("thread_event_t", mode, type, queue_size, thr_manager, waits, interact_timer, name) {
    UTIL_LOG(LOG_INFO, "thread_event_t::thread_event_t(), mode = "
                           << ORDIX_HEX_LOWER << mode << ORDIX_DEC << ", m_type = " << type << ", queue_size = "
                           << queue_size << ", interact_timer = " << interact_timer << ", this = " << log_ptr(this));
}

thread_event_t::~thread_event_t() { UTIL_LOG(LOG_INFO, "thread_event_t::~thread_event_t(), this = " << log_ptr(this)); }

void thread_event_t::init_tls() {
    UTIL_LOG(LOG_INFO, "thread_event_t::init_tls() thread_id = " << get_cur_tid() << ", this = " << log_ptr(this));
    thread_wrapper_t::init_tls();
}

void thread_event_t::thread_run(void* args) {
    if (repo()) {
        UTIL_ASSERT_LINE(EVENT_SOURCE_PATH, 38, ", this = " << log_ptr(this));
        return;
    }
    UTIL_LOG(LOG_INFO,
             "thread_event_t::thread_run(), id = " << get_id() << ", args = " << args << ", this = " << log_ptr(this));
    io_repo_t* repo = nullptr;
    if (get_type() == THREAD_TYPE_TIMER)
        repo = new timer_drv_t(this);
    else
        repo = new events_t(nullptr);
    serve(repo);
}

int thread_event_t::stop() {
    UTIL_LOG(LOG_INFO, "thread_event_t::stop() m_runing = " << m_running.load() << ", id = " << get_id()
                                                            << ", this = " << log_ptr(this));
    return stop_loop(EVENT_SOURCE_PATH, 132);
}

// ---- thread_io_t -------------------------------------------------------------------------

thread_io_t::thread_io_t(unsigned int mode, unsigned int type, unsigned int queue_size, thread_mgr_t* thr_manager,
                         unsigned int waits, bool interact_timer, const signed char* name)
    : thread_loop_base_t("thread_io_t", mode, type, queue_size, thr_manager, waits, interact_timer, name) {
    UTIL_LOG(LOG_INFO, "thread_io_t::thread_io_t(), mode = " << ORDIX_HEX_LOWER << mode << ORDIX_DEC
                                                             << ", type = " << type << ", queue size = " << queue_size
                                                             << ", this = " << log_ptr(this));
}

thread_io_t::~thread_io_t() { UTIL_LOG(LOG_INFO, "thread_io_t::~thread_io_t(), this = " << log_ptr(this)); }

void thread_io_t::init_tls() {
    UTIL_LOG(LOG_INFO, "thread_io_t::init_tls() thread_id = " << get_cur_tid() << ", this = " << log_ptr(this));
    thread_wrapper_t::init_tls();
}

int thread_io_t::open_notifier(unsigned int waits) {
    UTIL_LOG(LOG_INFO, "thread_io_t::open_notifier, waits = " << waits << ", this = " << log_ptr(this));
    return thread_wrapper_t::open_notifier(waits);
}

notifier_it* thread_io_t::make_notifier(unsigned int waits) { return new notifier_sock_t(waits); }

void thread_io_t::thread_run(void* args) {
    if (repo()) {
        UTIL_ASSERT_LINE(THREAD_SOURCE_PATH, 367, ", this = " << log_ptr(this));
        return;
    }
    if (get_type() == THREAD_TYPE_TIMER) {
        UTIL_ASSERT_LINE(THREAD_SOURCE_PATH, 381, ", this = " << log_ptr(this));
        return;
    }
    if (!(get_mode() & THREAD_MODE_IO)) {
        UTIL_LOG(LOG_ERROR, "thread_io_t::thread_run(), mode = " << get_mode() << " has been not supported, this = "
                                                                 << log_ptr(this));
        return;
    }
    UTIL_LOG(LOG_INFO,
             "thread_io_t::thread_run(), id = " << get_id() << ", args = " << args << ", this = " << log_ptr(this));
    select_t* repo = new select_t(SELECT_CAPACITY, nullptr);
    if (!repo->is_valid())
        UTIL_ASSERT_LINE(THREAD_SOURCE_PATH, 409, ", this = " << log_ptr(this));
    serve(repo);
}

int thread_io_t::stop() {
    UTIL_LOG(LOG_INFO, "thread_io_t::stop() m_runing = " << m_running.load() << ", id = " << get_id() << ", m_type = "
                                                         << get_type() << ", this = " << log_ptr(this));
    if (!m_running.load(std::memory_order_acquire)) {
        UTIL_LOG(LOG_WARNING,
                 "thread_io_t::stop() already stopped because that m_running is NULL, this = " << log_ptr(this));
        return RESULT_NOTHING_TO_DO;
    }
    return stop_loop(THREAD_SOURCE_PATH, __LINE__);
}

}  // namespace ssb
