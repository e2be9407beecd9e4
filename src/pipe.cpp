// The notifiers (socket pair, pipe, event), the anonymous pipe under the
// pipe notifier, and the socket layer's start-up and clean-up.
#include "notifier.h"

#include <type_traits>

#include "platform/platform.h"
#include "timer.h"
#include "trace.h"

namespace ssb {

static_assert(std::is_same<notifier_handle_t, plat::socket_handle_t>::value &&
                  std::is_same<notifier_handle_t, plat::pipe_handle_t>::value,
              "a notifier hands out platform handles as they are");
static_assert(INVALID_NOTIFIER_HANDLE == plat::INVALID_SOCKET_HANDLE &&
                  INVALID_NOTIFIER_HANDLE == plat::INVALID_PIPE_HANDLE,
              "one invalid value for every notifier handle");

namespace {

const char SOURCE_PATH[] = "pipe";

const int LISTEN_BACKLOG = 5;
// The loopback handshake normally completes within a few yields; these bound
// the accept loop when it does not.
const unsigned int MAX_ACCEPT_TRIES = 1000;
const uint32_t MAX_ACCEPT_MS = 200;

const unsigned char SIGNAL_BYTE = 'n';

}  // namespace

// ---- socket layer -------------------------------------------------------------

int init_socket() {
    int error = plat::socket_startup();
    if (error != 0) {
        UTIL_LOG(LOG_ERROR, "init_socket() errno = " << error);
        return RESULT_FAILURE;
    }
    return RESULT_SUCCESS;
}

int cleanup_socket() {
    int error = plat::socket_cleanup();
    if (error != 0) {
        UTIL_LOG(LOG_ERROR, "cleanup_socket() failed, errno = " << error);
        return RESULT_FAILURE;
    }
    return RESULT_SUCCESS;
}

int wait_socket_readable(notifier_handle_t socket, int timeout_ms) {
    int error = 0;
    switch (plat::socket_wait_readable(socket, timeout_ms, &error)) {
    case plat::IO_READABLE:
        return RESULT_SUCCESS;
    case plat::IO_TIMED_OUT:
        return RESULT_BUSY;
    case plat::IO_ERROR:
        return plat::socket_interrupted(error) ? RESULT_ABANDONED : RESULT_FAILURE;
    default:
        return RESULT_FAILURE;
    }
}

// ---- notifier_sock_t ------------------------------------------------------------
//
// The waiter count and the held flag form a Dekker pair: a waiter raises the
// count and then reads the flag, pulse(false) raises the flag and then reads
// the count. Both sides use seq_cst so that at least one of them sees the
// other's write: either the waiter returns at once or the pulse sends a byte.
// The byte itself travels through the kernel, which orders it.

notifier_sock_t::notifier_sock_t(unsigned int waiters) : m_byte(SIGNAL_BYTE), m_waiters(waiters), m_set(0) {
    m_handle[0].store(INVALID_NOTIFIER_HANDLE, std::memory_order_relaxed);
    m_handle[1].store(INVALID_NOTIFIER_HANDLE, std::memory_order_relaxed);
    open();
}

notifier_sock_t::~notifier_sock_t() { close(); }

bool notifier_sock_t::is_active() const {
    return m_handle[0].load(std::memory_order_relaxed) != INVALID_NOTIFIER_HANDLE &&
           m_handle[1].load(std::memory_order_relaxed) != INVALID_NOTIFIER_HANDLE;
}

notifier_handle_t notifier_sock_t::get_id() const { return m_handle[0].load(std::memory_order_relaxed); }

void notifier_sock_t::close() {
    UTIL_LOG(LOG_INFO, "notifier_sock_t::close()"
                           << ", m_handle[0] = " << log_handle(m_handle[0].load(std::memory_order_relaxed))
                           << ", m_handle[1] = " << log_handle(m_handle[1].load(std::memory_order_relaxed))
                           << ", this =" << this);
    for (std::atomic<notifier_handle_t>& handle : m_handle) {
        notifier_handle_t h = handle.exchange(INVALID_NOTIFIER_HANDLE, std::memory_order_relaxed);
        if (h != INVALID_NOTIFIER_HANDLE)
            plat::socket_close(h);
    }
}

int notifier_sock_t::open() {
    UTIL_LOG(LOG_INFO, "notifier_sock_t::open() begin"
                           << ", this =" << this);
    uint32_t start_tick = tick_strategy::now();
    if (m_handle[0].load(std::memory_order_relaxed) != INVALID_NOTIFIER_HANDLE ||
        m_handle[1].load(std::memory_order_relaxed) != INVALID_NOTIFIER_HANDLE) {
        UTIL_LOG(LOG_WARNING, "notifier_sock_t::open() already initialized");
        return RESULT_ALREADY_EXISTS;
    }
    notifier_handle_t listener = INVALID_NOTIFIER_HANDLE;
    int rv = open_pair(listener, start_tick);
    if (rv != RESULT_SUCCESS)
        close();
    if (listener != INVALID_NOTIFIER_HANDLE)
        plat::socket_close(listener);
    return rv;
}

// Every failure is logged here and answered with 999; open() cleans up.
int notifier_sock_t::open_pair(notifier_handle_t& listener, uint32_t start_tick) {
    int error = plat::socket_open_tcp4(&listener);
    if (error != 0) {
        UTIL_LOG(LOG_ERROR, " notifier_sock_t::open() handle failed, errno = " << error);
        return RESULT_FAILURE;
    }
    error = plat::socket_bind_loopback(listener, 0);
    if (error != 0) {
        UTIL_LOG(LOG_ERROR,
                 " notifier_sock_t::open() bind failed,handle = " << log_handle(listener) << ",  errno = " << error);
        return RESULT_FAILURE;
    }
    error = plat::socket_listen(listener, LISTEN_BACKLOG);
    if (error != 0) {
        UTIL_LOG(LOG_ERROR,
                 " notifier_sock_t::open() listen failed, handle = " << log_handle(listener) << ", errno = " << error);
        return RESULT_FAILURE;
    }
    uint16_t port = 0;
    error = plat::socket_local_port(listener, &port);
    if (error != 0) {
        UTIL_LOG(LOG_ERROR, " notifier_sock_t::open() getsockname failed, handle = " << log_handle(listener)
                                                                                     << ", errno = " << error);
        return RESULT_FAILURE;
    }

    notifier_handle_t read_end = INVALID_NOTIFIER_HANDLE;
    error = plat::socket_open_tcp4(&read_end);
    if (error != 0) {
        UTIL_LOG(LOG_ERROR, " notifier_sock_t::open() socket_open failed, handle = " << log_handle(read_end)
                                                                                     << ", errno = " << error);
        return RESULT_FAILURE;
    }
    m_handle[0].store(read_end, std::memory_order_relaxed);
    if (!set_nonblocking(read_end))
        return RESULT_FAILURE;
    error = plat::socket_connect_loopback(read_end, port);
    if (error != 0 && !plat::socket_connect_pending(error)) {
        UTIL_LOG(LOG_ERROR,
                 " notifier_sock_t::open() connect failed, handle = " << log_handle(read_end) << ", errno = " << error);
        return RESULT_FAILURE;
    }

    if (!set_nonblocking(listener))
        return RESULT_FAILURE;
    unsigned int accept_times = 0;
    notifier_handle_t write_end = INVALID_NOTIFIER_HANDLE;
    for (;;) {
        error = plat::socket_accept(listener, &write_end);
        if (error == 0 || !plat::socket_would_block(error))
            break;
        ++accept_times;
        if (accept_times >= MAX_ACCEPT_TRIES || tick_strategy::now() - start_tick >= MAX_ACCEPT_MS)
            break;
        thread_yield();
    }
    if (error != 0) {
        UTIL_LOG(LOG_ERROR, " notifier_sock_t::open() accept failed and skip it, handle = " << log_handle(listener)
                                                                                            << ", errno = " << error);
        return RESULT_FAILURE;
    }
    m_handle[1].store(write_end, std::memory_order_relaxed);
    // A signaller must never block on a reader that is not reading: a full
    // buffer then fails with would-block, and the reader is woken anyway.
    if (!set_nonblocking(write_end))
        return RESULT_FAILURE;
    // Without it a byte sent while the previous one is unacknowledged waits
    // for the peer's delayed ACK; a failure only costs latency.
    plat::socket_set_nodelay(write_end);
    UTIL_LOG(LOG_INFO, " notifier_sock_t::open() successful, read handle = "
                           << log_handle(read_end) << ", write handle = " << log_handle(write_end) << ", "
                           << "accept_times"
                           << " = " << accept_times << ", "
                           << "accept_tick.elapsed()"
                           << " = " << (tick_strategy::now() - start_tick) << ", this =" << this);
    return RESULT_SUCCESS;
}

bool notifier_sock_t::set_nonblocking(notifier_handle_t s) {
    int error = plat::socket_set_nonblocking(s);
    if (error == 0)
        return true;
    UTIL_LOG(LOG_ERROR,
             " notifier_sock_t::open() ioctlsocket failed, handle = " << log_handle(s) << ", errno = " << error);
    return false;
}

void notifier_sock_t::send_byte(notifier_handle_t write_end) {
    // Would-block means the buffer is full of earlier signals, so the reader
    // is certainly woken; any other failure has nobody to tell but the
    // waiter, whose wait will fail in turn.
    size_t sent = 0;
    plat::socket_send(write_end, &m_byte, 1, &sent);
}

void notifier_sock_t::recv_byte(notifier_handle_t read_end) {
    unsigned char byte = 0;
    size_t got = 0;
    plat::socket_recv(read_end, &byte, 1, &got);
}

int notifier_sock_t::signal() {
    if (!is_active())
        return RESULT_NOTHING_TO_DO;
    if (m_waiters.load(std::memory_order_seq_cst) > 0 || m_set.load(std::memory_order_seq_cst) == 0) {
        notifier_handle_t write_end = m_handle[1].load(std::memory_order_relaxed);
        if (write_end == INVALID_NOTIFIER_HANDLE) {
            UTIL_LOG(LOG_ERROR, "notifier_sock_t::signal() handles are not initialzed"
                                    << ", this =" << this);
            return RESULT_NOTHING_TO_DO;
        }
        send_byte(write_end);
    }
    return RESULT_SUCCESS;
}

int notifier_sock_t::pulse(bool hold) {
    if (hold) {
        if (!is_active()) {
            UTIL_LOG(LOG_ERROR, "notifier_sock_t::pulse() handles are not initialzed"
                                    << ", this =" << this);
            return RESULT_NOTHING_TO_DO;
        }
        m_set.store(1, std::memory_order_seq_cst);
        send_byte(m_handle[1].load(std::memory_order_relaxed));
        recv_byte(m_handle[0].load(std::memory_order_relaxed));
        m_set.store(0, std::memory_order_seq_cst);
        return RESULT_SUCCESS;
    }
    // Holding set needs no handle; only a byte for a waiter does, so a closed
    // notifier that nobody waits on is not an error.
    m_set.store(1, std::memory_order_seq_cst);
    if (m_waiters.load(std::memory_order_seq_cst) == 0)
        return RESULT_SUCCESS;
    notifier_handle_t write_end = m_handle[1].load(std::memory_order_relaxed);
    if (write_end == INVALID_NOTIFIER_HANDLE) {
        UTIL_LOG(LOG_ERROR, "notifier_sock_t::pulse() handles are not initialzed"
                                << ", this =" << this);
        return RESULT_NOTHING_TO_DO;
    }
    send_byte(write_end);
    return RESULT_SUCCESS;
}

int notifier_sock_t::reset() {
    // Nobody waits: nothing to take and the held flag stays, open or closed.
    if (m_waiters.load(std::memory_order_seq_cst) == 0)
        return RESULT_SUCCESS;
    m_set.store(0, std::memory_order_seq_cst);
    notifier_handle_t read_end = m_handle[0].load(std::memory_order_relaxed);
    if (!is_active()) {
        UTIL_LOG(LOG_ERROR, "notifier_sock_t::reset() handles are not initialzed"
                                << ", this =" << this);
        return RESULT_NOTHING_TO_DO;
    }
    recv_byte(read_end);
    return RESULT_SUCCESS;
}

int notifier_sock_t::wait(int timeout_ms, bool peek) {
    notifier_handle_t read_end = m_handle[0].load(std::memory_order_relaxed);
    if (!is_active()) {
        thread_yield();
        return RESULT_NOTHING_TO_DO;
    }
    m_waiters.fetch_add(1, std::memory_order_seq_cst);
    int rv = wait_readable(read_end, timeout_ms, peek);
    // Nothing pairs with the way out: a signaller that still counts this
    // waiter merely sends a byte too many.
    m_waiters.fetch_sub(1, std::memory_order_relaxed);
    return rv;
}

int notifier_sock_t::wait_readable(notifier_handle_t read_end, int timeout_ms, bool peek) {
    if (m_set.load(std::memory_order_seq_cst) == 1)
        return RESULT_SUCCESS;
    int error = 0;
    switch (plat::socket_wait_readable(read_end, timeout_ms, &error)) {
    case plat::IO_TIMED_OUT:
        return RESULT_BUSY;
    case plat::IO_ERROR:
        if (plat::socket_interrupted(error)) {
            UTIL_LOG(LOG_WARNING, "notifier_sock_t::wait select errno =" << error << ", this =" << this);
            return RESULT_ABANDONED;
        }
        // A failed select leaves the handle in its exception set.
        UTIL_LOG(LOG_ERROR, "notifier_sock_t::wait exceptions errno =" << error << ", this =" << this);
        return RESULT_FAILURE;
    case plat::IO_EXCEPTION:
        UTIL_LOG(LOG_ERROR, "notifier_sock_t::wait exceptions errno =" << error << ", this =" << this);
        return RESULT_FAILURE;
    case plat::IO_READABLE: {
        if (peek)
            return RESULT_SUCCESS;
        unsigned char byte = 0;
        size_t got = 0;
        error = plat::socket_recv(read_end, &byte, 1, &got);
        if (got == 1) {
            m_set.store(0, std::memory_order_seq_cst);
            return RESULT_SUCCESS;
        }
        UTIL_LOG(LOG_ERROR,
                 "notifier_sock_t::wait fd =" << log_handle(read_end) << ", errno =" << error << ", this =" << this);
        return RESULT_FAILURE;
    }
    default:
        UTIL_LOG(LOG_WARNING, "notifier_sock_t::wait failed"
                                  << ", this =" << this);
        return RESULT_FAILURE;
    }
}

// ---- pipe_t -------------------------------------------------------------------

pipe_t::pipe_t() {
    m_handle[0].store(INVALID_NOTIFIER_HANDLE, std::memory_order_relaxed);
    m_handle[1].store(INVALID_NOTIFIER_HANDLE, std::memory_order_relaxed);
}

pipe_t::~pipe_t() { close(); }

bool pipe_t::is_open() const {
    return read_handle() != INVALID_NOTIFIER_HANDLE && write_handle() != INVALID_NOTIFIER_HANDLE;
}

int pipe_t::open(int* os_error) {
    if (read_handle() != INVALID_NOTIFIER_HANDLE || write_handle() != INVALID_NOTIFIER_HANDLE)
        return RESULT_ALREADY_EXISTS;
    plat::pipe_handle_t ends[2];
    int error = plat::pipe_open(&ends[0], &ends[1]);
    if (os_error)
        *os_error = error;
    if (error != 0)
        return RESULT_FAILURE;
    m_handle[0].store(ends[0], std::memory_order_relaxed);
    m_handle[1].store(ends[1], std::memory_order_relaxed);
    return RESULT_SUCCESS;
}

void pipe_t::close() {
    // The write end first: a writer racing with close then fails on its own
    // end rather than writing into a pipe whose reader has gone (SIGPIPE).
    for (int i = 1; i >= 0; --i) {
        notifier_handle_t h = m_handle[i].exchange(INVALID_NOTIFIER_HANDLE, std::memory_order_relaxed);
        if (h != INVALID_NOTIFIER_HANDLE)
            plat::pipe_close(h);
    }
}

int pipe_t::write(const void* data, unsigned int size, unsigned int* done, int* os_error) {
    *done = 0;
    notifier_handle_t h = write_handle();
    if (h == INVALID_NOTIFIER_HANDLE)
        return RESULT_NOTHING_TO_DO;
    size_t n = 0;
    int error = plat::pipe_write(h, data, size, &n);
    if (os_error)
        *os_error = error;
    if (error != 0)
        return plat::pipe_would_block(error) ? RESULT_BUSY : RESULT_FAILURE;
    *done = static_cast<unsigned int>(n);
    return n == 0 && size > 0 ? RESULT_BUSY : RESULT_SUCCESS;
}

int pipe_t::read(void* data, unsigned int size, unsigned int* done, int* os_error) {
    *done = 0;
    notifier_handle_t h = read_handle();
    if (h == INVALID_NOTIFIER_HANDLE)
        return RESULT_NOTHING_TO_DO;
    size_t n = 0;
    int error = plat::pipe_read(h, data, size, &n);
    if (os_error)
        *os_error = error;
    if (error != 0)
        return plat::pipe_would_block(error) ? RESULT_BUSY : RESULT_FAILURE;
    *done = static_cast<unsigned int>(n);
    return RESULT_SUCCESS;
}

int pipe_t::wait(int timeout_ms, int* os_error) {
    notifier_handle_t h = read_handle();
    if (h == INVALID_NOTIFIER_HANDLE)
        return RESULT_NOTHING_TO_DO;
    int error = 0;
    plat::io_wait_t rc = plat::pipe_wait_readable(h, timeout_ms, &error);
    if (os_error)
        *os_error = error;
    switch (rc) {
    case plat::IO_READABLE:
        return RESULT_SUCCESS;
    case plat::IO_TIMED_OUT:
        return RESULT_BUSY;
    case plat::IO_ERROR:
        return plat::pipe_interrupted(error) ? RESULT_ABANDONED : RESULT_FAILURE;
    default:
        return RESULT_FAILURE;
    }
}

// ---- notifier_pipe_t ----------------------------------------------------------
//
// Held set (pulse(true)) means the flag is 1 and one byte sits in the pipe
// for reset to take; waits return at once meanwhile and leave that byte.

notifier_pipe_t::notifier_pipe_t(unsigned int waits) : m_byte(SIGNAL_BYTE), m_waits(waits), m_set(0) { open(); }

notifier_pipe_t::~notifier_pipe_t() { close(); }

bool notifier_pipe_t::is_active() const { return m_pipe.is_open(); }

notifier_handle_t notifier_pipe_t::get_id() const { return m_pipe.read_handle(); }

int notifier_pipe_t::open() {
    int error = 0;
    int rv = m_pipe.open(&error);
    if (rv == RESULT_ALREADY_EXISTS) {
        UTIL_LOG(LOG_WARNING, "notifier_pipe_t::open() already initialized");
        return rv;
    }
    if (rv != RESULT_SUCCESS) {
        UTIL_LOG(LOG_ERROR, " notifier_pipe_t::open() pipe failed, errno = " << error << ", this =" << this);
        return RESULT_FAILURE;
    }
    m_set.store(0, std::memory_order_relaxed);
    UTIL_LOG(LOG_INFO, " notifier_pipe_t::open() successful, read handle = "
                           << log_handle(m_pipe.read_handle())
                           << ", write handle = " << log_handle(m_pipe.write_handle()) << ", this =" << this);
    return RESULT_SUCCESS;
}

void notifier_pipe_t::close() {
    UTIL_LOG(LOG_INFO, "notifier_pipe_t::close()"
                           << ", read handle = " << log_handle(m_pipe.read_handle())
                           << ", write handle = " << log_handle(m_pipe.write_handle()) << ", this =" << this);
    m_pipe.close();
}

void notifier_pipe_t::write_byte() {
    // A full pipe already holds wake-ups enough.
    unsigned int done = 0;
    m_pipe.write(&m_byte, 1, &done);
}

void notifier_pipe_t::read_byte() {
    unsigned char byte = 0;
    unsigned int done = 0;
    m_pipe.read(&byte, 1, &done);
}

int notifier_pipe_t::signal() {
    if (!is_active())
        return RESULT_NOTHING_TO_DO;
    if (m_waits != 0 || m_set.load(std::memory_order_acquire) == 0)
        write_byte();
    return RESULT_SUCCESS;
}

int notifier_pipe_t::pulse(bool hold) {
    if (hold) {
        if (!is_active())
            return RESULT_NOTHING_TO_DO;
        m_set.store(1, std::memory_order_release);
        write_byte();
        return RESULT_SUCCESS;
    }
    // As the socket notifier: only a byte owed to `waits` needs the pipe.
    m_set.store(0, std::memory_order_release);
    if (m_waits == 0)
        return RESULT_SUCCESS;
    if (!is_active())
        return RESULT_NOTHING_TO_DO;
    write_byte();
    return RESULT_SUCCESS;
}

int notifier_pipe_t::reset() {
    // Only the caller that clears the flag takes the held byte; with nothing
    // held there is nothing to take, open or closed.
    int32_t held = 1;
    if (!m_set.compare_exchange_strong(held, 0, std::memory_order_acq_rel, std::memory_order_relaxed))
        return RESULT_SUCCESS;
    if (!is_active())
        return RESULT_NOTHING_TO_DO;
    read_byte();
    return RESULT_SUCCESS;
}

int notifier_pipe_t::wait(int timeout_ms, bool peek) {
    if (!is_active()) {
        thread_yield();
        return RESULT_NOTHING_TO_DO;
    }
    if (m_set.load(std::memory_order_acquire) == 1)
        return RESULT_SUCCESS;
    int error = 0;
    int rv = m_pipe.wait(timeout_ms, &error);
    if (rv == RESULT_ABANDONED) {
        UTIL_LOG(LOG_WARNING, "notifier_pipe_t::wait poll errno =" << error << ", this =" << this);
        return rv;
    }
    if (rv != RESULT_SUCCESS) {
        if (rv != RESULT_BUSY)
            UTIL_LOG(LOG_ERROR, "notifier_pipe_t::wait failed, errno =" << error << ", this =" << this);
        return rv == RESULT_BUSY ? RESULT_BUSY : RESULT_FAILURE;
    }
    if (peek)
        return RESULT_SUCCESS;
    unsigned char byte = 0;
    unsigned int done = 0;
    rv = m_pipe.read(&byte, 1, &done, &error);
    if (done == 1)
        return RESULT_SUCCESS;
    UTIL_LOG(LOG_ERROR, "notifier_pipe_t::wait fd =" << log_handle(m_pipe.read_handle()) << ", errno =" << error
                                                     << ", this =" << this);
    return RESULT_FAILURE;
}

// ---- notifier_event_t -----------------------------------------------------------

notifier_event_t::notifier_event_t(bool reset_on_peek, bool manual_reset, bool initially_signalled)
    : m_reset_on_peek(reset_on_peek), m_event(manual_reset, initially_signalled) {}

notifier_event_t::~notifier_event_t() {}

int notifier_event_t::wait(int timeout_ms, bool peek) {
    if (m_event.wait(timeout_ms) == RESULT_SUCCESS && m_reset_on_peek && peek)
        m_event.reset();
    return RESULT_SUCCESS;
}

int notifier_event_t::signal() { return m_event.signal(); }

int notifier_event_t::pulse(bool) { return m_event.pulse(); }

int notifier_event_t::reset() { return m_event.reset(); }

notifier_handle_t notifier_event_t::get_id() const { return reinterpret_cast<notifier_handle_t>(m_event.get_handle()); }

int notifier_event_t::open() {
    UTIL_ASSERT_LINE(SOURCE_PATH, __LINE__, ", this = " << this);
    return RESULT_REFUSED;
}

void notifier_event_t::close() {}

bool notifier_event_t::is_active() const { return m_event.get_handle() != nullptr; }

}  // namespace ssb
