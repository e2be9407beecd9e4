// Message-loop threads and the channels between them.
//
// A thread_wrapper_t is the loop of one thread: it owns a control queue that
// any thread may write to, a wake-up notifier, and per bound peer a read
// queue and a write queue (a channel). It runs the messages handed to it on
// its own thread, in passes.
//
// Anatomy of a pass (thread_run; the event and I/O threads run it between
// the waits of their I/O repository, the main thread once per
// main_heartbeat):
//   1. A message parked by pend() is offered to its target again; it goes
//      before anything newer from this thread.
//   2. When the last pass left the thread idle, wait on the notifier (a
//      poll for a wrapped thread, whose host owns the blocking wait).
//   3. Data rounds: each round takes at most one message from every bound
//      peer's read queue, in binding order, so no busy peer starves the
//      others; rounds go on while one took a message and the load handled
//      stays below 100. Overtime messages are logged and dropped. A message
//      that changes the channels (a bind or detach on this thread) ends the
//      pass at once; the next one starts over.
//   4. The control queue is drained. A stop message ends the drain.
//   5. If the thread stopped, whatever is queued is dropped unrun, which
//      also wakes synchronous senders.
//   A pass that handled a load of 100 or more, or was cut short by a
//   channel change, is followed by the next without waiting: no writer
//   signals again for messages already queued.
//
// Writers signal the reader's notifier only when a queue goes from empty to
// non-empty, so a sleeping loop costs one wake-up per burst.
#ifndef SSB_THREAD_H
#define SSB_THREAD_H

#include <atomic>
#include <memory>
#include <string>

#include "lock.h"
#include "msg_queue.h"
#include "timer.h"

namespace ssb {

class notifier_it;
class thread_mgr_t;
struct queue_counters_t;
struct thread_stats_t;
template <class T>
class ref_holder_t;

// m_status values.
const unsigned int THREAD_RUNNING = 0;
const unsigned int THREAD_STOPPING = 1;
const unsigned int THREAD_STOPPED = 2;
// Mode bits: a select-based I/O thread, an event-based thread, a wrapper
// around an already running thread (the caller of spawn).
const unsigned int THREAD_MODE_IO = 1;
const unsigned int THREAD_MODE_EVENT = 2;
const unsigned int THREAD_MODE_WRAP = 8;
// Marks the manager's own two threads: the timer driver and the main thread.
const unsigned int THREAD_MODE_TIMER_DRIVER = 0x1000000;
const unsigned int THREAD_MODE_MAIN = 0x2000000;
// Thread types with a meaning to the library.
const unsigned int THREAD_TYPE_MAIN = 0;
const unsigned int THREAD_TYPE_TIMER = 2;
// A pass that handled this much load is followed by the next without waiting.
const unsigned int THREAD_PASS_LOAD = 100;
const unsigned int WAIT_INFINITE_MS = 0xFFFFFFFFu;
// Range of adjust_timer_precision, in milliseconds.
const unsigned int MIN_TIMER_PRECISION_MS = 10;
const unsigned int MAX_TIMER_PRECISION_MS = 1000;

// Owned by the thread that runs its loop: thread_run, process_msg, stop_i,
// init_tls, cleanup_tls, bind_queue and detach_queue belong to that thread
// (the last two refuse other threads with 12). Any thread may post or send
// to it, notify it, stop it, and create or release its channels: the parts
// that belong to another thread travel there as control messages.
// Reference-counted: users release, never delete.
//
// Each channel end holds a reference on its peer, so a peer stays alive
// while it can still be reached through a channel. Creating and releasing
// a channel from a thread that is not its end waits for that end's loop to
// run the control message: such a thread must be pumping its loop.
class UTIL_API thread_wrapper_t : public safe_obj<thread_wrapper_t, thread_mutex_recursive>,
                                  public timer_sink_it,
                                  public timer_queue_sink_it,
                                  public ref_count_t<null_lock> {
public:
    thread_wrapper_t(unsigned int mode, unsigned int type, unsigned int queue_size, thread_mgr_t* thr_manager,
                     unsigned int waits, bool interact_timer, const signed char* name);

    // [loop thread] One pass: finish a parked message, poll the notifier
    // when the last pass left the thread idle, then process messages.
    virtual void thread_run(void* arg);
    // [any thread] Wakes the loop.
    virtual int notify();
    // Refused: threads are made by the thread manager. Logs and returns 0.
    virtual unsigned int start(void (*fn)(void*), void* arg, unsigned int stack_size, unsigned int priority);
    // [loop thread] Starts and stops a timer that logs once a minute that
    // the thread is alive. Opt-in.
    virtual void start_alive_check();
    virtual void stop_alive_check();
    // [owner, before the loop runs]
    virtual int open_notifier(unsigned int waits);
    // [loop thread] The stop itself; 12 on another thread.
    virtual int stop_i(thread_wrapper_t* from);
    // [any thread] Identity and state.
    virtual unsigned int get_id() const { return m_id.load(std::memory_order_relaxed); }
    virtual bool is_running() const { return m_status.load(std::memory_order_acquire) == THREAD_RUNNING; }
    virtual bool is_stopped() const { return m_status.load(std::memory_order_acquire) == THREAD_STOPPED; }
    virtual bool is_stopping() const { return m_status.load(std::memory_order_acquire) == THREAD_STOPPING; }
    // [any thread] From another thread: returns after the loop ran stop_i
    // (the loop must be pumping). From the loop's own thread: stops at
    // once. 9 when not running; 12 when the loop waits for the caller.
    virtual int stop();
    // I/O hook of the I/O threads; nothing here.
    virtual void on_read(void*) {}
    // [loop thread] First thing on the loop's thread.
    virtual void init_tls();
    // [loop thread] Parks `msg` for `target` on this thread: it is posted by the next
    // pass that finds room. 0, 2 for a null argument, 10 when one is parked.
    virtual int pend(msg_it* msg, thread_wrapper_t* target);
    virtual bool is_pending() const;
    // Whether no thread will run this loop again, so that the last
    // reference may be dropped from any thread. A wrapped thread holds a
    // reference of its own while inside thread_run.
    virtual bool has_ended() const { return is_stopped(); }

    // [loop thread] Runs one pass over the queues, handling a load of at
    // most min(max, 100) in the data rounds; the load handled.
    unsigned int process_msg(unsigned int max);
    // [loop thread] Sleeps on the notifier (when idle) for at most
    // `timeout_ms`.
    int wait(unsigned int timeout_ms);
    // [loop thread]
    void cleanup_tls();
    // [any thread] The wrapper of the calling thread, or null.
    static thread_wrapper_t* self();
    // [any thread] A statistics snapshot (h/stats.h); get_thread_stats.
    void read_stats(thread_stats_t& out);
    // [any thread] 10..1000 ms: 0; else 2 with an assertion line.
    int adjust_timer_precision(unsigned int ms);
    unsigned int get_timer_precision() const;

    // ---- timers ----
    // The wheel of this thread (loop thread only), null when it has none:
    // the timer driver thread has none, and a stopped thread has let go of
    // its own.
    timer_queue_t* get_timer_queue() const;
    // Whether timers may be armed on this thread at all.
    bool has_timer_support() const { return m_type != THREAD_TYPE_TIMER && !(m_mode & THREAD_MODE_TIMER_DRIVER); }
    // [timer driver thread] Sends a tick to every bound thread whose wheel
    // is due; the driver's own pass.
    void notify_ticks(unsigned int ticks);
    // [timer driver thread] Whether this thread's wheel should get a tick
    // now; true marks a tick outstanding.
    bool need_timer_drive();
    // [loop thread] Advances the wheel by the time that has passed: 0, 9
    // without a wheel, 13 when stopped.
    int process_timer();
    // [any thread] Drops the outstanding-tick mark.
    void unpause_timer();
    // [any thread] Whether a tick is outstanding; ticks this thread ran.
    bool is_timer_paused() const;
    uint64_t timer_ticks() const;
    // [loop thread] Re-arms the drive through a one-shot deposit.
    void restart_timer();
    // In the low-power mode: the milliseconds until this thread's wheel is
    // next due, or WAIT_INFINITE_MS. Timer driver thread.
    unsigned int due_in_ms();
    // [timer driver thread] The least due_in_ms of the bound threads.
    unsigned int next_due_ms();
    // [loop thread] Ticks the wheel lags behind the clock: what a timer
    // armed now adds to its delay so that it fires on time.
    uint32_t timer_lag_ticks();

    void timer_work(const timer_it* timer) override;
    void on_sync() override;
    void update_interval(unsigned int lastest, unsigned int newest, unsigned int align) override;
    void on_armed() override;
    void* query_interface(uint64_t iid) override { return ref_count_t<null_lock>::query_interface(iid); }

    // ---- channels ----
    // [any thread; waits for both loops] Binds this thread and `bind_thr`
    // with a pair of one-to-one queues. 0;
    // 2 for a null peer; 12 for this thread itself; 10 when one end was
    // bound already (that end is kept as it was); an end on a stopped thread
    // gives that thread's refusal.
    int create_channel(thread_wrapper_t* bind_thr, unsigned int read_capacity, unsigned int write_capacity);
    // [any thread; waits for both loops] Unbinds both ends, this thread's
    // side first. 0; 2 for a null peer; 5 when neither end was bound.
    int release_channel(thread_wrapper_t* bind_thr);
    // [loop thread] 0, 2 for a null argument, 10 when `bind_thr` is bound
    // already (skipped), 12 on another thread.
    int bind_queue(thread_wrapper_t* bind_thr, r_msg_queue_it* r_queue, w_msg_queue_it* w_queue);
    // [loop thread] 0, 5 when `bind_thr` is not bound, 12 on another thread.
    int detach_queue(thread_wrapper_t* bind_thr);
    // [any thread] The channel's queues (no reference taken); the control queue when
    // asked for this thread itself; null when not bound.
    r_msg_queue_it* get_read_msgq(thread_wrapper_t* peer);
    w_msg_queue_it* get_write_msgq(thread_wrapper_t* peer);
    rw_msg_queue_it* get_rw_msgq() const;
    notifier_it* get_notifier() const { return m_notifier; }
    // Whether `peer` is bound to this thread and running.
    bool is_available(thread_wrapper_t* peer);
    unsigned int channel_count();
    void dump_queue();

    // [any thread] Delivery to this thread, routed by the calling thread: from a bound
    // managed thread over its channel, from this thread or an unmanaged one
    // through the control queue. On failure the message stays the caller's.
    // post_msg: the queue's result, 9 when this thread is not running, 5
    // when the calling managed thread has no channel to it.
    int post_msg(msg_it* msg, msg_queue_sink_it* sink);
    // As post_msg, waiting up to `timeout` ms (negative or 0xFFFFFFFF: no
    // limit) for the message to run; 12 on this thread itself, or when
    // this thread waits for the caller.
    int send_msg(msg_it* msg, msg_queue_sink_it* sink, int timeout);
    // [any thread] Through the control queue. 2 when the thread has
    // stopped; send_ctrl_msg 12 when it would wait for itself or for a
    // thread that waits for the caller.
    int post_ctrl_msg(msg_it* msg, msg_queue_sink_it* sink);
    int send_ctrl_msg(msg_it* msg, msg_queue_sink_it* sink, int timeout);
    // [loop thread] Posts the parked message: 0 delivered (or nothing parked), 3 still no
    // room (kept), 2 its target is gone (dropped).
    int try_pending_msg();
    // pend() with the drop report of a target that has been released.
    int pend_on_msg(msg_it* pending_msg, thread_wrapper_t* pending_for);

    unsigned int get_type() const { return m_type; }
    unsigned int get_mode() const { return m_mode; }
    const std::string& name() const { return m_name; }
    unsigned int queue_size() const { return m_queue_size; }

    // [any thread] Keeps a queue's sink wake-up that could not be posted
    // (the control queue was full) and runs it at the next pass, on this
    // thread. 0, 9 when this thread has stopped.
    int hold_sink_wakeup(msg_queue_base_t* queue);

    // [any thread] Stops the loop without waiting for it: the stop runs at
    // its next pass.
    // For threads whose loop the caller cannot count on (a wrapped thread
    // of another caller). 0, 9 when not running.
    int request_stop();

    // [any thread] The stop of a shut-down, bounded whatever the loop is
    // doing: waits at most `timeout_ms` for the loop to run it. A wrapped
    // loop whose thread is outside thread_run (and so may never pump again)
    // is stopped here, on the caller's thread. 0 stopped; 16 not within the
    // time (the stop stays requested: the loop runs it when it comes back);
    // 0 as well when it had stopped already.
    int stop_within(unsigned int timeout_ms);

protected:
    ~thread_wrapper_t() override;

    // The caller's half of post_msg/send_msg: this is the calling thread.
    int post_msg_i(thread_wrapper_t* target, msg_it* msg, msg_queue_sink_it* sink);
    int send_msg_i(thread_wrapper_t* target, msg_it* msg, msg_queue_sink_it* sink, int timeout);
    // The pass shared by thread_run and the I/O threads' loops: true when
    // work is left, so the next pass must not wait.
    bool run_pass();
    // On the loop's thread when it ends without having been stopped: marks
    // it stopped and drops what is queued, waking synchronous senders.
    void abandon();
    // The notifier open_notifier installs: an event here.
    virtual notifier_it* make_notifier(unsigned int waits);
    bool on_own_thread() const { return get_id() == get_cur_tid(); }
    void set_id(unsigned int id) { m_id.store(id, std::memory_order_relaxed); }

private:
    thread_wrapper_t(const thread_wrapper_t&);
    thread_wrapper_t& operator=(const thread_wrapper_t&);

    struct parts_t;
    // How a pass ended, for the next pass's decision to wait.
    enum pass_end_t { PASS_IDLE, PASS_BUSY, PASS_CUT_SHORT };

    // Test seams reach the parts through it (src/live_count.h).
    friend struct thread_test_access;
    friend class timer_driver_msg_t;
    void count_tick();
    // Opens the wheel on the loop's thread; closes it when the loop stops.
    void open_timer();
    void close_timer();
    // Publishes what the timer driver reads of the wheel. Loop thread.
    void publish_timer_state();
    // Wakes the timer driver (low-power mode) when it would sleep past the
    // time this thread's wheel is due.
    void wake_driver_if_due_sooner();
    void wake_timer_driver();
    // The write queue of this (the calling) thread's channel to `target`,
    // or null after logging why.
    w_msg_queue_it* route_to(thread_wrapper_t* target, const char* name);
    // The stop that cannot fail: a flag the next pass reads, and a wake-up.
    void request_stop_by_flag();
    // Sends the stop message without waiting, or raises the flag.
    void post_stop();
    // stop_i for a wrapped loop taken over by another thread: its thread
    // runs no pass any more, so the caller releases what the loop held.
    void stop_taken_over();
    // Runs the sink wake-ups held by hold_sink_wakeup. Loop thread.
    void run_held_wakeups();
    // Runs or drops one popped message, counting it into `counters` when
    // given; the load it counts.
    unsigned int run_msg(msg_it* msg, bool control, queue_counters_t* counters);
    void drain_all();
    // Binds or unbinds `end`'s side, on `end`'s thread.
    static int bind_end(thread_wrapper_t* end, thread_wrapper_t* peer, r_msg_queue_it* r, w_msg_queue_it* w);
    static int unbind_end(thread_wrapper_t* end, thread_wrapper_t* peer, bool wait);
    // The queues of `end`'s channel to `peer`, crossed as `peer`'s side
    // would use them (its write queue as a read queue and back); false
    // when `end` has no such channel.
    static bool crossed_queues(thread_wrapper_t* end, thread_wrapper_t* peer, ref_holder_t<r_msg_queue_it>& r,
                               ref_holder_t<w_msg_queue_it>& w);

    unsigned int m_mode;
    unsigned int m_type;
    std::atomic<unsigned int> m_id;
    std::atomic<unsigned int> m_status;
    thread_mgr_t* m_thread_manager;
    unsigned int m_queue_size;
    // Set once by open_notifier, before other threads can reach the loop.
    notifier_it* m_notifier;
    bool m_interact_timer;
    // Loop thread only.
    bool m_idle;
    pass_end_t m_pass_end;
    std::string m_name;
    // The control queue, the channels, the parked message and the timer
    // drive; see src/thread_parts.h.
    std::unique_ptr<parts_t> m_parts;
};

}  // namespace ssb

#endif
