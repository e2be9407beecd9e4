// The counters behind h/stats.h. Each counter has one writing thread (or
// its writers share a lock), so it is bumped with a relaxed load and store,
// never a read-modify-write; snapshots read them relaxed from any thread.
// Internal.
#ifndef SSB_STATS_INTERNAL_H
#define SSB_STATS_INTERNAL_H

#include <stdint.h>

#include <atomic>

#include "stats.h"

namespace ssb {

class msg_it;

namespace detail {

extern std::atomic<bool> s_stats_on;

}  // namespace detail

inline bool stats_on() { return detail::s_stats_on.load(std::memory_order_relaxed); }

// Monotonic nanoseconds for the sampled delays and busy times.
uint64_t stats_now_ns();

inline void bump(std::atomic<uint64_t>& n, uint64_t by = 1) {
    n.store(n.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

// A histogram with one writing thread.
class histogram_rec_t {
public:
    void add(uint64_t value) {
        bump(m_counts[histogram_t::bucket_of(value)]);
        bump(m_sum, value);
        if (value > m_max.load(std::memory_order_relaxed))
            m_max.store(value, std::memory_order_relaxed);
    }
    void read(histogram_t& out) const;

private:
    std::atomic<uint64_t> m_counts[STATS_BUCKETS] = {};
    std::atomic<uint64_t> m_max{0};
    std::atomic<uint64_t> m_sum{0};
};

// One queue's counters. Writers touch their own line (refusals, the
// high-water mark) and only read it on the common path; the delay sample
// and the reader's counts sit on lines of their own.
struct queue_counters_t {
    // Writers. A queue with several writers updates these under no common
    // lock: refusals are a read-modify-write (rare), the high-water mark a
    // compare-exchange only when it grows.
    alignas(64) std::atomic<uint64_t> refused{0};
    std::atomic<uint32_t> high_water{0};
    // Most messages the ring holds: the cap on any depth read.
    uint32_t depth_limit = UINT32_MAX;
    // The message being timed, its writer's tick when it was claimed, and
    // when it was posted. At most one in flight; the reader frees the slot.
    // A line of its own: the reader looks at it on every pop, and the
    // writers write it at most once a millisecond.
    alignas(64) std::atomic<const msg_it*> sample{nullptr};
    std::atomic<uint32_t> sample_tick{0};
    std::atomic<uint64_t> sample_ns{0};

    // The reader: popped by the queue, run and overtime by the loop.
    alignas(64) std::atomic<uint64_t> popped{0};
    std::atomic<uint64_t> run{0};
    std::atomic<uint64_t> overtime{0};
    histogram_rec_t delay_us;

    // Before a push: claims the sample slot for `msg` when it is free and
    // no message of the same writer tick was timed. True when claimed.
    bool claim_sample(const msg_it* msg, uint32_t tick);
    // After a refused push of a claimed message.
    void drop_sample(const msg_it* msg);
    // A depth seen by a writer after its push, or a refusal's full ring.
    void note_depth(uint32_t depth) {
        if (depth > depth_limit)
            depth = depth_limit;
        uint32_t seen = high_water.load(std::memory_order_relaxed);
        while (depth > seen && !high_water.compare_exchange_weak(seen, depth, std::memory_order_relaxed)) {
        }
    }
    void note_popped(const msg_it* msg) {
        bump(popped);
        if (msg == sample.load(std::memory_order_relaxed))
            finish_sample();
    }
    void finish_sample();
    void read(queue_stats_t& out, uint32_t depth) const;
};

// One loop thread's counters; written by the loop's thread.
struct thread_counters_t {
    std::atomic<uint64_t> passes{0};
    std::atomic<uint64_t> busy_ns{0};
    std::atomic<uint64_t> messages{0};
    histogram_rec_t msgs_per_pass;
    histogram_rec_t timer_late_ms;
};

// Times a loop pass from its first message; counts nothing for a pass
// that ran none. Loop thread.
class pass_meter_t {
public:
    explicit pass_meter_t(thread_counters_t& counters) : m_counters(counters) {}
    pass_meter_t(const pass_meter_t&) = delete;
    pass_meter_t& operator=(const pass_meter_t&) = delete;
    ~pass_meter_t() {
        if (m_start == 0)
            return;
        bump(m_counters.passes);
        bump(m_counters.messages, m_messages);
        bump(m_counters.busy_ns, stats_now_ns() - m_start);
        m_counters.msgs_per_pass.add(m_messages);
    }
    void count() {
        if (m_messages++ == 0 && stats_on())
            m_start = stats_now_ns();
    }

private:
    thread_counters_t& m_counters;
    uint64_t m_start = 0;
    uint64_t m_messages = 0;
};

// The timer driver's wake-ups; driver thread.
void note_driver_wakeup(uint64_t now_us);
void read_driver_wakeups(uint64_t& total, uint64_t& last_second);
// The allocator's class records summed over every thread cache, live and
// gone. In src/alloc.cpp.
void read_alloc_classes(alloc_class_stats_t* out);

}  // namespace ssb

#endif
