// Messages between threads: msg_queue_t with one and two writers against a
// std::mutex + std::deque queue and moodycamel::ConcurrentQueue, each
// unbounded and bounded, and the wake-up round trip of two sleeping threads
// through notifiers against a std::condition_variable pair and a raw futex
// pair.
//
// msg_queue_writers/<side>/writers:W/alloc:A/place:P: each batch moves
// 100,000 messages per writer to one reader, which runs and releases them;
// an iteration is one message, so times are ns per message, wall clock. Writers and the reader spin (then yield) on a
// full or empty queue; our queue has no reader notifier here, so no wake-up
// system call is made on any side. The library clock is cached as a running
// library keeps it (a timer thread refreshing it every millisecond).
//   alloc:0  pre-allocated: the same pre-built messages on every side,
//            release does nothing. The queue alone.
//   alloc:1  the library allocator on every side: ours a msg_it, the peers
//            a plain task object, both taken from ssb_allocator_t on the
//            writer and freed on the reader.
//   alloc:2  each side's natural allocation: ours a msg_it from operator new
//            freed by msg_it::release (its stay check reads the clock), the
//            peers a plain task from new, freed with delete.
//   place:1  the one writer and the reader pinned to two different cores;
//   place:0  unpinned (all two-writer rows: three threads, two CPUs).
// Peers: mutex_deque (unbounded), mutex_deque_bounded (refuses at 16,383
// queued, as our 16,384-node ring does), moodycamel_cq (unbounded, implicit
// producers: what a user writes first), moodycamel_cq_bounded (one explicit
// producer token per writer, blocks preallocated for 16,384, try_enqueue
// refuses when full; one writer only: an explicit producer keeps every block
// it has taken, so with two the first can hold the whole preallocation and
// starve the second for good, which these runs met).
// ours_mode0 and ours_o2o: diagnostic rows, see ours_mode0_t below.
// Counters per message: empty_pops (reader found nothing), full_pushes
// (writer refused), and the process's CPU time and context switches.
//
// util-bench-peers: concurrentqueue
#include <concurrentqueue/concurrentqueue.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "alloc.h"
#include "bench_support.h"
#include "msg_queue.h"
#include "notifier.h"
#include "timer.h"

namespace {

const int BATCH = 100000;
const unsigned int CAPACITY = 16384;
// What our ring of CAPACITY nodes holds.
const size_t BOUND = CAPACITY - 1;
const std::chrono::seconds STALL_LIMIT(5);

enum alloc_mode_t { ALLOC_POOL = 0, ALLOC_LIBRARY = 1, ALLOC_NATURAL = 2 };

void backoff(unsigned int& spins) {
    if (++spins > 64) {
        spins = 0;
        std::this_thread::yield();
    }
}

// The reader's running sum; written by the reader only.
struct alignas(64) reader_sum_t {
    uint64_t value = 0;
};

// ---- messages ---------------------------------------------------------------------------

// Pre-built, reused every iteration; release leaves it alive.
class pooled_msg_t : public ssb::msg_it {
public:
    pooled_msg_t() {}
    void set(uint64_t v, reader_sum_t* sum) {
        m_value = v;
        m_sum = sum;
    }
    void on_message() override { m_sum->value += m_value; }
    void release() override {}
    ~pooled_msg_t() override {}

private:
    uint64_t m_value = 0;
    reader_sum_t* m_sum = nullptr;
};

// Our message as a user writes it: freed by msg_it::release.
class heap_msg_t : public ssb::msg_it {
public:
    heap_msg_t(uint64_t v, reader_sum_t* sum) : m_value(v), m_sum(sum) {}
    void on_message() override { m_sum->value += m_value; }

private:
    uint64_t m_value;
    reader_sum_t* m_sum;
};

inline void* library_allocate(size_t n) {
    void* p = ssb::ssb_allocator_t::instance()->allocate(static_cast<unsigned int>(n));
    if (!p)
        throw std::bad_alloc();
    return p;
}

inline void library_free(void* p, size_t n) {
    ssb::ssb_allocator_t::instance()->deallocate(static_cast<signed char*>(p), static_cast<unsigned int>(n));
}

// The same, its memory from the library allocator (release's delete uses
// the class's operator delete).
class library_msg_t : public heap_msg_t {
public:
    using heap_msg_t::heap_msg_t;
    static void* operator new(size_t n) { return library_allocate(n); }
    static void operator delete(void* p, size_t n) { library_free(p, n); }
};

// The peers' message: a plain task with no base of ours.
class task_t {
public:
    task_t(uint64_t v, reader_sum_t* sum) : m_value(v), m_sum(sum) {}
    virtual ~task_t() {}
    virtual void run() { m_sum->value += m_value; }

private:
    uint64_t m_value;
    reader_sum_t* m_sum;
};

class library_task_t : public task_t {
public:
    using task_t::task_t;
    static void* operator new(size_t n) { return library_allocate(n); }
    static void operator delete(void* p, size_t n) { library_free(p, n); }
};

inline void consume(ssb::msg_it* m) {
    m->on_message();
    m->release();
}

inline void consume(task_t* t) {
    t->run();
    delete t;
}

// What each side carries in each mode, and how a writer makes it.
template <bool OURS, int MODE>
struct maker_t;

template <bool OURS>
struct maker_t<OURS, ALLOC_POOL> {
    typedef ssb::msg_it* item_t;
    std::vector<std::unique_ptr<pooled_msg_t[]>> pools;
    maker_t(int writers, reader_sum_t* sum) {
        for (int w = 0; w < writers; ++w) {
            pools.emplace_back(new pooled_msg_t[BATCH]);
            for (int i = 0; i < BATCH; ++i)
                pools.back()[i].set(static_cast<uint64_t>(i), sum);
        }
    }
    item_t make(int writer, int i, reader_sum_t*) { return &pools[static_cast<size_t>(writer)][i]; }
};

template <>
struct maker_t<true, ALLOC_LIBRARY> {
    typedef ssb::msg_it* item_t;
    maker_t(int, reader_sum_t*) {}
    item_t make(int, int i, reader_sum_t* sum) { return new library_msg_t(static_cast<uint64_t>(i), sum); }
};

template <>
struct maker_t<true, ALLOC_NATURAL> {
    typedef ssb::msg_it* item_t;
    maker_t(int, reader_sum_t*) {}
    item_t make(int, int i, reader_sum_t* sum) { return new heap_msg_t(static_cast<uint64_t>(i), sum); }
};

template <>
struct maker_t<false, ALLOC_LIBRARY> {
    typedef task_t* item_t;
    maker_t(int, reader_sum_t*) {}
    item_t make(int, int i, reader_sum_t* sum) { return new library_task_t(static_cast<uint64_t>(i), sum); }
};

template <>
struct maker_t<false, ALLOC_NATURAL> {
    typedef task_t* item_t;
    maker_t(int, reader_sum_t*) {}
    item_t make(int, int i, reader_sum_t* sum) { return new task_t(static_cast<uint64_t>(i), sum); }
};

// ---- queues -----------------------------------------------------------------------------

// push answers false when the queue refused (full); the writer backs off
// and retries, as a writer of ours does on RESULT_QUEUE_FULL.
struct ours_t {
    static const bool OURS = true;
    static const int MAX_WRITERS = 64;
    typedef ssb::msg_it* item_t;
    explicit ours_t(int) : q(new ssb::msg_queue_t(nullptr, nullptr, CAPACITY, ssb::MSG_QUEUE_SIGNAL_WHEN_EMPTY)) {
        q->increment();
    }
    ~ours_t() { q->decrement(); }
    bool push(int, ssb::msg_it* m) { return q->post_msg(m, nullptr) != ssb::RESULT_QUEUE_FULL; }
    bool pop(ssb::msg_it*& m) { return q->pop_msg(m) == ssb::RESULT_SUCCESS; }
    ssb::msg_queue_t* q;
};

// Diagnostic rows, the queue alone: what two described duties cost.
//   mode0:      mode 0 without a notifier, so a post makes no wake-up
//               decision (the writer's fence and the reader's idle flag are
//               skipped);
//   o2o:        the one-writer queue, whose push takes no lock (one writer
//               only);
//   o2o_mode0:  neither: the one-writer queue in mode 0 with a notifier that
//               does nothing, i.e. the ring, the statistics switch and the
//               message calls alone.
struct ours_mode0_t : ours_t {
    explicit ours_mode0_t(int) : ours_t(0) {
        q->decrement();
        q = new ssb::msg_queue_t(nullptr, nullptr, CAPACITY, ssb::MSG_QUEUE_SIGNAL_ALWAYS);
        q->increment();
    }
};

struct ours_o2o_t {
    static const bool OURS = true;
    static const int MAX_WRITERS = 1;
    typedef ssb::msg_it* item_t;
    explicit ours_o2o_t(int)
        : wake(true, false, false),
          q(new ssb::o2o_msg_queue_t(&wake, nullptr, CAPACITY, ssb::MSG_QUEUE_SIGNAL_WHEN_EMPTY)) {
        q->increment();
    }
    ~ours_o2o_t() { q->decrement(); }
    bool push(int, ssb::msg_it* m) { return q->post_msg(m, nullptr) != ssb::RESULT_QUEUE_FULL; }
    bool pop(ssb::msg_it*& m) { return q->pop_msg(m) == ssb::RESULT_SUCCESS; }
    ssb::notifier_event_t wake;
    ssb::o2o_msg_queue_t* q;
};

// Signals nobody: mode 0 calls it after every push.
class null_notifier_t : public ssb::notifier_it {
public:
    int wait(int, bool) override { return ssb::RESULT_SUCCESS; }
    int signal() override { return ssb::RESULT_SUCCESS; }
    int pulse(bool) override { return ssb::RESULT_SUCCESS; }
    int reset() override { return ssb::RESULT_SUCCESS; }
    ssb::notifier_handle_t get_id() const override { return ssb::INVALID_NOTIFIER_HANDLE; }
    int open() override { return ssb::RESULT_SUCCESS; }
    void close() override {}
    bool is_active() const override { return true; }
};

struct ours_o2o_mode0_t {
    static const bool OURS = true;
    static const int MAX_WRITERS = 1;
    typedef ssb::msg_it* item_t;
    explicit ours_o2o_mode0_t(int)
        : q(new ssb::o2o_msg_queue_t(&none, nullptr, CAPACITY, ssb::MSG_QUEUE_SIGNAL_ALWAYS)) {
        q->increment();
    }
    ~ours_o2o_mode0_t() { q->decrement(); }
    bool push(int, ssb::msg_it* m) { return q->post_msg(m, nullptr) != ssb::RESULT_QUEUE_FULL; }
    bool pop(ssb::msg_it*& m) { return q->pop_msg(m) == ssb::RESULT_SUCCESS; }
    null_notifier_t none;
    ssb::o2o_msg_queue_t* q;
};

template <class T, bool BOUNDED>
struct mutex_deque_t {
    static const bool OURS = false;
    static const int MAX_WRITERS = 64;
    typedef T item_t;
    explicit mutex_deque_t(int) {}
    bool push(int, T m) {
        std::lock_guard<std::mutex> guard(mutex);
        if (BOUNDED && q.size() >= BOUND)
            return false;
        q.push_back(m);
        return true;
    }
    bool pop(T& m) {
        std::lock_guard<std::mutex> guard(mutex);
        if (q.empty())
            return false;
        m = q.front();
        q.pop_front();
        return true;
    }
    std::mutex mutex;
    std::deque<T> q;
};

template <class T>
struct concurrent_queue_t {
    static const bool OURS = false;
    static const int MAX_WRITERS = 64;
    typedef T item_t;
    explicit concurrent_queue_t(int) {}
    bool push(int, T m) { return q.enqueue(m); }
    bool pop(T& m) { return q.try_dequeue(m); }
    moodycamel::ConcurrentQueue<T> q;
};

template <class T>
struct concurrent_queue_bounded_t {
    static const bool OURS = false;
    static const int MAX_WRITERS = 1;
    typedef T item_t;
    explicit concurrent_queue_bounded_t(int writers) : q(CAPACITY, static_cast<size_t>(writers), 0) {
        for (int w = 0; w < writers; ++w)
            tokens.emplace_back(new moodycamel::ProducerToken(q));
    }
    bool push(int writer, T m) { return q.try_enqueue(*tokens[static_cast<size_t>(writer)], m); }
    bool pop(T& m) { return q.try_dequeue(m); }
    moodycamel::ConcurrentQueue<T> q;
    std::vector<std::unique_ptr<moodycamel::ProducerToken>> tokens;
};

// Messages stamp their creation tick and read it again on release. In a
// running library the timer thread keeps that clock cached; this stands in
// for it so the figures show the queues, not this machine's clock_gettime.
class cached_clock_t {
public:
    cached_clock_t() {
        ssb::ticks_drv_t::s_tag.store(ssb::tick_strategy::now());
        ssb::ticks_drv_t::s_start.store(true);
        m_thread = std::thread([this] {
            while (!m_stop.load()) {
                ssb::ticks_drv_t::s_tag.store(ssb::tick_strategy::now());
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }
    ~cached_clock_t() {
        m_stop.store(true);
        m_thread.join();
        ssb::ticks_drv_t::s_start.store(false);
    }

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

template <template <class> class Q, int MODE>
struct queue_of {
    typedef Q<typename maker_t<false, MODE>::item_t> type;
};

template <class Q, int MODE>
void throughput(benchmark::State& state) {
    const int writers = static_cast<int>(state.range(0));
    const int placement = static_cast<int>(state.range(2));
    if (!util_bench::placement_possible(state, placement))
        return;
    if (writers > Q::MAX_WRITERS) {
        state.SkipWithError("one writer only (see the file's header)");
        return;
    }
    cached_clock_t clock;
    reader_sum_t sum;
    maker_t<Q::OURS, MODE> maker(writers, &sum);
    Q queue(writers);
    util_bench::tally_t empty_pops, got_total;
    std::vector<util_bench::tally_t> fulls(static_cast<size_t>(writers));
    util_bench::usage_meter_t usage;
    // Set by a writer refused for STALL_LIMIT on end: the batch is abandoned.
    std::atomic<bool> stalled{false};
    while (state.KeepRunningBatch(BATCH * writers)) {
        std::thread reader([&] {
            util_bench::place_thread(placement, 1);
            unsigned int spins = 0;
            uint64_t empty = 0;
            int got = 0;
            while (got < BATCH * writers && !stalled.load(std::memory_order_relaxed)) {
                typename Q::item_t m = nullptr;
                if (queue.pop(m)) {
                    consume(m);
                    ++got;
                } else {
                    ++empty;
                    backoff(spins);
                }
            }
            empty_pops.value.fetch_add(empty, std::memory_order_relaxed);
            got_total.value.fetch_add(static_cast<uint64_t>(got), std::memory_order_relaxed);
        });
        std::vector<std::thread> threads;
        for (int w = 0; w < writers; ++w)
            threads.emplace_back([&, w] {
                util_bench::place_thread(placement, 0);
                uint64_t full = 0;
                for (int i = 0; i < BATCH && !stalled.load(std::memory_order_relaxed); ++i) {
                    typename Q::item_t m = maker.make(w, i, &sum);
                    unsigned int spins = 0;
                    std::chrono::steady_clock::time_point since{};
                    while (!queue.push(w, m)) {
                        if (++full % 4096 == 0) {
                            auto now = std::chrono::steady_clock::now();
                            if (since == std::chrono::steady_clock::time_point{})
                                since = now;
                            else if (now - since > STALL_LIMIT)
                                stalled.store(true, std::memory_order_relaxed);
                            if (stalled.load(std::memory_order_relaxed)) {
                                // Never queued: freed here, as the reader would.
                                consume(m);
                                break;
                            }
                        }
                        backoff(spins);
                    }
                }
                fulls[static_cast<size_t>(w)].value.fetch_add(full, std::memory_order_relaxed);
            });
        for (auto& t : threads)
            t.join();
        reader.join();
        if (stalled.load()) {
            state.SkipWithError("a writer was refused for 5 s on end");
            break;
        }
    }
    const double items = static_cast<double>(state.iterations());
    state.SetItemsProcessed(state.iterations());
    uint64_t full = 0;
    for (const util_bench::tally_t& f : fulls)
        full += f.value.load();
    state.counters["empty_pops_per_item"] = static_cast<double>(empty_pops.value.load()) / items;
    state.counters["full_pushes_per_item"] = static_cast<double>(full) / items;
    usage.report(state, items);
    if (!stalled.load() && static_cast<double>(got_total.value.load()) != items)
        state.SkipWithError("messages lost or duplicated");
}

template <class T>
using md_unbounded = mutex_deque_t<T, false>;
template <class T>
using md_bounded = mutex_deque_t<T, true>;

// Arguments: writers, allocation, placement; allocation modes below
// `allocs`, and the two-writer row only when `writers` allows it.
void add_rows(benchmark::internal::Benchmark* b, int allocs, int writers) {
    b->ArgNames({"writers", "alloc", "place"});
    for (int alloc = 0; alloc < allocs; ++alloc) {
        b->Args({1, alloc, 1});
        b->Args({1, alloc, 0});
        if (writers > 1)
            b->Args({2, alloc, 0});
    }
    b->UseRealTime();
}

void queue_args(benchmark::internal::Benchmark* b) { add_rows(b, 3, 2); }

// The pre-allocated rows only, for the diagnostic variants.
void pool_args(benchmark::internal::Benchmark* b) { add_rows(b, ALLOC_POOL + 1, 2); }

void one_writer_pool_args(benchmark::internal::Benchmark* b) { add_rows(b, ALLOC_POOL + 1, 1); }

// Every allocation mode of one side, registered under one name so that the
// ratio table pairs like rows.
template <template <class> class Q>
void peer_throughput(benchmark::State& state) {
    switch (state.range(1)) {
    case ALLOC_POOL:
        throughput<typename queue_of<Q, ALLOC_POOL>::type, ALLOC_POOL>(state);
        break;
    case ALLOC_LIBRARY:
        throughput<typename queue_of<Q, ALLOC_LIBRARY>::type, ALLOC_LIBRARY>(state);
        break;
    default:
        throughput<typename queue_of<Q, ALLOC_NATURAL>::type, ALLOC_NATURAL>(state);
        break;
    }
}

void ours_throughput(benchmark::State& state) {
    switch (state.range(1)) {
    case ALLOC_POOL:
        throughput<ours_t, ALLOC_POOL>(state);
        break;
    case ALLOC_LIBRARY:
        throughput<ours_t, ALLOC_LIBRARY>(state);
        break;
    default:
        throughput<ours_t, ALLOC_NATURAL>(state);
        break;
    }
}

BENCHMARK(ours_throughput)->Name("msg_queue_writers/ours")->Apply(queue_args);
BENCHMARK_TEMPLATE(throughput, ours_mode0_t, ALLOC_POOL)->Name("msg_queue_writers/ours_mode0")->Apply(pool_args);
BENCHMARK_TEMPLATE(throughput, ours_o2o_t, ALLOC_POOL)->Name("msg_queue_writers/ours_o2o")->Apply(one_writer_pool_args);
BENCHMARK_TEMPLATE(throughput, ours_o2o_mode0_t, ALLOC_POOL)
    ->Name("msg_queue_writers/ours_o2o_mode0")
    ->Apply(one_writer_pool_args);
BENCHMARK_TEMPLATE(peer_throughput, md_unbounded)->Name("msg_queue_writers/mutex_deque")->Apply(queue_args);
BENCHMARK_TEMPLATE(peer_throughput, md_bounded)->Name("msg_queue_writers/mutex_deque_bounded")->Apply(queue_args);
BENCHMARK_TEMPLATE(peer_throughput, concurrent_queue_t)->Name("msg_queue_writers/moodycamel_cq")->Apply(queue_args);
BENCHMARK_TEMPLATE(peer_throughput, concurrent_queue_bounded_t)
    ->Name("msg_queue_writers/moodycamel_cq_bounded")
    ->Apply(queue_args);

// ---- wake-up round trip -----------------------------------------------------------------

// Each side sleeps until the other wakes it; one iteration is one round
// trip. The median and the 99th percentile go out as counters (µs).
// Argument: placement (1 two cores, 2 one core, 0 unpinned).
template <class side_t>
void round_trip(benchmark::State& state) {
    const int placement = static_cast<int>(state.range(0));
    if (!util_bench::placement_possible(state, placement))
        return;
    side_t a, b;
    std::atomic<bool> stop(false);
    util_bench::usage_meter_t usage;
    std::thread echo([&] {
        util_bench::place_thread(placement, 1);
        while (true) {
            b.wait();
            if (stop.load(std::memory_order_acquire))
                break;
            a.wake();
        }
    });
    util_bench::place_thread(placement, 0);
    std::vector<double> samples;
    samples.reserve(1 << 16);
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        b.wake();
        a.wait();
        double us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count();
        state.SetIterationTime(us / 1e6);
        if (samples.size() < samples.capacity())
            samples.push_back(us);
    }
    stop.store(true, std::memory_order_release);
    b.wake();
    echo.join();
    util_bench::place_thread(util_bench::PLACE_FREE, 0);
    usage.report(state, static_cast<double>(state.iterations()));
    std::sort(samples.begin(), samples.end());
    if (!samples.empty()) {
        state.counters["p50_us"] = samples[samples.size() / 2];
        state.counters["p99_us"] = samples[samples.size() * 99 / 100];
    }
}

struct sock_side_t {
    ssb::notifier_sock_t n;
    void wait() { n.wait(-1, false); }
    void wake() { n.signal(); }
};

struct event_side_t {
    ssb::notifier_event_t n{false, false, false};
    void wait() { n.wait(-1, false); }
    void wake() { n.signal(); }
};

struct condvar_side_t {
    std::mutex mutex;
    std::condition_variable cv;
    bool flag = false;
    void wait() {
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait(lock, [&] { return flag; });
        flag = false;
    }
    void wake() {
        {
            std::lock_guard<std::mutex> guard(mutex);
            flag = true;
        }
        cv.notify_one();
    }
};

struct futex_side_t {
    util_bench::futex_flag_t flag;
    void wait() { flag.wait(); }
    void wake() { flag.wake(); }
};

#define ROUND_TRIP_ARGS ->ArgName("place")->Arg(1)->Arg(2)->Arg(0)->UseManualTime()
// The event notifier is what a loop thread sleeps on, so it is "ours" here.
BENCHMARK_TEMPLATE(round_trip, event_side_t)->Name("wake_round_trip/ours") ROUND_TRIP_ARGS;
BENCHMARK_TEMPLATE(round_trip, sock_side_t)->Name("wake_round_trip/ours_notifier_sock") ROUND_TRIP_ARGS;
BENCHMARK_TEMPLATE(round_trip, condvar_side_t)->Name("wake_round_trip/condition_variable") ROUND_TRIP_ARGS;
BENCHMARK_TEMPLATE(round_trip, futex_side_t)->Name("wake_round_trip/raw_futex_pair") ROUND_TRIP_ARGS;

}  // namespace

UTIL_BENCH_MAIN()
