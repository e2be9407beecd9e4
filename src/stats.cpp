#include "stats.h"

#include <algorithm>
#include <chrono>

#include "msg_queue.h"
#include "ref_holder.h"
#include "stats_internal.h"
#include "thread.h"
#include "thread_mgr.h"
#include "thread_parts.h"
#include "trace.h"

namespace ssb {

namespace detail {

// Alone on its line: every message reads it, and nothing near it may be
// written often.
alignas(64) std::atomic<bool> s_stats_on(true);

}  // namespace detail

namespace {

// The timer driver's wake-ups: the total, and the rate of the last whole
// window of at least a second. Written by the driver thread only.
std::atomic<uint64_t> s_wakeups(0);
std::atomic<uint64_t> s_wakeups_last_s(0);
uint64_t s_window_start_us = 0;
uint64_t s_window_count = 0;

const uint64_t WINDOW_US = 1000000;

uint64_t bucket_top(unsigned int i) {
    if (i == 0)
        return 0;
    return i < STATS_BUCKETS - 1 ? (uint64_t(1) << i) - 1 : UINT64_MAX;
}

}  // namespace

uint64_t stats_now_ns() {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

// ---- histograms ---------------------------------------------------------------

unsigned int histogram_t::bucket_of(uint64_t value) {
    // The value's bit width, in one instruction: every pass and timed
    // message lands here.
    if (value == 0)
        return 0;
    const unsigned int bits = 64 - static_cast<unsigned int>(__builtin_clzll(value));
    return bits < STATS_BUCKETS - 1 ? bits : STATS_BUCKETS - 1;
}

uint64_t histogram_t::total() const {
    uint64_t n = 0;
    for (uint64_t c : counts)
        n += c;
    return n;
}

uint64_t histogram_t::percentile(double p) const {
    const uint64_t n = total();
    if (n == 0)
        return 0;
    if (p > 1)
        p = 1;
    // The rank of the value asked for, 1-based, at least the first.
    uint64_t rank = static_cast<uint64_t>(p * static_cast<double>(n));
    if (static_cast<double>(rank) < p * static_cast<double>(n))
        ++rank;
    if (rank == 0)
        rank = 1;
    uint64_t seen = 0;
    for (unsigned int i = 0; i < STATS_BUCKETS; ++i) {
        seen += counts[i];
        if (seen >= rank)
            return bucket_top(i) < max ? bucket_top(i) : max;
    }
    return max;
}

uint64_t histogram_t::mean() const {
    const uint64_t n = total();
    return n ? sum / n : 0;
}

void histogram_t::merge(const histogram_t& other) {
    for (unsigned int i = 0; i < STATS_BUCKETS; ++i)
        counts[i] += other.counts[i];
    sum += other.sum;
    if (other.max > max)
        max = other.max;
}

void histogram_rec_t::read(histogram_t& out) const {
    for (unsigned int i = 0; i < STATS_BUCKETS; ++i)
        out.counts[i] = m_counts[i].load(std::memory_order_relaxed);
    out.max = m_max.load(std::memory_order_relaxed);
    out.sum = m_sum.load(std::memory_order_relaxed);
}

// ---- queues ---------------------------------------------------------------------

bool queue_counters_t::claim_sample(const msg_it* msg, uint32_t tick) {
    if (tick == sample_tick.load(std::memory_order_relaxed) || sample.load(std::memory_order_relaxed))
        return false;
    const msg_it* none = nullptr;
    // Acquire: the reader's reads of the last sample come before this
    // writer's stores of the next.
    if (!sample.compare_exchange_strong(none, msg, std::memory_order_acquire, std::memory_order_relaxed))
        return false;
    sample_tick.store(tick, std::memory_order_relaxed);
    sample_ns.store(stats_now_ns(), std::memory_order_relaxed);
    return true;
}

void queue_counters_t::drop_sample(const msg_it* msg) {
    const msg_it* mine = msg;
    sample.compare_exchange_strong(mine, nullptr, std::memory_order_release, std::memory_order_relaxed);
}

void queue_counters_t::finish_sample() {
    // The push that carried the sampled message ordered its stores before
    // this pop.
    const uint64_t start = sample_ns.load(std::memory_order_relaxed);
    const uint64_t now = stats_now_ns();
    delay_us.add(now > start ? (now - start) / 1000 : 0);
    sample.store(nullptr, std::memory_order_release);
}

void queue_counters_t::read(queue_stats_t& out, uint32_t depth) const {
    out.popped = popped.load(std::memory_order_relaxed);
    out.run = run.load(std::memory_order_relaxed);
    out.overtime = overtime.load(std::memory_order_relaxed);
    out.refused = refused.load(std::memory_order_relaxed);
    out.depth = depth < depth_limit ? depth : depth_limit;
    out.posted = out.popped + depth;
    // Writers read the depth exactly only when it may pass the mark, so
    // the mark cannot be below what is queued now.
    out.high_water = std::max(high_water.load(std::memory_order_relaxed), out.depth);
    delay_us.read(out.delay_us);
}

// ---- the timer driver --------------------------------------------------------------

void note_driver_wakeup(uint64_t now_us) {
    bump(s_wakeups);
    ++s_window_count;
    if (s_window_start_us == 0 || now_us < s_window_start_us) {
        s_window_start_us = now_us;
        s_window_count = 0;
    } else if (now_us - s_window_start_us >= WINDOW_US) {
        s_wakeups_last_s.store(s_window_count * WINDOW_US / (now_us - s_window_start_us), std::memory_order_relaxed);
        s_window_start_us = now_us;
        s_window_count = 0;
    }
}

void read_driver_wakeups(uint64_t& total, uint64_t& last_second) {
    total = s_wakeups.load(std::memory_order_relaxed);
    last_second = s_wakeups_last_s.load(std::memory_order_relaxed);
}

// ---- snapshots ----------------------------------------------------------------------

void stats_enable(bool on) {
    UTIL_LOG(LOG_INFO, "stats_enable, on = " << on);
    detail::s_stats_on.store(on, std::memory_order_relaxed);
}

bool stats_enabled() { return stats_on(); }

int get_thread_stats(thread_wrapper_t* thr, thread_stats_t& out) {
    if (!thr) {
        out = thread_stats_t();
        return RESULT_INVALID_ARG;
    }
    thr->read_stats(out);
    return RESULT_SUCCESS;
}

void thread_wrapper_t::read_stats(thread_stats_t& out) {
    out = thread_stats_t();
    out.name = name();
    out.id = get_id();
    parts_t& parts = *m_parts;
    const thread_counters_t& c = parts.stats;
    out.passes = c.passes.load(std::memory_order_relaxed);
    out.busy_us = c.busy_ns.load(std::memory_order_relaxed) / 1000;
    out.messages = c.messages.load(std::memory_order_relaxed);
    out.ticks = parts.timer.ticks_run.load(std::memory_order_relaxed);
    c.msgs_per_pass.read(out.msgs_per_pass);
    c.timer_late_ms.read(out.timer_late_ms);
    // The channel list and the control queue change under the loop's lock.
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    if (msg_queue_t* control = parts.ctrl_queue.get()) {
        control->counters()->read(out.control, control->depth());
        out.control.peer = "control";
    }
    channel_map_t& channels = parts.channels;
    for (size_t i = 0; i < channels.size(); ++i) {
        channel_map_t::channel_t& ch = channels.at(i);
        const msg_queue_base_t* queue = dynamic_cast<const msg_queue_base_t*>(ch.read.get());
        if (!ch.counters || !queue)
            continue;
        out.channels.emplace_back();
        ch.counters->read(out.channels.back(), queue->depth());
        out.channels.back().peer = ch.peer->name();
    }
}

void get_process_stats(process_stats_t& out) {
    out = process_stats_t();
    if (thread_mgr_t* mgr = thread_mgr_t::peek())
        mgr->collect_stats(out.threads);
    read_alloc_classes(out.alloc);
    read_driver_wakeups(out.driver_wakeups, out.driver_wakeups_last_s);
}

namespace {

void log_queue(const thread_stats_t& t, const queue_stats_t& q) {
    UTIL_LOG(LOG_INFO, "stats queue " << t.name << " <- " << q.peer << ": posted = " << q.posted << ", run = " << q.run
                                      << ", overtime = " << q.overtime << ", refused = " << q.refused
                                      << ", depth = " << q.depth << ", high_water = " << q.high_water
                                      << ", delay_us p50/p99/max = " << q.delay_us.percentile(0.5) << "/"
                                      << q.delay_us.percentile(0.99) << "/" << q.delay_us.max
                                      << ", timed = " << q.delay_us.total());
}

}  // namespace

void dump_stats() {
    process_stats_t s;
    get_process_stats(s);
    for (const thread_stats_t& t : s.threads) {
        UTIL_LOG(LOG_INFO, "stats thread " << t.name << ", id = " << t.id << ", passes = " << t.passes
                                           << ", busy_us = " << t.busy_us << ", messages = " << t.messages
                                           << ", msgs_per_pass p50/p99/max = " << t.msgs_per_pass.percentile(0.5) << "/"
                                           << t.msgs_per_pass.percentile(0.99) << "/" << t.msgs_per_pass.max
                                           << ", ticks = " << t.ticks
                                           << ", timer_late_ms p50/p99/max = " << t.timer_late_ms.percentile(0.5) << "/"
                                           << t.timer_late_ms.percentile(0.99) << "/" << t.timer_late_ms.max);
        log_queue(t, t.control);
        for (const queue_stats_t& q : t.channels)
            log_queue(t, q);
    }
    for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k)
        UTIL_LOG(LOG_INFO, "stats alloc class "
                               << k << ", bytes = " << s.alloc[k].bytes << ", requests = " << s.alloc[k].requests
                               << ", hits = " << s.alloc[k].hits << ", misses = " << s.alloc[k].misses);
    UTIL_LOG(LOG_INFO,
             "stats timer driver wakeups = " << s.driver_wakeups << ", last second = " << s.driver_wakeups_last_s);
}

}  // namespace ssb
