// Shared main of the benchmark programs. Ours and the peers run in the same
// process; after Google Benchmark's own output a table gives, per group, the
// ratio peer time / our time (above 1: ours is faster).
//
// Names are "<group>/ours" and "<group>/<peer>"; whatever Google Benchmark
// appends (arguments, "threads:4", "real_time") stays part of the group, so
// only like runs are compared. Times are nanoseconds per iteration (a
// benchmark does one operation per iteration) of the clock Google Benchmark
// itself goes by: CPU time of the benchmark thread, or wall-clock time when
// the benchmark asks for UseRealTime or UseManualTime. On a shared machine
// wall-clock time of a single thread also counts the time other processes
// held its CPU. Without a --benchmark_repetitions flag each benchmark runs 5
// times; the table shows medians with the min..max spread, and the ratio's
// spread pairs the runs by repetition index. For drifting machines,
// --benchmark_enable_random_interleaving=true mixes the runs of all
// benchmarks.
#ifndef UTIL_BENCH_SUPPORT_H
#define UTIL_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "msg.h"
#include "stats.h"

namespace util_bench {

namespace detail {

// Google Benchmark 1.8 replaced Run::error_occurred with Run::skipped.
template <class R>
auto run_failed(const R& r, int) -> decltype(static_cast<bool>(r.error_occurred)) {
    return r.error_occurred;
}
template <class R>
auto run_failed(const R& r, long) -> decltype(static_cast<bool>(r.skipped)) {
    return static_cast<bool>(r.skipped);
}

inline std::string format_ns(double ns) {
    char buf[32];
    std::snprintf(buf, sizeof buf, ns < 10 ? "%.2f" : ns < 100 ? "%.1f" : "%.0f", ns);
    return buf;
}

struct spread_t {
    double median;
    double min;
    double max;
};

inline spread_t spread_of(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    double median = n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
    return spread_t{median, v.front(), v.back()};
}

}  // namespace detail

// ---- thread placement ----------------------------------------------------------
//
// Where the two threads of a two-thread benchmark run. Unpinned, the
// scheduler may put them on one core or two and move them mid-run, so
// round trips come out bimodal; pinned, each row says which case it is.
enum placement_t { PLACE_FREE = 0, PLACE_TWO_CORES = 1, PLACE_ONE_CORE = 2 };

inline int cpu_count() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) != 0)
        return 1;
    return CPU_COUNT(&set);
}

// The n-th CPU this process may run on, or -1.
inline int nth_allowed_cpu(int n) {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) != 0)
        return -1;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        if (CPU_ISSET(cpu, &set) && n-- == 0)
            return cpu;
    return -1;
}

// Puts the calling thread, side 0 or 1 of a pair, where `placement` says:
// sides on the first two allowed CPUs, both on the first, or anywhere. The
// allowed set is read from the main thread's affinity, saved on first use.
inline bool place_thread(int placement, int side) {
    static const cpu_set_t s_allowed = [] {
        cpu_set_t set;
        CPU_ZERO(&set);
        sched_getaffinity(0, sizeof set, &set);
        return set;
    }();
    cpu_set_t set;
    if (placement == PLACE_FREE) {
        set = s_allowed;
    } else {
        int n = placement == PLACE_TWO_CORES ? side : 0, cpu = -1;
        for (int c = 0; c < CPU_SETSIZE; ++c)
            if (CPU_ISSET(c, &s_allowed) && n-- == 0) {
                cpu = c;
                break;
            }
        if (cpu < 0)
            return false;
        CPU_ZERO(&set);
        CPU_SET(cpu, &set);
    }
    return pthread_setaffinity_np(pthread_self(), sizeof set, &set) == 0;
}

// Reads the allowed set once on the calling (main) thread, before any
// benchmark pins it.
inline void save_allowed_cpus() { place_thread(PLACE_FREE, 0); }

// A cache line's round trip between the two CPUs of PLACE_TWO_CORES, in ns,
// over a few thousand hand-overs on two threads of its own. On a virtual
// machine the host may run those CPUs on cores that share a cache or on
// cores that do not, and move them at any time; seen here, the round trip
// went between about 55 and 335 ns from one second to the next, and every
// two-core row moves with it.
inline double line_round_trip_ns() {
    const uint32_t ROUNDS = 20000;
    alignas(64) std::atomic<uint32_t> word{0};
    double ns = 0;
    std::thread peer([&] {
        place_thread(PLACE_TWO_CORES, 1);
        for (uint32_t i = 0; i < ROUNDS; ++i) {
            while (word.load(std::memory_order_acquire) != 2 * i + 1) {
            }
            word.store(2 * i + 2, std::memory_order_release);
        }
    });
    std::thread self([&] {
        place_thread(PLACE_TWO_CORES, 0);
        const auto start = std::chrono::steady_clock::now();
        for (uint32_t i = 0; i < ROUNDS; ++i) {
            word.store(2 * i + 1, std::memory_order_release);
            while (word.load(std::memory_order_acquire) != 2 * i + 2) {
            }
        }
        ns = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count() / ROUNDS;
    });
    self.join();
    peer.join();
    return ns;
}

// Skips a pinned run on a machine with fewer CPUs than it needs. A two-core
// run records the line round trip just before it (line_rt_ns), so each
// repetition shows which kind of core pair the host gave it.
inline bool placement_possible(benchmark::State& state, int placement) {
    if (placement == PLACE_TWO_CORES && cpu_count() < 2) {
        state.SkipWithError("needs two CPUs");
        return false;
    }
    if (placement == PLACE_TWO_CORES)
        state.counters["line_rt_ns"] = line_round_trip_ns();
    return true;
}

// ---- per-thread tallies ----------------------------------------------------------

// A counter written by one thread only, alone on its cache line so that no
// other thread's data shares it. The owner counts in a local variable and
// stores the total here when it is done; others read it after a join or a
// release/acquire hand-over.
struct alignas(64) tally_t {
    std::atomic<uint64_t> value{0};
};

// What the process spent: CPU time and context switches (voluntary: the
// thread slept; involuntary: it was preempted). RUSAGE_THREAD for the
// calling thread alone.
struct usage_t {
    double cpu_s = 0;
    long voluntary = 0;
    long involuntary = 0;
};

inline usage_t usage_of(int who) {
    struct rusage ru;
    std::memset(&ru, 0, sizeof ru);
    getrusage(who, &ru);
    usage_t u;
    u.cpu_s = static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
              static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
    u.voluntary = ru.ru_nvcsw;
    u.involuntary = ru.ru_nivcsw;
    return u;
}

// Process CPU time and context switches over a run, per item, as counters.
class usage_meter_t {
public:
    usage_meter_t() : m_begin(usage_of(RUSAGE_SELF)) {}
    void report(benchmark::State& state, double items) const {
        if (items <= 0)
            return;
        usage_t end = usage_of(RUSAGE_SELF);
        state.counters["cpu_ns_per_item"] = (end.cpu_s - m_begin.cpu_s) * 1e9 / items;
        state.counters["vcsw_per_item"] = static_cast<double>(end.voluntary - m_begin.voluntary) / items;
        state.counters["ivcsw_per_item"] = static_cast<double>(end.involuntary - m_begin.involuntary) / items;
    }

private:
    usage_t m_begin;
};

// ---- a raw futex pair ------------------------------------------------------------

// The floor of a sleeping hand-over between two threads: one word per side,
// a wake-up system call only when the other side is asleep on it. 0: no
// signal, 1: signalled, 2: its owner sleeps on it. One waiter, any wakers.
class alignas(64) futex_flag_t {
public:
    void wait() {
        for (;;) {
            uint32_t s = 1;
            // Acquire pairs with the release exchange in wake.
            if (m_word.compare_exchange_strong(s, 0, std::memory_order_acquire))
                return;
            if (s == 0 && !m_word.compare_exchange_strong(s, 2, std::memory_order_relaxed))
                continue;
            syscall(SYS_futex, &m_word, FUTEX_WAIT_PRIVATE, 2u, nullptr, nullptr, 0);
        }
    }
    void wake() {
        if (m_word.exchange(1, std::memory_order_release) == 2)
            syscall(SYS_futex, &m_word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }

private:
    std::atomic<uint32_t> m_word{0};
};

// Console output as usual, and every run recorded for the ratio table.
class recording_reporter_t : public benchmark::ConsoleReporter {
public:
    explicit recording_reporter_t(OutputOptions options) : benchmark::ConsoleReporter(options) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs)
            record(r);
        benchmark::ConsoleReporter::ReportRuns(runs);
    }

    void print_ratios(std::ostream& out) const {
        if (m_groups.empty())
            return;
        size_t group_width = 5, peer_width = 4;
        for (const group_t& g : m_groups) {
            group_width = std::max(group_width, g.name.size());
            for (const variant_t& v : g.variants)
                peer_width = std::max(peer_width, v.name.size());
        }
        out << "\nRatios: peer time / our time, above 1 means ours is faster; ns per iteration "
               "(CPU, or wall clock for real_time groups), median (min..max)\n";
        line(out, group_width, "group", "ours ns/op", peer_width, "peer", "peer ns/op", "ratio");
        for (const group_t& g : m_groups) {
            const variant_t* ours = g.find("ours");
            std::string ours_text = ours ? ours->text() : "-";
            bool any_peer = false;
            for (const variant_t& peer : g.variants) {
                if (&peer == ours)
                    continue;
                any_peer = true;
                line(out, group_width, g.name, ours_text, peer_width, peer.name, peer.text(),
                     ours ? ratio_text(*ours, peer) : "-");
            }
            if (!any_peer)
                line(out, group_width, g.name, ours_text, peer_width, "-", "-", "-");
        }
        out.flush();
    }

private:
    struct variant_t {
        std::string name;
        // (repetition index, ns per iteration) of each run.
        std::vector<std::pair<int64_t, double>> runs;
        // Only aggregates reach the reporter under
        // --benchmark_display_aggregates_only; their median stands in.
        double median_aggregate = -1;

        std::vector<double> values() const {
            std::vector<double> v;
            for (const auto& r : runs)
                v.push_back(r.second);
            if (v.empty() && median_aggregate >= 0)
                v.push_back(median_aggregate);
            return v;
        }
        std::string text() const {
            std::vector<double> v = values();
            if (v.empty())
                return "-";
            detail::spread_t s = detail::spread_of(v);
            if (v.size() == 1)
                return detail::format_ns(s.median);
            return detail::format_ns(s.median) + " (" + detail::format_ns(s.min) + ".." + detail::format_ns(s.max) +
                   ")";
        }
    };

    struct group_t {
        std::string name;
        std::vector<variant_t> variants;

        const variant_t* find(const std::string& n) const {
            for (const variant_t& v : variants)
                if (v.name == n)
                    return &v;
            return nullptr;
        }
    };

    void record(const Run& r) {
        if (detail::run_failed(r, 0))
            return;
        const std::string& fn = r.run_name.function_name;
        size_t slash = fn.rfind('/');
        if (slash == std::string::npos)
            return;
        std::string group_name = fn.substr(0, slash) + r.run_name.str().substr(fn.size());
        std::string variant_name = fn.substr(slash + 1);
        // time_type is "real_time" or "manual_time" when the benchmark asked
        // for either, else empty.
        double t = r.run_name.time_type.empty() ? r.GetAdjustedCPUTime() : r.GetAdjustedRealTime();
        double ns = t * 1e9 / benchmark::GetTimeUnitMultiplier(r.time_unit);

        group_t* g = nullptr;
        for (group_t& each : m_groups)
            if (each.name == group_name)
                g = &each;
        if (!g) {
            m_groups.push_back(group_t{group_name, {}});
            g = &m_groups.back();
        }
        variant_t* v = nullptr;
        for (variant_t& each : g->variants)
            if (each.name == variant_name)
                v = &each;
        if (!v) {
            g->variants.push_back(variant_t{variant_name, {}, -1});
            v = &g->variants.back();
        }
        if (r.run_type == Run::RT_Iteration)
            v->runs.emplace_back(r.repetition_index, ns);
        else if (r.aggregate_name == "median" && r.aggregate_unit == benchmark::kTime)
            v->median_aggregate = ns;
    }

    static std::string ratio_text(const variant_t& ours, const variant_t& peer) {
        std::vector<double> o = ours.values(), p = peer.values();
        if (o.empty() || p.empty())
            return "-";
        char buf[64];
        double ratio = detail::spread_of(p).median / detail::spread_of(o).median;
        std::vector<double> paired;
        for (const auto& pr : peer.runs)
            for (const auto& orun : ours.runs)
                if (orun.first == pr.first && orun.second > 0)
                    paired.push_back(pr.second / orun.second);
        if (paired.size() < 2) {
            std::snprintf(buf, sizeof buf, "%.2f", ratio);
        } else {
            detail::spread_t s = detail::spread_of(paired);
            std::snprintf(buf, sizeof buf, "%.2f (%.2f..%.2f)", ratio, s.min, s.max);
        }
        return buf;
    }

    static void line(std::ostream& out, size_t group_width, const std::string& group, const std::string& ours,
                     size_t peer_width, const std::string& peer, const std::string& peer_ns, const std::string& ratio) {
        out << pad(group, group_width + 2) << pad(ours, 22) << pad(peer, peer_width + 2) << pad(peer_ns, 22) << ratio
            << "\n";
    }

    static std::string pad(const std::string& s, size_t width) {
        return s.size() >= width ? s + " " : s + std::string(width - s.size(), ' ');
    }

    std::vector<group_t> m_groups;
};

inline int run_main(int argc, char** argv) {
    // The client is multi-threaded. In a process that never started a thread
    // libstdc++ skips the atomic instructions in shared_ptr and friends,
    // which would flatter the peers.
    std::thread([] {}).join();
    save_allowed_cpus();
    // UTIL_BENCH_STATS=0 runs a program with the library's statistics off,
    // to compare whole programs run both ways.
    if (const char* stats = std::getenv("UTIL_BENCH_STATS"))
        ssb::stats_enable(stats[0] != '0');

    static char default_name[] = "bench";
    static char default_repetitions[] = "--benchmark_repetitions=5";
    std::vector<char*> args;
    args.push_back(argc > 0 && argv && argv[0] ? argv[0] : default_name);
    bool repetitions_given = false;
    for (int i = 1; i < argc; ++i) {
        args.push_back(argv[i]);
        if (std::strncmp(argv[i], "--benchmark_repetitions", 23) == 0)
            repetitions_given = true;
    }
    if (!repetitions_given)
        args.push_back(default_repetitions);
    int n = static_cast<int>(args.size());
    args.push_back(nullptr);

    benchmark::Initialize(&n, args.data());
    if (benchmark::ReportUnrecognizedArguments(n, args.data()))
        return 1;
    recording_reporter_t reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_ColorTabular
                                                        : benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print_ratios(reporter.GetOutputStream());
    benchmark::Shutdown();
    return 0;
}

// Lines of the log files at WARNING or worse: a healthy run has none.
inline void report_log(const std::string& folder) {
    namespace fs = std::filesystem;
    std::error_code ec;
    size_t lines = 0, bad = 0;
    std::vector<std::string> shown;
    for (fs::recursive_directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        if (!it->is_regular_file(ec))
            continue;
        std::ifstream in(it->path());
        std::string line;
        while (std::getline(in, line)) {
            ++lines;
            if (line.find("WARNING") != std::string::npos || line.find("ERROR") != std::string::npos ||
                line.find("FATAL") != std::string::npos) {
                ++bad;
                if (shown.size() < 10)
                    shown.push_back(line);
            }
        }
    }
    std::printf("library log: %zu lines, %zu at WARNING or worse\n", lines, bad);
    for (const std::string& s : shown)
        std::printf("  %s\n", s.c_str());
}

// The benchmark thread waits here for the end of a batch: false when it
// did not come within 10 s (a stalled run).
class latch_t {
public:
    void arm() {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_open = false;
    }
    void open() {
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            m_open = true;
        }
        m_cv.notify_one();
    }
    bool wait() {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, std::chrono::seconds(10), [this] { return m_open; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_open = false;
};

// A message that runs a function on the receiving loop.
template <class F>
class fn_msg_t : public ssb::msg_it {
public:
    explicit fn_msg_t(F f) : m_f(std::move(f)) {}
    void on_message() override { m_f(); }

private:
    F m_f;
};

}  // namespace util_bench

// Defines main() for a benchmark program.
#define UTIL_BENCH_MAIN() \
  int main(int argc, char** argv) { return ::util_bench::run_main(argc, argv); }

#endif
