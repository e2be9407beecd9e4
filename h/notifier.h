// Wake-up notifiers: a thread sleeps in wait() and any other thread wakes it
// with signal(). Message queues signal their reader's notifier; message-loop
// and I/O threads wait on it.
//
// Three kinds share notifier_it: a loopback TCP pair (its read end is an
// ordinary socket, so an I/O thread can watch it among its other sockets),
// an anonymous pipe, and an event.
#ifndef SSB_NOTIFIER_H
#define SSB_NOTIFIER_H

#include <stdint.h>

#include <atomic>

#include "lock.h"
#include "util_def.h"

namespace ssb {

// What get_id() hands out: a socket, a pipe end or an event handle, wide
// enough for a Windows SOCKET or HANDLE. All ones when closed, which is both
// INVALID_SOCKET and a POSIX -1.
typedef uintptr_t notifier_handle_t;
const notifier_handle_t INVALID_NOTIFIER_HANDLE = ~static_cast<notifier_handle_t>(0);

// Starts the socket layer (WSAStartup 2.2 on Windows, nothing elsewhere):
// 0, or 999 after logging "init_socket() errno = ". Counted by the system,
// so every successful call needs its cleanup_socket.
UTIL_API int init_socket();
// WSACleanup: 0, or 999 after logging "cleanup_socket() failed, errno = ".
UTIL_API int cleanup_socket();

// Waits until `socket` is readable: 0 readable, 16 timed out, 26
// interrupted, 999 an exceptional condition or a failed wait. A negative
// timeout waits without limit. Any thread.
UTIL_API int wait_socket_readable(notifier_handle_t socket, int timeout_ms);

// Result codes of the notifiers: 0 success, 9 not open, 10 already open,
// 16 wait timed out, 26 wait interrupted, 999 any other failure.
class UTIL_API notifier_it {
public:
    // -1 waits without limit. With `peek` the wake-up is left in place.
    virtual int wait(int timeout_ms, bool peek) = 0;
    virtual int signal() = 0;
    virtual int pulse(bool hold) = 0;
    virtual int reset() = 0;
    // The handle to watch for readability; INVALID_NOTIFIER_HANDLE when
    // closed.
    virtual notifier_handle_t get_id() const = 0;
    virtual int open() = 0;
    virtual void close() = 0;
    virtual bool is_active() const = 0;
    virtual ~notifier_it() {}
};

// A connected loopback TCP pair: signal sends one byte on the write end,
// wait consumes one from the read end. Bytes pile up while nobody waits, and
// each completed wait takes one.
//
// signal, pulse and reset may be called from any thread. wait belongs to the
// owning thread but counts its callers atomically, so that the others can
// see whether anybody waits. open and close belong to the owner and must not
// race with waits.
class UTIL_API notifier_sock_t : public notifier_it {
public:
    // Opens the pair at once; a failure leaves it closed (see open).
    explicit notifier_sock_t(unsigned int waiters = 0);
    ~notifier_sock_t() override;

    // 0 woken (or held set by pulse(false)), 16 timed out, 26 interrupted,
    // 999 failure, 9 closed (after yielding once).
    int wait(int timeout_ms, bool peek) override;
    // Sends one byte when somebody waits or the notifier is not held set.
    int signal() override;
    // hold true: a momentary wake-up. Sends a byte and takes one back at
    // once, leaving the notifier not held; a thread already asleep in wait
    // may or may not catch it.
    // hold false: holds it set, so waits return at once until a wait
    // consumes a byte or reset runs while somebody waits; sends a byte only
    // when somebody waits. Closed: 9 and an ERROR line only when a byte was
    // owed to a waiter (hold true always owes one); the flag is set anyway.
    int pulse(bool hold) override;
    // Only while somebody waits: clears the held flag and takes one byte
    // (closed: 9 and an ERROR line). Nobody waits: 0 and nothing changes,
    // open or closed.
    int reset() override;
    notifier_handle_t get_id() const override;
    // 0, 10 when already open, 999 when the pair cannot be built (then the
    // notifier stays closed and open may be tried again).
    int open() override;
    void close() override;
    bool is_active() const override;

    // Threads inside wait now.
    unsigned int waiters() const { return m_waiters.load(std::memory_order_relaxed); }

private:
    int open_pair(notifier_handle_t& listener, uint32_t start_tick);
    bool set_nonblocking(notifier_handle_t s);
    int wait_readable(notifier_handle_t read_end, int timeout_ms, bool peek);
    void send_byte(notifier_handle_t write_end);
    void recv_byte(notifier_handle_t read_end);

    // The byte that travels; never written after construction, so senders
    // on several threads may share it.
    const unsigned char m_byte;
    std::atomic<uint32_t> m_waiters;
    // 1 while held set by pulse.
    std::atomic<int32_t> m_set;
    // [0] read end, [1] write end; INVALID_NOTIFIER_HANDLE when closed.
    std::atomic<notifier_handle_t> m_handle[2];
};

// Both ends of an anonymous pipe, non-blocking. Any thread may read, write
// and wait; open and close belong to the owner.
class UTIL_API pipe_t {
public:
    pipe_t();
    ~pipe_t();

    // 0, 10 when already open, 999 when the system refuses (its error
    // number in *os_error when given).
    int open(int* os_error = nullptr);
    void close();
    bool is_open() const;
    notifier_handle_t read_handle() const { return m_handle[0].load(std::memory_order_relaxed); }
    notifier_handle_t write_handle() const { return m_handle[1].load(std::memory_order_relaxed); }

    // 0 with *done bytes moved; 16 when the pipe is full (write) or empty
    // (read); 9 when closed; 999 on failure.
    int write(const void* data, unsigned int size, unsigned int* done, int* os_error = nullptr);
    int read(void* data, unsigned int size, unsigned int* done, int* os_error = nullptr);
    // 0 readable, 16 timed out, 26 interrupted, 9 closed, 999 failure. A
    // negative timeout waits without limit. On Windows anonymous pipes cannot
    // be waited on, so this polls with short sleeps.
    int wait(int timeout_ms, int* os_error = nullptr);

private:
    // [0] read end, [1] write end.
    std::atomic<notifier_handle_t> m_handle[2];
};

// The same byte protocol over a pipe, without a waiter count: the
// constructor's `waits` takes its place (non-zero: signal always writes).
// Threading as notifier_sock_t.
class UTIL_API notifier_pipe_t : public notifier_it {
public:
    // Opens the pipe at once; a failure leaves it closed.
    explicit notifier_pipe_t(unsigned int waits = 0);
    ~notifier_pipe_t() override;

    // 0 woken (or held set by pulse(true)), 16 timed out, 26 interrupted,
    // 999 failure, 9 closed (after yielding once).
    int wait(int timeout_ms, bool peek) override;
    // Writes one byte when `waits` is non-zero or the notifier is not held.
    int signal() override;
    // hold true: holds it set and writes one byte; hold false: releases the
    // hold and writes one byte when `waits` is non-zero. Closed: 9 only when
    // a byte was to be written.
    int pulse(bool hold) override;
    // Only while held: releases the hold and takes one byte (closed: 9).
    // Not held: 0 and nothing changes, open or closed.
    int reset() override;
    notifier_handle_t get_id() const override;
    int open() override;
    void close() override;
    bool is_active() const override;

private:
    void write_byte();
    void read_byte();

    const unsigned char m_byte;
    const unsigned int m_waits;
    std::atomic<int32_t> m_set;
    pipe_t m_pipe;
};

// An event behind the notifier interface. Any thread.
class UTIL_API notifier_event_t : public notifier_it {
public:
    // reset_on_peek: a wait that succeeds with `peek` resets the event (the
    // message loop passes its "waits" setting here). manual_reset and
    // initially_signalled build the event.
    explicit notifier_event_t(bool reset_on_peek = false, bool manual_reset = false, bool initially_signalled = false);
    ~notifier_event_t() override;

    // Waits on the event and returns 0 whatever the wait gave: the loops
    // that use it treat a time-out like a wake-up.
    int wait(int timeout_ms, bool peek) override;
    // signal, pulse and reset forward to the event (0 or 999); pulse's
    // argument is not used.
    int signal() override;
    int pulse(bool hold) override;
    int reset() override;
    // The event's handle.
    notifier_handle_t get_id() const override;
    // Not supported: the event exists from construction. Logs an assertion
    // line and returns 12.
    int open() override;
    // Nothing to do: the event lives as long as the notifier.
    void close() override;
    bool is_active() const override;

    event_t& get_event() { return m_event; }

private:
    const bool m_reset_on_peek;
    event_t m_event;
};

}  // namespace ssb

#endif
