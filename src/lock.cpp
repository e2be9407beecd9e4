#include "lock.h"

#include "platform/platform.h"

static_assert(ssb::plat::CS_STORAGE_SIZE == 64, "thread_mutex_recursive storage size");

namespace ssb {

unsigned int get_cur_tid() { return plat::current_thread_id(); }

void thread_yield() { plat::yield_thread(); }

// ---- thread_mutex ---------------------------------------------------------

thread_mutex::thread_mutex() : m_handle(plat::mutex_create()) {}

thread_mutex::~thread_mutex() {
    if (m_handle)
        plat::mutex_close(m_handle);
}

int thread_mutex::acquire() {
    if (!m_handle)
        return RESULT_FAILURE;
    return plat::mutex_lock(m_handle, plat::WAIT_FOREVER) == plat::WAIT_ERROR ? RESULT_FAILURE : RESULT_SUCCESS;
}

int thread_mutex::release() {
    if (!m_handle)
        return RESULT_FAILURE;
    return plat::mutex_unlock(m_handle) == 0 ? RESULT_SUCCESS : RESULT_FAILURE;
}

int thread_mutex::tryacquire() {
    if (!m_handle)
        return RESULT_FAILURE;
    return plat::mutex_lock(m_handle, 0) == plat::WAIT_TIMED_OUT ? RESULT_BUSY : RESULT_SUCCESS;
}

// ---- thread_mutex_recursive -----------------------------------------------

thread_mutex_recursive::thread_mutex_recursive() { plat::cs_init(m_cs); }

thread_mutex_recursive::~thread_mutex_recursive() { plat::cs_destroy(m_cs); }

int thread_mutex_recursive::acquire() {
    plat::cs_enter(m_cs);
    return RESULT_SUCCESS;
}

int thread_mutex_recursive::release() {
    plat::cs_leave(m_cs);
    return RESULT_SUCCESS;
}

int thread_mutex_recursive::tryacquire() { return plat::cs_try_enter(m_cs) ? RESULT_SUCCESS : RESULT_BUSY; }

// ---- spin_lock --------------------------------------------------------------

int spin_lock::acquire_contended() {
    while (m_counter.load(std::memory_order_relaxed) != 0)
        plat::yield_thread();
    for (;;) {
        if (m_counter.fetch_add(1, std::memory_order_acquire) == 0)
            return RESULT_SUCCESS;
        m_counter.fetch_sub(1, std::memory_order_relaxed);
        plat::yield_thread();
    }
}

// ---- event_t ----------------------------------------------------------------

event_t::event_t(bool manual_reset, bool initially_signalled)
    : m_handle(plat::event_create(manual_reset, initially_signalled)) {}

event_t::~event_t() {
    if (m_handle)
        plat::event_close(m_handle);
}

int event_t::wait(int timeout_ms) {
    if (!m_handle)
        return RESULT_FAILURE;
    uint32_t timeout = timeout_ms < 0 ? plat::WAIT_FOREVER : static_cast<uint32_t>(timeout_ms);
    switch (plat::event_wait(m_handle, timeout)) {
    case plat::WAIT_SIGNALLED:
        return RESULT_SUCCESS;
    case plat::WAIT_OWNER_ABANDONED:
        return RESULT_ABANDONED;
    case plat::WAIT_TIMED_OUT:
        return RESULT_BUSY;
    default:
        return RESULT_FAILURE;
    }
}

int event_t::signal() {
    if (!m_handle)
        return RESULT_FAILURE;
    return plat::event_signal(m_handle) == 0 ? RESULT_SUCCESS : RESULT_FAILURE;
}

int event_t::pulse() {
    if (!m_handle)
        return RESULT_FAILURE;
    return plat::event_pulse(m_handle) == 0 ? RESULT_SUCCESS : RESULT_FAILURE;
}

int event_t::reset() {
    if (!m_handle)
        return RESULT_FAILURE;
    return plat::event_reset(m_handle) == 0 ? RESULT_SUCCESS : RESULT_FAILURE;
}

// ---- semaphore_t ------------------------------------------------------------

semaphore_t::semaphore_t(int, const char* name) : m_handle(nullptr), m_name(name ? name : "") {}

semaphore_t::~semaphore_t() { close(); }

void semaphore_t::close() {
    if (m_handle) {
        plat::semaphore_close(m_handle);
        m_handle = nullptr;
    }
}

int semaphore_t::create(int initial, const char* name) {
    close();
    m_name = name ? name : "";
    int error = 0;
    m_handle = plat::semaphore_create(initial, SEMAPHORE_MAX_COUNT, m_name.empty() ? nullptr : m_name.c_str(), &error);
    return error;
}

int semaphore_t::open(const char* name) {
    close();
    m_name = name ? name : "";
    int error = 0;
    m_handle = plat::semaphore_open(m_name.c_str(), &error);
    return error;
}

int semaphore_t::wait(unsigned int timeout_ms) {
    if (!m_handle)
        return RESULT_NOT_CREATED;
    switch (plat::semaphore_wait(m_handle, timeout_ms)) {
    case plat::WAIT_SIGNALLED:
        return SEMAPHORE_WAIT_OBJECT_0;
    case plat::WAIT_TIMED_OUT:
        return SEMAPHORE_WAIT_TIMEOUT;
    case plat::WAIT_OWNER_ABANDONED:
        return SEMAPHORE_WAIT_ABANDONED;
    default:
        return SEMAPHORE_WAIT_FAILED;
    }
}

int semaphore_t::post(unsigned int n) {
    if (!m_handle)
        return RESULT_NOT_CREATED;
    return plat::semaphore_post(m_handle, n, nullptr) == 0 ? RESULT_SUCCESS : RESULT_RELEASE_FAILED;
}

int semaphore_t::get_value() {
    int value = 0;
    if (!m_handle || plat::semaphore_value(m_handle, &value) != 0)
        return 0;
    return value;
}

int semaphore_t::reset(int initial) {
    std::string name = m_name;
    close();
    int error = create(initial, name.empty() ? nullptr : name.c_str());
    // Only this error falls back to opening the existing semaphore.
    if (!m_handle && error == 10)
        error = open(name.c_str());
    return error;
}

}  // namespace ssb
