// What the statistics cost: the same traffic with the counters on ("ours")
// and off ("stats_off"); the ratio table's figure is off time / on time, so
// 0.97 means the counters cost 3 %.
//
// stats_cost_post_pop: one thread posts a pre-allocated message to a
//   msg_queue_t and pops it again: the per-message counter work with
//   nothing to hide it (no wake-up, no other core), the worst case.
// stats_cost_stream/place:1: one writer spinning a pre-allocated message
//   into an o2o_msg_queue_t of 1,024, one reader on another core spinning
//   it out; what a channel pays.
// stats_cost_loop: a thread posts 20,000 messages (library allocator) to a
//   loop thread's control queue, yielding on a full queue; the loop runs
//   them (passes, busy time and messages per pass counted). Time per
//   message from the first post to the last run.
#include <benchmark/benchmark.h>

#include <atomic>
#include <thread>

#include "bench_support.h"
#include "alloc.h"
#include "msg_queue.h"
#include "notifier.h"
#include "stats.h"
#include "thread_mgr.h"
#include "util.h"

namespace {

using util_bench::fn_msg_t;
using util_bench::latch_t;

// Never released by the queues in these runs: it only travels.
class token_msg_t : public ssb::msg_it {
public:
    void on_message() override {}
    void release() override {}
};

struct stats_scope_t {
    explicit stats_scope_t(bool on) { ssb::stats_enable(on); }
    ~stats_scope_t() { ssb::stats_enable(true); }
};

void post_pop(benchmark::State& state, bool on) {
    stats_scope_t scope(on);
    ssb::msg_queue_t* q = new ssb::msg_queue_t(nullptr, nullptr, 1024, ssb::MSG_QUEUE_SIGNAL_WHEN_EMPTY);
    q->increment();
    token_msg_t msg;
    for (auto _ : state) {
        q->post_msg(&msg, nullptr);
        ssb::msg_it* out = nullptr;
        q->pop_msg(out);
        benchmark::DoNotOptimize(out);
    }
    q->decrement();
}

void stream(benchmark::State& state, bool on) {
    const int place = static_cast<int>(state.range(0));
    if (!util_bench::placement_possible(state, place))
        return;
    stats_scope_t scope(on);
    ssb::notifier_event_t reader_notifier;
    ssb::o2o_msg_queue_t* q =
        new ssb::o2o_msg_queue_t(&reader_notifier, nullptr, 1024, ssb::MSG_QUEUE_SIGNAL_WHEN_EMPTY);
    q->increment();
    token_msg_t msg;
    const int64_t n = state.max_iterations;
    std::thread reader([&] {
        util_bench::place_thread(place, 1);
        for (int64_t got = 0; got < n;) {
            ssb::msg_it* out = nullptr;
            if (q->pop_msg(out) == ssb::RESULT_SUCCESS)
                ++got;
        }
    });
    util_bench::place_thread(place, 0);
    for (auto _ : state) {
        while (q->post_msg(&msg, nullptr) != ssb::RESULT_SUCCESS) {
        }
    }
    reader.join();
    util_bench::place_thread(util_bench::PLACE_FREE, 0);
    q->decrement();
}

const int LOOP_BATCH = 20000;

void loop(benchmark::State& state, bool on) {
    stats_scope_t scope(on);
    ssb::thread_mgr_t::reset();
    util_init(1, nullptr, nullptr, nullptr, 0, 0);
    ssb::thread_wrapper_t* thr = ssb::thread_mgr_t::instance()->spawn(
        ssb::THREAD_MODE_EVENT, 1024, 100, false, reinterpret_cast<signed char*>(const_cast<char*>("sink")), 0);
    latch_t done;
    int count = 0;
    auto counted = [&count, &done] {
        if (++count == LOOP_BATCH)
            done.open();
    };
    typedef fn_msg_t<decltype(counted)> counted_msg_t;
    struct alloc_msg_t : counted_msg_t {
        using counted_msg_t::counted_msg_t;
        static void* operator new(size_t size) {
            return ssb::ssb_allocator_t::instance()->allocate(static_cast<unsigned int>(size));
        }
        static void operator delete(void* p, size_t size) {
            ssb::ssb_allocator_t::instance()->deallocate(static_cast<signed char*>(p), static_cast<unsigned int>(size));
        }
    };
    while (state.KeepRunningBatch(LOOP_BATCH)) {
        count = 0;
        done.arm();
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < LOOP_BATCH; ++i) {
            alloc_msg_t* msg = new alloc_msg_t(counted);
            while (thr->post_ctrl_msg(msg, nullptr) != ssb::RESULT_SUCCESS)
                std::this_thread::yield();
        }
        if (!done.wait()) {
            state.SkipWithError("the loop ran no message for 10 s");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    util_uninit(1);
}

}  // namespace

BENCHMARK_CAPTURE(post_pop, on, true)->Name("stats_cost_post_pop/ours");
BENCHMARK_CAPTURE(post_pop, off, false)->Name("stats_cost_post_pop/stats_off");
BENCHMARK_CAPTURE(stream, on, true)->Name("stats_cost_stream/ours")->ArgName("place")->Arg(1)->Iterations(1000000);
BENCHMARK_CAPTURE(stream, off, false)
    ->Name("stats_cost_stream/stats_off")
    ->ArgName("place")
    ->Arg(1)
    ->Iterations(1000000);
BENCHMARK_CAPTURE(loop, on, true)->Name("stats_cost_loop/ours")->Iterations(20 * LOOP_BATCH)->UseManualTime();
BENCHMARK_CAPTURE(loop, off, false)->Name("stats_cost_loop/stats_off")->Iterations(20 * LOOP_BATCH)->UseManualTime();

UTIL_BENCH_MAIN();
