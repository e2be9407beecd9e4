// The thread pool's bookkeeping against what a user would write instead to
// hand each task to the least-loaded thread: a mutex over a vector of loads
// scanned linearly with an unordered_map of tasks, and a mutex over a
// mutable Boost heap (pairing heap, handles updated in place).
//
// add_remove: with 10,000 live tasks, one add_task and one remove_task (the
// oldest task) per iteration, no messages; the loads are random 1..100.
// Arguments: threads in the pool (all spawned at the start, so the pool
// never grows).
//
// fairness: 100,000 tasks of random load 1..100 added to 8 threads, one per
// iteration; the counters give the max/mean thread load at the end for the
// pool and for a round-robin assignment of the same loads
// (max_over_mean: 1 is perfectly even). fairness_churn: the same while
// tasks also end at random.
//
// The library's log goes to a temporary folder at WARNING: add_task logs
// each task at INFO, which is what a file line per task would measure.
//
// util-bench-peers: boost
#include <stdlib.h>

#include <boost/heap/pairing_heap.hpp>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench_support.h"
#include "log.h"
#include "thread.h"
#include "thread_pool.h"
#include "util.h"

namespace {

const int LIVE_TASKS = 10000;
const int FAIRNESS_TASKS = 100000;
const unsigned int FAIRNESS_THREADS = 8;
const unsigned int MAX_LOAD = 100;

// The same random loads for every side.
std::vector<unsigned int> random_loads(size_t n) {
    std::mt19937 rng(12345);
    std::uniform_int_distribution<unsigned int> dist(1, MAX_LOAD);
    std::vector<unsigned int> loads(n);
    for (unsigned int& l : loads)
        l = dist(rng);
    return loads;
}

// ---- ours ----------------------------------------------------------------------

struct ours_t {
    ssb::thread_pool_t* pool;
    explicit ours_t(unsigned int threads) : pool(ssb::thread_pool_t::new_instance(threads, threads, false, 0)) {}
    ~ours_t() {
        if (pool)
            pool->stop_all_thread();
        ssb::thread_pool_t::release_obj(pool);
    }
    bool ok() const { return pool != nullptr; }
    unsigned int add(unsigned int load) {
        unsigned int id = 0;
        ssb::thread_wrapper_t* thr = nullptr;
        pool->add_task(nullptr, id, load, thr);
        return id;
    }
    void remove(unsigned int id) { pool->remove_task(nullptr, id); }
};

// ---- a linear scan over the loads ---------------------------------------------

struct linear_scan_t {
    struct task_t {
        unsigned int thread;
        unsigned int load;
    };
    std::mutex mutex;
    std::vector<unsigned int> loads;
    std::unordered_map<unsigned int, task_t> tasks;
    std::vector<unsigned int> free_ids;
    unsigned int next_id = 0;

    explicit linear_scan_t(unsigned int threads) : loads(threads, 0) {}
    bool ok() const { return true; }
    unsigned int add(unsigned int load) {
        std::lock_guard<std::mutex> guard(mutex);
        unsigned int best = static_cast<unsigned int>(std::min_element(loads.begin(), loads.end()) - loads.begin());
        loads[best] += load;
        unsigned int id = next_id;
        if (!free_ids.empty()) {
            id = free_ids.back();
            free_ids.pop_back();
        } else {
            ++next_id;
        }
        tasks.emplace(id, task_t{best, load});
        return id;
    }
    void remove(unsigned int id) {
        std::lock_guard<std::mutex> guard(mutex);
        auto it = tasks.find(id);
        if (it == tasks.end())
            return;
        loads[it->second.thread] -= it->second.load;
        tasks.erase(it);
        free_ids.push_back(id);
    }
};

// ---- a mutable heap -------------------------------------------------------------

struct boost_heap_t {
    struct entry_t {
        unsigned int load;
        unsigned int thread;
        // The least load on top.
        bool operator<(const entry_t& o) const { return load > o.load; }
    };
    typedef boost::heap::pairing_heap<entry_t> heap_t;
    struct task_t {
        unsigned int thread;
        unsigned int load;
    };
    std::mutex mutex;
    heap_t heap;
    std::vector<heap_t::handle_type> handles;
    std::unordered_map<unsigned int, task_t> tasks;
    std::vector<unsigned int> free_ids;
    unsigned int next_id = 0;

    explicit boost_heap_t(unsigned int threads) {
        for (unsigned int i = 0; i < threads; ++i)
            handles.push_back(heap.push(entry_t{0, i}));
    }
    bool ok() const { return true; }
    unsigned int add(unsigned int load) {
        std::lock_guard<std::mutex> guard(mutex);
        unsigned int best = heap.top().thread;
        heap_t::handle_type h = handles[best];
        (*h).load += load;
        heap.decrease(h);  // a larger load sinks: "decrease" in the max-heap order
        unsigned int id = next_id;
        if (!free_ids.empty()) {
            id = free_ids.back();
            free_ids.pop_back();
        } else {
            ++next_id;
        }
        tasks.emplace(id, task_t{best, load});
        return id;
    }
    void remove(unsigned int id) {
        std::lock_guard<std::mutex> guard(mutex);
        auto it = tasks.find(id);
        if (it == tasks.end())
            return;
        heap_t::handle_type h = handles[it->second.thread];
        (*h).load -= it->second.load;
        heap.increase(h);
        tasks.erase(it);
        free_ids.push_back(id);
    }
};

template <class side_t>
void add_remove(benchmark::State& state) {
    side_t side(static_cast<unsigned int>(state.range(0)));
    if (!side.ok()) {
        state.SkipWithError("the pool could not be made");
        return;
    }
    const std::vector<unsigned int> loads = random_loads(1 << 16);
    std::deque<unsigned int> live;
    size_t next = 0;
    for (int i = 0; i < LIVE_TASKS; ++i)
        live.push_back(side.add(loads[next++ & 0xFFFF]));
    for (auto _ : state) {
        live.push_back(side.add(loads[next++ & 0xFFFF]));
        side.remove(live.front());
        live.pop_front();
    }
    for (unsigned int id : live)
        side.remove(id);
}

BENCHMARK_TEMPLATE(add_remove, ours_t)->Name("add_remove/ours")->Arg(8)->Arg(64);
BENCHMARK_TEMPLATE(add_remove, linear_scan_t)->Name("add_remove/linear_scan")->Arg(8)->Arg(64);
BENCHMARK_TEMPLATE(add_remove, boost_heap_t)->Name("add_remove/boost_pairing_heap")->Arg(8)->Arg(64);

void report_balance(benchmark::State& state, const std::vector<unsigned long long>& per_thread) {
    unsigned long long sum = 0, most = 0;
    for (unsigned long long l : per_thread) {
        sum += l;
        most = std::max(most, l);
    }
    const double mean = per_thread.empty() ? 0 : static_cast<double>(sum) / per_thread.size();
    state.counters["max_over_mean"] = mean > 0 ? most / mean : 0;
    state.counters["threads"] = static_cast<double>(per_thread.size());
}

void fairness_ours(benchmark::State& state) {
    ours_t side(FAIRNESS_THREADS);
    if (!side.ok()) {
        state.SkipWithError("the pool could not be made");
        return;
    }
    const std::vector<unsigned int> loads = random_loads(FAIRNESS_TASKS);
    std::vector<unsigned int> ids;
    std::set<ssb::thread_wrapper_t*> threads;
    ids.reserve(FAIRNESS_TASKS);
    size_t next = 0;
    for (auto _ : state) {
        unsigned int id = 0;
        ssb::thread_wrapper_t* thr = nullptr;
        side.pool->add_task(nullptr, id, loads[next++ % loads.size()], thr);
        ids.push_back(id);
        threads.insert(thr);
    }
    std::vector<unsigned long long> per_thread;
    for (ssb::thread_wrapper_t* thr : threads)
        per_thread.push_back(side.pool->get_thread_load(thr));
    report_balance(state, per_thread);
    for (unsigned int id : ids)
        side.remove(id);
}

void fairness_round_robin(benchmark::State& state) {
    const std::vector<unsigned int> loads = random_loads(FAIRNESS_TASKS);
    std::mutex mutex;
    std::vector<unsigned long long> per_thread(FAIRNESS_THREADS, 0);
    size_t next = 0;
    for (auto _ : state) {
        std::lock_guard<std::mutex> guard(mutex);
        per_thread[next % FAIRNESS_THREADS] += loads[next % loads.size()];
        ++next;
    }
    report_balance(state, per_thread);
}

BENCHMARK(fairness_ours)->Name("fairness/ours")->Iterations(FAIRNESS_TASKS);
BENCHMARK(fairness_round_robin)->Name("fairness/round_robin")->Iterations(FAIRNESS_TASKS);

// The same with churn: once 1,000 tasks are live, every add also ends a
// random live task, as calls end in a client. The victims are the same for
// both sides.
const size_t CHURN_LIVE = 1000;

void fairness_churn_ours(benchmark::State& state) {
    ours_t side(FAIRNESS_THREADS);
    if (!side.ok()) {
        state.SkipWithError("the pool could not be made");
        return;
    }
    const std::vector<unsigned int> loads = random_loads(FAIRNESS_TASKS);
    std::mt19937 rng(777);
    std::vector<unsigned int> live;
    std::set<ssb::thread_wrapper_t*> threads;
    size_t next = 0;
    for (auto _ : state) {
        unsigned int id = 0;
        ssb::thread_wrapper_t* thr = nullptr;
        side.pool->add_task(nullptr, id, loads[next++ % loads.size()], thr);
        live.push_back(id);
        threads.insert(thr);
        if (live.size() > CHURN_LIVE) {
            const size_t k = rng() % live.size();
            side.remove(live[k]);
            live[k] = live.back();
            live.pop_back();
        }
    }
    std::vector<unsigned long long> per_thread;
    for (ssb::thread_wrapper_t* thr : threads)
        per_thread.push_back(side.pool->get_thread_load(thr));
    report_balance(state, per_thread);
    for (unsigned int id : live)
        side.remove(id);
}

void fairness_churn_round_robin(benchmark::State& state) {
    const std::vector<unsigned int> loads = random_loads(FAIRNESS_TASKS);
    std::mt19937 rng(777);
    std::mutex mutex;
    struct task_t {
        size_t thread;
        unsigned int load;
    };
    std::vector<task_t> live;
    std::vector<unsigned long long> per_thread(FAIRNESS_THREADS, 0);
    size_t next = 0;
    for (auto _ : state) {
        std::lock_guard<std::mutex> guard(mutex);
        const task_t t{next % FAIRNESS_THREADS, loads[next % loads.size()]};
        ++next;
        per_thread[t.thread] += t.load;
        live.push_back(t);
        if (live.size() > CHURN_LIVE) {
            const size_t k = rng() % live.size();
            per_thread[live[k].thread] -= live[k].load;
            live[k] = live.back();
            live.pop_back();
        }
    }
    report_balance(state, per_thread);
}

BENCHMARK(fairness_churn_ours)->Name("fairness_churn/ours")->Iterations(FAIRNESS_TASKS);
BENCHMARK(fairness_churn_round_robin)->Name("fairness_churn/round_robin")->Iterations(FAIRNESS_TASKS);

}  // namespace

int main(int argc, char** argv) {
    char folder_template[] = "/tmp/util-bench-pool-XXXXXX";
    const char* folder = mkdtemp(folder_template);
    if (!folder) {
        std::perror("bench_thread_pool: mkdtemp");
        return 1;
    }
    setenv("XDG_DATA_HOME", folder, 1);
    const std::string log_dir = std::string(folder) + "/logs";
    util_init(1, log_dir.c_str(), "bench", "log", 0x100000, 2);
    register_logger(ssb::UTIL_MODULE_ID, "UTIL", ssb::LOG_WARNING, nullptr, ssb::LOG_TO_FILE | ssb::LOG_TO_HANDLE);
    const int rc = util_bench::run_main(argc, argv);
    util_uninit(1);
    std::error_code ec;
    std::filesystem::remove_all(folder, ec);
    return rc;
}
