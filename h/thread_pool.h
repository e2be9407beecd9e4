// A pool of message-loop threads that share long-lived tasks by load.
#ifndef SSB_THREAD_POOL_H
#define SSB_THREAD_POOL_H

#include <memory>

#include "lock.h"
#include "msg.h"

namespace ssb {

class thread_wrapper_t;
class log_stream_t;

// Bounds of max_num.
const unsigned int MIN_THREADS_LIMIT = 2;
const unsigned int MAX_THREADS_LIMIT = 1024;
// The type and control-queue size of the threads a pool spawns.
const unsigned int THREAD_POOL_TYPE = 0x706F6F6Cu;
const unsigned int THREAD_POOL_QUEUE_SIZE = 1024;
// bind_thread flag: stop_all_thread and the pool's end stop the bound thread
// too. Without it the pool only lets go of it.
const unsigned int POOL_BIND_STOP_WITH_POOL = 1;

// A set of at most max_num event threads named "pool.<pool index>.<n>",
// spawned through the thread manager. A task is a message posted to one of
// them with a load figure stated by the caller; the pool keeps each thread's
// summed load and hands every new task to the least-loaded thread. When that
// thread is busy (load above 0) and the pool is not full, the pool first
// grows by max(1, init_num / 2) threads. Among equally loaded threads the
// one that has carried that load longest is picked: at the start the first
// spawned, and later the thread whose load changed least recently.
//
// Threading: every operation may be called from any thread, pool threads
// included; all of them take the pool's recursive lock, and a task message
// is posted while it is held, so two tasks added one after the other reach
// their threads in that order. Stopping waits for the threads' loops
// outside the lock. Picking a thread and changing a load cost O(log n) in
// the threads; a task id is found in O(1).
//
// Reference-counted: new_instance hands the caller one reference, which
// release_obj drops. The pool holds one reference on each of its threads.
// When the last reference goes, the threads the pool still holds are
// stopped, so a pool takes its threads with it unless they were detached.
class UTIL_API thread_pool_t : public ref_count_t<null_lock>, public safe_obj<thread_pool_t, thread_mutex_recursive> {
public:
    // A pool of init_num threads that grows up to max_num; null when refused
    // (init_num > max_num, or max_num outside 2..1024). max_num 0 sizes the
    // pool by the processors (default_thread_counts), whatever init_num is.
    // The threads get `enable_timer` (their own timers tick) and
    // `auto_attach_mask_bits` as spawn's interact_timer and bind_mask. Needs
    // the thread manager (util_init); without it null.
    static thread_pool_t* new_instance(unsigned int init_num, unsigned int max_num, bool enable_timer,
                                       unsigned int auto_attach_mask_bits);
    // For `cpus` processors: max_num 2c - 1 and init_num c - 1, but 1 when
    // c - 1 < 2. An unknown count (0) is taken as 1; max_num stops at 1024.
    static void default_thread_counts(unsigned int cpus, unsigned int& init_num, unsigned int& max_num);

    // Hands a task of `loads` to the least-loaded thread (growing the pool
    // first when every thread is busy), returned in `bind_thr`, with an id
    // in `task_id`: a released one before a fresh one. A non-null `msg` is
    // posted to that thread, which runs and releases it. 0; on failure
    // nothing is recorded, `bind_thr` is null and the message stays the
    // caller's: 9 when the pool has no thread (stopped, detached) or the
    // chosen thread no longer runs, 1 when no thread could be spawned, or the
    // queue's refusal (3 full).
    int add_task(msg_it* msg, unsigned int& task_id, unsigned int loads, thread_wrapper_t*& bind_thr);
    // Ends a task: its load is taken off its thread, a non-null `msg` is
    // posted to that thread, and the id is released for reuse. 0; 5 for an
    // id that is not registered; a refused post keeps the task and leaves the
    // message the caller's (the queue's code, 9 for a stopped thread).
    int remove_task(msg_it* msg, unsigned int task_id);
    // Takes a thread made elsewhere into the pool, where it shares tasks like
    // the pool's own. `loads` is the load it already carries (its own
    // work), counted in its entry but not in the tasks' sum; `flags` is 0 or
    // POOL_BIND_STOP_WITH_POOL. The bound thread counts towards max_num.
    // 0; 2 for null; 10 when it is in the pool already; 8 when the pool is
    // full; 9 when the thread does not run; 12 once the pool was stopped or
    // detached.
    int bind_thread(thread_wrapper_t* thr, unsigned int loads, unsigned int flags);
    // Stops every thread of the pool (bound threads only with
    // POOL_BIND_STOP_WITH_POOL) and empties it: its tasks are dropped and
    // their ids released. Waits for each loop, so a pool thread must not be
    // held up by the caller. The number of threads stopped.
    int stop_all_thread();
    // Lets go of every thread, which runs on under the thread manager, and
    // empties the pool as stop_all_thread does. The number of threads let
    // go. After either, add_task finds no thread.
    int detach_all_thread();
    // Logs each thread's load, least loaded first.
    void dump();
    // Drops the caller's reference.
    void release_obj();
    // Drops the reference `pool` holds and nulls it; nothing for null.
    static void release_obj(thread_pool_t*& pool);

    // Snapshots, for monitoring.
    unsigned int get_thread_count() const;
    // The sum of the tasks' loads.
    unsigned int get_loads() const;
    unsigned int get_task_count() const;
    // The summed load of a pool thread (its bound load included); 0 for a
    // thread that is not in the pool.
    unsigned int get_thread_load(const thread_wrapper_t* thr) const;
    unsigned int get_init_num() const { return m_init_num; }
    unsigned int get_max_num() const { return m_max_num; }
    unsigned int get_pool_idx() const { return m_pool_idx; }

protected:
    ~thread_pool_t() override;

private:
    thread_pool_t(unsigned int init_num, unsigned int max_num, bool enable_timer, unsigned int auto_attach_mask_bits);
    thread_pool_t(const thread_pool_t&);
    thread_pool_t& operator=(const thread_pool_t&);

    struct state_t;
    // The load index in a log line.
    struct loads_view_t;
    friend log_stream_t& operator<<(log_stream_t& line, const loads_view_t& view);
    // Spawns one thread into the pool; false when the manager refused.
    bool add_thread();
    // Empties the pool; the threads to stop (or let go) are handed out.
    void take_all(std::unique_ptr<state_t>& out);

    // The threads, the load index, the task table and the released ids.
    std::unique_ptr<state_t> m_state;
    unsigned int m_init_num;
    unsigned int m_max_num;
    unsigned int m_ext_num;
    unsigned int m_loads;
    unsigned int m_next_task_id;
    unsigned int m_pool_idx;
    bool m_enable_timer;
    unsigned int m_auto_attach_mask_bits;
    // Set by stop_all_thread and detach_all_thread: the pool takes no more
    // threads.
    bool m_closed;

    static unsigned int s_pool_count;
    static thread_mutex_recursive s_global_lock;
};

}  // namespace ssb

#endif
