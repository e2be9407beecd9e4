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

// Random bursts over 5 nodes cross the array end many times, checked
// against a model of room 4; a refused pop leaves the value alone.
TYPED_TEST(RingQueueAnyVariant, WrapsAroundInFifoOrder) {
    TypeParam q(5);
    std::deque<uintptr_t> model;
    uintptr_t next = 1;
    unsigned int seed = 12345;
    for (int step = 0; step < 2000; ++step) {
        seed = seed * 1103515245u + 12345u;
        const bool pushing = ((seed >> 8) & 1) != 0;
        for (unsigned int i = 0; i < (seed >> 16) % 7; ++i) {
            uintptr_t v = 0xABCD;
            const int rc = pushing ? q.push(next) : q.pop(v);
            if (pushing && model.size() == 4) {
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
            ASSERT_EQ(model.size() == 4, q.is_full());
        }
    }
    EXPECT_GT(next, 1000u);
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

// Exposes the node array and the two sides' fields of a ring.
class ring_probe_t : public ring_queue_t<uintptr_t> {
public:
    explicit ring_probe_t(unsigned int nodes) : ring_queue_t<uintptr_t>(nodes) {}
    const node_t* nodes() const { return m_header; }

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

const unsigned int NODE_COUNTS[] = {2, 3, 4, 5, 31, 32, 33, 64};

// Starting from every node (and from every node again a lap later), the
// ring takes exactly nodes - 1 values, refuses the next, takes one more
// after one pop, and drains in order. The private copies of the other
// side's cursor lag here by up to a whole lap and must be refreshed at the
// decision, never trusted.
TEST(RingQueueLaps, FromEveryNodeExactlyNodesMinusOneFitAndComeBackInOrder) {
    for (unsigned int n : NODE_COUNTS) {
        for (unsigned int offset = 0; offset < 2 * n; ++offset) {
            SCOPED_TRACE("nodes " + std::to_string(n) + ", offset " + std::to_string(offset));
            ring_queue_t<uintptr_t> q(n);
            uintptr_t pushed = 0, popped = 0, v = 0;
            for (unsigned int i = 0; i < offset; ++i) {
                ASSERT_EQ(RESULT_SUCCESS, q.push(++pushed));
                ASSERT_EQ(RESULT_SUCCESS, q.pop(v));
                ASSERT_EQ(++popped, v);
            }
            for (int round = 0; round < 3; ++round) {
                unsigned int room = 0;
                while (q.push(pushed + 1) == RESULT_SUCCESS) {
                    ++pushed;
                    ++room;
                }
                ASSERT_EQ(round == 0 ? n - 1 : (n - 1) / 2, room);
                ASSERT_TRUE(q.is_full());
                ASSERT_FALSE(q.is_empty());
                ASSERT_EQ(RESULT_SUCCESS, q.pop(v));
                ASSERT_EQ(++popped, v);
                ASSERT_FALSE(q.is_full());
                ASSERT_EQ(RESULT_SUCCESS, q.push(++pushed));
                ASSERT_EQ(RESULT_QUEUE_FULL, q.push(0xDEAD));
                // Half out, so the next round refills across a stale copy.
                for (unsigned int k = 0; k < (n - 1) / 2; ++k) {
                    ASSERT_EQ(RESULT_SUCCESS, q.pop(v));
                    ASSERT_EQ(++popped, v);
                }
            }
            while (q.pop(v) == RESULT_SUCCESS)
                ASSERT_EQ(++popped, v);
            ASSERT_EQ(pushed, popped);
            v = 0xABCD;
            ASSERT_EQ(RESULT_QUEUE_EMPTY, q.pop(v));
            ASSERT_EQ(0xABCDu, v);
            ASSERT_TRUE(q.is_empty());
        }
    }
}

// The cursors move in array order, and that order is the one the node
// links describe: value k lands in node k mod n, lap after lap.
TEST(RingQueueLaps, ValuesLandInTheNodeTheLinksLeadTo) {
    for (unsigned int n : NODE_COUNTS) {
        ring_probe_t q(n);
        const ring_probe_t::node_t* nodes = q.nodes();
        for (unsigned int i = 0; i < n; ++i)
            ASSERT_EQ(&nodes[(i + 1) % n], nodes[i].m_next) << "nodes " << n << ", link " << i;
        const ring_probe_t::node_t* at = nodes;
        uintptr_t v = 0;
        for (uintptr_t k = 1; k <= 3 * n; ++k) {
            ASSERT_EQ(RESULT_SUCCESS, q.push(k));
            ASSERT_EQ(k, at->m_value) << "nodes " << n << ", value " << k;
            ASSERT_EQ(RESULT_SUCCESS, q.pop(v));
            ASSERT_EQ(k, v);
            at = at->m_next;
        }
    }
}

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

// One writer and one reader on their own threads. Every 1,000 values the
// reader holds back until the ring is full and the writer until it is
// empty, so both refresh paths run against a live other side, at the end
// of the array as much as anywhere else. The reader checks the exact
// sequence.
void stream_in_sequence(unsigned int nodes, uintptr_t count) {
    SCOPED_TRACE("nodes " + std::to_string(nodes));
    ring_queue_t<uintptr_t> q(nodes);
    std::atomic<bool> writer_holding{false};
    std::atomic<bool> failed{false};
    std::thread reader([&] {
        uintptr_t v = 0;
        for (uintptr_t expected = 0; expected < count && !failed.load(); ++expected) {
            if (expected % 1000 == 999 && !util_test::wait_until("the writer to fill the ring or hold back", [&] {
                    return q.is_full() || writer_holding.load() || failed.load();
                })) {
                failed = true;
                return;
            }
            if (!util_test::wait_until("the next value from the writer",
                                       [&] { return q.pop(v) == RESULT_SUCCESS || failed.load(); })) {
                failed = true;
                return;
            }
            if (failed.load())
                return;
            if (v != expected) {
                ADD_FAILURE() << "expected " << expected << ", popped " << v;
                failed = true;
                return;
            }
        }
    });
    for (uintptr_t k = 0; k < count && !failed.load(); ++k) {
        if (k % 1000 == 500) {
            writer_holding = true;
            if (!util_test::wait_until("the reader to empty the ring", [&] { return q.is_empty() || failed.load(); }))
                failed = true;
            writer_holding = false;
        }
        if (!util_test::wait_until("room for the next value",
                                   [&] { return q.push(k) == RESULT_SUCCESS || failed.load(); }))
            failed = true;
    }
    writer_holding = true;  // for good: nothing more is coming
    reader.join();
    EXPECT_FALSE(failed.load());
    EXPECT_TRUE(q.is_empty());
}

TEST(RingQueueThreads, OneWriterOneReaderKeepTheExactSequenceAtEveryRingSize) {
    const uintptr_t count = 200000 / util_test::ROUNDS_SCALE;
    for (unsigned int nodes : {2u, 3u, 4u, 5u, 64u, 1024u})
        stream_in_sequence(nodes, count);
}

}  // namespace
