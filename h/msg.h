// Messages handed from one thread to another through the message queues.
//
// A message is built by its sender, owned by the queue while it waits there
// and by the receiving thread once popped: the receiver calls on_message and
// then release. Nobody deletes a message; release ends its life.
#ifndef SSB_MSG_H
#define SSB_MSG_H

#include "lock.h"
#include "util_def.h"

namespace ssb {

// Kinds of message. Values 1 and 2 are left free for hosts.
enum MSG_TYPE : uint32_t {
    MSG_TYPE_PLAIN = 0,
    MSG_TYPE_SYNC = 3,
    MSG_TYPE_CREATE_CHANNEL = 4,
    MSG_TYPE_RELEASE_CHANNEL = 5,
    MSG_TYPE_TIMER_TICK = 6,
    MSG_TYPE_STOP_THREAD = 7,
    MSG_TYPE_DEFERRED = 8
};

// The time-out of messages that are never overtime.
const uint32_t MSG_TIMEOUT_NEVER = 0xFFFFFFFFu;
// A message released later than this after its creation is reported.
const uint32_t MSG_STAY_WARNING_MS = 5000;

// Identifier answered by sync_msg_t::query_interface.
const uint64_t IID_SYNC_MSG = 0x00000000A5F1C003ULL;

// Base of every message. Touched by one thread at a time: the sender until
// it is pushed, the receiver after it is popped.
class UTIL_API msg_it {
public:
    explicit msg_it(MSG_TYPE type = MSG_TYPE_PLAIN, unsigned int load = 1, unsigned int timeout = MSG_TIMEOUT_NEVER,
                    bool lockable = false);
    msg_it(const msg_it& other) = default;
    msg_it& operator=(const msg_it& other) = default;

    // The work of the message, run on the receiving thread.
    virtual void on_message() = 0;
    // Ends the message's life; a stay of more than 5 s is reported first.
    virtual void release();
    // The age is strictly greater than the time-out.
    virtual bool overtime();
    virtual void dump();
    virtual void* query_interface(uint64_t iid);

    MSG_TYPE get_type() const { return m_type; }
    unsigned int load() const { return m_load; }
    bool is_lockable() const { return m_lockable; }
    unsigned int get_timeout() const { return m_timeout; }
    // The tick stamped at construction.
    uint32_t get_ticks() const { return m_ticks; }

    // Milliseconds from `stamp` to `now`. Across a wrap of the tick counter
    // the age is one less than the modular difference; overtime and release
    // both keep that rule.
    static uint32_t age_of(uint32_t stamp, uint32_t now) { return now >= stamp ? now - stamp : now - stamp - 1; }

protected:
    virtual ~msg_it();

    MSG_TYPE m_type;
    uint32_t m_load;
    uint32_t m_timeout;
    uint32_t m_ticks;
    bool m_lockable;
};

// Wraps a message for a synchronous send. The sender holds one reference
// and waits in wait_for_finish; the queue's reference goes with the wrapper
// to the receiver, whose release runs the wrapped message's release, wakes
// the sender and drops that reference. Whichever side drops the last
// reference destroys the wrapper, so a sender that timed out may leave at
// once. The count and the event are the only state both threads touch.
class UTIL_API sync_msg_t : public msg_it, public ref_count_t<null_lock> {
public:
    // Count 1 (the queue's); the sender takes its own with increment.
    explicit sync_msg_t(msg_it* msg);

    void on_message() override;
    void release() override;
    void* query_interface(uint64_t iid) override;
    void on_self_destroy() override;
    // 0 once the receiver has released the message, 16 after `timeout` ms
    // (a negative time-out waits for ever).
    virtual int wait_for_finish(int timeout);

protected:
    ~sync_msg_t() override;

private:
    sync_msg_t(const sync_msg_t&);
    sync_msg_t& operator=(const sync_msg_t&);

    // Auto-reset and created non-signalled: one sender waits on it once, and
    // a signal that comes before the wait is kept for it.
    event_t m_event;
    msg_it* m_msg;
};

}  // namespace ssb

#endif
