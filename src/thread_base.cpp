#include "thread_base.h"

#include <condition_variable>
#include <mutex>
#include <new>

#include "platform/platform.h"
#include "trace.h"

namespace ssb {

namespace {

// The source path named in this family's assertion lines.
const char* const THREAD_PATH = "thread";
// The exit code a cancelled thread ends with where it can be terminated.
const uint32_t CANCEL_EXIT_CODE = 16;
// Reported when the start record itself cannot be allocated (ENOMEM on
// both systems' C runtimes).
const int ENOMEM_FALLBACK = 12;

// Holds the new thread back until start has recorded its id and handle, so
// that fn sees itself as running: stop() or join_np() called from inside fn
// is refused as a self-call rather than taken for "no thread". Shared by
// the two threads and freed by the last; fn never sees the thread_base_t.
struct start_gate_t {
    thread_base_t::thread_fn_t m_fn;
    void* m_arg;
    std::mutex m_lock;
    std::condition_variable m_opened;
    bool m_open;
    std::atomic<int> m_refs;
};

void release_gate(start_gate_t* gate) {
    if (gate->m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete gate;
}

void gated_entry(void* p) {
    start_gate_t* gate = static_cast<start_gate_t*>(p);
    {
        std::unique_lock<std::mutex> guard(gate->m_lock);
        gate->m_opened.wait(guard, [gate] { return gate->m_open; });
    }
    thread_base_t::thread_fn_t fn = gate->m_fn;
    void* arg = gate->m_arg;
    release_gate(gate);
    fn(arg);
}

}  // namespace

thread_base_t::thread_base_t()
    : m_fn(nullptr), m_arg(nullptr), m_handle(plat::INVALID_THREAD_HANDLE), m_id(0), m_joinable(true) {}

thread_base_t::~thread_base_t() {
    if (m_handle.load(std::memory_order_relaxed) == plat::INVALID_THREAD_HANDLE)
        return;
    if (thread_base_t::stop() != RESULT_SUCCESS) {
        // Destroyed on its own thread: that thread runs on, so let go of it
        // rather than leak its handle.
        uintptr_t h = m_handle.load(std::memory_order_relaxed);
        if (h != plat::INVALID_THREAD_HANDLE) {
            plat::thread_detach(h);
            clear_thread();
        }
    }
}

unsigned int thread_base_t::start(thread_fn_t fn, void* arg, unsigned int stack_size, unsigned int priority) {
    // Kept for the derived threads' signature; the base uses the defaults.
    (void)stack_size;
    (void)priority;
    if (!fn || m_handle.load(std::memory_order_relaxed) != plat::INVALID_THREAD_HANDLE) {
        UTIL_ASSERT_LINE(
            THREAD_PATH, 103,
            ", m_id = " << m_id.load(std::memory_order_relaxed) << ", this = " << static_cast<const void*>(this));
        return 0;
    }
    m_fn = fn;
    m_arg = arg;
    start_gate_t* gate = new (std::nothrow) start_gate_t;
    int rv = ENOMEM_FALLBACK;
    plat::thread_handle_t h = plat::INVALID_THREAD_HANDLE;
    uint32_t tid = 0;
    if (gate) {
        gate->m_fn = fn;
        gate->m_arg = arg;
        gate->m_open = false;
        gate->m_refs.store(2, std::memory_order_relaxed);
        rv = plat::thread_create(gated_entry, gate, &h, &tid);
    }
    if (rv != 0) {
        delete gate;
        UTIL_ASSERT_LINE(THREAD_PATH, 103, ", errno = " << rv << ", this = " << static_cast<const void*>(this));
        return 0;
    }
    m_id.store(tid, std::memory_order_relaxed);
    m_handle.store(h, std::memory_order_release);
    {
        std::lock_guard<std::mutex> guard(gate->m_lock);
        gate->m_open = true;
        gate->m_opened.notify_one();
    }
    release_gate(gate);
    return tid;
}

int thread_base_t::stop() {
    unsigned int id = m_id.load(std::memory_order_relaxed);
    UTIL_LOG(LOG_INFO,
             "thread_base_t::stop() stop thread id = " << id << ", this = " << static_cast<const void*>(this));
    if (id == 0)
        return RESULT_NOTHING_TO_DO;
    if (id == get_cur_tid()) {
        UTIL_LOG(LOG_ERROR, "thread_base_t::stop () could not stop it in self thread"
                                << ", this = " << static_cast<const void*>(this));
        UTIL_ASSERT_LINE(THREAD_PATH, 115, ", this = " << static_cast<const void*>(this));
        return RESULT_REFUSED;
    }
    uintptr_t h = m_handle.load(std::memory_order_relaxed);
    plat::wait_status_t ws = plat::thread_wait(h, plat::WAIT_FOREVER);
    if (ws == plat::WAIT_TIMED_OUT)
        return RESULT_BUSY;
    if (ws != plat::WAIT_SIGNALLED)
        UTIL_ASSERT_LINE(THREAD_PATH, 123,
                         ", errno = " << plat::last_error() << ", this = " << static_cast<const void*>(this));
    if (plat::thread_close(h) != 0)
        UTIL_ASSERT_LINE(THREAD_PATH, 125, ", this = " << static_cast<const void*>(this));
    clear_thread();
    return RESULT_SUCCESS;
}

int thread_base_t::cancel() {
    unsigned int id = m_id.load(std::memory_order_relaxed);
    UTIL_LOG(LOG_WARNING, "thread_base_t::cancel() avoid cancel thread id = " << id << ", this = "
                                                                              << static_cast<const void*>(this));
    if (id == 0)
        return RESULT_NOTHING_TO_DO;
    if (id == get_cur_tid()) {
        UTIL_LOG(LOG_ERROR, "thread_base_t::cancel () could not cancel it in self thread"
                                << ", this = " << static_cast<const void*>(this));
        UTIL_ASSERT_LINE(THREAD_PATH, 142, ", this = " << static_cast<const void*>(this));
        return RESULT_REFUSED;
    }
    uintptr_t h = m_handle.load(std::memory_order_relaxed);
    int rv = plat::thread_terminate(h, CANCEL_EXIT_CODE);
    if (rv == 0) {
        plat::thread_close(h);
    } else {
        // Where a thread cannot be killed safely it is let go instead; it
        // never touches this object, so forgetting it here is safe.
        UTIL_LOG(LOG_WARNING, "thread_base_t::cancel() thread not terminated, abandoned to run on detached"
                                  << ", id = " << id << ", errno = " << rv
                                  << ", this = " << static_cast<const void*>(this));
        plat::thread_detach(h);
    }
    clear_thread();
    return RESULT_SUCCESS;
}

int thread_base_t::join_np(unsigned int timeout_ms) {
    unsigned int id = m_id.load(std::memory_order_relaxed);
    bool joinable = m_joinable.load(std::memory_order_relaxed);
    UTIL_LOG(LOG_INFO, "thread_base_t::join_np"
                           << ", overtime = " << timeout_ms << ", m_id = " << id << ", m_joinable = " << joinable
                           << ", this = " << static_cast<const void*>(this));
    unsigned int current_id = get_cur_tid();
    if (id == current_id) {
        UTIL_ASSERT_MSG("thread_base_t::join_np should be not join in same thread"
                            << ", m_id = " << id << ", current_id = " << current_id,
                        THREAD_PATH, 169, ", this = " << static_cast<const void*>(this));
        return RESULT_REFUSED;
    }
    if (!joinable) {
        UTIL_ASSERT_LINE(THREAD_PATH, 171, ", this = " << static_cast<const void*>(this));
        return RESULT_REFUSED;
    }
    if (id == 0)
        return RESULT_SUCCESS;
    plat::wait_status_t ws = plat::thread_wait(m_handle.load(std::memory_order_relaxed), timeout_ms);
    if (ws == plat::WAIT_SIGNALLED)
        return RESULT_SUCCESS;
    if (ws == plat::WAIT_TIMED_OUT) {
        UTIL_LOG(LOG_WARNING, "thread_base_t::join_np time out and canceled it"
                                  << ", this = " << static_cast<const void*>(this));
        cancel();
        return RESULT_BUSY;
    }
    UTIL_LOG(LOG_ERROR, "thread_base_t::join failed, errno = " << plat::last_error()
                                                               << ", this = " << static_cast<const void*>(this));
    return RESULT_FAILURE;
}

bool thread_base_t::is_running() const {
    return m_handle.load(std::memory_order_acquire) != plat::INVALID_THREAD_HANDLE;
}

bool thread_base_t::is_stopped() const { return !is_running(); }

unsigned int thread_base_t::get_id() const { return m_id.load(std::memory_order_relaxed); }

int thread_base_t::detach() {
    bool joinable = m_joinable.load(std::memory_order_relaxed);
    UTIL_LOG(LOG_INFO, "thread_base_t::detach()"
                           << ", m_joinable = " << joinable << ", this = " << static_cast<const void*>(this));
    if (joinable) {
        m_joinable.store(false, std::memory_order_relaxed);
        return RESULT_SUCCESS;
    }
    UTIL_ASSERT_LINE(THREAD_PATH, 193, ", this = " << static_cast<const void*>(this));
    return RESULT_REFUSED;
}

int thread_base_t::wait_end(unsigned int timeout_ms) {
    const unsigned int id = m_id.load(std::memory_order_relaxed);
    if (id == 0)
        return RESULT_SUCCESS;
    if (id == get_cur_tid())
        return RESULT_REFUSED;
    const plat::wait_status_t ws = plat::thread_wait(m_handle.load(std::memory_order_relaxed), timeout_ms);
    return ws == plat::WAIT_TIMED_OUT ? RESULT_BUSY : RESULT_SUCCESS;
}

void thread_base_t::let_go() {
    const uintptr_t h = m_handle.load(std::memory_order_relaxed);
    if (h == plat::INVALID_THREAD_HANDLE)
        return;
    plat::thread_detach(h);
    clear_thread();
}

void thread_base_t::yield() { plat::yield_thread(); }

unsigned int thread_base_t::get_cur_tid() { return plat::current_thread_id(); }

void thread_base_t::clear_thread() {
    m_id.store(0, std::memory_order_relaxed);
    m_handle.store(plat::INVALID_THREAD_HANDLE, std::memory_order_release);
}

}  // namespace ssb
