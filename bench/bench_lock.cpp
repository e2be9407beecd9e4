// Locking, reference counting and thread-local reads against the standard
// library and pthreads. Every side does the same work per iteration: one
// acquire/release pair, one increment/decrement pair, or one read of a value
// set beforehand.
//
// recursive_mutex_contended/<side>/place:P: the benchmark thread and a
// second thread each take the lock, bump a shared counter and leave, as two
// writers of one message queue do; ns per acquire/release pair of the
// benchmark thread, wall clock. place:1 pins them to two cores (the waiter's
// spin can meet a release), place:2 to one core (a waiter runs only once the
// holder is preempted, so a waiter that finds the lock held never gets it by
// spinning).
#include <pthread.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

#include "bench_support.h"
#include "lock.h"
#include "tls.h"

namespace {

// ---- uncontended acquire/release --------------------------------------------

// The barrier stands for the protected work.
template <class L>
void ssb_lock_pair(benchmark::State& state) {
    L lock;
    benchmark::DoNotOptimize(lock);
    for (auto _ : state) {
        lock.acquire();
        benchmark::ClobberMemory();
        lock.release();
    }
}

template <class L>
void std_lock_pair(benchmark::State& state) {
    L lock;
    benchmark::DoNotOptimize(lock);
    for (auto _ : state) {
        lock.lock();
        benchmark::ClobberMemory();
        lock.unlock();
    }
}

// Like for like: the plain mutex against std::mutex, the re-entrant one
// (what the message queues' writers take) against std::recursive_mutex,
// each its own group so no ratio mixes the two kinds.
BENCHMARK_TEMPLATE(ssb_lock_pair, ssb::thread_mutex)->Name("mutex_uncontended/ours");
BENCHMARK_TEMPLATE(std_lock_pair, std::mutex)->Name("mutex_uncontended/std_mutex");
BENCHMARK_TEMPLATE(ssb_lock_pair, ssb::thread_mutex_recursive)->Name("recursive_mutex_uncontended/ours");
BENCHMARK_TEMPLATE(std_lock_pair, std::recursive_mutex)->Name("recursive_mutex_uncontended/std_recursive_mutex");

// ---- two threads on one lock ---------------------------------------------------

struct ours_recursive_t {
    void lock() { m.acquire(); }
    void unlock() { m.release(); }
    ssb::thread_mutex_recursive m;
};

template <class L>
void contended_pair(benchmark::State& state) {
    const int placement = static_cast<int>(state.range(0));
    if (!util_bench::placement_possible(state, placement))
        return;
    L lock;
    uint64_t counter = 0;  // guarded by the lock
    std::atomic<bool> stop{false};
    std::thread other([&] {
        util_bench::place_thread(placement, 1);
        while (!stop.load(std::memory_order_relaxed)) {
            lock.lock();
            ++counter;
            lock.unlock();
        }
    });
    util_bench::place_thread(placement, 0);
    uint64_t mine = 0;
    for (auto _ : state) {
        lock.lock();
        ++counter;
        lock.unlock();
        ++mine;
    }
    stop.store(true, std::memory_order_relaxed);
    other.join();
    util_bench::place_thread(util_bench::PLACE_FREE, 0);
    state.counters["other_share"] = static_cast<double>(counter - mine) / static_cast<double>(counter);
}

BENCHMARK_TEMPLATE(contended_pair, ours_recursive_t)
    ->Name("recursive_mutex_contended/ours")
    ->ArgName("place")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime();
BENCHMARK_TEMPLATE(contended_pair, std::recursive_mutex)
    ->Name("recursive_mutex_contended/std_recursive_mutex")
    ->ArgName("place")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime();

BENCHMARK_TEMPLATE(ssb_lock_pair, ssb::spin_lock)->Name("spin_lock_uncontended/ours");
BENCHMARK_TEMPLATE(std_lock_pair, std::mutex)->Name("spin_lock_uncontended/std_mutex");

// ---- one reference taken and dropped -------------------------------------------

// Through the interface pointer, as holders of counted objects call it; the
// object stays alive on a count of 1 held outside the loop.
void ref_count_ours(benchmark::State& state) {
    ssb::ref_count_it* obj = new ssb::ref_count_t<ssb::null_lock>;
    obj->increment();
    benchmark::DoNotOptimize(obj);
    for (auto _ : state) {
        benchmark::DoNotOptimize(obj->increment());
        benchmark::DoNotOptimize(obj->decrement());
    }
    if (obj->get_count() != 1)
        state.SkipWithError("reference count drifted");
    obj->decrement();
}

// A copy made and destroyed: one atomic increment and one decrement of the
// shared count, like the pair above.
void ref_count_shared_ptr(benchmark::State& state) {
    std::shared_ptr<int> shared = std::make_shared<int>(0);
    benchmark::DoNotOptimize(shared);
    for (auto _ : state) {
        std::shared_ptr<int> copy(shared);
        benchmark::DoNotOptimize(copy);
    }
    if (shared.use_count() != 1)
        state.SkipWithError("reference count drifted");
}

BENCHMARK(ref_count_ours)->Name("ref_count_pair/ours");
BENCHMARK(ref_count_shared_ptr)->Name("ref_count_pair/std_shared_ptr");

// ---- reading a thread-local value -------------------------------------------------

int s_marker;
thread_local void* t_value = nullptr;

// Each side reads the value stored before the loop and hands it to
// DoNotOptimize.
void tls_get_ours(benchmark::State& state) {
    unsigned int key = 0;
    if (ssb::tls_allocate_key(key) != ssb::RESULT_SUCCESS) {
        state.SkipWithError("no thread-local key");
        return;
    }
    void* value = nullptr;
    if (ssb::tls_setspecific_value(key, &s_marker, nullptr) != ssb::RESULT_SUCCESS ||
        ssb::tls_getspecific_value(key, value) != ssb::RESULT_SUCCESS || value != &s_marker) {
        state.SkipWithError("thread-local value not stored");
    } else {
        for (auto _ : state) {
            benchmark::DoNotOptimize(ssb::tls_getspecific_value(key, value));
            benchmark::DoNotOptimize(value);
        }
    }
    ssb::tls_deallocate_key(key);
    ssb::tls_cleanup();
}

void tls_get_thread_local(benchmark::State& state) {
    t_value = &s_marker;
    for (auto _ : state) {
        // A volatile read: GCC otherwise hands the variable's own memory to
        // DoNotOptimize's empty asm and no load is left in the loop.
        void* value = *static_cast<void* volatile*>(&t_value);
        benchmark::DoNotOptimize(value);
    }
    t_value = nullptr;
}

void tls_get_pthread(benchmark::State& state) {
    pthread_key_t key;
    if (pthread_key_create(&key, nullptr) != 0) {
        state.SkipWithError("no pthread key");
        return;
    }
    if (pthread_setspecific(key, &s_marker) != 0 || pthread_getspecific(key) != &s_marker) {
        state.SkipWithError("pthread value not stored");
    } else {
        for (auto _ : state) {
            void* value = pthread_getspecific(key);
            benchmark::DoNotOptimize(value);
        }
    }
    pthread_key_delete(key);
}

BENCHMARK(tls_get_ours)->Name("tls_get/ours");
BENCHMARK(tls_get_thread_local)->Name("tls_get/thread_local");
BENCHMARK(tls_get_pthread)->Name("tls_get/pthread_getspecific");

}  // namespace

UTIL_BENCH_MAIN()
