#include "defer_op.h"

#include "msg_queue.h"
#include "ref_holder.h"
#include "thread.h"
#include "thread_identity.h"
#include "trace.h"

namespace ssb {

namespace {

// The queues' own path: deferred operations began as their sink wake-up.
const char SOURCE_PATH[] = ".\\msg_queue";

}  // namespace

deferred_msg_op_t::deferred_msg_op_t(deferred_op_it* op)
    : msg_it(MSG_TYPE_DEFERRED, 1, MSG_TIMEOUT_NEVER, false), m_op(op) {}

deferred_msg_op_t::~deferred_msg_op_t() { delete m_op; }

void deferred_msg_op_t::on_message() {
    if (m_op)
        m_op->execute();
}

int deferred_msg_op_t::launch(thread_wrapper_t* thr, deferred_op_it* op) {
    if (!thr)
        thr = calling_thread();
    if (!thr) {
        UTIL_ASSERT_MSG("deferred_msg_op_t::launch failed to fetch current thread", SOURCE_PATH, __LINE__, "");
        delete op;
        return RESULT_NOTHING_TO_DO;
    }
    msg_holder_t msg(new deferred_msg_op_t(op));
    if (msg.handed_over(thr->post_ctrl_msg(msg.get(), nullptr)) != RESULT_SUCCESS) {
        UTIL_LOG(LOG_ERROR, "deferred_msg_op_t::launch failed, thr = " << log_ptr(thr));
        return RESULT_QUEUE_FULL;
    }
    return RESULT_SUCCESS;
}

on_sink_oper::on_sink_oper(msg_queue_base_t* queue) : m_queue(queue) {
    if (!queue)
        UTIL_ASSERT_MSG("on_sink_oper::on_sink_oper , msg_queue = " << log_ptr(queue) << " should valid", SOURCE_PATH,
                        __LINE__, ", this = " << log_ptr(this));
    else
        queue->increment();
}

on_sink_oper::~on_sink_oper() {
    if (m_queue)
        m_queue->decrement();
}

void on_sink_oper::execute() {
    if (m_queue)
        m_queue->on_sink();
}

bool loop_is_running(const thread_wrapper_t* thr) { return thr && thr->is_running(); }

int loop_hold_sink_wakeup(thread_wrapper_t* thr, msg_queue_base_t* queue) {
    return thr && queue ? thr->hold_sink_wakeup(queue) : RESULT_INVALID_ARG;
}

}  // namespace ssb
