// The I/O repository, its socket and event demultiplexers, and the notifier
// and pipe handlers.
#include "io_repo.h"

#include "platform/platform.h"
#include "trace.h"

namespace ssb {

static_assert(IO_READ == plat::READY_READ && IO_WRITE == plat::READY_WRITE && IO_ERROR == plat::READY_ERROR,
              "readiness bits pass through unchanged");

namespace {

const uint32_t ALL_EVENTS = IO_READ | IO_WRITE | IO_ERROR;

uint32_t wait_ms_of(int timeout_ms) { return timeout_ms < 0 ? plat::WAIT_FOREVER : static_cast<uint32_t>(timeout_ms); }

}  // namespace

// ---- io_repo_t ------------------------------------------------------------------

io_repo_t::io_repo_t(const char* name, unsigned int capacity, io_process_it* process)
    : m_name(name), m_capacity(capacity), m_pass(0), m_process(process), m_running(false), m_stop(false), m_thread(0) {
    m_entries.reserve(capacity);
}

io_repo_t::~io_repo_t() {}

int io_repo_t::add_fd(io_handle_t handle, uint32_t mask, io_handler_it* handler) {
    if (!handler || (mask & ALL_EVENTS) == 0)
        return RESULT_INVALID_ARG;
    {
        auto_lock_t<annotated_mutex_t> guard(m_lock);
        for (const entry_t& e : m_entries)
            if (e.handle == handle)
                return RESULT_ALREADY_EXISTS;
        if (m_entries.size() >= m_capacity) {
            UTIL_LOG(LOG_ERROR, m_name << "::add_fd register already full"
                                       << ", handle = " << log_handle(handle) << ", count = " << m_entries.size()
                                       << ", this = " << this);
            return RESULT_OUT_OF_LIMIT;
        }
        m_entries.push_back(entry_t{handle, mask & ALL_EVENTS, handler, 0});
    }
    // A sleeping wait does not know the new handle yet.
    if (is_running() && loop_thread() != plat::current_thread_id())
        wake();
    return RESULT_SUCCESS;
}

int io_repo_t::remove_fd(io_handle_t handle) {
    uint64_t pass = 0;
    {
        auto_lock_t<annotated_mutex_t> guard(m_lock);
        size_t i = 0;
        while (i < m_entries.size() && m_entries[i].handle != handle)
            ++i;
        if (i == m_entries.size())
            return RESULT_NOT_FOUND;
        m_entries.erase(m_entries.begin() + static_cast<std::ptrdiff_t>(i));
        if (!m_running.load(std::memory_order_relaxed) ||
            m_thread.load(std::memory_order_relaxed) == plat::current_thread_id())
            return RESULT_SUCCESS;
        pass = m_pass;
    }
    // The loop may be waiting on the handle or about to call its handler
    // from the current round; the next snapshot comes after both.
    wake();
    auto_lock_t<annotated_mutex_t> guard(m_lock);
    while (m_pass == pass && m_running.load(std::memory_order_relaxed))
        m_pass_done.wait(m_lock);
    return RESULT_SUCCESS;
}

bool io_repo_t::is_registered(io_handle_t handle) const {
    auto_lock_t<annotated_mutex_t> guard(m_lock);
    for (const entry_t& e : m_entries)
        if (e.handle == handle)
            return true;
    return false;
}

unsigned int io_repo_t::count() const {
    auto_lock_t<annotated_mutex_t> guard(m_lock);
    return static_cast<unsigned int>(m_entries.size());
}

int io_repo_t::start() {
    {
        auto_lock_t<annotated_mutex_t> guard(m_lock);
        if (m_running.load(std::memory_order_relaxed)) {
            UTIL_LOG(LOG_ERROR, "io_repo_t::start(), the thread already has been started"
                                    << ", thread = " << m_thread.load(std::memory_order_relaxed)
                                    << ", this = " << this);
            return RESULT_ALREADY_EXISTS;
        }
        m_thread.store(plat::current_thread_id(), std::memory_order_release);
        m_running.store(true, std::memory_order_release);
    }
    loop();
    {
        auto_lock_t<annotated_mutex_t> guard(m_lock);
        m_stop.store(false, std::memory_order_release);
        m_thread.store(0, std::memory_order_release);
        m_running.store(false, std::memory_order_release);
    }
    m_pass_done.notify_all();
    return RESULT_SUCCESS;
}

int io_repo_t::stop() {
    m_stop.store(true, std::memory_order_release);
    if (!is_running())
        return RESULT_NOTHING_TO_DO;
    if (loop_thread() != plat::current_thread_id())
        wake();
    return RESULT_SUCCESS;
}

int io_repo_t::process() { return m_process ? m_process->on_process() : -1; }

void io_repo_t::snapshot(std::vector<entry_t>& out) {
    {
        auto_lock_t<annotated_mutex_t> guard(m_lock);
        out = m_entries;
        ++m_pass;
    }
    m_pass_done.notify_all();
}

bool io_repo_t::dispatch_one(io_handle_t handle, io_handler_it* handler, uint32_t ready) {
    {
        auto_lock_t<annotated_mutex_t> guard(m_lock);
        bool found = false;
        for (const entry_t& e : m_entries) {
            if (e.handle == handle && e.handler == handler) {
                found = true;
                break;
            }
        }
        if (!found)
            return false;
    }
    handler->on_ready(handle, ready);
    return true;
}

void io_repo_t::dispatch(const std::vector<entry_t>& entries) {
    for (const entry_t& e : entries) {
        if (m_stop.load(std::memory_order_acquire))
            return;
        const uint32_t ready = e.ready & (e.mask | IO_ERROR);
        if (ready)
            dispatch_one(e.handle, e.handler, ready);
    }
}

void io_repo_t::run_loop() {
    std::vector<entry_t> entries;
    entries.reserve(m_capacity);
    while (!m_stop.load(std::memory_order_acquire)) {
        const int timeout_ms = process();
        if (m_stop.load(std::memory_order_acquire))
            break;
        snapshot(entries);
        int error = 0;
        const int rc = wait_ready(entries, timeout_ms, &error);
        if (rc == WAIT_FAILED_RC) {
            UTIL_LOG(LOG_ERROR, m_name << "::loop wait failed, errno = " << error << ", this = " << this);
            // A handle closed while registered fails every wait; back off so
            // the loop neither spins nor floods the log.
            plat::sleep_ms(10);
            continue;
        }
        if (rc > 0)
            dispatch(entries);
    }
}

// ---- select_t -------------------------------------------------------------------

select_t::select_t(unsigned int capacity, io_process_it* process)
    : io_repo_t("select_t", capacity < MAX_SOCKETS ? capacity : MAX_SOCKETS, process) {}

select_t::~select_t() {}

void select_t::loop() {
    const uint32_t thread = plat::current_thread_id();
    UTIL_LOG(LOG_INFO, "select_t::loop () begin with thread =" << thread << ", this = " << this);
    run_loop();
    UTIL_LOG(LOG_INFO, "select_t::loop () end with thread =" << thread << ", this = " << this);
}

void select_t::wake() { m_wake.signal(); }

int select_t::wait_ready(std::vector<entry_t>& entries, int timeout_ms, int* error) {
    static_assert(MAX_SOCKETS + 1 <= plat::SOCKET_WAIT_MAX, "the wake-up socket needs a place");
    std::vector<plat::socket_ready_t> set(entries.size() + 1);
    for (size_t i = 0; i < entries.size(); ++i)
        set[i] = plat::socket_ready_t{entries[i].handle, entries[i].mask, 0};
    size_t n = entries.size();
    const io_handle_t wake_handle = m_wake.get_id();
    if (wake_handle != INVALID_NOTIFIER_HANDLE)
        set[n++] = plat::socket_ready_t{wake_handle, IO_READ, 0};
    if (n == 0) {
        // Nothing to wait on at all (no handle and no wake-up pair).
        if (timeout_ms != 0)
            plat::sleep_ms(timeout_ms < 0 ? 10 : static_cast<uint32_t>(timeout_ms));
        return WAIT_TIMED_OUT_RC;
    }
    const int rc = plat::socket_wait_any(set.data(), n, timeout_ms, error);
    if (rc < 0)
        return WAIT_FAILED_RC;
    if (rc == 0)
        return WAIT_TIMED_OUT_RC;
    int ready = 0;
    for (size_t i = 0; i < entries.size(); ++i) {
        entries[i].ready = set[i].ready;
        if (set[i].ready)
            ++ready;
    }
    if (n > entries.size() && set[entries.size()].ready) {
        // Every stop or removal sent a byte; one round serves them all.
        while (m_wake.wait(0, false) == RESULT_SUCCESS) {
        }
    }
    return ready > 0 ? ready : WAIT_WOKEN_RC;
}

// ---- events_t -------------------------------------------------------------------

events_t::events_t(io_process_it* process) : io_repo_t("events_t", MAX_EVENTS, process), m_wake(false, false) {
    static_assert(MAX_EVENTS == plat::EVENT_WAIT_MAX, "the wait takes every registered event");
}

events_t::~events_t() {}

int events_t::add_fd(io_handle_t handle, uint32_t mask, io_handler_it* handler) {
    return io_repo_t::add_fd(handle, mask, handler);
}

int events_t::add_event(event_t& event, io_handler_it* handler) {
    return add_fd(reinterpret_cast<io_handle_t>(event.get_handle()), IO_READ, handler);
}

void events_t::loop() {
    const uint32_t thread = plat::current_thread_id();
    UTIL_LOG(LOG_INFO, "events_t::loop () begin with thread =" << thread << ", this = " << this);
    run_loop();
    UTIL_LOG(LOG_INFO, "events_t::loop () end with thread =" << thread << ", this = " << this);
}

void events_t::wake() { m_wake.signal(); }

int events_t::wait_ready(std::vector<entry_t>& entries, int timeout_ms, int* error) {
    plat::event_handle_t handles[MAX_EVENTS];
    size_t n = 0;
    for (; n < entries.size() && n < MAX_EVENTS; ++n) {
        handles[n] = reinterpret_cast<plat::event_handle_t>(entries[n].handle);
        entries[n].ready = 0;
    }
    // With all 64 places taken the wake-up event has no room.
    const bool with_wake = n < MAX_EVENTS && m_wake.get_handle();
    if (with_wake)
        handles[n++] = m_wake.get_handle();
    if (n == 0) {
        if (timeout_ms != 0)
            plat::sleep_ms(timeout_ms < 0 ? 10 : static_cast<uint32_t>(timeout_ms));
        return WAIT_TIMED_OUT_RC;
    }
    size_t index = 0;
    switch (plat::event_wait_any(handles, n, wait_ms_of(timeout_ms), &index, error)) {
    case plat::WAIT_TIMED_OUT:
        return WAIT_TIMED_OUT_RC;
    case plat::WAIT_ERROR:
        return WAIT_FAILED_RC;
    default:
        break;
    }
    if (index >= entries.size())
        return WAIT_WOKEN_RC;
    entries[index].ready = IO_READ;
    return 1;
}

int events_t::wait(int timeout_ms, unsigned int* index, int* os_error) {
    snapshot(m_seen);
    int error = 0;
    const int rc = wait_ready(m_seen, timeout_ms, &error);
    if (os_error)
        *os_error = error;
    if (rc == WAIT_TIMED_OUT_RC)
        return RESULT_BUSY;
    if (rc == WAIT_WOKEN_RC)
        return RESULT_ABANDONED;
    if (rc < 0)
        return RESULT_FAILURE;
    for (size_t i = 0; i < m_seen.size(); ++i) {
        if (m_seen[i].ready) {
            *index = static_cast<unsigned int>(i);
            return RESULT_SUCCESS;
        }
    }
    return RESULT_FAILURE;
}

int events_t::dispatch(unsigned int index) {
    if (index >= m_seen.size())
        return RESULT_NOT_FOUND;
    const entry_t& e = m_seen[index];
    return dispatch_one(e.handle, e.handler, IO_READ) ? RESULT_SUCCESS : RESULT_NOT_FOUND;
}

// ---- notifier_handler_t ------------------------------------------------------------

notifier_handler_t::notifier_handler_t(notifier_it* notifier, io_repo_t* repo)
    : m_notifier(notifier), m_repo(repo), m_handle(INVALID_NOTIFIER_HANDLE), m_wakeups(0) {}

notifier_handler_t::~notifier_handler_t() {}

int notifier_handler_t::attach() {
    if (!m_notifier || !m_repo)
        return RESULT_INVALID_ARG;
    if (!m_notifier->is_active())
        return RESULT_NOT_CREATED;
    m_handle = m_notifier->get_id();
    return m_repo->add_fd(m_handle, IO_READ, this);
}

int notifier_handler_t::detach() {
    if (!m_repo || m_handle == INVALID_NOTIFIER_HANDLE)
        return RESULT_NOT_FOUND;
    return m_repo->remove_fd(m_handle);
}

void notifier_handler_t::on_ready(io_handle_t handle, uint32_t events) {
    if (events & IO_ERROR) {
        // A broken pair stays ready for ever; keeping it would spin the loop.
        UTIL_LOG(LOG_ERROR, "notifier_handler_t::on_ready() the notifier failed, handle = " << log_handle(handle)
                                                                                            << ", this = " << this);
        m_repo->remove_fd(handle);
        return;
    }
    // One wake-up taken; the loop's next pass runs the processing hook. A
    // byte still queued wakes the next wait at once, so none is lost.
    m_notifier->wait(0, false);
    m_wakeups.fetch_add(1, std::memory_order_relaxed);
}

// ---- pipe_handler_t ------------------------------------------------------------------

namespace {
const unsigned int PIPE_CHUNK = 4096;
// Chunks read per readiness, so one busy pipe cannot starve the others.
const int PIPE_CHUNKS_PER_ROUND = 16;
}  // namespace

pipe_handler_t::pipe_handler_t(pipe_t* pipe, io_repo_t* repo)
    : m_pipe(pipe), m_repo(repo), m_handle(INVALID_NOTIFIER_HANDLE) {}

pipe_handler_t::~pipe_handler_t() {}

bool pipe_handler_t::is_supported() { return plat::pipe_waitable(); }

int pipe_handler_t::attach() {
    if (!m_pipe || !m_repo)
        return RESULT_INVALID_ARG;
    if (!plat::pipe_waitable()) {
        UTIL_LOG(LOG_ERROR, "pipe_handler_t::attach() pipes cannot be waited on here"
                                << ", this = " << this);
        return RESULT_REFUSED;
    }
    if (!m_pipe->is_open())
        return RESULT_NOT_CREATED;
    m_handle = m_pipe->read_handle();
    return m_repo->add_fd(m_handle, IO_READ, this);
}

int pipe_handler_t::detach() {
    if (!m_repo || m_handle == INVALID_NOTIFIER_HANDLE)
        return RESULT_NOT_FOUND;
    return m_repo->remove_fd(m_handle);
}

void pipe_handler_t::on_ready(io_handle_t, uint32_t) {
    unsigned char buffer[PIPE_CHUNK];
    for (int chunk = 0; chunk < PIPE_CHUNKS_PER_ROUND; ++chunk) {
        unsigned int done = 0;
        int os_error = 0;
        const int rv = m_pipe->read(buffer, sizeof(buffer), &done, &os_error);
        if (rv == RESULT_BUSY)
            return;
        if (rv == RESULT_SUCCESS && done > 0) {
            on_data(buffer, done);
            continue;
        }
        if (rv != RESULT_SUCCESS)
            UTIL_LOG(LOG_ERROR, "pipe_handler_t::on_ready() read failed, errno = " << os_error << ", this = " << this);
        // The writer has gone (or the pipe failed): it would stay readable.
        detach();
        on_closed();
        return;
    }
}

}  // namespace ssb
