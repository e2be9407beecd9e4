// The process-wide registry and factory of threads.
#ifndef SSB_THREAD_MGR_H
#define SSB_THREAD_MGR_H

#include <memory>
#include <vector>

#include "lock.h"
#include "thread.h"
#include "thread_base.h"

namespace ssb {

// Made by util_init: it wraps the creating thread as the main thread (type
// 0) and starts the timer driver thread "orca.timer.do" (type 2). It spawns
// message-loop threads, binds each to the timer driver with a channel,
// finds threads by type or id, and stops them. Destroyed by the last
// util_uninit; instance() is then null until reset().
//
// Threading: every operation may be called from any thread; the thread
// list is guarded by the class lock, which is never held while waiting for
// another thread. Stopping a wrapped thread (mode 8) that is not the
// caller's own only requests the stop: its loop runs it at its next pass.
//
// The manager holds one reference on each registered wrapper. A thread that
// stopped is taken off the list at once and released later, from another
// thread, once its OS thread has ended (at the next spawn or stop call, or
// when the manager is destroyed).
class UTIL_API thread_mgr_t : public safe_class<thread_mgr_t, thread_mutex_recursive> {
public:
    // Created on first call; null once destroyed, until reset().
    static thread_mgr_t* instance();
    // The existing manager or null; never creates.
    static thread_mgr_t* peek();
    // The manager that holds the threads now: the instance, or the one
    // being destroyed (whose threads detach while it stops them).
    static thread_mgr_t* holder();
    static void destroy();
    // 0 when the manager was released (the next instance() makes a new
    // one); 10 when it was not.
    static int reset();

    // A message-loop thread, or null. Mode bits: 1 I/O thread (select), 2
    // event thread, 8 wrap the calling thread (returns its wrapper when it
    // has one). Type 2 is the timer driver: at most one, a second spawn
    // returns it. `bind_mask` is kept for hosts' use; the only channel made
    // here is the one to the timer driver.
    thread_wrapper_t* spawn(unsigned int mode, unsigned int w_queue_size, unsigned int type, bool interact_timer,
                            const signed char* thr_name, unsigned int bind_mask);
    // A plain thread running fn(args), not registered; the caller owns it
    // (stop, then delete). Null when it could not start.
    thread_base_t* spawn_light(void (*fn)(void*), void* args, unsigned int stack_size, unsigned int priority);
    // Registers a wrapper made elsewhere (taking a reference) and binds it
    // to the timer driver. 0, 2 for null, 10 when already registered.
    int attach(thread_wrapper_t* thr, thread_wrapper_t* owner, unsigned int flags);
    // Takes a wrapper off the list. 0, 2 for null, 5 when not registered.
    int detach(thread_wrapper_t* thr);
    // The same, run later by `on`'s loop (the calling thread's when null),
    // for a caller inside a pass that must not change the list under it:
    // deferred_msg_op_t::launch's result.
    int detach_deferred(thread_wrapper_t* thr, thread_wrapper_t* on);
    // The first registered wrapper of that type or id, or null. No
    // reference is taken.
    thread_wrapper_t* find_by_type(unsigned int type);
    thread_wrapper_t* find_by_id(unsigned int id);
    // The calling thread's wrapper: its slot, else by its id.
    thread_wrapper_t* current();
    unsigned int count();

    // The calling thread's slot. 0, or 12 when the key could not be made.
    static int register_tls(thread_wrapper_t* thr);
    static int unregister_tls(thread_wrapper_t* thr);
    // The slot's value, or null.
    static thread_wrapper_t* tls_value();

    // Stop, wait up to one second for the OS thread, and release. The
    // number of threads stopped.
    int stop_threads_by_type(unsigned int type);
    int stop_thread_by_id(unsigned int id);
    // Applies the precision to every registered thread: 0, 2 out of range.
    int adjust_timer_precision(unsigned int ms);
    // Statistics of every listed thread (h/stats.h), read outside the
    // manager's lock.
    void collect_stats(std::vector<thread_stats_t>& out);

private:
    thread_mgr_t();
    ~thread_mgr_t();
    thread_mgr_t(const thread_mgr_t&);
    thread_mgr_t& operator=(const thread_mgr_t&);

    // Stores `value` in the calling thread's slot; the assertion `refusal`
    // and 12 without a key.
    static int set_tls(thread_wrapper_t* thr, thread_wrapper_t* value, const char* refusal);
    struct lists_t;
    // Registers `thr` (the list takes a reference) and binds it.
    void enlist(thread_wrapper_t* thr);
    // Binds `thr` with the timer driver, or a new timer driver with every
    // thread whose loop can answer.
    void bind_timer(thread_wrapper_t* thr);
    // Stops one listed wrapper and takes it off the list.
    void stop_and_release(thread_wrapper_t* thr);
    // Releases the stopped threads whose OS thread has ended; `all` when
    // the manager goes: every one, each stopped within a bound.
    void reap(bool all);
    // The manager goes: takes `thr` off the list and finishes it.
    void release_final(thread_wrapper_t* thr);
    // Stops `thr` within a bound whatever it is doing and drops the
    // manager's reference, which the caller hands over: joins its OS
    // thread, or, when nobody can (the caller's own thread, or a loop that
    // did not stop in time), logs it and leaves the thread to free itself.
    void finish(thread_wrapper_t* thr);

    // The registered threads and the stopped ones waiting for their OS
    // thread to end, each holding a reference; guarded by the class lock.
    std::unique_ptr<lists_t> m_lists UTIL_PT_GUARDED_BY(m_inner_lock);
};

}  // namespace ssb

#endif
