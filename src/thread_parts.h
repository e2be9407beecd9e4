// The parts of a message-loop thread that src/thread.cpp composes: the
// control queue, the channels to its peers, the message parked for a full
// peer, and the timer drive. Internal.
#ifndef SSB_THREAD_PARTS_H
#define SSB_THREAD_PARTS_H

#include <stdint.h>

#include <atomic>
#include <vector>

#include "live_count.h"
#include "msg_queue.h"
#include "ref_holder.h"
#include "ring_queue.h"
#include "stats_internal.h"
#include "thread.h"

namespace ssb {

// The channels of one loop: per bound peer the read queue (peer to us) and
// the write queue (us to peer); each entry holds a reference on the peer and
// both queues. Changed on the loop's own thread only, under the loop's
// lock; the loop reads it without the lock, other threads with it.
class channel_map_t {
public:
    struct channel_t {
        ref_holder_t<thread_wrapper_t> peer;
        ref_holder_t<r_msg_queue_it> read;
        ref_holder_t<w_msg_queue_it> write;
        // The read queue's statistics; null for a queue of another kind.
        queue_counters_t* counters;
    };

    ~channel_map_t();

    channel_t* find(thread_wrapper_t* peer);
    size_t size() const { return m_channels.size(); }
    bool empty() const { return m_channels.empty(); }
    channel_t& at(size_t i) { return m_channels[i]; }
    thread_wrapper_t* last_peer() const { return m_channels.back().peer.get(); }
    // Bumped by every bind and detach: a pass that sees it move stops
    // iterating, as the list may have moved under it.
    uint64_t epoch() const { return m_epoch; }

    // False when `peer` is bound already.
    bool bind(thread_wrapper_t* peer, r_msg_queue_it* r, w_msg_queue_it* w);
    // Drops `peer`'s channel, releasing what its read queue holds; false
    // when not bound. `had_pending` tells whether messages were dropped.
    bool detach(thread_wrapper_t* peer, bool& had_pending);
    // Drops what every read queue holds.
    void drain_all();
    // Frees the read queues of released channels that no writer can reach
    // any more; cheap when there are none.
    void free_retired();
    size_t retired() const { return m_retired.size(); }

private:
    std::vector<channel_t> m_channels;
    // Read queues of released channels whose writer may still push: freed
    // once the peer has let go of its end, so a message that raced the
    // release is released, not leaked, and memory stays flat.
    std::vector<ref_holder_t<r_msg_queue_it>> m_retired;
    uint64_t m_epoch = 0;
};

// Releases every message a queue holds. Loop thread.
void drain_queue(r_msg_queue_it* queue);

// A message waiting on this thread for room in its target's queue.
struct parked_msg_t {
    msg_holder_t msg;
    ref_holder_t<thread_wrapper_t> target;
};

// What the loop keeps for its timers. The wheel and the lap remainder
// belong to the loop's thread; the driver reads the published copies of
// the wheel's state, and the outstanding-tick marks are pushed by the
// driver and popped by either side.
class timer_drive_t {
public:
    timer_drive_t();

    unsigned int precision() const { return m_precision.load(std::memory_order_relaxed); }
    // 10..1000 ms: 0; else 2 with the caller's assertion line.
    int set_precision(unsigned int ms, const thread_wrapper_t* owner);

    // Loop thread.
    ref_holder_t<timer_queue_t> wheel;
    uint32_t lap_remainder = 0;
    // Set while process_timer runs the wheel.
    bool processing = false;
    std::unique_ptr<timer_elem_t> alive_timer;
    // Written by the loop thread, read by the driver.
    std::atomic<uint32_t> last_drive;
    std::atomic<uint32_t> align_ms{0};
    std::atomic<bool> has_wheel{false};
    std::atomic<uint32_t> interval_ms{640};
    std::atomic<uint32_t> digit0{0};
    std::atomic<bool> immediate{false};
    std::atomic<uint32_t> timers{0};
    // Low-power mode: when the wheel is next due, as a tick stamp.
    std::atomic<uint32_t> due_at{0};
    // Tick messages run, for statistics.
    std::atomic<uint64_t> ticks_run{0};
    // Driver thread only.
    uint32_t last_report = 0;
    uint32_t tick_sent_at = 0;
    // Non-empty while a tick message is outstanding.
    ring_queue_mr_mw_t<bool> pause;

private:
    std::atomic<unsigned int> m_precision{MIN_TIMER_PRECISION_MS};
};

struct thread_wrapper_t::parts_t {
    ref_holder_t<msg_queue_t> ctrl_queue;
    // The stop's fallback when its message finds the control queue full:
    // every pass looks at the flag, so a stop always reaches the loop.
    std::atomic<bool> stop_requested{false};
    // Signalled once the loop has stopped, for a stopper that could not
    // hand over its message and so waits here.
    event_t stopped{true, false};
    // Sink wake-ups that found the control queue full; any thread adds
    // under the loop's lock, the pass runs them.
    std::vector<ref_holder_t<msg_queue_base_t>> held_wakeups;
    std::atomic<bool> has_held_wakeups{false};
    channel_map_t channels;
    parked_msg_t parked;
    timer_drive_t timer;
    // Who runs a wrapped loop: its own thread inside thread_run, or a
    // thread that stopped it from outside while it was not (after which its
    // thread never runs a pass again). PASS_* values.
    std::atomic<unsigned int> pass_owner{0};
    // Nesting of thread_run on the loop's own thread (a message that pumps).
    unsigned int pass_depth = 0;
    thread_counters_t stats;
};

// parts_t::pass_owner values.
const unsigned int PASS_FREE = 0;
const unsigned int PASS_RUNNING = 1;
const unsigned int PASS_TAKEN = 2;

}  // namespace ssb

#endif
