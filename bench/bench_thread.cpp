// Message-loop threads: two event threads bound by a channel against the
// threads a user would write instead, a boost::asio::io_context run by one
// thread each, and a std::mutex + std::condition_variable mailbox whose
// worker drains everything queued per wake-up.
//
// loop_to_loop_throughput/<side>/capacity:C/alloc:A/place:P: a batch of 20,000 small
// messages from one thread to another (allocate, post, wake, run, release),
// time per message. Ours posts from a message running on thread A and, on a
// full channel, keeps the message and resumes from the sink call-back.
// Peers: asio (io_context::post, unbounded), condvar (a mutex + condition
// variable mailbox whose worker takes everything queued per wake-up,
// unbounded) and condvar_bounded (the same, the poster blocking while
// `capacity` tasks wait: the bounded peer of our channel). The unbounded
// peers run once per capacity only to give each capacity its own group.
//   alloc:0  ours only, a diagnostic: pre-built messages reused every
//            batch, so neither allocation nor release's stay check.
//   alloc:1  every message from the library allocator (ssb_allocator_t):
//            ours and the mailboxes' tasks by their class's operator new,
//            asio's handler operation through the handler's allocator.
//   alloc:2  each side's natural allocation: our msg_it by new and
//            msg_it::release, asio's own handler recycling over new, the
//            mailboxes' tasks by new and delete.
//   place:1  sender and receiver pinned to two different cores (the
//            sender on the first), place:2 both on one core, place:0
//            unpinned, where every side is bimodal: it depends on whether
//            the scheduler puts the two threads on one core or on two.
//            The peers' sender is the benchmark thread.
// Every side frees on the receiving thread what the sending thread
// allocated. Counters per message: the process's CPU time and context
// switches (a voluntary switch is a thread going to sleep, so vcsw per
// message counts wake-ups); ours adds full posts and sink call-backs per
// batch.
// ping_pong/<side>/place:P: one message in flight between two sleeping
// threads, time per round trip, p50 and p99 in µs. place:1 the two threads
// pinned to two different cores, place:2 both on one core, place:0
// unpinned (bimodal: it depends on where the scheduler puts them).
// raw_futex_pair is the floor: two threads handing a flag over with futex
// wait/wake and nothing else, measured in the same process.
// send_round_trip: send_msg from A to B against a condvar request/response
// pair, time per call (unpinned).
//
// Every message is counted on the receiving thread. Times are manual: measured on the threads themselves from the
// first post of a batch to the last receipt, so the benchmark thread's own
// wake-ups are not counted. A batch that makes no progress for 10 s fails
// its run with what the threads and the channel looked like; such runs are
// listed again at the end.
//
// Before the benchmarks the process CPU time is measured with nothing to do
// (asio with 8 threads in run(), util_init alone, util_init with 8 event
// threads) for UTIL_BENCH_IDLE_SECONDS (or --idle_seconds=N; default 10,
// 0 skips). The library's log goes to a temporary folder, at WARNING and
// above unless UTIL_BENCH_LOG_LEVEL says otherwise; UTIL_BENCH_KEEP_LOGS=1
// keeps the folder.
//
// util-bench-peers: boost
#include <dirent.h>
#include <sys/resource.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "alloc.h"
#include "bench_support.h"
#include "log.h"
#include "msg.h"
#include "msg_queue.h"
#include "stats.h"
#include "thread.h"
#include "thread_mgr.h"
#include "util.h"

namespace {

using util_bench::fn_msg_t;
using util_bench::latch_t;

using bench_clock = std::chrono::steady_clock;

const int THROUGHPUT_BATCH = 20000;
const int ROUND_TRIP_BATCH = 200;
const unsigned int BENCH_THREAD_TYPE = 100;
const unsigned int IDLE_THREAD_TYPE = 101;
const unsigned int CTRL_QUEUE_SIZE = 1024;
const unsigned int PING_CAPACITY = 1024;
const int IDLE_THREADS = 8;
// Batches per run. The count is fixed rather than found by Google
// Benchmark: a run that fails part-way must report the same iteration count
// as the other repetitions, or the statistics of 1.7 abort the program.
const int THROUGHPUT_BATCHES = 100;
const int ROUND_TRIP_BATCHES = 150;
// A batch takes milliseconds; this long means the loop is stuck.
const std::chrono::seconds WATCHDOG(10);
const size_t MAX_SAMPLES = 1 << 16;

enum alloc_mode_t { ALLOC_POOL = 0, ALLOC_LIBRARY = 1, ALLOC_NATURAL = 2 };

void* library_allocate(size_t n) {
    void* p = ssb::ssb_allocator_t::instance()->allocate(static_cast<unsigned int>(n));
    if (!p)
        throw std::bad_alloc();
    return p;
}

void library_free(void* p, size_t n) {
    ssb::ssb_allocator_t::instance()->deallocate(static_cast<signed char*>(p), static_cast<unsigned int>(n));
}

// A standard allocator over the library allocator, for asio's handlers.
template <class T>
struct library_allocator_t {
    typedef T value_type;
    library_allocator_t() {}
    template <class U>
    library_allocator_t(const library_allocator_t<U>&) {}
    T* allocate(size_t n) { return static_cast<T*>(library_allocate(n * sizeof(T))); }
    void deallocate(T* p, size_t n) { library_free(p, n * sizeof(T)); }
    template <class U>
    bool operator==(const library_allocator_t<U>&) const {
        return true;
    }
    template <class U>
    bool operator!=(const library_allocator_t<U>&) const {
        return false;
    }
};

double seconds_between(bench_clock::time_point from, bench_clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

double us_between(bench_clock::time_point from, bench_clock::time_point to) {
    return std::chrono::duration<double, std::micro>(to - from).count();
}

void add_percentiles(benchmark::State& state, std::vector<double>& samples) {
    if (samples.empty())
        return;
    std::sort(samples.begin(), samples.end());
    state.counters["p50_us"] = samples[samples.size() / 2];
    state.counters["p99_us"] = samples[samples.size() * 99 / 100];
}

// Failures seen during the run, repeated after the ratio table.
std::vector<std::string>& problems() {
    static std::vector<std::string> s_problems;
    return s_problems;
}

// Reports a failed run. Called inside the timing loop, which then ends on
// its next test: a run skipped that way keeps the iteration count Google
// Benchmark expects of every repetition.
void fail_run(benchmark::State& state, const char* name, const std::string& text) {
    std::string line = std::string(name) + ": " + text;
    std::fprintf(stderr, "bench_thread: %s\n", line.c_str());
    problems().push_back(line);
    state.SkipWithError(text.c_str());
}

// The receiving side of a throughput batch; touched by the receiving thread
// only while a batch runs.
struct counter_t {
    explicit counter_t(latch_t* done) : m_done(done) {}
    void arm(uint64_t target) {
        m_count = 0;
        m_target = target;
    }
    void hit() {
        if (++m_count == m_target) {
            m_end = bench_clock::now();
            m_done->open();
        }
    }
    latch_t* m_done;
    uint64_t m_count = 0;
    uint64_t m_target = 0;
    bench_clock::time_point m_end;
};

// The initiator's side of a round-trip batch: one sample per round, taken
// on the initiating thread.
struct rounds_t {
    explicit rounds_t(latch_t* done) : m_done(done) { m_samples.reserve(MAX_SAMPLES); }
    void arm(int rounds) { m_left = rounds; }
    void begin() {
        m_start = bench_clock::now();
        m_t0 = m_start;
    }
    // A round ended; true when another one is due.
    bool lap() {
        bench_clock::time_point now = bench_clock::now();
        if (m_samples.size() < MAX_SAMPLES)
            m_samples.push_back(us_between(m_t0, now));
        m_t0 = now;
        if (--m_left > 0)
            return true;
        m_end = now;
        m_done->open();
        return false;
    }
    void fail(int rv) {
        m_error = rv;
        m_done->open();
    }
    latch_t* m_done;
    int m_left = 0;
    int m_error = 0;
    bench_clock::time_point m_start;
    bench_clock::time_point m_t0;
    bench_clock::time_point m_end;
    std::vector<double> m_samples;
};

// ---- ours ---------------------------------------------------------------------------

template <class F>
ssb::msg_it* make_msg(F f) {
    return new fn_msg_t<F>(std::move(f));
}

class count_msg_t : public ssb::msg_it {
public:
    explicit count_msg_t(counter_t* counter) : m_counter(counter) {}
    void on_message() override { m_counter->hit(); }

private:
    counter_t* m_counter;
};

// Built once, reused batch after batch: release leaves it alive (and so
// reads no clock).
class pooled_count_msg_t : public count_msg_t {
public:
    using count_msg_t::count_msg_t;
    void release() override {}
};

// msg_it::release deletes through the dynamic type's operator delete.
class library_count_msg_t : public count_msg_t {
public:
    using count_msg_t::count_msg_t;
    static void* operator new(size_t n) { return library_allocate(n); }
    static void operator delete(void* p, size_t n) { library_free(p, n); }
};

// Runs a pinning step on each thread of a pair through `post(side, f)` and
// waits for both; false when one did not run within 10 s.
template <class P>
bool place_pair(int placement, P post) {
    std::shared_ptr<std::atomic<int>> placed = std::make_shared<std::atomic<int>>(0);
    for (int side = 0; side < 2; ++side)
        post(side, std::function<void()>([placed, placement, side] {
                 util_bench::place_thread(placement, side);
                 placed->fetch_add(1, std::memory_order_release);
             }));
    bench_clock::time_point deadline = bench_clock::now() + WATCHDOG;
    while (placed->load(std::memory_order_acquire) < 2) {
        if (bench_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Pins the peers' poster, this thread, as side 0 and their worker, through
// `post_to_worker`, as side 1; this thread is free again when it goes.
class poster_placement_t {
public:
    template <class P>
    poster_placement_t(int placement, P post_to_worker)
        : m_ok(place_pair(placement, [&post_to_worker](int side, std::function<void()> f) {
              if (side)
                  post_to_worker(std::move(f));
              else
                  f();
          })) {}
    ~poster_placement_t() { util_bench::place_thread(util_bench::PLACE_FREE, 0); }
    bool ok() const { return m_ok; }

private:
    bool m_ok;
};

// Two event threads bound by a channel; stopped (and left to the manager
// to release) by stop() or the destructor.
class loop_pair_t {
public:
    explicit loop_pair_t(unsigned int capacity) {
        m_mgr = ssb::thread_mgr_t::peek();
        if (!m_mgr) {
            m_error = "no thread manager: util_init has not run";
            return;
        }
        m_a = m_mgr->spawn(ssb::THREAD_MODE_EVENT, CTRL_QUEUE_SIZE, BENCH_THREAD_TYPE, false, nullptr, 0xFFFFFFFFu);
        m_b = m_mgr->spawn(ssb::THREAD_MODE_EVENT, CTRL_QUEUE_SIZE, BENCH_THREAD_TYPE, false, nullptr, 0xFFFFFFFFu);
        if (!m_a || !m_b) {
            m_error = "thread_mgr_t::spawn returned null";
            return;
        }
        int rv = m_a->create_channel(m_b, capacity, capacity);
        if (rv != ssb::RESULT_SUCCESS)
            m_error = "create_channel returned " + std::to_string(rv);
    }
    ~loop_pair_t() { stop(); }

    void stop() {
        stop_one(m_a);
        stop_one(m_b);
    }
    bool ok() const { return m_error.empty(); }
    const std::string& error() const { return m_error; }
    ssb::thread_wrapper_t* a() const { return m_a; }
    ssb::thread_wrapper_t* b() const { return m_b; }

private:
    void stop_one(ssb::thread_wrapper_t*& thr) {
        if (!thr)
            return;
        unsigned int id = thr->get_id();
        thr = nullptr;
        if (m_mgr->stop_thread_by_id(id) != 1)
            std::fprintf(stderr, "bench_thread: stop_thread_by_id(%u) did not find the thread\n", id);
    }

    ssb::thread_mgr_t* m_mgr = nullptr;
    ssb::thread_wrapper_t* m_a = nullptr;
    ssb::thread_wrapper_t* m_b = nullptr;
    std::string m_error;
};

// Runs on A: posts to B until the channel is full, then resumes from the
// sink call-back, which comes on A once B has made room.
class producer_t : public ssb::msg_queue_sink_it {
public:
    producer_t(ssb::thread_wrapper_t* target, counter_t* counter, int alloc)
        : m_target(target), m_counter(counter), m_alloc(alloc) {
        if (alloc == ALLOC_POOL)
            for (int i = 0; i < THROUGHPUT_BATCH; ++i)
                m_pool.emplace_back(new pooled_count_msg_t(counter));
    }
    ~producer_t() override {
        if (m_held)
            m_held->release();
    }

    void arm(int n) { m_left = n; }
    void begin() {
        m_start = bench_clock::now();
        pump();
    }
    void on_queue_room(int) override {
        ++m_resumes;
        pump();
    }

    int m_left = 0;
    int m_error = 0;
    uint64_t m_fulls = 0;
    uint64_t m_resumes = 0;
    ssb::msg_it* m_held = nullptr;
    bench_clock::time_point m_start;

private:
    ssb::msg_it* make() const {
        // A batch runs to its end before the next one is armed, so the
        // pool's messages are free again by then.
        if (m_alloc == ALLOC_POOL)
            return m_pool[static_cast<size_t>(THROUGHPUT_BATCH - m_left)].get();
        if (m_alloc == ALLOC_LIBRARY)
            return new library_count_msg_t(m_counter);
        return new count_msg_t(m_counter);
    }

    // Nothing here is touched after the batch's last post succeeded: B may
    // finish the batch at once and the benchmark thread arm the next one.
    void pump() {
        while (m_left > 0) {
            ssb::msg_it* msg = m_held ? m_held : make();
            m_held = nullptr;
            const bool last = m_left == 1;
            --m_left;
            int rv = m_target->post_msg(msg, this);
            if (rv == ssb::RESULT_QUEUE_FULL) {
                ++m_left;
                m_held = msg;
                ++m_fulls;
                return;
            }
            if (rv != ssb::RESULT_SUCCESS) {
                ++m_left;
                msg->release();
                m_error = rv;
                m_counter->m_done->open();
                return;
            }
            if (last)
                return;
        }
    }

    ssb::thread_wrapper_t* m_target;
    counter_t* m_counter;
    int m_alloc;
    std::vector<std::unique_ptr<pooled_count_msg_t>> m_pool;
};

// What the channel A -> B looks like from outside, for a stalled batch.
std::string channel_state(ssb::thread_wrapper_t* a, ssb::thread_wrapper_t* b, ssb::msg_queue_sink_it* sink) {
    ssb::w_msg_queue_it* w = a->get_write_msgq(b);
    if (!w)
        return "channel A -> B not bound";
    ssb::msg_queue_base_t* base = dynamic_cast<ssb::msg_queue_base_t*>(w);
    char buf[192];
    std::snprintf(buf, sizeof buf, "channel A -> B: full %d, status %u (2 = a writer found it full), sink listed %d",
                  w->is_full() ? 1 : 0, base ? base->status() : 0u,
                  w->unregister_sink(sink) == ssb::RESULT_ALREADY_EXISTS ? 1 : 0);
    return buf;
}

void throughput_ours(benchmark::State& state) {
    loop_pair_t pair(static_cast<unsigned int>(state.range(0)));
    if (!pair.ok()) {
        fail_run(state, "loop_to_loop_throughput/ours", pair.error());
        return;
    }
    const int placement = static_cast<int>(state.range(2));
    if (!util_bench::placement_possible(state, placement))
        return;
    if (!place_pair(placement, [&pair](int side, std::function<void()> f) {
            ssb::msg_it* m = make_msg(std::move(f));
            if ((side ? pair.b() : pair.a())->post_ctrl_msg(m, nullptr) != ssb::RESULT_SUCCESS)
                m->release();
        })) {
        fail_run(state, "loop_to_loop_throughput/ours", "the loop threads were not pinned within 10 s");
        return;
    }
    latch_t done;
    counter_t counter(&done);
    producer_t producer(pair.b(), &counter, static_cast<int>(state.range(1)));
    util_bench::usage_meter_t usage;
    int64_t batches = 0;
    ssb::thread_stats_t b_before;
    ssb::get_thread_stats(pair.b(), b_before);
    while (state.KeepRunningBatch(THROUGHPUT_BATCH)) {
        done.arm();
        counter.arm(THROUGHPUT_BATCH);
        producer.arm(THROUGHPUT_BATCH);
        ssb::msg_it* kick = make_msg([&producer] { producer.begin(); });
        int rv = pair.a()->post_ctrl_msg(kick, nullptr);
        if (rv != ssb::RESULT_SUCCESS) {
            kick->release();
            fail_run(state, "loop_to_loop_throughput/ours", "post_ctrl_msg to A returned " + std::to_string(rv));
            continue;
        }
        bool finished = done.wait();
        if (!finished || producer.m_error) {
            std::string queue = finished ? "" : "; " + channel_state(pair.a(), pair.b(), &producer);
            // Stopped first: afterwards nothing touches the batch's state.
            pair.stop();
            char buf[320];
            std::snprintf(
                buf, sizeof buf,
                "%s: B ran %llu of %d messages, A has %d left to post and holds %d refused by "
                "RESULT_QUEUE_FULL; the queue was full %llu times this run, the sink was called "
                "%llu times",
                finished ? ("post_msg returned " + std::to_string(producer.m_error)).c_str() : "no progress for 10 s",
                static_cast<unsigned long long>(counter.m_count), THROUGHPUT_BATCH, producer.m_left,
                producer.m_held ? 1 : 0, static_cast<unsigned long long>(producer.m_fulls),
                static_cast<unsigned long long>(producer.m_resumes));
            fail_run(state, "loop_to_loop_throughput/ours", buf + queue);
            continue;
        }
        state.SetIterationTime(seconds_between(producer.m_start, counter.m_end));
        ++batches;
    }
    ssb::thread_stats_t b_after;
    ssb::get_thread_stats(pair.b(), b_after);
    pair.stop();
    state.SetItemsProcessed(state.iterations());
    usage.report(state, static_cast<double>(batches) * THROUGHPUT_BATCH);
    if (batches > 0) {
        state.counters["full_per_batch"] = static_cast<double>(producer.m_fulls) / static_cast<double>(batches);
        state.counters["sink_per_batch"] = static_cast<double>(producer.m_resumes) / static_cast<double>(batches);
        // Whether B runs its passes full (the pass bound) or keeps running
        // dry and going back to its notifier.
        const uint64_t passes = b_after.passes - b_before.passes;
        if (passes > 0)
            state.counters["b_msgs_per_pass"] =
                static_cast<double>(b_after.messages - b_before.messages) / static_cast<double>(passes);
    }
}

class ping_msg_t;

class pong_msg_t : public ssb::msg_it {
public:
    pong_msg_t(rounds_t* rounds, ssb::thread_wrapper_t* b) : m_rounds(rounds), m_b(b) {}
    void on_message() override;

private:
    rounds_t* m_rounds;
    ssb::thread_wrapper_t* m_b;
};

class ping_msg_t : public ssb::msg_it {
public:
    ping_msg_t(rounds_t* rounds, ssb::thread_wrapper_t* a, ssb::thread_wrapper_t* b)
        : m_rounds(rounds), m_a(a), m_b(b) {}
    // On B.
    void on_message() override {
        ssb::msg_it* pong = new pong_msg_t(m_rounds, m_b);
        int rv = m_a->post_msg(pong, nullptr);
        if (rv != ssb::RESULT_SUCCESS) {
            pong->release();
            m_rounds->fail(rv);
        }
    }

private:
    rounds_t* m_rounds;
    ssb::thread_wrapper_t* m_a;
    ssb::thread_wrapper_t* m_b;
};

// On A (the current thread, so self() names it).
void send_ping(rounds_t* rounds, ssb::thread_wrapper_t* b) {
    ssb::msg_it* ping = new ping_msg_t(rounds, ssb::thread_wrapper_t::self(), b);
    int rv = b->post_msg(ping, nullptr);
    if (rv != ssb::RESULT_SUCCESS) {
        ping->release();
        rounds->fail(rv);
    }
}

void pong_msg_t::on_message() {
    if (m_rounds->lap())
        send_ping(m_rounds, m_b);
}

void ping_pong_ours(benchmark::State& state) {
    loop_pair_t pair(PING_CAPACITY);
    if (!pair.ok()) {
        fail_run(state, "ping_pong/ours", pair.error());
        return;
    }
    const int placement = static_cast<int>(state.range(0));
    if (!util_bench::placement_possible(state, placement))
        return;
    bool placed = place_pair(placement, [&pair](int side, std::function<void()> f) {
        ssb::msg_it* m = make_msg(std::move(f));
        if ((side ? pair.b() : pair.a())->post_ctrl_msg(m, nullptr) != ssb::RESULT_SUCCESS)
            m->release();
    });
    if (!placed) {
        fail_run(state, "ping_pong/ours", "the loop threads were not pinned within 10 s");
        return;
    }
    latch_t done;
    rounds_t rounds(&done);
    ssb::thread_wrapper_t* b = pair.b();
    util_bench::usage_meter_t usage;
    while (state.KeepRunningBatch(ROUND_TRIP_BATCH)) {
        done.arm();
        rounds.arm(ROUND_TRIP_BATCH);
        ssb::msg_it* kick = make_msg([&rounds, b] {
            rounds.begin();
            send_ping(&rounds, b);
        });
        int rv = pair.a()->post_ctrl_msg(kick, nullptr);
        if (rv != ssb::RESULT_SUCCESS) {
            kick->release();
            fail_run(state, "ping_pong/ours", "post_ctrl_msg to A returned " + std::to_string(rv));
            continue;
        }
        bool finished = done.wait();
        if (!finished || rounds.m_error) {
            pair.stop();
            fail_run(state, "ping_pong/ours",
                     (finished ? "post_msg returned " + std::to_string(rounds.m_error)
                               : std::string("no progress for 10 s")) +
                         ", rounds left " + std::to_string(rounds.m_left));
            continue;
        }
        state.SetIterationTime(seconds_between(rounds.m_start, rounds.m_end));
    }
    usage.report(state, static_cast<double>(state.iterations()));
    pair.stop();
    add_percentiles(state, rounds.m_samples);
}

class noop_msg_t : public ssb::msg_it {
public:
    explicit noop_msg_t(uint64_t* count) : m_count(count) {}
    void on_message() override { ++*m_count; }

private:
    uint64_t* m_count;
};

void send_round_trip_ours(benchmark::State& state) {
    loop_pair_t pair(PING_CAPACITY);
    if (!pair.ok()) {
        fail_run(state, "send_round_trip/ours", pair.error());
        return;
    }
    latch_t done;
    rounds_t rounds(&done);
    // Counted on B; read here only after the threads stopped.
    uint64_t ran = 0;
    uint64_t sent = 0;
    ssb::thread_wrapper_t* b = pair.b();
    while (state.KeepRunningBatch(ROUND_TRIP_BATCH)) {
        done.arm();
        rounds.arm(ROUND_TRIP_BATCH);
        ssb::msg_it* kick = make_msg([&rounds, &ran, b] {
            rounds.begin();
            for (;;) {
                ssb::msg_it* msg = new noop_msg_t(&ran);
                int rv = b->send_msg(msg, nullptr, -1);
                if (rv != ssb::RESULT_SUCCESS) {
                    // On failure the message stays the sender's.
                    msg->release();
                    rounds.fail(rv);
                    return;
                }
                if (!rounds.lap())
                    return;
            }
        });
        int rv = pair.a()->post_ctrl_msg(kick, nullptr);
        if (rv != ssb::RESULT_SUCCESS) {
            kick->release();
            fail_run(state, "send_round_trip/ours", "post_ctrl_msg to A returned " + std::to_string(rv));
            continue;
        }
        bool finished = done.wait();
        if (!finished || rounds.m_error) {
            pair.stop();
            fail_run(state, "send_round_trip/ours",
                     (finished ? "send_msg returned " + std::to_string(rounds.m_error)
                               : std::string("no progress for 10 s")) +
                         ", calls left " + std::to_string(rounds.m_left));
            continue;
        }
        sent += ROUND_TRIP_BATCH;
        state.SetIterationTime(seconds_between(rounds.m_start, rounds.m_end));
    }
    pair.stop();
    // A run already skipped stopped its threads mid-batch.
    if (!state.error_occurred() && ran != sent)
        fail_run(state, "send_round_trip/ours",
                 "B ran " + std::to_string(ran) + " messages of " + std::to_string(sent) + " sent with result 0");
    add_percentiles(state, rounds.m_samples);
}

// ---- boost::asio ------------------------------------------------------------------------

class asio_loop_t {
public:
    asio_loop_t() : m_guard(boost::asio::make_work_guard(m_ctx)), m_thread([this] { m_ctx.run(); }) {}
    ~asio_loop_t() {
        m_guard.reset();
        m_thread.join();
    }
    boost::asio::io_context& ctx() { return m_ctx; }

private:
    boost::asio::io_context m_ctx;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_guard;
    std::thread m_thread;
};

// The same work as a lambda, its operation drawn from the library
// allocator: asio asks the handler for its allocator.
struct asio_count_handler_t {
    typedef library_allocator_t<void> allocator_type;
    allocator_type get_allocator() const { return allocator_type(); }
    void operator()() const { counter->hit(); }
    counter_t* counter;
};

void throughput_asio(benchmark::State& state) {
    latch_t done;
    counter_t counter(&done);
    asio_loop_t worker;
    const int placement = static_cast<int>(state.range(2));
    if (!util_bench::placement_possible(state, placement))
        return;
    poster_placement_t placed(placement, [&worker](std::function<void()> f) { boost::asio::post(worker.ctx(), f); });
    if (!placed.ok()) {
        fail_run(state, "loop_to_loop_throughput/asio", "the threads were not pinned within 10 s");
        return;
    }
    counter_t* c = &counter;
    const bool library = state.range(1) == ALLOC_LIBRARY;
    util_bench::usage_meter_t usage;
    int64_t batches = 0;
    while (state.KeepRunningBatch(THROUGHPUT_BATCH)) {
        done.arm();
        counter.arm(THROUGHPUT_BATCH);
        bench_clock::time_point start = bench_clock::now();
        if (library) {
            for (int i = 0; i < THROUGHPUT_BATCH; ++i)
                boost::asio::post(worker.ctx(), asio_count_handler_t{c});
        } else {
            for (int i = 0; i < THROUGHPUT_BATCH; ++i)
                boost::asio::post(worker.ctx(), [c] { c->hit(); });
        }
        if (!done.wait()) {
            fail_run(state, "loop_to_loop_throughput/asio", "no progress for 10 s");
            continue;
        }
        state.SetIterationTime(seconds_between(start, counter.m_end));
        ++batches;
    }
    state.SetItemsProcessed(state.iterations());
    usage.report(state, static_cast<double>(batches) * THROUGHPUT_BATCH);
}

// Handlers of A and B post to each other.
struct asio_ping_pong_t {
    asio_loop_t a;
    asio_loop_t b;
    rounds_t* rounds;

    void ping() {
        boost::asio::post(b.ctx(), [this] { boost::asio::post(a.ctx(), [this] { pong(); }); });
    }
    void pong() {
        if (rounds->lap())
            ping();
    }
};

void ping_pong_asio(benchmark::State& state) {
    const int placement = static_cast<int>(state.range(0));
    if (!util_bench::placement_possible(state, placement))
        return;
    latch_t done;
    rounds_t rounds(&done);
    asio_ping_pong_t pp;
    pp.rounds = &rounds;
    if (!place_pair(placement, [&pp](int side, std::function<void()> f) {
            boost::asio::post(side ? pp.b.ctx() : pp.a.ctx(), std::move(f));
        })) {
        fail_run(state, "ping_pong/asio", "the threads were not pinned within 10 s");
        return;
    }
    util_bench::usage_meter_t usage;
    while (state.KeepRunningBatch(ROUND_TRIP_BATCH)) {
        done.arm();
        rounds.arm(ROUND_TRIP_BATCH);
        boost::asio::post(pp.a.ctx(), [&pp] {
            pp.rounds->begin();
            pp.ping();
        });
        if (!done.wait()) {
            fail_run(state, "ping_pong/asio", "no progress for 10 s");
            continue;
        }
        state.SetIterationTime(seconds_between(rounds.m_start, rounds.m_end));
    }
    usage.report(state, static_cast<double>(state.iterations()));
    add_percentiles(state, rounds.m_samples);
}

// ---- std::mutex + std::condition_variable --------------------------------------------------

class task_t {
public:
    virtual ~task_t() {}
    virtual void run() = 0;
};

template <class F>
class fn_task_t : public task_t {
public:
    explicit fn_task_t(F f) : m_f(std::move(f)) {}
    void run() override { m_f(); }

private:
    F m_f;
};

template <class F>
task_t* make_task(F f) {
    return new fn_task_t<F>(std::move(f));
}

class count_task_t : public task_t {
public:
    explicit count_task_t(counter_t* counter) : m_counter(counter) {}
    void run() override { m_counter->hit(); }

private:
    counter_t* m_counter;
};

class library_count_task_t : public count_task_t {
public:
    using count_task_t::count_task_t;
    static void* operator new(size_t n) { return library_allocate(n); }
    static void operator delete(void* p, size_t n) { library_free(p, n); }
};

// One worker thread; writers notify only a queue they found empty, and the
// worker takes everything queued per wake-up. With a bound, a writer waits
// while `bound` tasks are queued; the worker wakes it after taking them.
class mailbox_t {
public:
    explicit mailbox_t(size_t bound = 0) : m_bound(bound), m_thread([this] { loop(); }) {}
    ~mailbox_t() {
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            m_stop = true;
        }
        m_cv.notify_one();
        m_thread.join();
        for (task_t* t : m_queue)
            delete t;
    }
    void post(task_t* task) {
        bool was_empty;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (m_bound && m_queue.size() >= m_bound) {
                m_writer_waiting = true;
                m_room.wait(lock, [this] { return m_queue.size() < m_bound; });
            }
            was_empty = m_queue.empty();
            m_queue.push_back(task);
        }
        if (was_empty)
            m_cv.notify_one();
    }

private:
    void loop() {
        std::deque<task_t*> taken;
        bool woke_writer = false;
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_cv.wait(lock, [this] { return m_stop || !m_queue.empty(); });
                if (m_stop)
                    return;
                taken.swap(m_queue);
                woke_writer = m_writer_waiting;
                m_writer_waiting = false;
            }
            if (woke_writer)
                m_room.notify_all();
            for (task_t* t : taken) {
                t->run();
                delete t;
            }
            taken.clear();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::condition_variable m_room;
    std::deque<task_t*> m_queue;
    size_t m_bound;
    bool m_writer_waiting = false;
    bool m_stop = false;
    std::thread m_thread;
};

void throughput_mailbox(benchmark::State& state, size_t bound, const char* name) {
    latch_t done;
    counter_t counter(&done);
    mailbox_t worker(bound);
    const int placement = static_cast<int>(state.range(2));
    if (!util_bench::placement_possible(state, placement))
        return;
    poster_placement_t placed(placement, [&worker](std::function<void()> f) { worker.post(make_task(f)); });
    if (!placed.ok()) {
        fail_run(state, name, "the threads were not pinned within 10 s");
        return;
    }
    const bool library = state.range(1) == ALLOC_LIBRARY;
    util_bench::usage_meter_t usage;
    int64_t batches = 0;
    while (state.KeepRunningBatch(THROUGHPUT_BATCH)) {
        done.arm();
        counter.arm(THROUGHPUT_BATCH);
        bench_clock::time_point start = bench_clock::now();
        for (int i = 0; i < THROUGHPUT_BATCH; ++i)
            worker.post(library ? new library_count_task_t(&counter) : new count_task_t(&counter));
        if (!done.wait()) {
            fail_run(state, name, "no progress for 10 s");
            continue;
        }
        state.SetIterationTime(seconds_between(start, counter.m_end));
        ++batches;
    }
    state.SetItemsProcessed(state.iterations());
    usage.report(state, static_cast<double>(batches) * THROUGHPUT_BATCH);
}

void throughput_condvar(benchmark::State& state) { throughput_mailbox(state, 0, "loop_to_loop_throughput/condvar"); }

void throughput_condvar_bounded(benchmark::State& state) {
    throughput_mailbox(state, static_cast<size_t>(state.range(0)), "loop_to_loop_throughput/condvar_bounded");
}

struct condvar_ping_pong_t {
    mailbox_t a;
    mailbox_t b;
    rounds_t* rounds = nullptr;

    void ping() {
        b.post(make_task([this] { a.post(make_task([this] { pong(); })); }));
    }
    void pong() {
        if (rounds->lap())
            ping();
    }
};

void ping_pong_condvar(benchmark::State& state) {
    const int placement = static_cast<int>(state.range(0));
    if (!util_bench::placement_possible(state, placement))
        return;
    latch_t done;
    rounds_t rounds(&done);
    condvar_ping_pong_t pp;
    pp.rounds = &rounds;
    if (!place_pair(placement,
                    [&pp](int side, std::function<void()> f) { (side ? pp.b : pp.a).post(make_task(std::move(f))); })) {
        fail_run(state, "ping_pong/condvar", "the threads were not pinned within 10 s");
        return;
    }
    util_bench::usage_meter_t usage;
    while (state.KeepRunningBatch(ROUND_TRIP_BATCH)) {
        done.arm();
        rounds.arm(ROUND_TRIP_BATCH);
        pp.a.post(make_task([&pp] {
            pp.rounds->begin();
            pp.ping();
        }));
        if (!done.wait()) {
            fail_run(state, "ping_pong/condvar", "no progress for 10 s");
            continue;
        }
        state.SetIterationTime(seconds_between(rounds.m_start, rounds.m_end));
    }
    usage.report(state, static_cast<double>(state.iterations()));
    add_percentiles(state, rounds.m_samples);
}

// The requester's half of a synchronous call: the worker sets `done` and
// wakes it once the request ran.
struct reply_slot_t {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
};

void send_round_trip_condvar(benchmark::State& state) {
    latch_t done;
    rounds_t rounds(&done);
    reply_slot_t slot;
    uint64_t ran = 0;
    uint64_t* ran_p = &ran;
    reply_slot_t* slot_p = &slot;
    mailbox_t b;
    // The requester is a thread of its own, as A is for ours.
    mailbox_t a;
    while (state.KeepRunningBatch(ROUND_TRIP_BATCH)) {
        done.arm();
        rounds.arm(ROUND_TRIP_BATCH);
        a.post(make_task([&] {
            rounds.begin();
            do {
                {
                    std::lock_guard<std::mutex> guard(slot.mutex);
                    slot.done = false;
                }
                b.post(make_task([ran_p, slot_p] {
                    ++*ran_p;
                    {
                        std::lock_guard<std::mutex> guard(slot_p->mutex);
                        slot_p->done = true;
                    }
                    slot_p->cv.notify_one();
                }));
                std::unique_lock<std::mutex> lock(slot.mutex);
                slot.cv.wait(lock, [&] { return slot.done; });
            } while (rounds.lap());
        }));
        if (!done.wait()) {
            fail_run(state, "send_round_trip/condvar", "no progress for 10 s");
            continue;
        }
        state.SetIterationTime(seconds_between(rounds.m_start, rounds.m_end));
    }
    add_percentiles(state, rounds.m_samples);
}

// ---- raw futex pair ---------------------------------------------------------------------

// Two threads and nothing else: A wakes B, B wakes A, each sleeping on its
// own futex word in between. The floor for a sleeping round trip.
void ping_pong_futex(benchmark::State& state) {
    const int placement = static_cast<int>(state.range(0));
    if (!util_bench::placement_possible(state, placement))
        return;
    latch_t done;
    rounds_t rounds(&done);
    util_bench::futex_flag_t start, to_a, to_b;
    std::atomic<bool> stop{false};
    std::thread b([&] {
        util_bench::place_thread(placement, 1);
        for (;;) {
            to_b.wait();
            if (stop.load(std::memory_order_acquire))
                return;
            to_a.wake();
        }
    });
    std::thread a([&] {
        util_bench::place_thread(placement, 0);
        for (;;) {
            start.wait();
            if (stop.load(std::memory_order_acquire))
                return;
            rounds.begin();
            do {
                to_b.wake();
                to_a.wait();
            } while (rounds.lap());
        }
    });
    util_bench::usage_meter_t usage;
    while (state.KeepRunningBatch(ROUND_TRIP_BATCH)) {
        done.arm();
        rounds.arm(ROUND_TRIP_BATCH);
        start.wake();
        if (!done.wait()) {
            fail_run(state, "ping_pong/raw_futex_pair", "no progress for 10 s");
            break;
        }
        state.SetIterationTime(seconds_between(rounds.m_start, rounds.m_end));
    }
    usage.report(state, static_cast<double>(state.iterations()));
    stop.store(true, std::memory_order_release);
    start.wake();
    to_b.wake();
    a.join();
    b.join();
    add_percentiles(state, rounds.m_samples);
}

#define THROUGHPUT_ARGS                                                         \
  ->ArgNames({"capacity", "alloc", "place"})                                    \
      ->ArgsProduct({{1024, 16384}, {ALLOC_LIBRARY, ALLOC_NATURAL}, {1, 2, 0}}) \
      ->Iterations(THROUGHPUT_BATCHES* THROUGHPUT_BATCH)                        \
      ->UseManualTime()
BENCHMARK(throughput_ours)->Name("loop_to_loop_throughput/ours") THROUGHPUT_ARGS;
// Diagnostic: ours with pre-built messages, so no allocation and no clock
// read at release; no peer row.
BENCHMARK(throughput_ours)
    ->Name("loop_to_loop_throughput/ours")
    ->ArgNames({"capacity", "alloc", "place"})
    ->ArgsProduct({{1024, 16384}, {ALLOC_POOL}, {1, 2, 0}})
    ->Iterations(THROUGHPUT_BATCHES* THROUGHPUT_BATCH)
    ->UseManualTime();
BENCHMARK(throughput_asio)->Name("loop_to_loop_throughput/asio") THROUGHPUT_ARGS;
BENCHMARK(throughput_condvar)->Name("loop_to_loop_throughput/condvar") THROUGHPUT_ARGS;
BENCHMARK(throughput_condvar_bounded)->Name("loop_to_loop_throughput/condvar_bounded") THROUGHPUT_ARGS;

#define ROUND_TRIP_ARGS ->Iterations(ROUND_TRIP_BATCHES* ROUND_TRIP_BATCH)->UseManualTime()
#define PLACED_ROUND_TRIP_ARGS ->ArgName("place")->Arg(1)->Arg(2)->Arg(0) ROUND_TRIP_ARGS
BENCHMARK(ping_pong_ours)->Name("ping_pong/ours") PLACED_ROUND_TRIP_ARGS;
BENCHMARK(ping_pong_asio)->Name("ping_pong/asio") PLACED_ROUND_TRIP_ARGS;
BENCHMARK(ping_pong_condvar)->Name("ping_pong/condvar") PLACED_ROUND_TRIP_ARGS;
BENCHMARK(ping_pong_futex)->Name("ping_pong/raw_futex_pair") PLACED_ROUND_TRIP_ARGS;

BENCHMARK(send_round_trip_ours)->Name("send_round_trip/ours") ROUND_TRIP_ARGS;
BENCHMARK(send_round_trip_condvar)->Name("send_round_trip/condvar") ROUND_TRIP_ARGS;

// ---- idle CPU ---------------------------------------------------------------------------

struct usage_t {
    double cpu_s;
    long switches;
    bench_clock::time_point wall;
};

usage_t usage_now() {
    struct rusage ru;
    std::memset(&ru, 0, sizeof ru);
    getrusage(RUSAGE_SELF, &ru);
    double cpu = static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
                 static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
    return usage_t{cpu, ru.ru_nvcsw + ru.ru_nivcsw, bench_clock::now()};
}

// Sleeps for `seconds` and reports what the process spent meanwhile.
std::string measure_idle(const char* label, double seconds) {
    // Start-up work of the threads just made is not idle time.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    usage_t before = usage_now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    usage_t after = usage_now();
    double wall = seconds_between(before.wall, after.wall);
    double cpu_ms_per_s = (after.cpu_s - before.cpu_s) * 1000 / wall;
    double switches_per_s = static_cast<double>(after.switches - before.switches) / wall;
    char buf[256];
    std::snprintf(buf, sizeof buf,
                  "idle CPU  %-44s %8.2f CPU ms/s  %6.2f%% of one core  %8.0f context switches/s  (%.1f s)", label,
                  cpu_ms_per_s, cpu_ms_per_s / 10, switches_per_s, wall);
    std::printf("%s\n", buf);
    std::fflush(stdout);
    return buf;
}

std::vector<std::string> measure_idle_before_init(double seconds) {
    std::vector<std::string> lines;
    boost::asio::io_context ctx;
    auto guard = boost::asio::make_work_guard(ctx);
    std::vector<std::thread> threads;
    for (int i = 0; i < IDLE_THREADS; ++i)
        threads.emplace_back([&ctx] { ctx.run(); });
    lines.push_back(measure_idle("asio io_context, 8 threads in run()", seconds));
    guard.reset();
    for (std::thread& t : threads)
        t.join();
    return lines;
}

std::vector<std::string> measure_idle_library(double seconds) {
    std::vector<std::string> lines;
    lines.push_back(measure_idle("util_init only (main + timer thread)", seconds));
    ssb::thread_mgr_t* mgr = ssb::thread_mgr_t::peek();
    int spawned = 0;
    for (int i = 0; i < IDLE_THREADS; ++i)
        if (mgr && mgr->spawn(ssb::THREAD_MODE_EVENT, CTRL_QUEUE_SIZE, IDLE_THREAD_TYPE, false, nullptr, 0xFFFFFFFFu))
            ++spawned;
    if (spawned != IDLE_THREADS)
        std::fprintf(stderr, "bench_thread: spawned only %d of %d idle event threads\n", spawned, IDLE_THREADS);
    lines.push_back(measure_idle("util_init + 8 idle event threads", seconds));
    int stopped = mgr ? mgr->stop_threads_by_type(IDLE_THREAD_TYPE) : 0;
    if (stopped != spawned)
        std::fprintf(stderr, "bench_thread: stopped %d of %d idle event threads\n", stopped, spawned);
    return lines;
}

// ---- the program --------------------------------------------------------------------------

double idle_seconds(int& argc, char** argv) {
    double seconds = 10;
    if (const char* env = std::getenv("UTIL_BENCH_IDLE_SECONDS"))
        seconds = std::atof(env);
    static const char flag[] = "--idle_seconds=";
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], flag, sizeof flag - 1) == 0)
            seconds = std::atof(argv[i] + sizeof flag - 1);
        else
            argv[kept++] = argv[i];
    }
    argc = kept;
    return seconds < 0 ? 0 : seconds;
}

int count_threads() {
    int n = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (struct dirent* e = readdir(dir))
            if (e->d_name[0] != '.')
                ++n;
        closedir(dir);
    }
    return n;
}

}  // namespace

int main(int argc, char** argv) {
    double idle = idle_seconds(argc, argv);

    // The library's log and anything it keeps under $XDG_DATA_HOME stay in
    // a folder of this run.
    char folder_template[] = "/tmp/util-bench-thread-XXXXXX";
    const char* folder = mkdtemp(folder_template);
    if (!folder) {
        std::perror("bench_thread: mkdtemp");
        return 1;
    }
    setenv("XDG_DATA_HOME", folder, 1);
    std::string log_dir = std::string(folder) + "/logs";

    std::vector<std::string> idle_lines;
    if (idle > 0)
        idle_lines = measure_idle_before_init(idle);

    util_init(1, log_dir.c_str(), "bench", "log", 0x100000, 2);
    // The hot paths log at INFO and DEBUG (every pass over 100 messages,
    // every sink call-back); a file line per pass would be what is measured.
    unsigned int level = ssb::LOG_WARNING;
    if (const char* env = std::getenv("UTIL_BENCH_LOG_LEVEL"))
        level = static_cast<unsigned int>(std::atoi(env));
    register_logger(ssb::UTIL_MODULE_ID, "UTIL", level, nullptr, ssb::LOG_TO_FILE | ssb::LOG_TO_HANDLE);

    if (idle > 0) {
        std::vector<std::string> more = measure_idle_library(idle);
        idle_lines.insert(idle_lines.end(), more.begin(), more.end());
    }

    int rc = util_bench::run_main(argc, argv);

    util_uninit(1);
    int left = count_threads();

    if (!idle_lines.empty()) {
        std::printf(
            "\nIdle CPU of the whole process (getrusage RUSAGE_SELF); the timer driver waits %u ms "
            "per pass at the default precision of %u ms:\n",
            ssb::MIN_TIMER_PRECISION_MS / 10, ssb::MIN_TIMER_PRECISION_MS);
        for (const std::string& s : idle_lines)
            std::printf("%s\n", s.c_str());
    }
    if (!problems().empty()) {
        std::printf("\nFailed runs (skipped above):\n");
        for (const std::string& p : problems())
            std::printf("  %s\n", p.c_str());
    }
    std::printf("threads after util_uninit: %d\n", left);
    if (left != 1)
        std::fprintf(stderr, "bench_thread: %d threads still run after util_uninit (expected 1)\n", left);
    util_bench::report_log(folder);
    const char* keep = std::getenv("UTIL_BENCH_KEEP_LOGS");
    if (keep && *keep && std::strcmp(keep, "0") != 0) {
        std::printf("library log kept in %s\n", folder);
    } else {
        std::error_code ec;
        std::filesystem::remove_all(folder, ec);
    }
    std::fflush(stdout);
    return rc;
}
