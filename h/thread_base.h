// One operating-system thread running a plain function.
#ifndef SSB_THREAD_BASE_H
#define SSB_THREAD_BASE_H

#include <stdint.h>

#include <atomic>

#include "util_def.h"

namespace ssb {

// Wraps one OS thread that runs fn(arg) once. The base of the event and I/O
// threads, and what the thread manager's spawn_light hands out.
//
// Threading: start, stop, cancel, join_np and detach belong to one
// controlling thread at a time, never the wrapped thread itself (those calls
// are refused with 12 and an assertion line). is_running, is_stopped and
// get_id may be called from any thread. The new thread never touches this
// object: fn receives only `arg`, so the object may be destroyed while an
// abandoned thread (see cancel) runs on.
class UTIL_API thread_base_t {
public:
    typedef void (*thread_fn_t)(void*);

    thread_base_t();
    // Stops (waits for) a thread still held.
    virtual ~thread_base_t();

    // Runs fn(arg) on a new thread with the default stack; `stack_size` and
    // `priority` are accepted for the derived threads and not used here. The
    // new thread's id, or 0 with an assertion line when no thread was made
    // (creation failed, no function, or a thread is already held). fn is
    // held back until the id and handle are recorded, so inside fn the
    // object already reports the thread as running with its id.
    virtual unsigned int start(thread_fn_t fn, void* arg, unsigned int stack_size, unsigned int priority);
    // Waits without limit for the thread to end and releases it. 9 without a
    // thread, 12 on the thread itself (it keeps running), 16 when the wait
    // timed out, else 0.
    virtual int stop();
    // Waits at most `timeout_ms` for the thread to end; on time-out cancels
    // it and returns 16. 0 when it ended (the thread stays held until stop
    // or the destructor) or there is none; 12 on the thread itself or after
    // detach; 999 when the wait failed.
    virtual int join_np(unsigned int timeout_ms);
    virtual bool is_running() const;
    virtual bool is_stopped() const;
    virtual unsigned int get_id() const;

    // Forcibly ends the thread and forgets it: 0, 9 without a thread, 12 on
    // the thread itself.
    //
    // On Windows the thread is terminated with exit code 16. Elsewhere a
    // thread cannot be killed safely (a cancelled pthread unwinds through
    // code that never expected it; a killed one leaves its locks held), so
    // it is abandoned instead: it is not stopped but detached, runs on to
    // the end of fn, and its resources are released then. Either way the
    // object holds no thread afterwards (is_stopped() true, get_id() 0).
    int cancel();
    // Marks the thread not joinable: join_np is refused afterwards, stop and
    // cancel still work. 0, or 12 when already detached.
    int detach();

    // Gives up the processor.
    static void yield();
    // The calling thread's OS id.
    static unsigned int get_cur_tid();

    thread_base_t(const thread_base_t&) = delete;
    thread_base_t& operator=(const thread_base_t&) = delete;

protected:
    // Waits at most `timeout_ms` for the thread to end, and nothing else
    // (join_np cancels on time-out): 0 ended or none, 16 still running, 12
    // on the thread itself.
    int wait_end(unsigned int timeout_ms);
    // Forgets the thread without waiting, from any thread including its
    // own: it runs on, and its resources go when it ends.
    void let_go();

private:
    // Forgets the held thread; the handle has been released.
    void clear_thread();

    thread_fn_t m_fn;
    void* m_arg;
    // Written by the controlling thread, read from any thread. The release
    // store that clears it after a finished wait pairs with the acquire in
    // is_running/is_stopped: whoever sees a stopped thread gone also sees
    // what it did before it ended.
    std::atomic<uintptr_t> m_handle;
    std::atomic<uint32_t> m_id;
    std::atomic<bool> m_joinable;
};

}  // namespace ssb

#endif
