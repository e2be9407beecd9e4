// Bounded message queues between threads, with wake-up and back-pressure.
//
// Writers put msg_it pointers in; one reader thread takes them out and
// sleeps on a notifier that writers signal. A full queue never blocks: the
// writer gets RESULT_QUEUE_FULL at once, keeps its message, and may register
// a sink that is called back on the writer's own thread once the reader has
// made room.
#ifndef SSB_MSG_QUEUE_H
#define SSB_MSG_QUEUE_H

#include <atomic>
#include <list>
#include <memory>

#include "defer_op.h"
#include "lock.h"
#include "msg.h"
#include "ring_queue.h"

namespace ssb {

class notifier_it;
class thread_wrapper_t;
struct queue_counters_t;

// Called back, on the writer's thread, when room was made in a queue that
// it found full. `reason` is 0.
class UTIL_API msg_queue_sink_it {
public:
    virtual void on_queue_room(int reason) = 0;
    virtual ~msg_queue_sink_it() {}
};

// The reader's side. Only the reader thread calls it.
class UTIL_API r_msg_queue_it : public virtual ref_count_it {
public:
    // 0 with the oldest message, 7 when empty.
    virtual int pop_msg(msg_it*& msg) = 0;
    virtual bool is_empty() = 0;
};

// The writers' side.
class UTIL_API w_msg_queue_it : public virtual ref_count_it {
public:
    // 0, 3 when full (the message stays the caller's), 2 for a null message.
    virtual int post_msg(msg_it* msg, msg_queue_sink_it* sink) = 0;
    // Waits up to `timeout` ms (negative: for ever) for the reader to run
    // the message: 0 when it ran, 16 when the wait timed out (it still runs
    // later), 3 when full.
    virtual int send_msg(msg_it* msg, msg_queue_sink_it* sink, int timeout) = 0;
    // 0, 2 for a null sink, 10 when already registered.
    virtual int register_sink(msg_queue_sink_it* sink) = 0;
    // 10 when registered, 5 when not; the sink stays listed either way and
    // is forgotten at the next wake-up.
    virtual int unregister_sink(msg_queue_sink_it* sink) = 0;
    virtual bool is_full() = 0;
    virtual bool is_close() = 0;
};

class UTIL_API rw_msg_queue_it : public r_msg_queue_it, public w_msg_queue_it {};

// When writers signal the reader's notifier.
const unsigned int MSG_QUEUE_SIGNAL_ALWAYS = 0;
const unsigned int MSG_QUEUE_SIGNAL_WHEN_EMPTY = 1;
// m_status: 1 normal, 2 a writer found the queue full since the last pop.
const uint32_t MSG_QUEUE_STATUS_NORMAL = 1;
const uint32_t MSG_QUEUE_STATUS_FULL = 2;

// What both queues share: the reader's notifier, the full/normal status and
// the sinks. Reference-counted; users release, never delete. The sink list
// is guarded by the queue's own recursive lock.
class UTIL_API msg_queue_base_t : public safe_obj<msg_queue_base_t, thread_mutex_recursive>,
                                  public virtual ref_count_it {
public:
    int open_notifier(notifier_it* notifier);
    notifier_it* get_notifier() const { return m_reader.load(std::memory_order_acquire); }
    uint32_t status() const { return m_status.load(std::memory_order_relaxed); }

    // Calls every registered sink with 0, in registration order, and forgets
    // them. Runs on the writer's thread.
    void on_sink();
    // Beyond the described interface (unregister_sink leaves a sink listed
    // until the next wake-up): removes `sink` so it is never called again.
    // When a call to it is under way on the writer's thread, returns after
    // that call (at once from inside the call-back itself). Any thread. 0,
    // 5 when not listed, 2 for null.
    int withdraw_sink(msg_queue_sink_it* sink);
    // Hands the sink wake-up to `writer`'s thread when a writer found the
    // queue full: 0, 9 when that thread has stopped, 12 without a thread.
    int lanuch_on_sink(thread_wrapper_t* writer);
    // Statistics (src/stats_internal.h) and the messages waiting now (a
    // snapshot from any thread).
    queue_counters_t* counters() const { return m_counters.get(); }
    virtual uint32_t depth() const = 0;

    void* query_interface(uint64_t iid) override;
    uint32_t increment() override { return m_ref.inc(); }
    uint32_t decrement() override;
    uint32_t get_count() override { return m_ref.load(); }
    void on_self_destroy() override { delete this; }

protected:
    explicit msg_queue_base_t(notifier_it* reader);
    ~msg_queue_base_t() override;

    int add_sink(msg_queue_sink_it* sink) { return sink_op(sink, true); }
    int find_sink(msg_queue_sink_it* sink) { return sink_op(sink, false); }
    int sink_op(msg_queue_sink_it* sink, bool add);
    void signal_reader();
    // After a push: true when it took the reader's idle flag.
    bool take_idle();
    // After a successful push: true when the reader must be signalled.
    bool wake_needed(unsigned int mode);
    // After a successful push that left `depth` values queued (at most).
    void note_depth(uint32_t depth);
    // The mark a push's depth must pass to be worth reading exactly.
    uint32_t depth_mark() const;
    // Reader: after an empty pop, before the reader may sleep. True when the
    // ring must be looked at again (see take_idle).
    bool going_idle();
    // A null message: the assertion line and 2.
    int refuse_null(int line);
    // After a ring push with result `rv` that left at most `depth` values
    // queued (0 when not counted): status and wake-up; returns rv.
    int after_push(int rv, unsigned int mode, uint32_t depth);
    // After a ring pop: the sink hand-over; returns rv.
    int after_pop(int rv, thread_wrapper_t* writer);
    // Around a post's ring push: times the message when its turn comes.
    bool before_post(msg_it* msg);
    void after_post(int rv, msg_it* msg, bool sampled);
    void counted_pop(int rv, msg_it* msg);
    // Pushes and signals as the mode says: 0 or 3.
    virtual int push_signalled(msg_it* msg) = 0;
    // A snapshot of the ring, and the thread sinks are called back on.
    virtual bool ring_full() const = 0;
    virtual thread_wrapper_t* sink_thread() const = 0;
    // The synchronous hand-over of send_msg once the queue had room.
    int send_through(const char* name, msg_it* msg, int timeout);

    // Read by both sides on every message and written once: a line apart
    // from the words the sides write.
    std::atomic<notifier_it*> m_reader;
    std::unique_ptr<queue_counters_t> m_counters;
    std::list<msg_queue_sink_it*> m_sinks UTIL_GUARDED_BY(m_lock);
    // The sinks of the wake-up under way, and the one being called now (on
    // the thread m_calling_tid), which the lock is not held across.
    std::list<msg_queue_sink_it*> m_firing UTIL_GUARDED_BY(m_lock);
    msg_queue_sink_it* m_calling UTIL_GUARDED_BY(m_lock) = nullptr;
    unsigned int m_calling_tid UTIL_GUARDED_BY(m_lock) = 0;
    // Written by writers and the reader without a lock: a lost update only
    // delays or repeats a sink wake-up.
    alignas(64) std::atomic<uint32_t> m_status;
    char m_status_pad[64 - sizeof(std::atomic<uint32_t>)];
    // 1 from the reader's empty pop until a writer takes it to signal: the
    // reader may be asleep. Every push reads it: a line of its own, written
    // once per idle spell.
    alignas(64) std::atomic<uint32_t> m_idle;
    char m_idle_pad[64 - sizeof(std::atomic<uint32_t>)];
    // Reader only: no pop has succeeded since going_idle's fence.
    alignas(64) bool m_idle_marked;
    char m_reader_pad[64 - sizeof(bool)];

private:
    detail::ref_counter_t<null_lock> m_ref;
};

// One writer thread to one reader thread, over an unlocked ring.
class UTIL_API o2o_msg_queue_t : public msg_queue_base_t, public rw_msg_queue_it {
public:
    // `writer` is the thread on which sinks are called back; `capacity` is
    // the ring's node count (the queue holds capacity - 1 messages).
    o2o_msg_queue_t(notifier_it* reader, thread_wrapper_t* writer, unsigned int capacity, unsigned int mode);

    int post_msg(msg_it* msg, msg_queue_sink_it* sink) override;
    int send_msg(msg_it* msg, msg_queue_sink_it* sink, int timeout) override;
    int pop_msg(msg_it*& msg) override;
    bool is_empty() override { return m_ring.is_empty(); }
    bool is_full() override { return m_ring.is_full(); }
    bool is_close() override { return false; }
    int register_sink(msg_queue_sink_it* sink) override { return add_sink(sink); }
    int unregister_sink(msg_queue_sink_it* sink) override { return find_sink(sink); }
    uint32_t depth() const override { return m_ring.size(); }
    thread_wrapper_t* writer() const { return m_writer; }

protected:
    ~o2o_msg_queue_t() override;
    int push_signalled(msg_it* msg) override;
    bool ring_full() const override { return m_ring.is_full(); }
    thread_wrapper_t* sink_thread() const override { return m_writer; }

private:
    int push_counted(msg_it* msg, uint32_t& depth);

    thread_wrapper_t* m_writer;
    ring_queue_t<msg_it*> m_ring;
    unsigned int m_mode;
};

// Any writer threads to one reader thread; writers take the ring's lock.
class UTIL_API msg_queue_t : public rw_msg_queue_it, public msg_queue_base_t {
public:
    msg_queue_t(notifier_it* reader, thread_wrapper_t* writer, unsigned int capacity, unsigned int mode);

    int post_msg(msg_it* msg, msg_queue_sink_it* sink) override;
    int send_msg(msg_it* msg, msg_queue_sink_it* sink, int timeout) override;
    int pop_msg(msg_it*& msg) override;
    bool is_empty() override { return m_ring.is_empty(); }
    bool is_full() override { return m_ring.is_full(); }
    bool is_close() override { return false; }
    int register_sink(msg_queue_sink_it* sink) override { return add_sink(sink); }
    int unregister_sink(msg_queue_sink_it* sink) override { return find_sink(sink); }
    uint32_t depth() const override { return m_ring.size(); }

protected:
    ~msg_queue_t() override;
    int push_signalled(msg_it* msg) override;
    bool ring_full() const override { return m_ring.is_full(); }
    thread_wrapper_t* sink_thread() const override { return m_writer; }

private:
    int push_counted(msg_it* msg, uint32_t& depth);

    thread_wrapper_t* m_writer;
    ring_queue_or_mw_t<msg_it*> m_ring;
    unsigned int m_mode;
};

}  // namespace ssb

#endif
