#include <gtest/gtest.h>

#include <stdint.h>

#include <atomic>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "test_log_support.h"
#include "log.h"
#include "ring_queue.h"
#include "test_support.h"

using namespace ssb;

namespace {

template <class Q>
class RingQueueAnyVariant : public ::testing::Test {};
typedef ::testing::Types<ring_queue_t<uintptr_t>, ring_queue_or_mw_t<uintptr_t>, ring_queue_mr_mw_t<uintptr_t>>
    variants_t;
TYPED_TEST_SUITE(RingQueueAnyVariant, variants_t);

// Random bursts cross the array end many times from ever-shifting start
// nodes, checked against a model of room nodes - 1; the private copies of
// the other side's cursor lag by up to a lap and must be refreshed before
// a refusal. A refused pop leaves the value alone.
TYPED_TEST(RingQueueAnyVariant, WrapsAroundInFifoOrder) {
    for (unsigned int nodes : {2u, 5u, 33u}) {
        SCOPED_TRACE("nodes " + std::to_string(nodes));
        TypeParam q(nodes);
        const size_t room = nodes - 1;
        std::deque<uintptr_t> model;
        uintptr_t next = 1;
        unsigned int seed = 12345;
        for (int step = 0; step < 2000; ++step) {
            seed = seed * 1103515245u + 12345u;
            const bool pushing = ((seed >> 8) & 1) != 0;
            for (unsigned int i = 0; i < (seed >> 16) % (nodes + 3); ++i) {
                uintptr_t v = 0xABCD;
                const int rc = pushing ? q.push(next) : q.pop(v);
                if (pushing && model.size() == room) {
                    ASSERT_EQ(RESULT_QUEUE_FULL, rc);
                } else if (!pushing && model.empty()) {
                    ASSERT_EQ(RESULT_QUEUE_EMPTY, rc);
                    ASSERT_EQ(0xABCDu, v);
                } else if (pushing) {
                    ASSERT_EQ(RESULT_SUCCESS, rc);
                    model.push_back(next++);
                } else {
                    ASSERT_EQ(RESULT_SUCCESS, rc);
                    ASSERT_EQ(model.front(), v);
                    model.pop_front();
                }
                ASSERT_EQ(model.empty(), q.is_empty());
                ASSERT_EQ(model.size() == room, q.is_full());
            }
        }
        EXPECT_GT(next, 3 * nodes);
    }
}

// The recorded capacity is clamped and logged; the ring holds requested - 1
// values, none below 2 nodes.
TEST(RingQueueCapacity, ClampBoundariesAndRoom) {
    const unsigned int rows[][3] = {{0, 32, 0},   {1, 32, 0},   {2, 32, 1},
                                    {31, 32, 30}, {33, 33, 32}, {16385, 16384, 16384}};
    for (const auto& row : rows) {
        util_test::text_capture_t cap;
        util_test::capture_util_log(&cap);
        ring_queue_t<uintptr_t> q(row[0]);
        util_test::restore_log_routing();
        EXPECT_EQ(row[1], q.capacity());
        EXPECT_TRUE(cap.contains("\tring_queue_t::ring_queue_t(), capacity = " + std::to_string(row[0]) +
                                 ", m_capacity = " + std::to_string(row[1]) + ", this = "));
        uintptr_t n = 0, v = 0;
        while (q.push(n + 1) == RESULT_SUCCESS)
            ++n;
        EXPECT_EQ(row[2], n);
        for (uintptr_t i = 1; i <= n; ++i)
            ASSERT_TRUE(q.pop(v) == RESULT_SUCCESS && v == i);
        EXPECT_EQ(RESULT_QUEUE_EMPTY, q.pop(v));
    }
}

// Values carry the writer in their top byte and its sequence below; small
// rings make both sides meet full and empty constantly. Each reader must
// see each writer's values in order, and every value must arrive once.
const unsigned int SHIFT = 24;
template <class Q>
void check_delivery(unsigned int nodes, int writers, int readers, uintptr_t per_writer) {
    Q q(nodes);
    std::atomic<uintptr_t> taken{0};
    std::vector<std::vector<uintptr_t>> got(readers);
    util_test::run_threads(writers + readers, [&](int t) {
        if (t < writers) {
            for (uintptr_t seq = 0; seq < per_writer; ++seq)
                while (q.push((uintptr_t(t) << SHIFT) | seq) != RESULT_SUCCESS)
                    std::this_thread::yield();
            return;
        }
        for (uintptr_t v = 0; taken.load() < writers * per_writer;)
            if (q.pop(v) == RESULT_SUCCESS) {
                got[t - writers].push_back(v);
                taken.fetch_add(1);
            } else {
                std::this_thread::yield();
            }
    });
    std::vector<std::vector<char>> seen(writers, std::vector<char>(per_writer, 0));
    for (const std::vector<uintptr_t>& mine : got) {
        std::vector<uintptr_t> after(writers, 0);
        for (uintptr_t v : mine) {
            const uintptr_t w = v >> SHIFT, seq = v & ((uintptr_t(1) << SHIFT) - 1);
            ASSERT_TRUE(w < uintptr_t(writers) && seq < per_writer);
            ASSERT_EQ(0, seen[w][seq]) << "taken twice: " << w << "/" << seq;
            ASSERT_GE(seq, after[w]) << "out of order";
            seen[w][seq] = 1;
            after[w] = seq + 1;
        }
    }
    EXPECT_EQ(writers * per_writer, taken.load());
    EXPECT_TRUE(q.is_empty());
}

TEST(RingQueueThreads, EveryValueOnceInEachWritersOrder) {
    check_delivery<ring_queue_t<uintptr_t>>(2, 1, 1, 20000);
    check_delivery<ring_queue_t<uintptr_t>>(32, 1, 1, 50000);
    check_delivery<ring_queue_or_mw_t<uintptr_t>>(64, 4, 1, 10000);
    check_delivery<ring_queue_mr_mw_t<uintptr_t>>(32, 3, 3, 8000);
}

}  // namespace

TEST(RingQueueThreads, ANearlyEmptyRingIsNeverSeenFull) {
    // A writer and a reader hand one value at a time through the ring, so it
    // never holds more than one; a third thread takes snapshots meanwhile.
    // The ring is large: a snapshot may lag, but not by a whole lap.
    const int ROUNDS = 100000 / util_test::ROUNDS_SCALE;
    ring_queue_t<int> ring(RING_QUEUE_MAX_CAPACITY);
    std::atomic<bool> done(false);
    std::atomic<int> false_full(0);
    std::thread observer([&] {
        // Yields between snapshots: three spinning threads on two cores
        // would otherwise crawl on a loaded machine.
        while (!done.load()) {
            if (ring.is_full())
                ++false_full;
            std::this_thread::yield();
        }
    });
    std::thread reader([&] {
        int value = 0, expected = 0;
        while (expected < ROUNDS) {
            if (ring.pop(value) == RESULT_SUCCESS)
                EXPECT_EQ(expected++, value);
            else
                std::this_thread::yield();
        }
    });
    for (int i = 0; i < ROUNDS; ++i) {
        while (!ring.is_empty())
            std::this_thread::yield();
        ASSERT_EQ(RESULT_SUCCESS, ring.push(i));
    }
    reader.join();
    done = true;
    observer.join();
    EXPECT_EQ(0, false_full.load());
}

TEST(RingQueueSnapshots, AReaderCatchingUpWithAFreshPushNeverShowsAnEmptyRingFull) {
    // Both sides move between the snapshot's two cursor loads: the writer
    // pushes one value and the reader takes it, leaving the ring empty.
    // Loading the write cursor first would pair the old write cursor with
    // the new read cursor and report the empty ring as full.
    ring_queue_t<int> ring(4);
    int value = 0;
    for (int lap = 0; lap < 8; ++lap) {  // every node in turn, across wrap-around
        const bool full = ring.is_full_between([&] {
            ASSERT_EQ(RESULT_SUCCESS, ring.push(lap));
            ASSERT_EQ(RESULT_SUCCESS, ring.pop(value));
        });
        EXPECT_FALSE(full) << "lap " << lap;
        EXPECT_TRUE(ring.is_empty());
    }
}

namespace {

// Exposes where each side's fields of a ring lie.
class ring_probe_t : public ring_queue_t<uintptr_t> {
public:
    explicit ring_probe_t(unsigned int nodes) : ring_queue_t<uintptr_t>(nodes) {}

    // Byte ranges, from the object's start, of the fields each side writes.
    struct span_t {
        size_t first, end;
    };
    span_t reader_span() const { return span(&m_read, &m_reader_last + 1); }
    span_t writer_span() const { return span(&m_write, &m_writer_last + 1); }

private:
    span_t span(const void* first, const void* end) const {
        const char* self = reinterpret_cast<const char*>(this);
        return span_t{static_cast<size_t>(static_cast<const char*>(first) - self),
                      static_cast<size_t>(static_cast<const char*>(end) - self)};
    }
};

// No cache line holds a field of both sides, nor one of either side and a
// neighbour of the ring in an enclosing object, whatever the alignment.
TEST(RingQueueLayout, EachSidesHotFieldsHaveTheirOwnCacheLines) {
    ring_probe_t q(4);
    const ring_probe_t::span_t r = q.reader_span(), w = q.writer_span();
    const size_t line = detail::RING_CACHE_LINE;
    ASSERT_LT(r.end, w.first);
    EXPECT_GE(w.first - r.end, line);
    EXPECT_GE(r.first, line);
    EXPECT_GE(sizeof(ring_queue_t<uintptr_t>) - w.end, line);
}

}  // namespace
