// Message-loop threads.
//
// A thread_wrapper_t is the loop of one thread: it owns a control queue that
// any thread may write to and a wake-up notifier, and runs the messages
// handed to it on its own thread in bounded passes.
#ifndef SSB_THREAD_H
#define SSB_THREAD_H

#include <atomic>
#include <string>

#include "lock.h"
#include "msg_queue.h"

namespace ssb {

class notifier_it;
class thread_mgr_t;

// m_status values.
const unsigned int THREAD_RUNNING = 0;
const unsigned int THREAD_STOPPING = 1;
const unsigned int THREAD_STOPPED = 2;
// Mode bit: the wrapper wraps an already running thread.
const unsigned int THREAD_MODE_WRAP = 8;
// A pass that handled this much load is followed by the next without waiting.
const unsigned int THREAD_PASS_LOAD = 100;
const unsigned int WAIT_INFINITE_MS = 0xFFFFFFFFu;

// Owned by the thread that runs its loop: thread_run, process_msg, stop_i,
// init_tls and cleanup_tls belong to that thread. Any thread may call
// post_ctrl_msg, send_ctrl_msg, notify and stop. Reference-counted.
class UTIL_API thread_wrapper_t : public safe_obj<thread_wrapper_t, thread_mutex_recursive>,
                                  public ref_count_t<null_lock> {
public:
    thread_wrapper_t(unsigned int mode, unsigned int type, unsigned int queue_size, thread_mgr_t* thr_manager,
                     unsigned int waits, bool interact_timer, const signed char* name);

    // One pass: wait on the notifier when the last pass left the thread
    // idle, then process messages.
    virtual void thread_run(void* arg);
    virtual int notify();
    virtual int open_notifier(unsigned int waits);
    virtual int stop_i(thread_wrapper_t* from);
    virtual unsigned int get_id() const { return m_id.load(std::memory_order_relaxed); }
    virtual bool is_running() const { return m_status.load(std::memory_order_acquire) == THREAD_RUNNING; }
    virtual bool is_stopped() const { return m_status.load(std::memory_order_acquire) == THREAD_STOPPED; }
    virtual bool is_stopping() const { return m_status.load(std::memory_order_acquire) == THREAD_STOPPING; }
    // From another thread: returns after the loop ran stop_i. From the
    // loop's own thread: stops at once. 9 when not running.
    virtual int stop();
    virtual void init_tls();

    // Runs one pass over the queues; the load handled.
    unsigned int process_msg(unsigned int max);
    // Sleeps on the notifier (when idle) for at most `timeout_ms`.
    int wait(unsigned int timeout_ms);
    void cleanup_tls();
    // The wrapper of the calling thread, or null.
    static thread_wrapper_t* self();

    // Any thread: through the control queue. 2 when the thread has stopped.
    int post_ctrl_msg(msg_it* msg, msg_queue_sink_it* sink);
    int send_ctrl_msg(msg_it* msg, msg_queue_sink_it* sink, int timeout);
    rw_msg_queue_it* get_rw_msgq() const { return m_ctrl_queue; }
    notifier_it* get_notifier() const { return m_notifier; }

    unsigned int get_type() const { return m_type; }
    unsigned int get_mode() const { return m_mode; }
    const std::string& name() const { return m_name; }

protected:
    ~thread_wrapper_t() override;

private:
    thread_wrapper_t(const thread_wrapper_t&);
    thread_wrapper_t& operator=(const thread_wrapper_t&);

    // Runs or drops one popped message; the load it counts.
    unsigned int run_msg(msg_it* msg, bool control);
    void drain(r_msg_queue_it* queue);

    unsigned int m_mode;
    unsigned int m_type;
    std::atomic<unsigned int> m_id;
    std::atomic<unsigned int> m_status;
    thread_mgr_t* m_thread_manager;
    unsigned int m_queue_size;
    msg_queue_t* m_ctrl_queue;
    notifier_it* m_notifier;
    bool m_idle;
    bool m_interact_timer;
    unsigned int m_timer_precision;
    std::string m_name;
};

}  // namespace ssb

#endif
