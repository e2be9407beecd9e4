// Closures and observers across threads, against boost::asio.
//
// post_lambda: thread A posts a batch of lambdas to thread B, which runs
// them (each bumps a counter). Ours: two event threads bound by a channel;
// A posts with post_task and, on a full channel, resumes from the sink
// call-back. Asio: io_context A posts to io_context B, each run by one
// thread. Captures of 16 and 64 bytes; both sides allocate one object per
// lambda (our task message, asio's handler operation). B drains whatever is
// queued per wake-up on both sides.
//
// notify_observers: the benchmark thread notifies 8 observers on 4 threads
// (two each). Ours: observer_holder_t::notify; asio: a list of (observer,
// io_context) pairs and one post per observer.
//
// Times are manual, from the first post of a batch to the last receipt,
// per lambda (per notification for the observers). The library logs at
// WARNING and above into a temporary folder.
//
// util-bench-peers: boost
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "log.h"
#include "observer.h"
#include "task.h"
#include "thread.h"
#include "thread_mgr.h"
#include "util.h"

namespace {

using util_bench::latch_t;

using bench_clock = std::chrono::steady_clock;

const int BATCH = 20000;
const int BATCHES = 50;
const int NOTIFY_BATCH = 200;
const int NOTIFY_BATCHES = 100;
const unsigned int BENCH_THREAD_TYPE = 100;
const unsigned int CTRL_QUEUE_SIZE = 4096;
const unsigned int CHANNEL_CAPACITY = 4096;

// Counts receipts on the receiving side; the last one of a batch stamps the
// end and opens the latch.
struct counter_t {
    std::atomic<int64_t> left{0};
    bench_clock::time_point start;
    bench_clock::time_point end;
    latch_t done;
    void arm(int64_t n) {
        left.store(n);
        done.arm();
    }
    void hit() {
        if (left.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            end = bench_clock::now();
            done.open();
        }
    }
};

// A capture of CAPTURE bytes: the counter's pointer and a payload.
template <size_t CAPTURE>
struct payload_t {
    counter_t* counter;
    std::array<char, CAPTURE - sizeof(counter_t*)> bytes;
};

template <size_t CAPTURE>
auto make_lambda(counter_t* c) {
    payload_t<CAPTURE> p;
    p.counter = c;
    p.bytes.fill(1);
    return [p] {
        benchmark::DoNotOptimize(p.bytes[0]);
        p.counter->hit();
    };
}

ssb::thread_wrapper_t* spawn() {
    ssb::thread_mgr_t* mgr = ssb::thread_mgr_t::peek();
    return mgr ? mgr->spawn(ssb::THREAD_MODE_EVENT, CTRL_QUEUE_SIZE, BENCH_THREAD_TYPE, false, nullptr, 0xFFFFFFFFu)
               : nullptr;
}

void stop(ssb::thread_wrapper_t* thr) {
    if (thr)
        ssb::thread_mgr_t::peek()->stop_thread_by_id(thr->get_id());
}

// Runs on A: posts to B until the channel is full, then resumes from the
// sink call-back, which comes on A once B made room.
template <size_t CAPTURE>
class producer_t : public ssb::msg_queue_sink_it {
public:
    producer_t(ssb::thread_wrapper_t* target, counter_t* counter) : m_target(target), m_counter(counter) {}
    void begin(int n) {
        m_left = n;
        m_counter->start = bench_clock::now();
        pump();
    }
    void on_queue_room(int) override { pump(); }
    int m_error = 0;

private:
    void pump() {
        while (m_left > 0) {
            const int rv = ssb::post_task(m_target, make_lambda<CAPTURE>(m_counter), nullptr, this);
            if (rv == ssb::RESULT_QUEUE_FULL)
                return;
            if (rv != ssb::RESULT_SUCCESS) {
                m_error = rv;
                m_counter->done.open();
                return;
            }
            --m_left;
        }
    }

    int m_left = 0;
    ssb::thread_wrapper_t* m_target;
    counter_t* m_counter;
};

template <size_t CAPTURE>
void post_lambda_ours(benchmark::State& state) {
    ssb::thread_wrapper_t* a = spawn();
    ssb::thread_wrapper_t* b = spawn();
    ssb::thread_wrapper_t* main_thr = ssb::thread_mgr_t::peek()->find_by_type(ssb::THREAD_TYPE_MAIN);
    if (!a || !b || a->create_channel(b, CHANNEL_CAPACITY, CHANNEL_CAPACITY) != ssb::RESULT_SUCCESS ||
        main_thr->create_channel(a, 64, 64) != ssb::RESULT_SUCCESS) {
        state.SkipWithError("threads or channels not made");
        stop(a);
        stop(b);
        return;
    }
    counter_t counter;
    producer_t<CAPTURE> producer(b, &counter);
    while (state.KeepRunningBatch(BATCH)) {
        counter.arm(BATCH);
        ssb::post_task(a, [&] { producer.begin(BATCH); });
        if (!counter.done.wait() || producer.m_error) {
            state.SkipWithError("a batch did not finish");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(counter.end - counter.start).count());
    }
    // The producer's last sink call-back may still be on its way.
    ssb::send_task(a, [] {});
    main_thr->release_channel(a);
    stop(a);
    stop(b);
}

template <size_t CAPTURE>
void post_lambda_asio(benchmark::State& state) {
    boost::asio::io_context io_a, io_b;
    auto guard_a = boost::asio::make_work_guard(io_a);
    auto guard_b = boost::asio::make_work_guard(io_b);
    std::thread ta([&] { io_a.run(); });
    std::thread tb([&] { io_b.run(); });
    counter_t counter;
    while (state.KeepRunningBatch(BATCH)) {
        counter.arm(BATCH);
        boost::asio::post(io_a, [&] {
            counter.start = bench_clock::now();
            for (int i = 0; i < BATCH; ++i)
                boost::asio::post(io_b, make_lambda<CAPTURE>(&counter));
        });
        if (!counter.done.wait()) {
            state.SkipWithError("a batch did not finish");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(counter.end - counter.start).count());
    }
    guard_a.reset();
    guard_b.reset();
    ta.join();
    tb.join();
}

// ---- observers --------------------------------------------------------------------

struct counting_observer_t : ssb::observer_it {
    counter_t* counter = nullptr;
    void on_notify(uint32_t, ssb::ref_count_it*) override { counter->hit(); }
};

const int OBSERVER_THREADS = 4;
const int OBSERVERS = 8;

void notify_observers_ours(benchmark::State& state) {
    ssb::thread_wrapper_t* threads[OBSERVER_THREADS] = {};
    bool ok = true;
    for (auto& t : threads)
        ok = (t = spawn()) != nullptr && ok;
    counter_t counter;
    counting_observer_t observers[OBSERVERS];
    ssb::observer_holder_t holder;
    for (int i = 0; ok && i < OBSERVERS; ++i) {
        observers[i].counter = &counter;
        int added = ssb::RESULT_FAILURE;
        // From an unmanaged thread: over the control queue, no channel needed.
        std::thread([&] {
            ssb::send_task(threads[i % OBSERVER_THREADS], [&] { added = holder.add_observer(&observers[i]); });
        }).join();
        ok = added == ssb::RESULT_SUCCESS;
    }
    if (!ok)
        state.SkipWithError("threads or observers not made");
    while (ok && state.KeepRunningBatch(NOTIFY_BATCH)) {
        counter.arm(int64_t(NOTIFY_BATCH) * OBSERVERS);
        counter.start = bench_clock::now();
        for (int n = 0; n < NOTIFY_BATCH; ++n)
            if (holder.notify(1) != ssb::RESULT_SUCCESS) {
                state.SkipWithError("a notification was refused");
                ok = false;
                break;
            }
        if (ok && !counter.done.wait()) {
            state.SkipWithError("a batch did not finish");
            ok = false;
        }
        state.SetIterationTime(std::chrono::duration<double>(counter.end - counter.start).count());
    }
    for (auto& o : observers)
        holder.remove_observer(&o);
    for (auto t : threads)
        stop(t);
}

void notify_observers_asio(benchmark::State& state) {
    boost::asio::io_context io[OBSERVER_THREADS];
    std::vector<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> guards;
    std::vector<std::thread> threads;
    for (auto& c : io) {
        guards.push_back(boost::asio::make_work_guard(c));
        threads.emplace_back([&c] { c.run(); });
    }
    counter_t counter;
    counting_observer_t observers[OBSERVERS];
    std::vector<std::pair<counting_observer_t*, boost::asio::io_context*>> list;
    for (int i = 0; i < OBSERVERS; ++i) {
        observers[i].counter = &counter;
        list.emplace_back(&observers[i], &io[i % OBSERVER_THREADS]);
    }
    while (state.KeepRunningBatch(NOTIFY_BATCH)) {
        counter.arm(int64_t(NOTIFY_BATCH) * OBSERVERS);
        counter.start = bench_clock::now();
        for (int n = 0; n < NOTIFY_BATCH; ++n)
            for (auto& e : list)
                boost::asio::post(*e.second, [o = e.first] { o->on_notify(1, nullptr); });
        if (!counter.done.wait()) {
            state.SkipWithError("a batch did not finish");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(counter.end - counter.start).count());
    }
    guards.clear();
    for (auto& t : threads)
        t.join();
}

#define BATCH_ARGS ->Iterations(BATCHES* BATCH)->UseManualTime()
BENCHMARK(post_lambda_ours<16>)->Name("post_lambda/capture:16/ours") BATCH_ARGS;
BENCHMARK(post_lambda_asio<16>)->Name("post_lambda/capture:16/asio") BATCH_ARGS;
BENCHMARK(post_lambda_ours<64>)->Name("post_lambda/capture:64/ours") BATCH_ARGS;
BENCHMARK(post_lambda_asio<64>)->Name("post_lambda/capture:64/asio") BATCH_ARGS;
#define NOTIFY_ARGS ->Iterations(NOTIFY_BATCHES* NOTIFY_BATCH)->UseManualTime()
BENCHMARK(notify_observers_ours)->Name("notify_8_observers_4_threads/ours") NOTIFY_ARGS;
BENCHMARK(notify_observers_asio)->Name("notify_8_observers_4_threads/asio") NOTIFY_ARGS;

}  // namespace

int main(int argc, char** argv) {
    char folder_template[] = "/tmp/util-bench-task-XXXXXX";
    const char* folder = mkdtemp(folder_template);
    if (!folder) {
        std::perror("bench_task: mkdtemp");
        return 1;
    }
    setenv("XDG_DATA_HOME", folder, 1);
    std::string log_dir = std::string(folder) + "/logs";
    util_init(1, log_dir.c_str(), "bench", "log", 0x100000, 2);
    register_logger(ssb::UTIL_MODULE_ID, "UTIL", ssb::LOG_WARNING, nullptr, ssb::LOG_TO_FILE | ssb::LOG_TO_HANDLE);
    const int rc = util_bench::run_main(argc, argv);
    util_uninit(1);
    std::error_code ec;
    std::filesystem::remove_all(folder, ec);
    return rc;
}
