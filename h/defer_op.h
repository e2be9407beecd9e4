// Deferred operations: work handed to a loop thread's control queue, to run
// there at its next pass. The message queues use them to call a writer's
// sinks back on the writer's own thread; the thread manager to detach a
// thread outside the pass that asked for it.
#ifndef SSB_DEFER_OP_H
#define SSB_DEFER_OP_H

#include "msg.h"

namespace ssb {

class msg_queue_base_t;
class thread_wrapper_t;

// An operation to run later on a chosen thread.
class UTIL_API deferred_op_it {
public:
    virtual void execute() = 0;
    virtual ~deferred_op_it() {}
};

// Carries a deferred operation to a thread's control queue and runs it
// there. Owns the operation.
class UTIL_API deferred_msg_op_t : public msg_it {
public:
    // Posts `op` to `thr`'s control queue, or to the calling thread's when
    // `thr` is null: 0, 9 when there is no such thread, 3 when the post
    // failed (the operation is then destroyed). Any thread.
    static int launch(thread_wrapper_t* thr, deferred_op_it* op);

    void on_message() override;

protected:
    ~deferred_msg_op_t() override;

private:
    explicit deferred_msg_op_t(deferred_op_it* op);
    deferred_op_it* m_op;
};

// The sink wake-up of a queue, run on the writer's thread. Holds a
// reference on the queue while in flight.
class UTIL_API on_sink_oper : public deferred_op_it {
public:
    explicit on_sink_oper(msg_queue_base_t* queue);
    ~on_sink_oper() override;
    void execute() override;

private:
    on_sink_oper(const on_sink_oper&);
    on_sink_oper& operator=(const on_sink_oper&);

    msg_queue_base_t* m_queue;
};

// What a queue asks of its writer's loop without knowing the thread layer:
// whether it still runs (a stopped writer gets no wake-up), and to keep a
// sink wake-up that found the loop's control queue full, to run at its next
// pass (0, 9 when the loop has stopped).
UTIL_API bool loop_is_running(const thread_wrapper_t* thr);
UTIL_API int loop_hold_sink_wakeup(thread_wrapper_t* thr, msg_queue_base_t* queue);

}  // namespace ssb

#endif
