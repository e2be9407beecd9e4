// Channels that come and go between two loop threads: the cost of one
// create_channel + release_channel cycle, and the process's resident memory
// across the run, which must stay flat however many cycles run (a client
// whose peers and pipelines come and go for hours).
//
// Rows: channel_cycle/ours/<capacity> runs the cycle from a third thread
// (both ends bound by synchronous control messages, as a host does). The
// counters rss_start_kb / rss_end_kb are the process's resident set before
// and after the iterations, live_queues the queues alive after them.
// util-bench-peers:
#include <benchmark/benchmark.h>

#include <stdio.h>

#include "bench_support.h"
#include "live_count.h"
#include "thread.h"
#include "thread_mgr.h"
#include "util.h"

namespace {

// Resident set in KiB, from /proc/self/statm.
long resident_kb() {
    FILE* f = fopen("/proc/self/statm", "r");
    if (!f)
        return -1;
    long pages = 0, resident = 0;
    const int n = fscanf(f, "%ld %ld", &pages, &resident);
    fclose(f);
    return n == 2 ? resident * 4 : -1;
}

void channel_cycle(benchmark::State& state) {
    const unsigned int capacity = static_cast<unsigned int>(state.range(0));
    // A manager destroyed by the last util_uninit comes back only after
    // reset().
    ssb::thread_mgr_t::reset();
    util_init(1, nullptr, "bench-channels", nullptr, 0, 0);
    ssb::thread_mgr_t* mgr = ssb::thread_mgr_t::instance();
    if (!mgr) {
        state.SkipWithError("no thread manager");
        util_uninit(1);
        return;
    }
    ssb::thread_wrapper_t* a = mgr->spawn(ssb::THREAD_MODE_EVENT, 1024, 100, false, nullptr, 0xFFFFFFFFu);
    ssb::thread_wrapper_t* b = mgr->spawn(ssb::THREAD_MODE_EVENT, 1024, 101, false, nullptr, 0xFFFFFFFFu);
    if (!a || !b) {
        state.SkipWithError("spawn failed");
        util_uninit(1);
        return;
    }
    const long rss_start = resident_kb();
    for (auto _ : state) {
        if (a->create_channel(b, capacity, capacity) != ssb::RESULT_SUCCESS ||
            a->release_channel(b) != ssb::RESULT_SUCCESS) {
            state.SkipWithError("create/release failed");
            break;
        }
    }
    state.counters["rss_start_kb"] = static_cast<double>(rss_start);
    state.counters["rss_end_kb"] = static_cast<double>(resident_kb());
    state.counters["live_queues"] = ssb::live_msg_queues();
    util_uninit(1);
}

BENCHMARK(channel_cycle)->Name("channel_cycle/ours")->Arg(64)->Arg(4096)->Iterations(10000)->UseRealTime();

}  // namespace

UTIL_BENCH_MAIN()
