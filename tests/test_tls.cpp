#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "test_support.h"
#include "tls.h"

using namespace ssb;

namespace {

unsigned int new_key() {
    unsigned int key = 0;
    EXPECT_EQ(RESULT_SUCCESS, tls_allocate_key(key));
    return key;
}

// Runs fn on a fresh thread, which has no table yet, and cleans up after it.
template <class Fn>
void on_fresh_thread(Fn fn) {
    std::thread t([&] {
        fn();
        tls_cleanup();
    });
    t.join();
}

std::atomic<int> g_cleaned(0);
std::atomic<intptr_t> g_cleaned_sum(0);

void SSB_STDCALL count_cleanup(void* value) {
    ++g_cleaned;
    g_cleaned_sum += reinterpret_cast<intptr_t>(value);
}

TEST(Tls, FreshThreadHasNoTableThenUnsetEntriesAreNotFound) {
    unsigned int k0 = new_key();
    unsigned int k1 = new_key();
    on_fresh_thread([&] {
        void* v = reinterpret_cast<void*>(1);
        EXPECT_EQ(RESULT_NOTHING_TO_DO, tls_getspecific_value(k0, v));
        EXPECT_EQ(RESULT_SUCCESS, tls_setspecific_value(k0, &v, nullptr));
        EXPECT_EQ(RESULT_NOT_FOUND, tls_getspecific_value(k1, v));
        EXPECT_EQ(RESULT_SUCCESS, tls_getspecific_value(k0, v));
        EXPECT_EQ(static_cast<void*>(&v), v);
        // A null value that was set is found, unlike an entry never set.
        EXPECT_EQ(RESULT_SUCCESS, tls_setspecific_value(k1, nullptr, nullptr));
        v = &v;
        EXPECT_EQ(RESULT_SUCCESS, tls_getspecific_value(k1, v));
        EXPECT_EQ(nullptr, v);
    });
}

TEST(Tls, KeysBeyondTheHighestHandedOutAreRefused) {
    unsigned int k = new_key();
    void* v = nullptr;
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, tls_setspecific_value(k + 1, v, nullptr));
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, tls_getspecific_value(k + 1, v));
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, tls_getspecific_value(0xFFFFFFFFu, v));
}

TEST(Tls, TablesGrowByPagesOf256) {
    std::vector<unsigned int> keys;
    while (keys.empty() || keys.back() < 300)
        keys.push_back(new_key());
    on_fresh_thread([&] {
        void* v = nullptr;
        ASSERT_EQ(RESULT_SUCCESS, tls_setspecific_value(0, &keys, nullptr));
        // One page so far: 255 is inside it, 256 is beyond the table.
        EXPECT_EQ(RESULT_NOT_FOUND, tls_getspecific_value(255, v));
        EXPECT_EQ(RESULT_OUT_OF_LIMIT, tls_getspecific_value(256, v));
        ASSERT_EQ(RESULT_SUCCESS, tls_setspecific_value(300, &v, nullptr));
        // The second page now covers 256..511.
        EXPECT_EQ(RESULT_NOT_FOUND, tls_getspecific_value(256, v));
        EXPECT_EQ(RESULT_SUCCESS, tls_getspecific_value(300, v));
        EXPECT_EQ(static_cast<void*>(&v), v);
        EXPECT_EQ(RESULT_SUCCESS, tls_getspecific_value(0, v));
        EXPECT_EQ(static_cast<void*>(&keys), v);
    });
}

TEST(Tls, EachThreadSeesOnlyItsOwnValue) {
    unsigned int key = new_key();
    std::atomic<int> mismatches(0);
    util_test::run_threads(4, [&](int i) {
        for (int r = 0; r < 1000; ++r) {
            intptr_t mine = i * 100000 + r;
            tls_setspecific_value(key, reinterpret_cast<void*>(mine), nullptr);
            std::this_thread::yield();
            void* v = nullptr;
            if (tls_getspecific_value(key, v) != RESULT_SUCCESS || v != reinterpret_cast<void*>(mine))
                ++mismatches;
        }
        tls_cleanup();
    });
    EXPECT_EQ(0, mismatches.load());
}

TEST(Tls, CleanupCallsEachEntrysFunctionWithItsValueAndDropsTheTable) {
    unsigned int a = new_key();
    unsigned int b = new_key();
    unsigned int c = new_key();
    g_cleaned = 0;
    g_cleaned_sum = 0;
    std::thread t([&] {
        tls_setspecific_value(a, reinterpret_cast<void*>(5), count_cleanup);
        tls_setspecific_value(b, reinterpret_cast<void*>(7), nullptr);
        tls_setspecific_value(c, reinterpret_cast<void*>(11), count_cleanup);
        EXPECT_EQ(RESULT_SUCCESS, tls_cleanup());
        void* v = nullptr;
        EXPECT_EQ(RESULT_NOTHING_TO_DO, tls_getspecific_value(a, v));
        EXPECT_EQ(RESULT_SUCCESS, tls_cleanup());  // nothing left: harmless
    });
    t.join();
    EXPECT_EQ(2, g_cleaned.load());
    EXPECT_EQ(16, g_cleaned_sum.load());
}

TEST(Tls, DeallocatingClearsTheCallersEntry) {
    unsigned int key = new_key();
    g_cleaned = 0;
    on_fresh_thread([&] {
        tls_setspecific_value(key, reinterpret_cast<void*>(3), count_cleanup);
        EXPECT_EQ(RESULT_SUCCESS, tls_deallocate_key(key));
        void* v = nullptr;
        EXPECT_EQ(RESULT_NOT_FOUND, tls_getspecific_value(key, v));
    });
    EXPECT_EQ(0, g_cleaned.load());
    EXPECT_EQ(key, new_key());
}

// Releasing a key twice, or one never handed out, must not let two owners
// get the same key later.
TEST(Tls, ADoubleOrUnknownReleaseNeverHandsAKeyOutTwice) {
    unsigned int key = new_key();
    EXPECT_EQ(RESULT_SUCCESS, tls_deallocate_key(key));
    EXPECT_EQ(RESULT_NOTHING_TO_DO, tls_deallocate_key(key));
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, tls_deallocate_key(0xFFFFFFF0u));
    unsigned int first = new_key(), second = new_key(), third = new_key();
    EXPECT_EQ(key, first) << "a released key is handed out again";
    for (unsigned int later : {second, third}) {
        EXPECT_NE(first, later);
        EXPECT_NE(0xFFFFFFF0u, later);
    }
}

TEST(Tls, ConcurrentAllocationHandsOutDistinctKeys) {
    std::vector<unsigned int> got[4];
    util_test::run_threads(4, [&](int i) {
        for (int r = 0; r < 500; ++r) {
            unsigned int k = 0;
            if (tls_allocate_key(k) == RESULT_SUCCESS)
                got[i].push_back(k);
        }
    });
    std::vector<unsigned int> all;
    for (auto& g : got)
        all.insert(all.end(), g.begin(), g.end());
    std::sort(all.begin(), all.end());
    EXPECT_EQ(2000u, all.size());
    EXPECT_EQ(all.end(), std::adjacent_find(all.begin(), all.end()));
}

}  // namespace
