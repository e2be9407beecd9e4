#include "thread_waits.h"

#include <atomic>
#include <memory>

#include "thread_identity.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = "thread";

// Carries a sent message and records that it ran: a stop drops queued
// messages unrun, and the sender must not take that for success. The flag
// is shared, as a sender whose wait timed out may leave before it runs.
class ran_msg_t : public msg_it {
public:
    ran_msg_t(msg_it* inner, std::shared_ptr<std::atomic<bool>> ran)
        : msg_it(inner->get_type(), inner->load(), MSG_TIMEOUT_NEVER, inner->is_lockable()),
          m_inner(inner),
          m_ran(std::move(ran)) {}
    void on_message() override {
        m_ran->store(true, std::memory_order_release);
        m_inner->on_message();
    }
    // A send refused before the hand-over leaves the message the caller's.
    void disown() { m_inner = nullptr; }

protected:
    ~ran_msg_t() override {
        if (m_inner)
            m_inner->release();
    }

private:
    msg_it* m_inner;
    std::shared_ptr<std::atomic<bool>> m_ran;
};

}  // namespace

// Sends `msg` through `queue` and waits: the queue's result, or 9 when the
// message was released without running (its thread stopped first).
int send_tracked(w_msg_queue_it* queue, msg_it* msg, msg_queue_sink_it* sink, int timeout) {
    if (!msg)
        return queue->send_msg(msg, sink, timeout);
    std::shared_ptr<std::atomic<bool>> ran = std::make_shared<std::atomic<bool>>(false);
    ran_msg_t* carrier = new ran_msg_t(msg, ran);
    const int rv = queue->send_msg(carrier, sink, timeout);
    if (rv != RESULT_SUCCESS && rv != RESULT_BUSY) {
        carrier->disown();
        carrier->release();
        return rv;
    }
    return rv == RESULT_SUCCESS && !ran->load(std::memory_order_acquire) ? RESULT_NOTHING_TO_DO : rv;
}

wait_for_t::wait_for_t(const char* op, const thread_wrapper_t* target) : m_rv(waits::enter(target->get_id())) {
    if (m_rv != RESULT_SUCCESS)
        UTIL_ASSERT_MSG(op << " would wait for a thread that waits for the caller, target = " << log_ptr(target),
                        SOURCE_PATH, __LINE__, ", tid = " << get_cur_tid());
}

wait_for_t::~wait_for_t() {
    if (m_rv == RESULT_SUCCESS)
        waits::leave();
}

}  // namespace ssb
