// The synchronous waits of the thread family: a wait that would close a
// cycle is refused, and a sent message that a stop dropped unrun is told
// apart from one that ran. Internal.
#ifndef SSB_THREAD_WAITS_H
#define SSB_THREAD_WAITS_H

#include "msg_queue.h"
#include "thread.h"

namespace ssb {

// A synchronous wait of the calling thread for `target`, refused (12, with
// an assertion line) when `target` already waits for the caller, directly
// or through other threads: that wait could never end.
class wait_for_t {
public:
    wait_for_t(const char* op, const thread_wrapper_t* target);
    ~wait_for_t();
    wait_for_t(const wait_for_t&) = delete;
    wait_for_t& operator=(const wait_for_t&) = delete;
    int refused() const { return m_rv; }

private:
    int m_rv;
};

// Sends `msg` through `queue` and waits: the queue's result, or 9 when the
// message was released without running (its thread stopped first).
int send_tracked(w_msg_queue_it* queue, msg_it* msg, msg_queue_sink_it* sink, int timeout);

}  // namespace ssb

#endif
