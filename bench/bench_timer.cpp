// Timers against what a host would use instead: Boost.Asio steady_timer,
// libuv uv_timer and libevent evtimer.
//
// Without flags the program runs the Google Benchmark rows:
//
// rearm/<impl>/live:N/one:M: cancel and re-arm with N = 1,000 or 1,000,000
// live timers, the "push the time-out back on every packet" pattern; time
// per cancel + re-arm pair. Each timer has its own interval, 5 to 35 s.
// one:0 visits every live timer in a shuffled order, the same for every
// implementation (the caches see what a server with many connections sees:
// at 1,000,000 most of the time is cache misses); one:1 re-arms the same
// timer among the N (what the size of the structure costs on warm caches).
// Nothing fires during a run (the loops are not driven while it runs).
//   ours   timer_elem_t::remove_timer + add_timer on the loop thread that
//          owns the timers: the public path of a host. The timed loop runs
//          inside a message on that thread; CPU time of that thread.
//   wheel  the same on a timer_queue_t alone (remove_timer + add_timer of
//          the wheel), for reference: what the handle and thread add.
//   asio   steady_timer::expires_after + async_wait; expires_after cancels
//          the pending wait, whose aborted handler is run by a poll() every
//          1,024 re-arms, counted in the time, as a running loop would.
//   uv     uv_timer_start on an active timer (it restarts it).
//   event  evtimer_add on a pending event (it re-adds it).
// The 1,000,000 rows give resident memory (/proc/self/statm) as counters:
// armed_MB, what arming the timers added, and churn_MB, what the re-arms
// added after that. The peers run in the same process, so a figure can
// include memory the allocator kept from an earlier row; run one row alone
// (--benchmark_filter=rearm/uv/1000000) for a clean one.
//
// --soak=SECONDS (e.g. 60; 10 for a quick look): 1,000 repeating 20 ms
// timers on one loop thread, for ours in the default mode, ours in the
// low-power mode, Asio (each timer re-armed from its handler at
// start + k x 20 ms, so it cannot drift) and libuv (repeat 20, which re-arms
// from the loop's time of the call-back and so drifts). Per timer: firings
// against the expected count floor(run / 20 ms) (held when within 1), drift
// = (last firing - first firing) - (n - 1) x 20 ms (held when within one
// 10 ms tick); over all firings the lateness against start + k x 20 ms (p50,
// p99, max, and the earliest); CPU ms per second of the whole process
// (getrusage) and wake-ups per second (voluntary context switches of every
// thread, /proc/self/task/*/status). The peers run before util_init, so
// their process holds only their own threads.
//
// --idle=SECONDS (e.g. 10): wake-ups per second and CPU share of a process
// after util_init with 8 message-loop threads that each armed and removed
// one timer, then with 8 threads that each hold one repeating 30 s timer,
// each in the default and in the low-power mode; util_init alone for
// comparison.
//
// --soak and --idle may be given together; either skips the benchmark rows.
// The library's log goes to a temporary folder at WARNING and above (the
// arm and cancel paths log at INFO: a file line per call would be what is
// measured); UTIL_BENCH_LOG_LEVEL overrides the level.
//
// util-bench-peers: boost uv event
#include <dirent.h>
#include <event2/event.h>
#include <sys/resource.h>
#include <unistd.h>
#include <uv.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench_support.h"
#include "log.h"
#include "msg.h"
#include "ref_holder.h"
#include "thread.h"
#include "thread_mgr.h"
#include "timer.h"
#include "timer_drv.h"
#include "util.h"

namespace {

using util_bench::fn_msg_t;

using bench_clock = std::chrono::steady_clock;

const unsigned int REARM_THREAD_TYPE = 100;
const unsigned int SOAK_THREAD_TYPE = 101;
const unsigned int IDLE_THREAD_TYPE = 102;
const unsigned int CTRL_QUEUE_SIZE = 1024;
// Fixed so that every repetition of every implementation does the same work
// on the same set-up; at 1,000,000 timers each is re-armed three times.
const int REARM_ITERATIONS = 3000000;
const unsigned int MIN_INTERVAL_MS = 5000;
const unsigned int INTERVAL_SPREAD_MS = 30000;
const unsigned int ASIO_POLL_EVERY = 1024;

const int SOAK_TIMERS = 1000;
const unsigned int SOAK_PERIOD_MS = 20;
const double TICK_MS = 10;
const int IDLE_THREADS = 8;
const unsigned int IDLE_HOLD_MS = 30000;

double now_ms() {
    static const bench_clock::time_point s_epoch = bench_clock::now();
    return std::chrono::duration<double, std::milli>(bench_clock::now() - s_epoch).count();
}

double rss_mb() {
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2)
            resident = 0;
        std::fclose(f);
    }
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

double cpu_seconds() {
    struct rusage ru;
    std::memset(&ru, 0, sizeof ru);
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// Voluntary context switches summed over the threads alive now: each is a
// thread going to sleep, i.e. one wake-up later.
long voluntary_switches() {
    long total = 0;
    DIR* dir = opendir("/proc/self/task");
    if (!dir)
        return 0;
    while (struct dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.')
            continue;
        std::ifstream in(std::string("/proc/self/task/") + e->d_name + "/status");
        std::string line;
        static const char key[] = "voluntary_ctxt_switches:";
        while (std::getline(in, line))
            if (line.compare(0, sizeof key - 1, key) == 0)
                total += std::atol(line.c_str() + sizeof key - 1);
    }
    closedir(dir);
    return total;
}

// What the process spent over a window.
struct window_t {
    double wall_ms;
    double cpu_s;
    long switches;

    static window_t now() { return window_t{now_ms(), cpu_seconds(), voluntary_switches()}; }
    double cpu_ms_per_s(const window_t& end) const { return (end.cpu_s - cpu_s) * 1e6 / (end.wall_ms - wall_ms); }
    double wakeups_per_s(const window_t& end) const {
        return static_cast<double>(end.switches - switches) * 1000 / (end.wall_ms - wall_ms);
    }
};

// Runs `f` on the loop `thr` and returns once it ran.
template <class F>
bool run_on(ssb::thread_wrapper_t* thr, F f) {
    ssb::msg_it* msg = new fn_msg_t<F>(std::move(f));
    const int rv = thr->send_ctrl_msg(msg, nullptr, -1);
    if (rv == ssb::RESULT_SUCCESS)
        return true;
    std::fprintf(stderr, "bench_timer: send_ctrl_msg returned %d\n", rv);
    msg->release();
    return false;
}

ssb::thread_wrapper_t* spawn_loop(unsigned int type) {
    ssb::thread_mgr_t* mgr = ssb::thread_mgr_t::peek();
    return mgr ? mgr->spawn(ssb::THREAD_MODE_EVENT, CTRL_QUEUE_SIZE, type, false, nullptr, 0xFFFFFFFFu) : nullptr;
}

// ---- re-arm -----------------------------------------------------------------------------

// The same intervals and visiting order for every implementation.
struct rearm_plan_t {
    std::vector<unsigned int> interval_ms;
    std::vector<uint32_t> order;

    explicit rearm_plan_t(size_t n) : interval_ms(n), order(n) {
        uint64_t x = 0x9E3779B97F4A7C15ull ^ n;
        auto next = [&x] {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            return x;
        };
        for (size_t i = 0; i < n; ++i) {
            interval_ms[i] = MIN_INTERVAL_MS + static_cast<unsigned int>(next() % INTERVAL_SPREAD_MS);
            order[i] = static_cast<uint32_t>(i);
        }
        for (size_t i = n - 1; i > 0; --i)
            std::swap(order[i], order[next() % (i + 1)]);
    }
};

const rearm_plan_t& plan_for(size_t n) {
    static std::vector<std::unique_ptr<rearm_plan_t>> s_plans;
    for (const auto& p : s_plans)
        if (p->order.size() == n)
            return *p;
    s_plans.emplace_back(new rearm_plan_t(n));
    return *s_plans.back();
}

// How many of the live timers a run re-arms: all of them, or one.
size_t visited(const benchmark::State& state) {
    return state.range(1) ? static_cast<size_t>(state.range(1)) : static_cast<size_t>(state.range(0));
}

void memory_counters(benchmark::State& state, double before, double armed, double after) {
    if (state.range(0) < 1000000 || state.range(1) != 0)
        return;
    state.counters["armed_MB"] = armed - before;
    state.counters["churn_MB"] = after - armed;
}

struct quiet_sink_t : ssb::timer_sink_it {
    void timer_work(const ssb::timer_it*) override {}
};

ssb::thread_wrapper_t* s_rearm_thread = nullptr;

void rearm_ours(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    const size_t span = visited(state);
    const rearm_plan_t& plan = plan_for(n);
    if (!s_rearm_thread) {
        state.SkipWithError("no loop thread");
        return;
    }
    int failures = 0;
    // The whole run, timed loop included, on the thread that owns the
    // timers; Google Benchmark's CPU clock is that thread's.
    run_on(s_rearm_thread, [&] {
        quiet_sink_t sink;
        const double before = rss_mb();
        std::unique_ptr<ssb::timer_elem_t[]> timers(new ssb::timer_elem_t[n]);
        for (size_t i = 0; i < n; ++i)
            failures += timers[i].add_timer(&sink, plan.interval_ms[i], 0, true) != ssb::RESULT_SUCCESS;
        const double armed = rss_mb();
        size_t k = 0;
        for (auto _ : state) {
            const uint32_t i = plan.order[k];
            timers[i].remove_timer();
            failures += timers[i].add_timer(&sink, plan.interval_ms[i], 0, true) != ssb::RESULT_SUCCESS;
            k = k + 1 == span ? 0 : k + 1;
        }
        memory_counters(state, before, armed, rss_mb());
    });
    if (failures)
        state.SkipWithError("add_timer failed");
}

// A handle placed on a wheel directly.
class raw_timer_t : public ssb::timer_it {
public:
    raw_timer_t() : ssb::timer_it(0, nullptr) {}
    ssb::timer_sink_it* get_sink() const override { return nullptr; }
    int arm(ssb::timer_queue_t& wheel, unsigned int interval_ms) {
        set_schedule(interval_ms / 10, 0);
        get_helper().set(interval_ms / 10);
        return wheel.add_timer(this, get_helper(), true);
    }
};

void rearm_wheel(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    const size_t span = visited(state);
    const rearm_plan_t& plan = plan_for(n);
    int failures = 0;
    const double before = rss_mb();
    {
        ssb::ref_holder_t<ssb::timer_queue_t> wheel(new ssb::timer_queue_t(nullptr, 0xA000));
        std::unique_ptr<raw_timer_t[]> timers(new raw_timer_t[n]);
        for (size_t i = 0; i < n; ++i)
            failures += timers[i].arm(*wheel.get(), plan.interval_ms[i]) != ssb::RESULT_SUCCESS;
        const double armed = rss_mb();
        size_t k = 0;
        for (auto _ : state) {
            const uint32_t i = plan.order[k];
            wheel->remove_timer(&timers[i]);
            failures += timers[i].arm(*wheel.get(), plan.interval_ms[i]) != ssb::RESULT_SUCCESS;
            k = k + 1 == span ? 0 : k + 1;
        }
        memory_counters(state, before, armed, rss_mb());
        // Detaches the handles first: a handle destroyed while scheduled
        // would cancel itself from a thread that does not own it.
        wheel->clear();
        timers.reset();
    }
    if (failures)
        state.SkipWithError("add_timer failed");
}

void rearm_asio(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    const size_t span = visited(state);
    const rearm_plan_t& plan = plan_for(n);
    auto ignore = [](const boost::system::error_code&) {};
    const double before = rss_mb();
    {
        boost::asio::io_context ctx;
        std::vector<boost::asio::steady_timer> timers;
        timers.reserve(n);
        for (size_t i = 0; i < n; ++i) {
            timers.emplace_back(ctx);
            timers.back().expires_after(std::chrono::milliseconds(plan.interval_ms[i]));
            timers.back().async_wait(ignore);
        }
        const double armed = rss_mb();
        size_t k = 0;
        unsigned int since_poll = 0;
        for (auto _ : state) {
            const uint32_t i = plan.order[k];
            timers[i].expires_after(std::chrono::milliseconds(plan.interval_ms[i]));
            timers[i].async_wait(ignore);
            k = k + 1 == span ? 0 : k + 1;
            if (++since_poll == ASIO_POLL_EVERY) {
                since_poll = 0;
                ctx.poll();
            }
        }
        ctx.poll();
        memory_counters(state, before, armed, rss_mb());
        for (auto& t : timers)
            t.cancel();
        ctx.poll();
    }
}

void ignore_uv(uv_timer_t*) {}

void rearm_uv(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    const size_t span = visited(state);
    const rearm_plan_t& plan = plan_for(n);
    const double before = rss_mb();
    uv_loop_t loop;
    uv_loop_init(&loop);
    std::unique_ptr<uv_timer_t[]> timers(new uv_timer_t[n]);
    for (size_t i = 0; i < n; ++i) {
        uv_timer_init(&loop, &timers[i]);
        uv_timer_start(&timers[i], ignore_uv, plan.interval_ms[i], 0);
    }
    const double armed = rss_mb();
    size_t k = 0;
    int failures = 0;
    for (auto _ : state) {
        const uint32_t i = plan.order[k];
        failures += uv_timer_start(&timers[i], ignore_uv, plan.interval_ms[i], 0) != 0;
        k = k + 1 == span ? 0 : k + 1;
    }
    memory_counters(state, before, armed, rss_mb());
    for (size_t i = 0; i < n; ++i)
        uv_close(reinterpret_cast<uv_handle_t*>(&timers[i]), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
    if (failures)
        state.SkipWithError("uv_timer_start failed");
}

void ignore_event(evutil_socket_t, short, void*) {}

timeval timeval_of(unsigned int ms) {
    timeval tv;
    tv.tv_sec = static_cast<time_t>(ms / 1000);
    tv.tv_usec = static_cast<suseconds_t>(ms % 1000 * 1000);
    return tv;
}

void rearm_event(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    const size_t span = visited(state);
    const rearm_plan_t& plan = plan_for(n);
    const double before = rss_mb();
    event_base* base = event_base_new();
    std::vector<event*> timers(n);
    for (size_t i = 0; i < n; ++i) {
        timers[i] = evtimer_new(base, ignore_event, nullptr);
        const timeval tv = timeval_of(plan.interval_ms[i]);
        evtimer_add(timers[i], &tv);
    }
    const double armed = rss_mb();
    size_t k = 0;
    int failures = 0;
    for (auto _ : state) {
        const uint32_t i = plan.order[k];
        const timeval tv = timeval_of(plan.interval_ms[i]);
        failures += evtimer_add(timers[i], &tv) != 0;
        k = k + 1 == span ? 0 : k + 1;
    }
    memory_counters(state, before, armed, rss_mb());
    for (event* e : timers)
        event_free(e);
    event_base_free(base);
    if (failures)
        state.SkipWithError("evtimer_add failed");
}

#define REARM_ARGS            \
  ->ArgNames({"live", "one"}) \
      ->Args({1000, 0})       \
      ->Args({1000000, 0})    \
      ->Args({1000, 1})       \
      ->Args({1000000, 1})    \
      ->Iterations(REARM_ITERATIONS)
BENCHMARK(rearm_ours)->Name("rearm/ours") REARM_ARGS;
BENCHMARK(rearm_wheel)->Name("rearm/wheel") REARM_ARGS;
BENCHMARK(rearm_asio)->Name("rearm/asio") REARM_ARGS;
BENCHMARK(rearm_uv)->Name("rearm/uv") REARM_ARGS;
BENCHMARK(rearm_event)->Name("rearm/event") REARM_ARGS;

// ---- soak: 1,000 repeating 20 ms timers -------------------------------------------------

struct series_t {
    double start_ms = 0;
    std::vector<double> fired_ms;
};

struct soak_result_t {
    std::string name;
    double seconds = 0;
    int count_bad = 0;
    long count_min = 0;
    long count_max = 0;
    long expected_min = 0;
    long expected_max = 0;
    int drift_bad = 0;
    double drift_max_ms = 0;
    double late_p50 = 0;
    double late_p99 = 0;
    double late_max = 0;
    double late_min = 0;
    double cpu_ms_per_s = 0;
    double wakeups_per_s = 0;
};

soak_result_t evaluate(const std::string& name, const std::vector<series_t>& all, double end_ms, const window_t& from,
                       const window_t& to) {
    soak_result_t r;
    r.name = name;
    r.seconds = (to.wall_ms - from.wall_ms) / 1000;
    r.cpu_ms_per_s = from.cpu_ms_per_s(to);
    r.wakeups_per_s = from.wakeups_per_s(to);
    r.count_min = r.expected_min = 1L << 40;
    std::vector<double> late;
    for (const series_t& s : all) {
        const long n = static_cast<long>(s.fired_ms.size());
        const long expected = static_cast<long>(std::floor((end_ms - s.start_ms) / SOAK_PERIOD_MS));
        r.count_bad += std::labs(n - expected) > 1;
        r.count_min = std::min(r.count_min, n);
        r.count_max = std::max(r.count_max, n);
        r.expected_min = std::min(r.expected_min, expected);
        r.expected_max = std::max(r.expected_max, expected);
        if (n >= 2) {
            const double drift = (s.fired_ms.back() - s.fired_ms.front()) - static_cast<double>(n - 1) * SOAK_PERIOD_MS;
            r.drift_bad += std::fabs(drift) > TICK_MS;
            r.drift_max_ms = std::max(r.drift_max_ms, std::fabs(drift));
        }
        for (long k = 0; k < n; ++k)
            late.push_back(s.fired_ms[k] - (s.start_ms + static_cast<double>(k + 1) * SOAK_PERIOD_MS));
    }
    if (!late.empty()) {
        std::sort(late.begin(), late.end());
        r.late_p50 = late[late.size() / 2];
        r.late_p99 = late[late.size() * 99 / 100];
        r.late_max = late.back();
        r.late_min = late.front();
    }
    return r;
}

void print_soak(const soak_result_t& r) {
    std::printf(
        "soak %-22s %5.1f s  firings %ld..%ld (expected %ld..%ld, %d off by >1)  |drift| max %6.1f ms (%d over "
        "10 ms)  lateness p50 %6.2f p99 %6.2f max %7.2f min %6.2f ms  CPU %7.2f ms/s  wake-ups %7.0f/s\n",
        r.name.c_str(), r.seconds, r.count_min, r.count_max, r.expected_min, r.expected_max, r.count_bad,
        r.drift_max_ms, r.drift_bad, r.late_p50, r.late_p99, r.late_max, r.late_min, r.cpu_ms_per_s, r.wakeups_per_s);
    std::fflush(stdout);
}

void sleep_seconds(double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); }

std::vector<series_t> make_series(double seconds) {
    std::vector<series_t> all(SOAK_TIMERS);
    for (series_t& s : all)
        s.fired_ms.reserve(static_cast<size_t>(seconds * 1000 / SOAK_PERIOD_MS) + 16);
    return all;
}

struct soak_sink_t : ssb::timer_sink_it {
    series_t* series = nullptr;
    void timer_work(const ssb::timer_it*) override { series->fired_ms.push_back(now_ms()); }
};

soak_result_t soak_ours(const std::string& name, double seconds) {
    std::vector<series_t> all = make_series(seconds);
    std::vector<soak_sink_t> sinks(SOAK_TIMERS);
    for (int i = 0; i < SOAK_TIMERS; ++i)
        sinks[i].series = &all[i];
    ssb::thread_wrapper_t* thr = spawn_loop(SOAK_THREAD_TYPE);
    if (!thr) {
        std::fprintf(stderr, "bench_timer: spawn failed\n");
        return soak_result_t();
    }
    ssb::timer_elem_t* timers = nullptr;
    int failures = 0;
    run_on(thr, [&] {
        timers = new ssb::timer_elem_t[SOAK_TIMERS];
        for (int i = 0; i < SOAK_TIMERS; ++i) {
            all[i].start_ms = now_ms();
            failures += timers[i].add_timer(&sinks[i], SOAK_PERIOD_MS, 0, true) != ssb::RESULT_SUCCESS;
        }
    });
    if (failures)
        std::fprintf(stderr, "bench_timer: %d add_timer calls failed\n", failures);
    const window_t from = window_t::now();
    sleep_seconds(seconds);
    const window_t to = window_t::now();
    double end_ms = 0;
    run_on(thr, [&] {
        end_ms = now_ms();
        delete[] timers;
    });
    ssb::thread_mgr_t::peek()->stop_threads_by_type(SOAK_THREAD_TYPE);
    return evaluate(name, all, end_ms, from, to);
}

soak_result_t soak_asio(double seconds) {
    std::vector<series_t> all = make_series(seconds);
    boost::asio::io_context ctx;
    std::vector<boost::asio::steady_timer> timers;
    timers.reserve(SOAK_TIMERS);
    std::vector<bench_clock::time_point> starts(SOAK_TIMERS);
    std::vector<long> fired(SOAK_TIMERS, 0);
    bool stopping = false;
    struct handler_t {
        boost::asio::steady_timer* timer;
        series_t* series;
        bench_clock::time_point start;
        long* k;
        const bool* stopping;
        void operator()(const boost::system::error_code& ec) const {
            // A wait that expired before cancel() still completes without
            // an error: without the flag it would re-arm and keep run() going.
            if (ec || *stopping)
                return;
            series->fired_ms.push_back(now_ms());
            ++*k;
            timer->expires_at(start + std::chrono::milliseconds(SOAK_PERIOD_MS) * (*k + 1));
            timer->async_wait(*this);
        }
    };
    for (int i = 0; i < SOAK_TIMERS; ++i) {
        timers.emplace_back(ctx);
        all[i].start_ms = now_ms();
        starts[i] = bench_clock::now();
        timers[i].expires_at(starts[i] + std::chrono::milliseconds(SOAK_PERIOD_MS));
        timers[i].async_wait(handler_t{&timers[i], &all[i], starts[i], &fired[i], &stopping});
    }
    std::thread runner([&ctx] { ctx.run(); });
    const window_t from = window_t::now();
    sleep_seconds(seconds);
    const window_t to = window_t::now();
    double end_ms = 0;
    boost::asio::post(ctx, [&] {
        end_ms = now_ms();
        stopping = true;
        for (auto& t : timers)
            t.cancel();
    });
    runner.join();
    return evaluate("asio (start + k x 20)", all, end_ms, from, to);
}

struct uv_soak_t {
    uv_loop_t loop;
    uv_async_t stop;
    std::vector<uv_timer_t> timers;
    double end_ms = 0;
};

soak_result_t soak_uv(double seconds) {
    std::vector<series_t> all = make_series(seconds);
    uv_soak_t s;
    s.timers.resize(SOAK_TIMERS);
    uv_loop_init(&s.loop);
    s.loop.data = &s;
    uv_async_init(&s.loop, &s.stop, [](uv_async_t* a) {
        uv_soak_t* self = static_cast<uv_soak_t*>(a->loop->data);
        self->end_ms = now_ms();
        for (uv_timer_t& t : self->timers)
            uv_close(reinterpret_cast<uv_handle_t*>(&t), nullptr);
        uv_close(reinterpret_cast<uv_handle_t*>(a), nullptr);
    });
    uv_update_time(&s.loop);
    for (int i = 0; i < SOAK_TIMERS; ++i) {
        uv_timer_init(&s.loop, &s.timers[i]);
        s.timers[i].data = &all[i];
        all[i].start_ms = now_ms();
        uv_timer_start(
            &s.timers[i], [](uv_timer_t* t) { static_cast<series_t*>(t->data)->fired_ms.push_back(now_ms()); },
            SOAK_PERIOD_MS, SOAK_PERIOD_MS);
    }
    std::thread runner([&s] { uv_run(&s.loop, UV_RUN_DEFAULT); });
    const window_t from = window_t::now();
    sleep_seconds(seconds);
    const window_t to = window_t::now();
    uv_async_send(&s.stop);
    runner.join();
    uv_loop_close(&s.loop);
    return evaluate("uv (repeat 20)", all, s.end_ms, from, to);
}

// ---- idle ---------------------------------------------------------------------------------

void print_idle(const char* label, const window_t& from, const window_t& to) {
    const double cpu = from.cpu_ms_per_s(to);
    std::printf("idle %-58s CPU %6.3f ms/s (%.4f%% of one core)  wake-ups %7.1f/s  (%.1f s)\n", label, cpu, cpu / 10,
                from.wakeups_per_s(to), (to.wall_ms - from.wall_ms) / 1000);
    std::fflush(stdout);
}

void measure_idle(const char* label, double seconds) {
    // Start-up work of threads just made is not idle time.
    sleep_seconds(0.5);
    const window_t from = window_t::now();
    sleep_seconds(seconds);
    print_idle(label, from, window_t::now());
}

void idle_threads(const char* label, bool hold, double seconds) {
    quiet_sink_t sink;
    std::vector<ssb::thread_wrapper_t*> threads;
    std::vector<ssb::timer_elem_t*> held(IDLE_THREADS, nullptr);
    int failures = 0;
    for (int i = 0; i < IDLE_THREADS; ++i) {
        ssb::thread_wrapper_t* thr = spawn_loop(IDLE_THREAD_TYPE);
        if (!thr) {
            std::fprintf(stderr, "bench_timer: spawn failed\n");
            continue;
        }
        threads.push_back(thr);
        run_on(thr, [&, i] {
            if (hold) {
                held[i] = new ssb::timer_elem_t;
                failures += held[i]->add_timer(&sink, IDLE_HOLD_MS, 0, true) != ssb::RESULT_SUCCESS;
            } else {
                ssb::timer_elem_t t;
                failures += t.add_timer(&sink, 1000, 0, true) != ssb::RESULT_SUCCESS;
                failures += t.remove_timer() != ssb::RESULT_SUCCESS;
            }
        });
    }
    if (failures)
        std::fprintf(stderr, "bench_timer: %d timer calls failed\n", failures);
    measure_idle(label, seconds);
    for (size_t i = 0; i < threads.size(); ++i)
        if (held[i])
            run_on(threads[i], [&, i] { delete held[i]; });
    ssb::thread_mgr_t::peek()->stop_threads_by_type(IDLE_THREAD_TYPE);
}

void run_idle(double seconds) {
    for (int low_power = 0; low_power < 2; ++low_power) {
        ssb::timer_drv_t::set_low_power(low_power != 0);
        const std::string mode = low_power ? "low-power" : "default";
        measure_idle(("util_init only, " + mode).c_str(), seconds);
        idle_threads(("util_init + 8 threads, one timer armed and removed, " + mode).c_str(), false, seconds);
        idle_threads(("util_init + 8 threads, each a repeating 30 s timer, " + mode).c_str(), true, seconds);
    }
    ssb::timer_drv_t::set_low_power(false);
}

// ---- the program --------------------------------------------------------------------------

// Takes --<name>=<seconds> out of argv; 0 when absent.
double take_flag(int& argc, char** argv, const char* name) {
    const std::string flag = std::string("--") + name + "=";
    double value = 0;
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], flag.c_str(), flag.size()) == 0)
            value = std::atof(argv[i] + flag.size());
        else
            argv[kept++] = argv[i];
    }
    argc = kept;
    return value < 0 ? 0 : value;
}

}  // namespace

int main(int argc, char** argv) {
    const double soak = take_flag(argc, argv, "soak");
    const double idle = take_flag(argc, argv, "idle");
    now_ms();

    char folder_template[] = "/tmp/util-bench-timer-XXXXXX";
    const char* folder = mkdtemp(folder_template);
    if (!folder) {
        std::perror("bench_timer: mkdtemp");
        return 1;
    }
    setenv("XDG_DATA_HOME", folder, 1);
    const std::string log_dir = std::string(folder) + "/logs";

    std::vector<soak_result_t> soaks;
    if (soak > 0) {
        soaks.push_back(soak_asio(soak));
        print_soak(soaks.back());
        soaks.push_back(soak_uv(soak));
        print_soak(soaks.back());
    }

    util_init(1, log_dir.c_str(), "bench", "log", 0x100000, 2);
    unsigned int level = ssb::LOG_WARNING;
    if (const char* env = std::getenv("UTIL_BENCH_LOG_LEVEL"))
        level = static_cast<unsigned int>(std::atoi(env));
    register_logger(ssb::UTIL_MODULE_ID, "UTIL", level, nullptr, ssb::LOG_TO_FILE | ssb::LOG_TO_HANDLE);

    int rc = 0;
    if (soak > 0) {
        soaks.push_back(soak_ours("ours, default", soak));
        print_soak(soaks.back());
        ssb::timer_drv_t::set_low_power(true);
        soaks.push_back(soak_ours("ours, low-power", soak));
        print_soak(soaks.back());
        ssb::timer_drv_t::set_low_power(false);
    }
    if (idle > 0)
        run_idle(idle);
    if (soak <= 0 && idle <= 0) {
        s_rearm_thread = spawn_loop(REARM_THREAD_TYPE);
        rc = util_bench::run_main(argc, argv);
        ssb::thread_mgr_t::peek()->stop_threads_by_type(REARM_THREAD_TYPE);
    }
    if (!soaks.empty()) {
        std::printf("\n1,000 repeating 20 ms timers, %.0f s:\n", soak);
        for (const soak_result_t& r : soaks)
            print_soak(r);
    }

    util_uninit(1);
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
