// One writer thread to one reader thread through a bounded queue of
// pointer-sized values, against the single-producer queues of Boost and
// moodycamel and moodycamel's general queue driven by one producer and one
// consumer. The benchmark thread writes one value per iteration and the
// reader thread takes them; both spin (then yield, never sleep) when the queue
// is full or empty. Wall-clock time, since the work is split over two threads.
//
// Rows: spsc/<side>/capacity:N/place:P, ns per value handed over.
//   place:1  writer and reader pinned to two different cores: a loop thread
//            draining a channel fed by a busy thread on another core. This is
//            the row the queue is meant for.
//   place:2  both pinned to one core: every hand-over of the core is a
//            yield, so it measures how many values move per time slice.
//   place:0  unpinned: whatever the scheduler does on a loaded machine.
//   moodycamel_rwq_16_byte_values is a diagnostic row: the same queue
//   carrying values of our node's size (see reader_writer_queue_wide_t).
// Counters, all per value: empty_pops (reader found the queue empty),
// full_pushes (writer found it full), yields (sched_yield of both sides).
// The reader's counters are its own locals, published once at the end.
//
// Capacities: ring_queue_t(n) holds n - 1 values, the peers n (moodycamel
// rounds up to its block size); the queues are built before the timing and
// none of them allocates while it runs.
//
// util-bench-peers: boost readerwriterqueue concurrentqueue
#include <boost/lockfree/spsc_queue.hpp>
#include <concurrentqueue/concurrentqueue.h>
#include <readerwriterqueue/readerwriterqueue.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "bench_support.h"
#include "ring_queue.h"

namespace {

// A full or empty queue is retried at once for a while; after that the
// thread yields, so a waiting side that shares a core with the other one (a
// loaded two-core machine) does not burn its whole time slice.
class spinner_t {
public:
    void wait() {
        if (++m_spins < 256) {
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#endif
        } else {
            m_spins = 0;
            ++m_yields;
            std::this_thread::yield();
        }
    }
    void reset() { m_spins = 0; }
    uint64_t yields() const { return m_yields; }

private:
    unsigned int m_spins = 0;
    uint64_t m_yields = 0;
};

struct ours_t {
    explicit ours_t(size_t capacity) : q(static_cast<unsigned int>(capacity)) {}
    bool push(uintptr_t v) { return q.push(v) == ssb::RESULT_SUCCESS; }
    bool pop(uintptr_t& v) { return q.pop(v) == ssb::RESULT_SUCCESS; }
    ssb::ring_queue_t<uintptr_t> q;
};

struct boost_spsc_t {
    explicit boost_spsc_t(size_t capacity) : q(capacity) {}
    bool push(uintptr_t v) { return q.push(v); }
    bool pop(uintptr_t& v) { return q.pop(v); }
    boost::lockfree::spsc_queue<uintptr_t> q;
};

struct reader_writer_queue_t {
    explicit reader_writer_queue_t(size_t capacity) : q(capacity) {}
    // try_enqueue never allocates: a full queue refuses, like ours.
    bool push(uintptr_t v) { return q.try_enqueue(v); }
    bool pop(uintptr_t& v) { return q.try_dequeue(v); }
    moodycamel::ReaderWriterQueue<uintptr_t> q;
};

// A diagnostic peer: moodycamel's queue carrying 16-byte values, the size
// of our node (value and link), so it moves the same bytes per value as
// ours. Set beside the 8-byte row, it shows what the node layout alone
// costs at a capacity that leaves the first-level cache.
struct wide_value_t {
    uintptr_t value;
    uintptr_t unused;
};

struct reader_writer_queue_wide_t {
    explicit reader_writer_queue_wide_t(size_t capacity) : q(capacity) {}
    bool push(uintptr_t v) { return q.try_enqueue(wide_value_t{v, 0}); }
    bool pop(uintptr_t& v) {
        wide_value_t w;
        if (!q.try_dequeue(w))
            return false;
        v = w.value;
        return true;
    }
    moodycamel::ReaderWriterQueue<wide_value_t> q;
};

struct concurrent_queue_t {
    // One explicit producer, no implicit ones; the blocks are preallocated.
    explicit concurrent_queue_t(size_t capacity) : q(capacity, 1, 0), producer(q), consumer(q) {}
    bool push(uintptr_t v) { return q.try_enqueue(producer, v); }
    bool pop(uintptr_t& v) { return q.try_dequeue(consumer, v); }
    moodycamel::ConcurrentQueue<uintptr_t> q;
    moodycamel::ProducerToken producer;
    moodycamel::ConsumerToken consumer;
};

// Each iteration pushes one value on the benchmark thread; the reader
// thread checks that the values arrive in order and counts them. Every
// counter lives with the thread that updates it (locals, published once at
// the end through a tally of its own cache line): no counter of one side
// sits on a line the other side writes.
template <class Q>
void one_to_one(benchmark::State& state) {
    const int placement = static_cast<int>(state.range(1));
    if (!util_bench::placement_possible(state, placement))
        return;
    std::unique_ptr<Q> q(new Q(static_cast<size_t>(state.range(0))));
    std::atomic<bool> ready{false};
    std::atomic<bool> done{false};
    util_bench::tally_t received, empty_pops, reader_yields, out_of_order;
    std::thread reader([&] {
        util_bench::place_thread(placement, 1);
        spinner_t spin;
        uintptr_t expected = 1, v = 0;
        uint64_t got = 0, empty = 0, disorder = 0;
        ready.store(true, std::memory_order_release);
        for (;;) {
            if (q->pop(v)) {
                disorder += v != expected;
                expected = v + 1;
                ++got;
                spin.reset();
            } else if (done.load(std::memory_order_acquire)) {
                // The writer has finished: what is left is all there is.
                while (q->pop(v)) {
                    disorder += v != expected;
                    expected = v + 1;
                    ++got;
                }
                break;
            } else {
                ++empty;
                spin.wait();
            }
        }
        received.value.store(got, std::memory_order_relaxed);
        empty_pops.value.store(empty, std::memory_order_relaxed);
        reader_yields.value.store(spin.yields(), std::memory_order_relaxed);
        out_of_order.value.store(disorder, std::memory_order_relaxed);
    });
    util_bench::place_thread(placement, 0);
    spinner_t spin;
    while (!ready.load(std::memory_order_acquire))
        spin.wait();

    uintptr_t next = 1;
    uint64_t full_pushes = 0;
    spin.reset();
    const uint64_t yields_before = spin.yields();
    for (auto _ : state) {
        if (!q->push(next)) {
            spin.reset();
            do {
                ++full_pushes;
                spin.wait();
            } while (!q->push(next));
        }
        ++next;
    }
    done.store(true, std::memory_order_release);
    reader.join();
    util_bench::place_thread(util_bench::PLACE_FREE, 0);

    const double items = static_cast<double>(state.iterations());
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    state.counters["empty_pops_per_item"] = static_cast<double>(empty_pops.value.load()) / items;
    state.counters["full_pushes_per_item"] = static_cast<double>(full_pushes) / items;
    state.counters["yields_per_item"] =
        static_cast<double>(reader_yields.value.load() + spin.yields() - yields_before) / items;
    if (received.value.load() != static_cast<uint64_t>(state.iterations()))
        state.SkipWithError("values lost or duplicated");
    else if (out_of_order.value.load() != 0)
        state.SkipWithError("values out of order");
}

// Arguments: capacity, placement (0 unpinned, 1 writer and reader pinned to
// two different cores, 2 both pinned to one core).
void capacities(benchmark::internal::Benchmark* b) {
    b->ArgNames({"capacity", "place"})->ArgsProduct({{1024, 16384}, {1, 2, 0}})->UseRealTime();
}

BENCHMARK_TEMPLATE(one_to_one, ours_t)->Name("spsc/ours")->Apply(capacities);
BENCHMARK_TEMPLATE(one_to_one, boost_spsc_t)->Name("spsc/boost_spsc_queue")->Apply(capacities);
BENCHMARK_TEMPLATE(one_to_one, reader_writer_queue_t)->Name("spsc/moodycamel_rwq")->Apply(capacities);
BENCHMARK_TEMPLATE(one_to_one, reader_writer_queue_wide_t)
    ->Name("spsc/moodycamel_rwq_16_byte_values")
    ->Apply(capacities);
BENCHMARK_TEMPLATE(one_to_one, concurrent_queue_t)->Name("spsc/moodycamel_cq")->Apply(capacities);

}  // namespace

UTIL_BENCH_MAIN()
