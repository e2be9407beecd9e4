// Messages between threads: msg_queue_t with one and two writers against a
// std::mutex + std::deque queue and moodycamel::ConcurrentQueue, and the
// wake-up round trip of two sleeping threads through notifiers against a
// std::condition_variable pair.
//
// Throughput: each iteration moves a batch of heap-allocated messages from
// the writers to one reader, which runs and frees them; every side allocates
// and frees the same way. The reader spins (then yields) when empty.
//
// util-bench-peers: concurrentqueue
#include <concurrentqueue/concurrentqueue.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "msg_queue.h"
#include "notifier.h"
#include "timer.h"

namespace {

const int BATCH = 100000;

std::atomic<uint64_t> g_sink(0);

class bench_msg_t : public ssb::msg_it {
public:
    explicit bench_msg_t(uint64_t v) : m_value(v) {}
    void on_message() override { g_sink.fetch_add(m_value, std::memory_order_relaxed); }

private:
    uint64_t m_value;
};

void backoff(unsigned int& spins) {
    if (++spins > 64) {
        spins = 0;
        std::this_thread::yield();
    }
}

// ---- throughput ---------------------------------------------------------------------

struct ours_t {
    ours_t() : q(new ssb::msg_queue_t(nullptr, nullptr, 16384, ssb::MSG_QUEUE_SIGNAL_WHEN_EMPTY)) { q->increment(); }
    ~ours_t() { q->decrement(); }
    void push(ssb::msg_it* m) {
        unsigned int spins = 0;
        while (q->post_msg(m, nullptr) == ssb::RESULT_QUEUE_FULL)
            backoff(spins);
    }
    bool pop(ssb::msg_it*& m) { return q->pop_msg(m) == ssb::RESULT_SUCCESS; }
    ssb::msg_queue_t* q;
};

struct mutex_deque_t {
    void push(ssb::msg_it* m) {
        std::lock_guard<std::mutex> guard(mutex);
        q.push_back(m);
    }
    bool pop(ssb::msg_it*& m) {
        std::lock_guard<std::mutex> guard(mutex);
        if (q.empty())
            return false;
        m = q.front();
        q.pop_front();
        return true;
    }
    std::mutex mutex;
    std::deque<ssb::msg_it*> q;
};

struct concurrent_queue_t {
    void push(ssb::msg_it* m) { q.enqueue(m); }
    bool pop(ssb::msg_it*& m) { return q.try_dequeue(m); }
    moodycamel::ConcurrentQueue<ssb::msg_it*> q;
};

// Messages stamp their creation tick and read it again on release. In a
// running library the timer thread keeps that clock cached; this stands in
// for it so the figures show the queues, not this machine's clock_gettime
// (about 45 ns here). Argument 1 of each benchmark selects it.
class cached_clock_t {
public:
    explicit cached_clock_t(bool on) : m_on(on) {
        if (!m_on)
            return;
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
        if (!m_on)
            return;
        m_stop.store(true);
        m_thread.join();
        ssb::ticks_drv_t::s_start.store(false);
    }

private:
    bool m_on;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

template <class Q>
void throughput(benchmark::State& state) {
    const int writers = static_cast<int>(state.range(0));
    cached_clock_t clock(state.range(1) != 0);
    Q queue;
    for (auto _ : state) {
        std::thread reader([&] {
            unsigned int spins = 0;
            for (int got = 0; got < BATCH * writers;) {
                ssb::msg_it* m = nullptr;
                if (queue.pop(m)) {
                    m->on_message();
                    m->release();
                    ++got;
                } else {
                    backoff(spins);
                }
            }
        });
        std::vector<std::thread> threads;
        for (int w = 0; w < writers; ++w)
            threads.emplace_back([&] {
                for (int i = 0; i < BATCH; ++i)
                    queue.push(new bench_msg_t(i));
            });
        for (auto& t : threads)
            t.join();
        reader.join();
    }
    state.SetItemsProcessed(state.iterations() * BATCH * writers);
}

// Arguments: writers, cached clock.
#define QUEUE_ARGS ->ArgsProduct({{1, 2}, {0, 1}})->UseRealTime()
BENCHMARK_TEMPLATE(throughput, ours_t)->Name("msg_queue_writers/ours") QUEUE_ARGS;
BENCHMARK_TEMPLATE(throughput, mutex_deque_t)->Name("msg_queue_writers/mutex_deque") QUEUE_ARGS;
BENCHMARK_TEMPLATE(throughput, concurrent_queue_t)->Name("msg_queue_writers/moodycamel_concurrentqueue") QUEUE_ARGS;

// ---- wake-up round trip -----------------------------------------------------------------

// Each side sleeps until the other wakes it; one iteration is one round
// trip. The median and the 99th percentile go out as counters (µs).
template <class side_t>
void round_trip(benchmark::State& state) {
    side_t a, b;
    std::atomic<bool> stop(false);
    std::thread echo([&] {
        while (true) {
            b.wait();
            if (stop.load(std::memory_order_acquire))
                break;
            a.wake();
        }
    });
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

BENCHMARK_TEMPLATE(round_trip, sock_side_t)->Name("wake_round_trip/ours_notifier_sock")->UseManualTime();
BENCHMARK_TEMPLATE(round_trip, event_side_t)->Name("wake_round_trip/ours_notifier_event")->UseManualTime();
BENCHMARK_TEMPLATE(round_trip, condvar_side_t)->Name("wake_round_trip/condition_variable")->UseManualTime();

}  // namespace

UTIL_BENCH_MAIN()
