#include <gtest/gtest.h>

#include <stdint.h>
#include <stdlib.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "log.h"
#include "ring_queue.h"
#include "test_support.h"

using namespace ssb;

// ---- allocation counting ----------------------------------------------------------
//
// The test binary's own operator new counts the calls made by the thread that
// armed it, and records the sizes of array allocations, so a test can show
// that a ring allocates its nodes once, in one piece, and never again.

namespace {

thread_local bool t_counting = false;
thread_local size_t t_news = 0;
thread_local size_t t_array_news = 0;
thread_local size_t t_last_array_size = 0;

void* counted_alloc(size_t size, bool array) {
    if (t_counting) {
        ++t_news;
        if (array) {
            ++t_array_news;
            t_last_array_size = size;
        }
    }
    return malloc(size ? size : 1);
}

struct alloc_window_t {
    alloc_window_t() {
        t_news = t_array_news = t_last_array_size = 0;
        t_counting = true;
    }
    ~alloc_window_t() { t_counting = false; }
};

}  // namespace

// The replacements below are a matched malloc/free pair; GCC cannot tell.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(size_t size) {
    void* p = counted_alloc(size, false);
    if (!p)
        throw std::bad_alloc();
    return p;
}
void* operator new[](size_t size) {
    void* p = counted_alloc(size, true);
    if (!p)
        throw std::bad_alloc();
    return p;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept { return counted_alloc(size, false); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return counted_alloc(size, true); }
void operator delete(void* p) noexcept { free(p); }
void operator delete[](void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }
void operator delete[](void* p, size_t) noexcept { free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { free(p); }

namespace {

#if defined(__SANITIZE_THREAD__)
const bool UNDER_TSAN = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
const bool UNDER_TSAN = true;
#else
const bool UNDER_TSAN = false;
#endif
#else
const bool UNDER_TSAN = false;
#endif

// Records the library's lines.
class capture_t : public log_it {
public:
    int cout(unsigned int, unsigned int level, signed char* text, unsigned int length) override {
        std::lock_guard<std::mutex> guard(m_mutex);
        std::string line(reinterpret_cast<char*>(text), length);
        size_t pos = 0;
        for (int tabs = 0; tabs < 4 && pos != std::string::npos; ++tabs)
            pos = line.find('\t', tabs == 0 ? 0 : pos + 1);
        m_lines.push_back(std::to_string(level) + ":" + (pos == std::string::npos ? line : line.substr(pos + 1)));
        return 0;
    }
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_lines;
    }
    void clear() {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_lines.clear();
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

// How the log writes a pointer.
std::string text_of(const void* p) {
    signed char buf[32];
    text_stream_t s(buf, sizeof buf);
    s << p;
    return reinterpret_cast<char*>(buf);
}

// Exposes the cursors of a ring.
template <class Q>
class inspect_t : public Q {
public:
    explicit inspect_t(unsigned int capacity) : Q(capacity) {}
    typename Q::node_t* header() const { return this->m_header; }
    typename Q::node_t* read() const { return this->m_read.load(); }
    typename Q::node_t* write() const { return this->m_write.load(); }
};

// Routes module 1 to a capture and to nothing else.
class RingQueueLog : public ::testing::Test {
protected:
    void SetUp() override {
        log_control_t::destroy();
        log_control_t::set_default_logger(nullptr);
        log_control_t::set_default_mask(LOG_TO_HANDLE);
        register_logger_handle(&cap, LOG_TO_HANDLE);
        register_logger(UTIL_MODULE_ID, "UTIL", 31, nullptr, LOG_TO_HANDLE);
    }
    void TearDown() override {
        log_control_t::destroy();
        log_control_t::set_default_logger(nullptr);
        log_control_t::set_default_mask(LOG_TO_FILE | LOG_TO_HANDLE);
    }
    capture_t cap;
};

// Pushes 1, 2, ... until the ring refuses; returns how many it took.
template <class Q>
unsigned int fill(Q& q) {
    unsigned int n = 0;
    while (q.push(uintptr_t(n + 1)) == RESULT_SUCCESS)
        ++n;
    return n;
}

// ---- behaviour shared by the three variants, on one thread ------------------------------

template <class Q>
class RingQueueAnyVariant : public ::testing::Test {};

typedef ::testing::Types<ring_queue_t<uintptr_t>, ring_queue_or_mw_t<uintptr_t>, ring_queue_mr_mw_t<uintptr_t>>
    variants_t;
TYPED_TEST_SUITE(RingQueueAnyVariant, variants_t);

TYPED_TEST(RingQueueAnyVariant, ThirtyTwoNodesTakeThirtyOneValuesThenReportFull) {
    TypeParam q(32);
    EXPECT_TRUE(q.is_empty());
    for (uintptr_t i = 1; i <= 31; ++i) {
        EXPECT_FALSE(q.is_full()) << i;
        ASSERT_EQ(RESULT_SUCCESS, q.push(i)) << i;
        EXPECT_FALSE(q.is_empty());
    }
    EXPECT_TRUE(q.is_full());
    EXPECT_EQ(RESULT_QUEUE_FULL, q.push(uintptr_t(99)));
    // The refused value was not stored: one pop makes room for one value.
    uintptr_t v = 0;
    ASSERT_EQ(RESULT_SUCCESS, q.pop(v));
    EXPECT_EQ(1u, v);
    EXPECT_FALSE(q.is_full());
    EXPECT_EQ(RESULT_SUCCESS, q.push(uintptr_t(32)));
    EXPECT_EQ(RESULT_QUEUE_FULL, q.push(uintptr_t(33)));
    for (uintptr_t i = 2; i <= 32; ++i) {
        ASSERT_EQ(RESULT_SUCCESS, q.pop(v));
        EXPECT_EQ(i, v);
    }
    EXPECT_TRUE(q.is_empty());
}

TYPED_TEST(RingQueueAnyVariant, PopOnEmptyReturnsSevenAndLeavesTheOutput) {
    TypeParam q(8);
    uintptr_t v = 0xABCD;
    EXPECT_EQ(RESULT_QUEUE_EMPTY, q.pop(v));
    EXPECT_EQ(0xABCDu, v);
    // Also once values have passed through, when the slot under the read
    // cursor still holds an old value.
    q.push(uintptr_t(5));
    q.pop(v);
    v = 0x1234;
    EXPECT_EQ(RESULT_QUEUE_EMPTY, q.pop(v));
    EXPECT_EQ(0x1234u, v);
}

// Pushes and pops in bursts of changing length over a ring of 5 nodes, so the
// cursors cross the end of the array hundreds of times, checked against a
// model of a queue of room 4.
TYPED_TEST(RingQueueAnyVariant, WrapsAroundTheArrayEndInFifoOrder) {
    TypeParam q(5);
    std::deque<uintptr_t> model;
    uintptr_t next = 1;
    unsigned int seed = 12345;
    for (int step = 0; step < 4000; ++step) {
        seed = seed * 1103515245u + 12345u;
        unsigned int burst = (seed >> 16) % 7;
        bool pushing = ((seed >> 8) & 1) != 0;
        for (unsigned int i = 0; i < burst; ++i) {
            if (pushing) {
                int rc = q.push(next);
                if (model.size() == 4) {
                    ASSERT_EQ(RESULT_QUEUE_FULL, rc);
                } else {
                    ASSERT_EQ(RESULT_SUCCESS, rc);
                    model.push_back(next);
                }
                ++next;
            } else {
                uintptr_t v = 0;
                int rc = q.pop(v);
                if (model.empty()) {
                    ASSERT_EQ(RESULT_QUEUE_EMPTY, rc);
                    ASSERT_EQ(0u, v);
                } else {
                    ASSERT_EQ(RESULT_SUCCESS, rc);
                    ASSERT_EQ(model.front(), v);
                    model.pop_front();
                }
            }
            ASSERT_EQ(model.empty(), q.is_empty());
            ASSERT_EQ(model.size() == 4, q.is_full());
        }
    }
    EXPECT_GT(next, 1000u);
}

TYPED_TEST(RingQueueAnyVariant, CapacityBelowTwoIsAlwaysFullAndEmpty) {
    for (unsigned int n : {0u, 1u}) {
        TypeParam q(n);
        EXPECT_EQ(RING_QUEUE_MIN_CAPACITY, q.capacity());
        EXPECT_TRUE(q.is_empty());
        EXPECT_TRUE(q.is_full());
        EXPECT_EQ(RESULT_QUEUE_FULL, q.push(uintptr_t(1)));
        uintptr_t v = 7;
        EXPECT_EQ(RESULT_QUEUE_EMPTY, q.pop(v));
        EXPECT_EQ(7u, v);
    }
}

TYPED_TEST(RingQueueAnyVariant, PushAndPopNeverAllocate) {
    TypeParam q(64);
    size_t news;
    {
        alloc_window_t window;
        uintptr_t v = 0;
        for (int round = 0; round < 100; ++round) {
            while (q.push(uintptr_t(round)) == RESULT_SUCCESS) {
            }
            while (q.pop(v) == RESULT_SUCCESS) {
            }
        }
        news = t_news;
    }
    EXPECT_EQ(0u, news);
}

// ---- the recorded capacity and the true room ------------------------------------------------

struct capacity_case_t {
    unsigned int requested;
    unsigned int recorded;
};

class RingQueueCapacity : public RingQueueLog, public ::testing::WithParamInterface<capacity_case_t> {};

// The ring has exactly the requested nodes (room requested - 1); the clamped
// figure is only recorded and logged.
TEST_P(RingQueueCapacity, RecordsTheClampedFigureButHoldsRequestedMinusOne) {
    const capacity_case_t c = GetParam();
    cap.clear();
    inspect_t<ring_queue_t<uintptr_t>> q(c.requested);
    EXPECT_EQ(c.recorded, q.capacity());
    std::vector<std::string> lines = cap.lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("3:ring_queue_t::ring_queue_t(), capacity = " + std::to_string(c.requested) +
                  ", m_capacity = " + std::to_string(c.recorded) + ", this = " + text_of(&q) + "\n",
              lines[0]);
    EXPECT_EQ(c.requested - 1, fill(q));
    // Every value comes back, in order.
    uintptr_t v = 0;
    for (unsigned int i = 1; i < c.requested; ++i) {
        ASSERT_EQ(RESULT_SUCCESS, q.pop(v));
        ASSERT_EQ(i, v);
    }
    EXPECT_TRUE(q.is_empty());
}

INSTANTIATE_TEST_SUITE_P(Boundaries, RingQueueCapacity,
                         ::testing::Values(capacity_case_t{2, 32}, capacity_case_t{8, 32}, capacity_case_t{31, 32},
                                           capacity_case_t{32, 32}, capacity_case_t{33, 33},
                                           capacity_case_t{16383, 16383}, capacity_case_t{16384, 16384},
                                           capacity_case_t{16385, 16384}, capacity_case_t{20000, 16384}));

TEST_F(RingQueueLog, AllocatesTheRequestedNodesInOnePieceLinkedInArrayOrder) {
    // A first ring opens the registry, which allocates on its own account.
    { ring_queue_t<uintptr_t> warm(2); }
    for (unsigned int n : {2u, 8u, 20000u}) {
        size_t arrays, size;
        {
            alloc_window_t window;
            inspect_t<ring_queue_t<uintptr_t>> q(n);
            arrays = t_array_news;
            size = t_last_array_size;
            // The links: node i to node i + 1, the last one back to the first.
            ring_node_t<uintptr_t>* h = q.header();
            bool linked = true;
            for (unsigned int i = 0; i < n; ++i)
                linked = linked && h[i].m_next == &h[(i + 1) % n] && h[i].m_value == 0;
            t_counting = false;
            EXPECT_TRUE(linked) << n;
            EXPECT_EQ(h, q.read());
            EXPECT_EQ(h, q.write());
        }
        EXPECT_EQ(1u, arrays) << n;
        EXPECT_EQ(n * sizeof(ring_node_t<uintptr_t>), size) << n;
    }
}

TEST_F(RingQueueLog, DumpWritesTheCursorsAndTheRecordedCapacity) {
    inspect_t<ring_queue_t<uintptr_t>> q(8);
    q.push(uintptr_t(1));
    q.push(uintptr_t(2));
    q.push(uintptr_t(3));
    uintptr_t v;
    q.pop(v);
    cap.clear();
    q.dump();
    std::vector<std::string> lines = cap.lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(q.header() + 3, q.write());
    EXPECT_EQ(q.header() + 1, q.read());
    EXPECT_EQ("3:ring_queue_t::dump this->m_write = " + text_of(q.header() + 3) +
                  ", this->m_read = " + text_of(q.header() + 1) + ", this->m_header = " + text_of(q.header()) +
                  ", this->m_capacity = 32\n",
              lines[0]);
}

TEST_F(RingQueueLog, CarriesPointersUnchanged) {
    int a = 0, b = 0;
    ring_queue_or_mw_t<int*> q(4);
    EXPECT_EQ(RESULT_SUCCESS, q.push(&a));
    EXPECT_EQ(RESULT_SUCCESS, q.push(&b));
    EXPECT_EQ(RESULT_SUCCESS, q.push(nullptr));
    int* out = &a;
    EXPECT_EQ(RESULT_SUCCESS, q.pop(out));
    EXPECT_EQ(&a, out);
    EXPECT_EQ(RESULT_SUCCESS, q.pop(out));
    EXPECT_EQ(&b, out);
    EXPECT_EQ(RESULT_SUCCESS, q.pop(out));
    EXPECT_EQ(nullptr, out);
}

// ---- across threads ------------------------------------------------------------------------

// One writer thread, one reader thread, no lock: every value arrives once
// and in order. Small rings make both sides meet full and empty constantly.
void one_to_one(unsigned int nodes, uintptr_t count) {
    ring_queue_t<uintptr_t> q(nodes);
    std::atomic<bool> failed{false};
    uintptr_t received = 0;
    std::thread reader([&] {
        uintptr_t expected = 1;
        uintptr_t v = 0;
        while (expected <= count) {
            if (q.pop(v) != RESULT_SUCCESS) {
                std::this_thread::yield();
                continue;
            }
            if (v != expected) {
                failed = true;
                break;
            }
            ++expected;
        }
        received = expected - 1;
    });
    for (uintptr_t i = 1; i <= count && !failed; ++i) {
        while (q.push(i) != RESULT_SUCCESS && !failed)
            std::this_thread::yield();
    }
    reader.join();
    EXPECT_FALSE(failed) << "nodes = " << nodes;
    EXPECT_EQ(count, received) << "nodes = " << nodes;
    EXPECT_TRUE(q.is_empty());
}

TEST(RingQueueThreads, OneWriterOneReaderDeliverEveryValueOnceInOrder) {
    one_to_one(1024, UNDER_TSAN ? 300000 : 4000000);
    one_to_one(32, UNDER_TSAN ? 200000 : 1000000);
}

TEST(RingQueueThreads, TwoNodeRingHandsOverOneValueAtATime) { one_to_one(2, UNDER_TSAN ? 101000 : 300000); }

// Values carry the writer in their top byte and its sequence below.
const unsigned int WRITER_SHIFT = 24;

TEST(RingQueueThreads, ManyWritersOneReaderKeepEachWritersOrderAndLoseNothing) {
    const int WRITERS = 4;
    const uintptr_t PER_WRITER = UNDER_TSAN ? 40000 : 250000;
    ring_queue_or_mw_t<uintptr_t> q(64);
    std::vector<uintptr_t> next(WRITERS, 0);
    std::atomic<bool> failed{false};
    std::thread reader([&] {
        uintptr_t total = 0, v = 0;
        while (total < WRITERS * PER_WRITER && !failed) {
            if (q.pop(v) != RESULT_SUCCESS) {
                std::this_thread::yield();
                continue;
            }
            uintptr_t w = v >> WRITER_SHIFT, seq = v & ((uintptr_t(1) << WRITER_SHIFT) - 1);
            if (w >= uintptr_t(WRITERS) || seq != next[w])
                failed = true;
            else
                ++next[w];
            ++total;
        }
    });
    util_test::run_threads(WRITERS, [&](int w) {
        for (uintptr_t seq = 0; seq < PER_WRITER && !failed; ++seq) {
            uintptr_t v = (uintptr_t(w) << WRITER_SHIFT) | seq;
            while (q.push(v) != RESULT_SUCCESS && !failed)
                std::this_thread::yield();
        }
    });
    reader.join();
    EXPECT_FALSE(failed);
    for (int w = 0; w < WRITERS; ++w)
        EXPECT_EQ(PER_WRITER, next[w]) << w;
    EXPECT_TRUE(q.is_empty());
}

TEST(RingQueueThreads, ManyReadersManyWritersTakeEveryValueExactlyOnce) {
    const int WRITERS = 3, READERS = 3;
    const uintptr_t PER_WRITER = UNDER_TSAN ? 30000 : 200000;
    const uintptr_t TOTAL = WRITERS * PER_WRITER;
    ring_queue_mr_mw_t<uintptr_t> q(32);
    std::atomic<uintptr_t> taken{0};
    std::vector<std::vector<uintptr_t>> got(READERS);
    util_test::run_threads(WRITERS + READERS, [&](int t) {
        if (t < WRITERS) {
            for (uintptr_t seq = 0; seq < PER_WRITER; ++seq) {
                while (q.push((uintptr_t(t) << WRITER_SHIFT) | seq) != RESULT_SUCCESS)
                    std::this_thread::yield();
            }
            return;
        }
        std::vector<uintptr_t>& mine = got[t - WRITERS];
        uintptr_t v = 0;
        while (taken.load() < TOTAL) {
            if (q.pop(v) == RESULT_SUCCESS) {
                mine.push_back(v);
                taken.fetch_add(1);
            } else {
                std::this_thread::yield();
            }
        }
    });
    std::vector<std::vector<char>> seen(WRITERS, std::vector<char>(PER_WRITER, 0));
    size_t count = 0;
    for (const std::vector<uintptr_t>& mine : got) {
        // Pops are serialised, so each reader meets a writer's values in
        // increasing order.
        std::vector<uintptr_t> last(WRITERS, 0);
        std::vector<bool> any(WRITERS, false);
        for (uintptr_t v : mine) {
            uintptr_t w = v >> WRITER_SHIFT, seq = v & ((uintptr_t(1) << WRITER_SHIFT) - 1);
            ASSERT_LT(w, uintptr_t(WRITERS));
            ASSERT_LT(seq, PER_WRITER);
            ASSERT_EQ(0, seen[w][seq]) << "value taken twice: " << w << "/" << seq;
            seen[w][seq] = 1;
            ASSERT_TRUE(!any[w] || seq > last[w]);
            any[w] = true;
            last[w] = seq;
            ++count;
        }
    }
    EXPECT_EQ(TOTAL, count);
    EXPECT_TRUE(q.is_empty());
}

}  // namespace
