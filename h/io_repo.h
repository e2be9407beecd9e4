// The I/O repository: a loop that waits on many handles at once, calls the
// handler of each ready one on the loop's thread, and between waits gives
// the owner's processing (messages, timers) its turn.
//
// Two demultiplexers share it: select_t over sockets (event and I/O threads
// serving sockets) and events_t over event_t handles (event threads and the
// timer driver). notifier_handler_t puts a thread's notifier into either, so
// a message posted to the thread wakes its loop; pipe_handler_t reads a pipe
// in a select_t.
#ifndef SSB_IO_REPO_H
#define SSB_IO_REPO_H

#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "lock.h"
#include "notifier.h"
#include "util_def.h"

namespace ssb {

// A socket, a pipe end or an event handle (event_t::get_handle()), as
// notifier_it::get_id() hands them out.
typedef uintptr_t io_handle_t;

// Readiness bits, asked for at registration and passed to the handler.
// IO_ERROR is reported whether asked for or not.
const uint32_t IO_READ = 1u;
const uint32_t IO_WRITE = 2u;
const uint32_t IO_ERROR = 4u;

// Called on the loop's thread for a registered handle that is ready.
// `events` holds the IO_* bits that are ready now; for an event handle it is
// IO_READ, meaning signalled (an auto-reset event has been reset already).
class UTIL_API io_handler_it {
public:
    virtual void on_ready(io_handle_t handle, uint32_t events) = 0;
    virtual ~io_handler_it() {}
};

// The owner's processing, run on the loop's thread before every wait: first
// when the loop starts, then after each wake-up, time-out or round of
// handlers. Returns the longest the next wait may sleep, in milliseconds: 0
// when work is left (the wait only polls), -1 for no limit. A message-loop
// thread plugs its message and timer processing in here.
class UTIL_API io_process_it {
public:
    virtual int on_process() = 0;
    virtual ~io_process_it() {}
};

// The loop and the registration table.
//
// Threading: start() runs the loop on the calling thread, which becomes the
// loop's thread until start() returns; handlers and the processing hook run
// there. add_fd, remove_fd and stop may be called from any thread, handlers
// included. A remove_fd from another thread returns once the loop has left
// the wait and the round of handlers that may still use the handle, so
// after it the handler is never called again and the handle may be closed;
// it must therefore not be called while the loop's thread waits for the
// caller. From the loop's thread a removal is effective at once.
//
// Result codes: 0 success, 2 null handler or empty mask, 5 handle not
// registered, 8 table full, 9 nothing to stop, 10 already registered or
// already started, 999 the wait failed (timed waits of events_t).
class UTIL_API io_repo_t : public no_copy {
public:
    virtual ~io_repo_t();

    // Registers `handle` for the IO_* bits in `mask` with `handler` (not
    // owned; it must outlive its registration).
    virtual int add_fd(io_handle_t handle, uint32_t mask, io_handler_it* handler);
    virtual int remove_fd(io_handle_t handle);
    bool is_registered(io_handle_t handle) const;
    unsigned int count() const;
    unsigned int capacity() const { return m_capacity; }

    // The hook (not owned). Set before start().
    void set_process(io_process_it* process) { m_process = process; }

    // Runs the loop on the calling thread until stop(); 0 when it ended, 10
    // after logging "io_repo_t::start(), the thread already has been started"
    // while a loop runs. A stop() that came before start() ends the next
    // loop before its first wait; the repository may be started again.
    int start();
    // Ends the loop: from a handler or the hook, once they return; from
    // another thread, by waking a sleeping wait. 0 when a loop was running,
    // 9 when none was (the stop then waits for the next start).
    int stop();
    bool is_running() const { return m_running.load(std::memory_order_acquire); }
    bool is_stopping() const { return m_stop.load(std::memory_order_acquire); }
    // The thread inside start(), 0 when none.
    uint32_t loop_thread() const { return m_thread.load(std::memory_order_acquire); }

protected:
    struct entry_t {
        io_handle_t handle;
        uint32_t mask;
        io_handler_it* handler;
        uint32_t ready;
    };

    static const int WAIT_TIMED_OUT_RC = 0;
    static const int WAIT_FAILED_RC = -1;
    static const int WAIT_WOKEN_RC = -2;

    // `name` prefixes the log lines ("select_t", "events_t").
    io_repo_t(const char* name, unsigned int capacity, io_process_it* process);

    // The loop body; start() calls it on the loop's thread.
    virtual void loop() = 0;
    // Makes a sleeping wait return; called from other threads.
    virtual void wake() = 0;
    // One wait over `entries`, filling their `ready` bits: the number of
    // ready entries, WAIT_TIMED_OUT_RC, WAIT_WOKEN_RC after an internal
    // wake-up, or WAIT_FAILED_RC with *error the OS error number.
    // timeout_ms < 0 waits without limit.
    virtual int wait_ready(std::vector<entry_t>& entries, int timeout_ms, int* error) = 0;

    // The shared loop: hook, snapshot, wait, handlers, until stopped. Logs
    // "<name>::loop wait failed, errno = " for a failed wait and goes on.
    void run_loop();
    // Runs the hook; -1 without one.
    int process();
    // Copies the table for one wait and counts the pass (removers from
    // other threads wait for the next pass).
    void snapshot(std::vector<entry_t>& out);
    // Calls the handler of each ready entry still registered with it.
    void dispatch(const std::vector<entry_t>& entries);
    // Calls the handler of one entry if `handle` is still registered with
    // `handler`; false when it is not.
    bool dispatch_one(io_handle_t handle, io_handler_it* handler, uint32_t ready);

    const char* const m_name;
    const unsigned int m_capacity;

private:
    mutable annotated_mutex_t m_lock;
    std::condition_variable_any m_pass_done;
    std::vector<entry_t> m_entries UTIL_GUARDED_BY(m_lock);
    uint64_t m_pass UTIL_GUARDED_BY(m_lock);
    io_process_it* m_process;
    std::atomic<bool> m_running;
    std::atomic<bool> m_stop;
    std::atomic<uint32_t> m_thread;
};

// Up to `capacity` (at most 1024) sockets, waited on with poll on POSIX and
// select on Windows; IO_READ, IO_WRITE and IO_ERROR are all served. A pipe
// read end joins where pipes can be waited on (see pipe_handler_t).
// Threading as io_repo_t.
class UTIL_API select_t : public io_repo_t {
public:
    static const unsigned int MAX_SOCKETS = 1024;

    // A capacity above MAX_SOCKETS is cut to it. is_valid() is false when
    // the internal wake-up pair could not be opened: the loop still runs,
    // but stop() and removals from other threads then take effect only when
    // the wait ends by itself.
    explicit select_t(unsigned int capacity = MAX_SOCKETS, io_process_it* process = nullptr);
    ~select_t() override;

    bool is_valid() const { return m_wake.is_active(); }

protected:
    // Logs "select_t::loop () begin with thread =" and "select_t::loop ()
    // end with thread =" around the shared loop.
    void loop() override;
    void wake() override;
    int wait_ready(std::vector<entry_t>& entries, int timeout_ms, int* error) override;

private:
    // Wakes the wait for stop() and for removals from other threads.
    notifier_sock_t m_wake;
};

// Up to 64 event handles (the limit of WaitForMultipleObjects, kept on every
// system): WaitForMultipleObjects on Windows, a wait on a condition
// variable that the events wake elsewhere. Only IO_READ (signalled) is
// reported. An auto-reset
// event that is reported has been reset, so it wakes one wait as on
// Windows; a manual-reset event stays signalled and is reported on every
// wait until reset. A pulse is not seen by these waits.
//
// Registrations are kept in order and indexed from 0; removing one moves
// the later ones down. An internal event joins each wait while fewer than
// 64 events are registered: with the table full, stop() and removals from
// other threads take effect when a registered event or the time-out ends
// the wait. Threading as io_repo_t.
class UTIL_API events_t : public io_repo_t {
public:
    static const unsigned int MAX_EVENTS = 64;

    explicit events_t(io_process_it* process = nullptr);
    ~events_t() override;

    // As io_repo_t::add_fd; `handle` is an event_t's get_handle(). When the
    // table is full logs "events_t::add_fd register already full" and
    // returns 8.
    int add_fd(io_handle_t handle, uint32_t mask, io_handler_it* handler) override;
    int add_event(event_t& event, io_handler_it* handler);

    // One wait on the registered events, for a loop of its own (the timer
    // driver): 0 with *index the lowest signalled registration, 16 on
    // time-out, 26 when woken by stop() or a removal from another thread,
    // 999 with *os_error the system error. timeout_ms < 0 waits without
    // limit. Loop thread only.
    int wait(int timeout_ms, unsigned int* index, int* os_error);
    // Calls the handler of registration `index` as a reported wait would: 0,
    // or 5 when the index is no longer registered. Loop thread only.
    int dispatch(unsigned int index);

protected:
    // Logs "events_t::loop () begin with thread =" and its end.
    void loop() override;
    void wake() override;
    int wait_ready(std::vector<entry_t>& entries, int timeout_ms, int* error) override;

private:
    event_t m_wake;
    // The table as the last wait() saw it, for dispatch(index).
    std::vector<entry_t> m_seen;
};

// Connects a thread's notifier with a repository: its get_id() is
// registered for reading, and each wake-up is consumed (one wait(0)) so the
// loop goes round and runs the processing hook. A notifier_sock_t goes into
// a select_t, a notifier_event_t into an events_t. Threading: attach and
// detach as add_fd and remove_fd; on_ready on the loop's thread.
class UTIL_API notifier_handler_t : public io_handler_it {
public:
    // Neither is owned; both must outlive the registration.
    notifier_handler_t(notifier_it* notifier, io_repo_t* repo);
    ~notifier_handler_t() override;

    // add_fd's result, or 6 when the notifier is closed.
    int attach();
    // remove_fd's result.
    int detach();
    void on_ready(io_handle_t handle, uint32_t events) override;

    // Wake-ups consumed so far.
    uint64_t wakeups() const { return m_wakeups.load(std::memory_order_relaxed); }

private:
    notifier_it* const m_notifier;
    io_repo_t* const m_repo;
    io_handle_t m_handle;
    std::atomic<uint64_t> m_wakeups;
};

// Reads a pipe_t's read end inside a select_t and hands the bytes to
// on_data on the loop's thread; when the writer has closed (a read gives no
// byte) it detaches and calls on_closed.
//
// Windows cannot wait on an anonymous pipe with select, so there attach()
// refuses with 12 after logging "pipe_handler_t::attach() pipes cannot be
// waited on here"; use pipe_t::wait on a thread of its own instead.
class UTIL_API pipe_handler_t : public io_handler_it {
public:
    // Neither is owned; both must outlive the registration.
    pipe_handler_t(pipe_t* pipe, io_repo_t* repo);
    ~pipe_handler_t() override;

    // Whether attach can work on this system.
    static bool is_supported();

    // add_fd's result, 6 when the pipe is closed, 12 where pipes cannot be
    // waited on.
    int attach();
    int detach();
    void on_ready(io_handle_t handle, uint32_t events) override;

protected:
    virtual void on_data(const unsigned char* data, unsigned int size) = 0;
    virtual void on_closed() {}

private:
    pipe_t* const m_pipe;
    io_repo_t* const m_repo;
    io_handle_t m_handle;
};

}  // namespace ssb

#endif
