#include <gtest/gtest.h>

#include <stdint.h>
#include <stdlib.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "test_log_support.h"
#include "log.h"
#include "ring_queue.h"
#include "test_support.h"

using namespace ssb;

namespace {
// Calls to operator new made by the thread that set t_counting.
thread_local bool t_counting = false;
thread_local size_t t_news = 0;
void* counted_alloc(size_t size) {
    if (t_counting)
        ++t_news;
    void* p = malloc(size ? size : 1);
    if (!p)
        throw std::bad_alloc();
    return p;
}
}  // namespace

// A matched malloc/free pair; GCC cannot tell.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void* operator new(size_t size) { return counted_alloc(size); }
void* operator new[](size_t size) { return counted_alloc(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return malloc(size ? size : 1); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return malloc(size ? size : 1); }
void operator delete(void* p) noexcept { free(p); }
void operator delete[](void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }
void operator delete[](void* p, size_t) noexcept { free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { free(p); }

namespace {

// Keeps "level:message" of each line, the header cut off at its fourth TAB.
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
    std::vector<std::string> take() {
        std::lock_guard<std::mutex> guard(m_mutex);
        std::vector<std::string> out;
        out.swap(m_lines);
        return out;
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

std::string text_of(const void* p) {
    signed char buf[32];
    text_stream_t s(buf, sizeof buf);
    s << p;
    return reinterpret_cast<char*>(buf);
}

template <class Q>
class inspect_t : public Q {
public:
    explicit inspect_t(unsigned int capacity) : Q(capacity) {}
    typename Q::node_t* header() const { return this->m_header; }
};

class RingQueueLog : public ::testing::Test {
protected:
    void SetUp() override { util_test::capture_util_log(&cap); }
    void TearDown() override { util_test::restore_log_routing(); }
    capture_t cap;
};

template <class Q>
class RingQueueAnyVariant : public ::testing::Test {};
typedef ::testing::Types<ring_queue_t<uintptr_t>, ring_queue_or_mw_t<uintptr_t>, ring_queue_mr_mw_t<uintptr_t>>
    variants_t;
TYPED_TEST_SUITE(RingQueueAnyVariant, variants_t);

TYPED_TEST(RingQueueAnyVariant, ThirtyTwoNodesTakeThirtyOneValuesThenRefuseWithoutStoring) {
    TypeParam q(32);
    uintptr_t v = 0xABCD;
    EXPECT_EQ(RESULT_QUEUE_EMPTY, q.pop(v));
    EXPECT_EQ(0xABCDu, v);
    for (uintptr_t i = 1; i <= 31; ++i) {
        EXPECT_FALSE(q.is_full()) << i;
        ASSERT_EQ(RESULT_SUCCESS, q.push(i)) << i;
        EXPECT_FALSE(q.is_empty());
    }
    EXPECT_TRUE(q.is_full());
    EXPECT_EQ(RESULT_QUEUE_FULL, q.push(uintptr_t(99)));
    ASSERT_EQ(RESULT_SUCCESS, q.pop(v));
    EXPECT_EQ(1u, v);
    EXPECT_EQ(RESULT_SUCCESS, q.push(uintptr_t(32)));
    EXPECT_EQ(RESULT_QUEUE_FULL, q.push(uintptr_t(33)));
    for (uintptr_t i = 2; i <= 32; ++i) {
        ASSERT_EQ(RESULT_SUCCESS, q.pop(v));
        EXPECT_EQ(i, v);
    }
    EXPECT_TRUE(q.is_empty());
    // The slot under the read cursor still holds an old value.
    v = 0x1234;
    EXPECT_EQ(RESULT_QUEUE_EMPTY, q.pop(v));
    EXPECT_EQ(0x1234u, v);
}

// Bursts of changing length over 5 nodes cross the array end hundreds of
// times, checked against a model of room 4; none of it allocates.
TYPED_TEST(RingQueueAnyVariant, WrapsAroundTheArrayEndInFifoOrderWithoutAllocating) {
    TypeParam q(5);
    std::deque<uintptr_t> model;
    uintptr_t next = 1;
    unsigned int seed = 12345;
    t_news = 0;
    for (int step = 0; step < 2000; ++step) {
        seed = seed * 1103515245u + 12345u;
        const bool pushing = ((seed >> 8) & 1) != 0;
        for (unsigned int i = 0; i < (seed >> 16) % 7; ++i) {
            uintptr_t v = 0;
            t_counting = true;
            const int rc = pushing ? q.push(next) : q.pop(v);
            t_counting = false;
            if (pushing && model.size() == 4) {
                ASSERT_EQ(RESULT_QUEUE_FULL, rc);
            } else if (!pushing && model.empty()) {
                ASSERT_EQ(RESULT_QUEUE_EMPTY, rc);
            } else {
                ASSERT_EQ(RESULT_SUCCESS, rc);
                if (pushing) {
                    model.push_back(next);
                } else {
                    ASSERT_EQ(model.front(), v);
                    model.pop_front();
                }
            }
            next += pushing;
            ASSERT_EQ(model.empty(), q.is_empty());
            ASSERT_EQ(model.size() == 4, q.is_full());
        }
    }
    EXPECT_EQ(0u, t_news);
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

struct capacity_case_t {
    unsigned int requested, recorded;
};
class RingQueueCapacity : public RingQueueLog, public ::testing::WithParamInterface<capacity_case_t> {};

// The ring has exactly the requested nodes; the clamped figure is only
// recorded and logged.
TEST_P(RingQueueCapacity, RecordsTheClampedFigureButHoldsRequestedMinusOne) {
    const capacity_case_t c = GetParam();
    cap.take();
    ring_queue_t<uintptr_t> q(c.requested);
    EXPECT_EQ(c.recorded, q.capacity());
    const std::vector<std::string> lines = cap.take();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("3:ring_queue_t::ring_queue_t(), capacity = " + std::to_string(c.requested) +
                  ", m_capacity = " + std::to_string(c.recorded) + ", this = " + text_of(&q) + "\n",
              lines[0]);
    unsigned int n = 0;
    while (q.push(uintptr_t(n + 1)) == RESULT_SUCCESS)
        ++n;
    EXPECT_EQ(c.requested - 1, n);
    uintptr_t v = 0;
    for (unsigned int i = 1; i < c.requested; ++i) {
        ASSERT_EQ(RESULT_SUCCESS, q.pop(v));
        ASSERT_EQ(i, v);
    }
    EXPECT_TRUE(q.is_empty());
}

INSTANTIATE_TEST_SUITE_P(Boundaries, RingQueueCapacity,
                         ::testing::Values(capacity_case_t{2, 32}, capacity_case_t{31, 32}, capacity_case_t{32, 32},
                                           capacity_case_t{33, 33}, capacity_case_t{16384, 16384},
                                           capacity_case_t{16385, 16384}, capacity_case_t{20000, 16384}));

TEST_F(RingQueueLog, DumpWritesTheCursorsAndTheRecordedCapacityAndPointersPassUnchanged) {
    inspect_t<ring_queue_t<uintptr_t>> q(8);
    uintptr_t v;
    q.push(uintptr_t(1));
    q.push(uintptr_t(2));
    q.push(uintptr_t(3));
    q.pop(v);
    cap.take();
    q.dump();
    const std::vector<std::string> lines = cap.take();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("3:ring_queue_t::dump this->m_write = " + text_of(q.header() + 3) +
                  ", this->m_read = " + text_of(q.header() + 1) + ", this->m_header = " + text_of(q.header()) +
                  ", this->m_capacity = 32\n",
              lines[0]);

    int a = 0;
    ring_queue_or_mw_t<int*> p(4);
    EXPECT_EQ(RESULT_SUCCESS, p.push(&a));
    EXPECT_EQ(RESULT_SUCCESS, p.push(nullptr));
    int* out = nullptr;
    EXPECT_EQ(RESULT_SUCCESS, p.pop(out));
    EXPECT_EQ(&a, out);
    EXPECT_EQ(RESULT_SUCCESS, p.pop(out));
    EXPECT_EQ(nullptr, out);
}

// Small rings make both sides meet full and empty constantly.
void one_to_one(unsigned int nodes, uintptr_t count) {
    ring_queue_t<uintptr_t> q(nodes);
    std::atomic<bool> failed{false};
    uintptr_t received = 0;
    std::thread reader([&] {
        uintptr_t expected = 1, v = 0;
        while (expected <= count && !failed) {
            if (q.pop(v) != RESULT_SUCCESS)
                std::this_thread::yield();
            else if (v != expected++)
                failed = true;
        }
        received = expected - 1;
    });
    for (uintptr_t i = 1; i <= count && !failed; ++i)
        while (q.push(i) != RESULT_SUCCESS && !failed)
            std::this_thread::yield();
    reader.join();
    EXPECT_FALSE(failed) << "nodes = " << nodes;
    EXPECT_EQ(count, received) << "nodes = " << nodes;
    EXPECT_TRUE(q.is_empty());
}

TEST(RingQueueThreads, OneWriterOneReaderDeliverEveryValueOnceInOrder) {
    one_to_one(1024, 100000);
    one_to_one(32, 50000);
    one_to_one(2, 20000);
}

// Values carry the writer in their top byte and its sequence below.
const unsigned int WRITER_SHIFT = 24;
const uintptr_t SEQ_MASK = (uintptr_t(1) << WRITER_SHIFT) - 1;

TEST(RingQueueThreads, ManyWritersOneReaderKeepEachWritersOrderAndLoseNothing) {
    const int WRITERS = 4;
    const uintptr_t PER_WRITER = 10000;
    ring_queue_or_mw_t<uintptr_t> q(64);
    std::vector<uintptr_t> next(WRITERS, 0);
    std::atomic<bool> failed{false};
    std::thread reader([&] {
        uintptr_t v = 0;
        for (uintptr_t total = 0; total < WRITERS * PER_WRITER && !failed;) {
            if (q.pop(v) != RESULT_SUCCESS) {
                std::this_thread::yield();
                continue;
            }
            const uintptr_t w = v >> WRITER_SHIFT;
            if (w >= uintptr_t(WRITERS) || (v & SEQ_MASK) != next[w]++)
                failed = true;
            ++total;
        }
    });
    util_test::run_threads(WRITERS, [&](int w) {
        for (uintptr_t seq = 0; seq < PER_WRITER && !failed; ++seq)
            while (q.push((uintptr_t(w) << WRITER_SHIFT) | seq) != RESULT_SUCCESS && !failed)
                std::this_thread::yield();
    });
    reader.join();
    EXPECT_FALSE(failed);
    for (int w = 0; w < WRITERS; ++w)
        EXPECT_EQ(PER_WRITER, next[w]) << w;
    EXPECT_TRUE(q.is_empty());
}

TEST(RingQueueThreads, ManyReadersManyWritersTakeEveryValueExactlyOnce) {
    const int WRITERS = 3, READERS = 3;
    const uintptr_t PER_WRITER = 8000, TOTAL = WRITERS * PER_WRITER;
    ring_queue_mr_mw_t<uintptr_t> q(32);
    std::atomic<uintptr_t> taken{0};
    std::vector<std::vector<uintptr_t>> got(READERS);
    util_test::run_threads(WRITERS + READERS, [&](int t) {
        if (t < WRITERS) {
            for (uintptr_t seq = 0; seq < PER_WRITER; ++seq)
                while (q.push((uintptr_t(t) << WRITER_SHIFT) | seq) != RESULT_SUCCESS)
                    std::this_thread::yield();
            return;
        }
        uintptr_t v = 0;
        while (taken.load() < TOTAL) {
            if (q.pop(v) == RESULT_SUCCESS) {
                got[t - WRITERS].push_back(v);
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
        std::vector<uintptr_t> after(WRITERS, 0);  // last seq seen + 1
        for (uintptr_t v : mine) {
            const uintptr_t w = v >> WRITER_SHIFT, seq = v & SEQ_MASK;
            ASSERT_LT(w, uintptr_t(WRITERS));
            ASSERT_LT(seq, PER_WRITER);
            ASSERT_EQ(0, seen[w][seq]) << "value taken twice: " << w << "/" << seq;
            ASSERT_GE(seq, after[w]);
            seen[w][seq] = 1;
            after[w] = seq + 1;
            ++count;
        }
    }
    EXPECT_EQ(TOTAL, count);
    EXPECT_TRUE(q.is_empty());
}

}  // namespace
