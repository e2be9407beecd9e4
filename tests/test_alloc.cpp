#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "alloc.h"
#include "test_log_support.h"
#include "test_support.h"
#include "test_thread_support.h"
#include "tls.h"
#include "util.h"

using namespace ssb;

namespace {

// A C-heap back end that counts live blocks and keeps the last size asked.
class counting_back_end_t : public i8_allocator_it {
public:
    signed char* allocate(unsigned int count) override {
        m_last_size.store(count, std::memory_order_relaxed);
        m_live.fetch_add(1, std::memory_order_relaxed);
        return static_cast<signed char*>(malloc(count ? count : 1));
    }
    void deallocate(signed char* block, unsigned int) override {
        if (!block)
            return;
        m_live.fetch_sub(1, std::memory_order_relaxed);
        free(block);
    }
    int live() const { return m_live.load(std::memory_order_relaxed); }
    unsigned int last_size() const { return m_last_size.load(std::memory_order_relaxed); }

private:
    std::atomic<int> m_live{0};
    std::atomic<unsigned int> m_last_size{0};
};

ssb_allocator_t::stats_t stats() {
    ssb_allocator_t::stats_t s;
    ssb_allocator_t::stats(s);
    return s;
}

TEST(AllocClass, SizesMapToPowerOfTwoClasses) {
    const unsigned int cases[][2] = {{0, 0}, {31, 0}, {32, 1}, {1023, 5}, {4095, 7}, {4096, 8}, {100000, 8}};
    for (const auto& c : cases)
        EXPECT_EQ(c[1], alloc_class_of(c[0])) << "size " << c[0];
    for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k) {
        EXPECT_EQ(k, alloc_class_of(alloc_class_bytes(k) - 1)) << "largest size of class " << k;
        EXPECT_EQ(k + 1, alloc_class_of(alloc_class_bytes(k))) << "class bytes of " << k;
    }
}

TEST(I8Allocator, InstanceIsOneNewAllocatorForEveryThread) {
    std::vector<i8_allocator_it*> seen(8, nullptr);
    util_test::run_threads(8, [&](int i) { seen[i] = i8_allocator_it::instance(); });
    for (i8_allocator_it* p : seen)
        EXPECT_EQ(i8_allocator_it::instance(), p);
    EXPECT_NE(nullptr, dynamic_cast<new_i8_allocator_t*>(i8_allocator_it::instance()));
}

class AllocLog : public ::testing::Test {
protected:
    void SetUp() override { util_test::capture_util_log(&m_log); }
    void TearDown() override { util_test::restore_log_routing(); }
    util_test::text_capture_t m_log;
};

TEST_F(AllocLog, NewAllocatorLogsPageSizeAndAssertsOnZeroCount) {
    new_i8_allocator_t a;
    EXPECT_TRUE(
        m_log.contains("new_i8_allocator_t::new_i8_allocator_t, m_page_size = " + std::to_string(a.page_size())));
    signed char* p = a.allocate(0);
    EXPECT_NE(nullptr, p) << "a bad count is still served";
    EXPECT_TRUE(m_log.contains("assert: msg[new_i8_allocator_t::allocate, count = 0] file[alloc], line = [113]"));
    a.deallocate(p, 0);
}

// ---- cached_allocator_helper ------------------------------------------------------

TEST(CachedHelper, BoundarySizesLandInTheirClassesAndLargeOnesAreNeverKept) {
    counting_back_end_t back;
    cached_allocator_helper h(64, &back);
    const unsigned int cases[][2] = {{31, 0}, {32, 1}, {4095, 7}};
    for (const auto& c : cases) {
        signed char* p = h.allocate(c[0]);
        ASSERT_NE(nullptr, p);
        EXPECT_EQ(alloc_class_bytes(c[1]), back.last_size()) << "a fresh block has its class's full size";
        EXPECT_EQ(RESULT_SUCCESS, h.deallocate(p, c[0]));
        EXPECT_EQ(1u, h.cached(c[1])) << "size " << c[0];
        EXPECT_EQ(1u, h.record(c[1]).releases);
    }
    signed char* large = h.allocate(4096);
    EXPECT_EQ(4096u, back.last_size());
    EXPECT_EQ(ALLOC_NOT_KEPT, h.deallocate(large, 4096));
    back.deallocate(large, 4096);
    EXPECT_EQ(3, back.live()) << "the three cached blocks";
}

// A hit takes the newest block of the first class that has one, walking up
// from the size's class; the ring's capacity is clamped to its limits.
TEST(CachedHelper, HitsTakeTheNewestBlockAndWalkUpToALargerCachedClass) {
    counting_back_end_t back;
    cached_allocator_helper h(64, &back);
    EXPECT_EQ(64u, h.ring_capacity(3));
    EXPECT_EQ(ALLOC_MAX_RING, cached_allocator_helper(100000, &back).ring_capacity(7));
    signed char* a = h.allocate(40);
    signed char* b = h.allocate(40);
    ASSERT_EQ(RESULT_SUCCESS, h.deallocate(a, 40));
    ASSERT_EQ(RESULT_SUCCESS, h.deallocate(b, 50));
    EXPECT_EQ(b, h.allocate(63));
    EXPECT_EQ(a, h.allocate(32));
    EXPECT_EQ(4u, h.record(1).requests);
    EXPECT_EQ(2u, h.record(1).hits);
    h.deallocate(a, 40);
    h.deallocate(b, 40);

    signed char* big = h.allocate(600);
    ASSERT_EQ(RESULT_SUCCESS, h.deallocate(big, 600));
    const int live = back.live();
    uint32_t before[ALLOC_CLASS_COUNT];
    for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k)
        before[k] = h.record(k).requests;
    EXPECT_EQ(big, h.allocate(100)) << "served from class 5 while class 2 is empty";
    EXPECT_EQ(live, back.live()) << "no fresh block taken";
    for (unsigned int k = 2; k <= 5; ++k)
        EXPECT_EQ(before[k] + 1, h.record(k).requests) << "class " << k;
    EXPECT_EQ(0u, h.record(2).hits);
    EXPECT_EQ(1u, h.record(5).hits);
    EXPECT_EQ(before[6], h.record(6).requests) << "the walk stops at the hit";
    EXPECT_EQ(0u, h.cached(5));
    h.deallocate(big, 100);
}

TEST(CachedHelper, FullRingRefusesWith999AndKeepsItsBlocks) {
    counting_back_end_t back;
    cached_allocator_helper h(1, &back);  // clamped up to the least ring
    EXPECT_EQ(ALLOC_MIN_RING, h.ring_capacity(0));
    std::vector<signed char*> kept, back_out;
    for (unsigned int i = 0; i < ALLOC_MIN_RING; ++i)
        kept.push_back(h.allocate(20));
    signed char* extra = h.allocate(20);
    for (signed char* p : kept)
        ASSERT_EQ(RESULT_SUCCESS, h.deallocate(p, 20));
    EXPECT_EQ(ALLOC_NOT_KEPT, h.deallocate(extra, 20));
    EXPECT_EQ(ALLOC_MIN_RING, h.cached(0));
    back.deallocate(extra, 20);
    for (unsigned int i = 0; i < ALLOC_MIN_RING; ++i)
        back_out.push_back(h.allocate(20));
    std::sort(kept.begin(), kept.end());
    std::sort(back_out.begin(), back_out.end());
    EXPECT_EQ(kept, back_out) << "exactly the blocks kept before the refusal";
    for (signed char* p : back_out)
        h.deallocate(p, 20);
}

TEST_F(AllocLog, HelperDumpIsLoggedAndDestructionFreesEveryCachedBlock) {
    counting_back_end_t back;
    {
        cached_allocator_helper h(32, &back);
        h.deallocate(h.allocate(300), 300);
        h.dump();
        EXPECT_TRUE(
            m_log.contains("cached_allocator_helper::dump(), class = 4, requests = 1, hits = 0, releases = 1, cached = "
                           "1, capacity = 32"));
        for (unsigned int size = 0; size < 4096; size += 97)
            EXPECT_EQ(RESULT_SUCCESS, h.deallocate(h.allocate(size), size));
        EXPECT_LT(1, back.live());
    }
    EXPECT_TRUE(m_log.contains("cached_allocator_st::cached_allocator_helper::~cached_allocator_helper()"));
    EXPECT_EQ(0, back.live());
}

TEST(CachedAllocatorSt, SharedByThreadsLosesNothing) {
    counting_back_end_t back;
    {
        cached_allocator_st shared(64, &back);
        util_test::run_threads(4, [&](int t) {
            std::vector<std::pair<signed char*, unsigned int>> mine;
            for (int round = 0; round < 200 / util_test::ROUNDS_SCALE + 10; ++round) {
                for (unsigned int i = 0; i < 20; ++i) {
                    const unsigned int size = (i * 211 + t * 37 + round) % 5000;
                    mine.emplace_back(shared.allocate(size), size);
                    memset(mine.back().first, t, size);
                }
                for (auto& b : mine) {
                    for (unsigned int j = 0; j < b.second; ++j)
                        ASSERT_EQ(static_cast<signed char>(t), b.first[j]) << "a block handed to two threads";
                    shared.deallocate(b.first, b.second);
                }
                mine.clear();
            }
        });
        shared.deallocate(nullptr, 10);
    }
    EXPECT_EQ(0, back.live());
}

// ---- ssb_allocator_t ------------------------------------------------------------------

// Starts and ends every test with no allocator and an empty pool, so the
// heap count is the test's own.
class SsbAllocator : public ::testing::Test {
protected:
    void SetUp() override {
        reset();
        ASSERT_EQ(0, stats().heap_blocks) << "an earlier test left blocks behind";
        util_test::capture_util_log(&log);
    }
    void TearDown() override {
        util_test::restore_log_routing();
        reset();
        EXPECT_EQ(0, stats().heap_blocks) << "blocks lost or freed twice";
    }
    static void reset() {
        ssb_allocator_t::instance()->release_tls();
        ssb_allocator_t::instance()->release();
    }
    // Runs fn on a thread of its own, whose cache goes to the pool as it ends.
    static void on_thread(const std::function<void()>& fn) { std::thread(fn).join(); }
    util_test::text_capture_t log;
};

TEST_F(SsbAllocator, TrailerFollowsTheCallersBytesAndCountsItWouldOverflowAreRefused) {
    ssb_allocator_t* a = ssb_allocator_t::instance();
    for (unsigned int n : {0u, 1u, 15u, 16u, 100u, 4079u, 4080u, 100000u}) {
        signed char* p = a->allocate(n);
        ASSERT_NE(nullptr, p) << n;
        memset(p, 0x77, n);
        EXPECT_EQ(0, memcmp(p + n, ssb_allocator_t::CHECKER_RESULT, ssb_allocator_t::TRAILER_SIZE)) << n;
        a->deallocate(p, n);
    }
    EXPECT_EQ(nullptr, a->allocate(0xFFFFFFFFu));
    EXPECT_TRUE(log.contains("assert: msg[ssb_allocator_t::allocate, count = 4294967295] file[alloc], line = [113]"));
    EXPECT_EQ(nullptr, a->allocate(0xFFFFFFF0u));
    EXPECT_TRUE(log.contains("count = 4294967280] file[alloc], line = [113]"));
}

TEST_F(SsbAllocator, WrongSizeOrForeignBlockIsReportedAndStillReleased) {
    ssb_allocator_t* a = ssb_allocator_t::instance();
    signed char* p = a->allocate(100);
    a->deallocate(p, 50);
    EXPECT_TRUE(log.contains("assert: msg[ssb_allocator_t::deallocate MUST from ssb_allocator, trailer = "));
    EXPECT_TRUE(log.contains(", CHECKER_RESULT = 5b0c1a7e-934d-41c2-a86f-2ed138b475e9] file[alloc], line = [526]"));
    EXPECT_EQ(p, a->allocate(50)) << "the release went on into the cache";
    a->deallocate(p, 50);

    log.clear();
    signed char* foreign = static_cast<signed char*>(calloc(1, 256));
    a->deallocate(foreign, 100);
    EXPECT_TRUE(log.contains("line = [526]"));
    EXPECT_EQ(foreign, a->allocate(100)) << "cached like any block of its class";
    free(foreign);

    log.clear();
    a->deallocate(nullptr, 100);
    EXPECT_FALSE(log.contains("assert")) << "a null block is ignored";
}

// One thread allocates and fills, the other checks and frees: a block served
// twice or overwritten while live shows as a wrong byte or a repeat.
TEST_F(SsbAllocator, BlocksCrossingThreadsAreNeitherLostNorDuplicated) {
    const int ROUNDS = 20000 / util_test::ROUNDS_SCALE + 2000;
    std::mutex mutex;
    std::deque<std::pair<signed char*, unsigned int>> queue;
    std::set<signed char*> live;
    std::atomic<int> faults(0), taken(0);
    ssb_allocator_t* a = ssb_allocator_t::instance();
    util_test::run_threads(2, [&](int consumer) {
        for (int i = 0; i < ROUNDS && !consumer; ++i) {
            const unsigned int size = (static_cast<unsigned int>(i) * 2654435761u) % 4200;
            signed char* p = a->allocate(size);
            memset(p, static_cast<int>(size & 0x7f), size);
            std::lock_guard<std::mutex> guard(mutex);
            faults += !live.insert(p).second;
            queue.emplace_back(p, size);
        }
        while (consumer && taken.load() < ROUNDS) {
            std::unique_lock<std::mutex> guard(mutex);
            if (queue.empty()) {
                guard.unlock();
                std::this_thread::yield();
                continue;
            }
            const std::pair<signed char*, unsigned int> item = queue.front();
            queue.pop_front();
            live.erase(item.first);
            guard.unlock();
            for (unsigned int j = 0; j < item.second; ++j)
                faults += item.first[j] != static_cast<signed char>(item.second & 0x7f);
            a->deallocate(item.first, item.second);
            ++taken;
        }
    });
    EXPECT_EQ(0, faults.load());
    ssb_allocator_t::stats_t s = stats();
    EXPECT_EQ(0, s.cached_blocks) << "this thread took part in nothing";
    EXPECT_EQ(s.pool_blocks, s.heap_blocks) << "both threads' caches went to the pool as they ended";
}

TEST_F(SsbAllocator, TlsCleanupDropsTheCacheOfALibraryThreadOnce) {
    on_thread([&] {
        unsigned int key = 0;
        ASSERT_EQ(RESULT_SUCCESS, tls_allocate_key(key));
        // A thread the library runs has a slot table before it allocates.
        ASSERT_EQ(RESULT_SUCCESS, tls_setspecific_value(key, nullptr, nullptr));
        ssb_allocator_t* a = ssb_allocator_t::instance();
        a->deallocate(a->allocate(10), 10);
        a->deallocate(a->allocate(1000), 1000);
        EXPECT_EQ(2, stats().cached_blocks);
        tls_cleanup();
        EXPECT_EQ(0, stats().cached_blocks) << "dropped by the slot's clean-up";
        EXPECT_EQ(2, stats().pool_blocks);
        tls_deallocate_key(key);
    });
    EXPECT_EQ(2, stats().pool_blocks) << "nothing dropped twice";
    EXPECT_EQ(2, stats().heap_blocks);
}

TEST_F(SsbAllocator, ReleaseTlsTwiceIsHarmlessAndReleaseThenNextUseMakesAFreshAllocator) {
    ssb_allocator_t* a = ssb_allocator_t::instance();
    a->deallocate(a->allocate(30), 30);
    a->release_tls();
    a->release_tls();
    EXPECT_TRUE(log.contains("ssb_allocator_t::release_tls()"));
    EXPECT_EQ(0, stats().cached_blocks);
    EXPECT_EQ(1, stats().pool_blocks);
    signed char* p = a->allocate(500);
    EXPECT_NE(nullptr, p) << "a new cache starts on the next allocation";
    a->release();
    EXPECT_EQ(nullptr, ssb_allocator_t::peek());
    EXPECT_TRUE(log.contains("ssb_allocator_t::~ssb_allocator_t()"));
    ssb_allocator_t* b = ssb_allocator_t::instance();
    EXPECT_EQ(2, log.count("ssb_allocator_t::ssb_allocator_t() with memory pool"));
    b->deallocate(p, 500);
    EXPECT_EQ(p, b->allocate(500)) << "a block from before the release is a block like any other";
    b->deallocate(p, 500);
}

// ---- bounds: what a thread keeps, what the pool keeps --------------------------------

TEST_F(SsbAllocator, CachesAndPoolStayBoundedAfterABurst) {
    const unsigned int BURST = 3000;
    const int64_t pool_bound = ssb_allocator_t::POOL_HIGH_WATER;
    on_thread([&] {
        ssb_allocator_t* a = ssb_allocator_t::instance();
        std::vector<signed char*> blocks(BURST);
        for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k) {
            const unsigned int size = alloc_class_bytes(k) - ssb_allocator_t::TRAILER_SIZE - 1;
            for (signed char*& p : blocks)
                p = a->allocate(size);
            for (signed char* p : blocks)
                a->deallocate(p, size);
        }
        ssb_allocator_t::stats_t s = stats();
        EXPECT_LE(s.cached_bytes, 2 * 1024 * 1024);
        EXPECT_LE(s.pool_bytes, pool_bound);
        EXPECT_EQ(s.heap_blocks, s.cached_blocks + s.pool_blocks) << "the rest went back to the C heap";
        EXPECT_LT(s.heap_blocks, static_cast<int64_t>(BURST) * ALLOC_CLASS_COUNT);
    });
    EXPECT_LE(stats().pool_bytes, pool_bound);
    EXPECT_EQ(stats().heap_blocks, stats().pool_blocks);
}

// The pool's budget is shared: one size may fill it, and going over it
// gives back the oldest blocks of the class holding the most, not those of
// whichever class was freed last.
TEST_F(SsbAllocator, OneSizeMayFillThePoolAndTheFullestClassGivesWay) {
    const unsigned int SMALL = 64 - ssb_allocator_t::TRAILER_SIZE - 1;   // class 1
    const unsigned int LARGE = 128 - ssb_allocator_t::TRAILER_SIZE - 1;  // class 2
    const unsigned int SMALL_COUNT = 1024 * 1024 / 64;
    const unsigned int LARGE_COUNT = ssb_allocator_t::POOL_HIGH_WATER / 128;
    ssb_allocator_t* a = ssb_allocator_t::instance();
    std::vector<signed char*> small, large;
    on_thread([&] {
        for (unsigned int i = 0; i < SMALL_COUNT; ++i)
            small.push_back(a->allocate(SMALL));
        for (unsigned int i = 0; i < LARGE_COUNT; ++i)
            large.push_back(a->allocate(LARGE));
    });
    // Freed on a thread that only frees, so nearly everything reaches the pool.
    on_thread([&] {
        for (signed char* p : large)
            a->deallocate(p, LARGE);
        EXPECT_GE(stats().pool_bytes, 3 * 1024 * 1024) << "one size may use most of the budget";
        for (signed char* p : small)
            a->deallocate(p, SMALL);
        a->release_tls();
    });
    ssb_allocator_t::stats_t s = stats();
    EXPECT_LE(s.pool_bytes, static_cast<int64_t>(ssb_allocator_t::POOL_HIGH_WATER));
    EXPECT_EQ(s.heap_blocks, s.pool_blocks) << "every block is pooled or back in the C heap";
    a->dump();
    EXPECT_TRUE(log.contains("pool class = 1, blocks = " + std::to_string(SMALL_COUNT) + ","))
        << "the smaller class, freed last, keeps every block";
}

// A consumer thread keeps one batch per class; the pool hands a batch back.
TEST_F(SsbAllocator, AThreadThatOnlyFreesKeepsOneBatchPerClassAndItsCacheGoesToThePool) {
    std::vector<std::pair<signed char*, unsigned int>> blocks;
    ssb_allocator_t* a = ssb_allocator_t::instance();
    for (unsigned int i = 0; i < 2000; ++i)
        blocks.emplace_back(a->allocate((i * 7919u) % 4000), (i * 7919u) % 4000);
    int64_t consumer_cached = -1;
    on_thread([&] {
        for (auto& b : blocks)
            a->deallocate(b.first, b.second);
        consumer_cached = stats().cached_blocks;
    });
    EXPECT_LE(consumer_cached, 32 * static_cast<int64_t>(ALLOC_CLASS_COUNT));
    const ssb_allocator_t::stats_t s = stats();
    EXPECT_EQ(s.heap_blocks, s.pool_blocks) << "the consumer's cache went to the pool as it ended";
    signed char* reused = a->allocate(200);
    EXPECT_EQ(s.heap_blocks, stats().heap_blocks) << "served from the pool";
    EXPECT_EQ(s.pool_blocks - 1, stats().pool_blocks + stats().cached_blocks) << "a batch came back from the pool";
    a->deallocate(reused, 200);
}

TEST_F(SsbAllocator, AThreadThatReusesItsBlocksKeepsThemAndTakesNoMore) {
    ssb_allocator_t* a = ssb_allocator_t::instance();
    std::vector<signed char*> blocks(300);
    int64_t held = 0;
    for (int round = 0; round < 8; ++round) {
        if (round == 4)
            held = stats().heap_blocks;
        for (auto& p : blocks)
            p = a->allocate(300);
        for (auto& p : blocks)
            a->deallocate(p, 300);
    }
    EXPECT_EQ(held, stats().heap_blocks) << "later rounds are served from the cache and the pool";
    EXPECT_LE(held, 300 + 32) << "at most one spare batch";
    EXPECT_GE(stats().cached_blocks, 300 - 32) << "the cache grew to the thread's working set";
}

TEST_F(SsbAllocator, UtilInitCreatesItAndTheLastUninitReleasesEverything) {
    util_init(3, nullptr, nullptr, nullptr, 0, 0);
    ssb_allocator_t* a = ssb_allocator_t::peek();
    ASSERT_NE(nullptr, a);
    signed char* p = a->allocate(300);
    on_thread([&] { a->deallocate(a->allocate(300), 300); });
    util_init(4, nullptr, nullptr, nullptr, 0, 0);
    util_uninit(4);
    EXPECT_EQ(a, ssb_allocator_t::peek()) << "only the last call tears down";
    a->deallocate(p, 300);
    util_uninit(3);
    EXPECT_EQ(nullptr, ssb_allocator_t::peek());
    EXPECT_EQ(0, stats().heap_blocks) << "this thread's cache and the pool went back to the C heap";
}

// A loop thread's cache goes when it stops, through its slot clean-up.
class SsbAllocatorLoop : public util_test::thread_test_t {};

TEST_F(SsbAllocatorLoop, ALoopThreadDropsItsCacheWhenItStops) {
    const int64_t pooled = stats().pool_blocks;
    thread_wrapper_t* thr = m_mgr->spawn(THREAD_MODE_EVENT, 64, 100, false, nullptr, 0xFFFFFFFFu);
    ASSERT_NE(nullptr, thr);
    int64_t cached = -1;
    util_test::run_on(thr, [&] {
        ssb_allocator_t* a = ssb_allocator_t::instance();
        signed char* blocks[3];
        for (signed char*& p : blocks)
            p = a->allocate(300);
        for (signed char* p : blocks)
            a->deallocate(p, 300);
        cached = stats().cached_blocks;
    });
    EXPECT_EQ(3, cached);
    EXPECT_EQ(RESULT_SUCCESS, thr->stop());
    UTIL_WAIT_UNTIL([&] { return stats().pool_blocks == pooled + 3; });
    EXPECT_TRUE(m_log.contains("cached_allocator_st::cached_allocator_helper::~cached_allocator_helper()"));
}

}  // namespace
