// Live statistics of the message loops, the timer driver and the allocator.
//
// Always on unless a host turns them off: the hot path pays a few
// counters that only the updating thread writes (no read-modify-write) and
// a bucket increment. Queueing delay is sampled: a queue times at most one
// message per millisecond of its writer's tick clock, so a quiet queue
// times every message and a busy one pays one clock read per millisecond.
//
// Snapshots may be taken from any thread. Counters are read without
// stopping anyone, so a snapshot is consistent per counter, not across
// counters (posted may run a message ahead of run).
#ifndef SSB_STATS_H
#define SSB_STATS_H

#include <stdint.h>

#include <string>
#include <vector>

#include "alloc.h"
#include "util_def.h"

namespace ssb {

class thread_wrapper_t;

// Buckets of a histogram: bucket 0 counts values of 0, bucket i (1..30)
// values in [2^(i-1), 2^i), bucket 31 everything from 2^30 up.
const unsigned int STATS_BUCKETS = 32;

struct UTIL_API histogram_t {
    uint64_t counts[STATS_BUCKETS] = {};
    uint64_t max = 0;
    uint64_t sum = 0;

    uint64_t total() const;
    // The upper bound of the bucket holding the p-th fraction (0..1] of the
    // values, capped at max; 0 when empty.
    uint64_t percentile(double p) const;
    uint64_t mean() const;
    // Adds another snapshot in.
    void merge(const histogram_t& other);
    static unsigned int bucket_of(uint64_t value);
};

// One queue: a channel from `peer` or the control queue.
struct UTIL_API queue_stats_t {
    std::string peer;         // the writer's thread name; "control" for the control queue
    uint64_t posted = 0;      // accepted by the queue
    uint64_t popped = 0;      // taken out by the reader
    uint64_t run = 0;         // run by the loop
    uint64_t overtime = 0;    // dropped by the loop as overtime
    uint64_t refused = 0;     // refused as full
    uint32_t depth = 0;       // messages waiting now
    uint32_t high_water = 0;  // most messages waiting at once
    histogram_t delay_us;     // sampled posted -> popped, microseconds
};

struct UTIL_API thread_stats_t {
    std::string name;
    unsigned int id = 0;
    uint64_t passes = 0;    // passes that ran at least one message
    uint64_t busy_us = 0;   // time inside those passes
    uint64_t messages = 0;  // messages run (channels and control queue)
    uint64_t ticks = 0;     // timer tick messages run
    histogram_t msgs_per_pass;
    // Milliseconds a wheel step ran behind its due time, per step that
    // fired a timer (the tick clock's resolution).
    histogram_t timer_late_ms;
    queue_stats_t control;
    std::vector<queue_stats_t> channels;
};

struct UTIL_API alloc_class_stats_t {
    unsigned int bytes = 0;  // the class's block size
    uint64_t requests = 0;
    uint64_t hits = 0;    // served from a thread cache
    uint64_t misses = 0;  // requests - hits: served by the pool or the heap
};

struct UTIL_API process_stats_t {
    std::vector<thread_stats_t> threads;
    alloc_class_stats_t alloc[ALLOC_CLASS_COUNT];
    uint64_t driver_wakeups = 0;         // the timer driver's wake-ups since it started
    uint64_t driver_wakeups_last_s = 0;  // in the last whole second
};

// Whether the counters run; on by default. Any thread.
UTIL_API void stats_enable(bool on);
UTIL_API bool stats_enabled();

// A snapshot of one thread: 0, 2 for null.
UTIL_API int get_thread_stats(thread_wrapper_t* thr, thread_stats_t& out);
// Every thread the thread manager knows, the allocator and the driver.
UTIL_API void get_process_stats(process_stats_t& out);
// The process snapshot at INFO, one line per thread and queue.
UTIL_API void dump_stats();

}  // namespace ssb

#endif
