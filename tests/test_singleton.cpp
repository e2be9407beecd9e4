#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "singleton.h"
#include "test_support.h"

using namespace ssb;

namespace {

std::vector<int> g_order;
int g_stubborn_calls = 0;

template <int N>
void destroy_fn() {
    g_order.push_back(N);
    singleton_life_t::instance().unregist(&destroy_fn<N>);
}

// Registers a newcomer while the clean-up runs.
void destroy_and_register() {
    g_order.push_back(100);
    singleton_life_t::instance().regist(&destroy_fn<101>);
    singleton_life_t::instance().unregist(&destroy_and_register);
}

// Tears down a later singleton itself before unregistering.
void destroy_with_dependent() {
    g_order.push_back(200);
    destroy_fn<201>();
    singleton_life_t::instance().unregist(&destroy_with_dependent);
}

void stubborn() { ++g_stubborn_calls; }

class SingletonLife : public ::testing::Test {
protected:
    void SetUp() override {
        singleton_life_t::instance().cleanup();
        g_order.clear();
        g_stubborn_calls = 0;
    }
    singleton_life_t& reg() { return singleton_life_t::instance(); }
};

TEST_F(SingletonLife, RegisteringTwiceKeepsOneEntry) {
    reg().regist(&destroy_fn<1>);
    reg().regist(&destroy_fn<1>);
    EXPECT_EQ(1u, reg().size());
    reg().cleanup();
    EXPECT_EQ(std::vector<int>({1}), g_order);
}

TEST_F(SingletonLife, UnregisteringAnUnknownFunctionChangesNothing) {
    reg().regist(&destroy_fn<1>);
    reg().unregist(&destroy_fn<2>);
    EXPECT_EQ(1u, reg().size());
    reg().unregist(&destroy_fn<1>);
    EXPECT_EQ(0u, reg().size());
    reg().cleanup();
    EXPECT_TRUE(g_order.empty());
}

TEST_F(SingletonLife, CleanupDestroysEarliestRegisteredFirst) {
    reg().regist(&destroy_fn<3>);
    reg().regist(&destroy_fn<1>);
    reg().regist(&destroy_fn<2>);
    reg().unregist(&destroy_fn<1>);
    reg().regist(&destroy_fn<1>);  // re-registered: now last
    reg().cleanup();
    EXPECT_EQ(std::vector<int>({3, 2, 1}), g_order);
    EXPECT_EQ(0u, reg().size());
}

TEST_F(SingletonLife, DestroyFunctionsMayReenterTheRegistry) {
    reg().regist(&destroy_fn<1>);
    reg().regist(&destroy_and_register);
    reg().regist(&destroy_with_dependent);
    reg().regist(&destroy_fn<201>);
    reg().regist(&destroy_fn<2>);
    reg().cleanup();
    EXPECT_EQ(std::vector<int>({1, 100, 200, 201, 2, 101}), g_order);
    EXPECT_EQ(0u, reg().size());
}

TEST_F(SingletonLife, ADestroyFunctionThatStaysListedIsCalledOnceAndDropped) {
    reg().regist(&stubborn);
    reg().regist(&destroy_fn<1>);
    reg().cleanup();
    EXPECT_EQ(1, g_stubborn_calls);
    EXPECT_EQ(std::vector<int>({1}), g_order);
    EXPECT_EQ(0u, reg().size());
}

TEST_F(SingletonLife, ConcurrentRegistrationsAreAllKept) {
    util_test::run_threads(4, [&](int i) {
        for (int r = 0; r < 1000; ++r) {
            switch ((i + r) % 4) {
            case 0:
                reg().regist(&destroy_fn<10>);
                break;
            case 1:
                reg().regist(&destroy_fn<11>);
                break;
            case 2:
                reg().regist(&destroy_fn<12>);
                break;
            default:
                reg().regist(&destroy_fn<13>);
                break;
            }
        }
    });
    EXPECT_EQ(4u, reg().size());
    reg().cleanup();
    EXPECT_EQ(4u, g_order.size());
}

TEST(GlobalLock, IsOneRecursiveLock) {
    thread_mutex_recursive& a = global_lock();
    EXPECT_EQ(&a, &global_lock());
    EXPECT_EQ(RESULT_SUCCESS, a.acquire());
    EXPECT_EQ(RESULT_SUCCESS, a.tryacquire());
    a.release();
    a.release();
}

}  // namespace
