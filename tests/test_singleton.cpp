#include <gtest/gtest.h>

#include <atomic>
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

// Registering twice keeps one entry, unknown functions are ignored, and a
// re-registered function moves to the end.
TEST_F(SingletonLife, CleanupDestroysEarliestRegisteredFirst) {
    reg().regist(&destroy_fn<3>);
    reg().regist(&destroy_fn<1>);
    reg().regist(&destroy_fn<1>);
    reg().regist(&destroy_fn<2>);
    reg().unregist(&destroy_fn<4>);
    EXPECT_EQ(3u, reg().size());
    reg().unregist(&destroy_fn<1>);
    reg().regist(&destroy_fn<1>);
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
        void (*const fns[4])() = {&destroy_fn<10>, &destroy_fn<11>, &destroy_fn<12>, &destroy_fn<13>};
        for (int r = 0; r < 1000; ++r)
            reg().regist(fns[(i + r) % 4]);
    });
    EXPECT_EQ(4u, reg().size());
    reg().cleanup();
    EXPECT_EQ(4u, g_order.size());
}

struct counted_t {
    counted_t() { ++s_live; }
    ~counted_t() { --s_live; }
    int m_cleared = 0;
    static std::atomic<int> s_live;
};
std::atomic<int> counted_t::s_live{0};

void destroy_plain();
void destroy_kept();
lazy_singleton_t<counted_t> g_plain(destroy_plain, false);
lazy_singleton_t<counted_t> g_kept(destroy_kept, true);
void destroy_plain() { g_plain.destroy(); }
void destroy_kept() {
    g_kept.destroy([](counted_t* p) { ++p->m_cleared; });
}

class LazySingleton : public ::testing::Test {
protected:
    void SetUp() override {
        singleton_life_t::instance().cleanup();
        g_plain.reopen();
        g_plain.destroy();
        m_base = counted_t::s_live.load();
    }
    void TearDown() override { singleton_life_t::instance().cleanup(); }
    // Objects alive beyond those at the start (a kept one outlives its test).
    int live() const { return counted_t::s_live.load() - m_base; }
    int m_base = 0;
};

TEST_F(LazySingleton, RacingFirstUsersMakeExactlyOneObject) {
    const int THREADS = 8, ROUNDS = 200;
    for (int round = 0; round < ROUNDS; ++round) {
        std::atomic<int> ready{0}, made{0};
        std::atomic<counted_t*> seen[THREADS];
        util_test::run_threads(THREADS, [&](int t) {
            ++ready;
            util_test::wait_until("all racers at the start line", [&] { return ready.load() == THREADS; });
            seen[t] = g_plain.instance([&] {
                ++made;
                return new counted_t;
            });
        });
        ASSERT_EQ(1, made.load()) << "round " << round;
        for (int t = 0; t < THREADS; ++t)
            ASSERT_EQ(g_plain.get(), seen[t].load());
        g_plain.destroy();
        ASSERT_EQ(0, live());
    }
}

TEST_F(LazySingleton, RegistryDestroysItOnceAndTheNextUseMakesAFreshOne) {
    counted_t* first = g_plain.instance([] { return new counted_t; });
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(1u, singleton_life_t::instance().size());
    singleton_life_t::instance().cleanup();
    EXPECT_EQ(nullptr, g_plain.get());
    EXPECT_EQ(0, live());
    EXPECT_EQ(0u, singleton_life_t::instance().size());
    // An explicit destroy of nothing only unregisters.
    g_plain.destroy();
    EXPECT_NE(nullptr, g_plain.instance([] { return new counted_t; }));
    EXPECT_EQ(1, live());
    g_plain.destroy();
    EXPECT_EQ(0u, singleton_life_t::instance().size());
    EXPECT_EQ(0, live());
}

TEST_F(LazySingleton, AFailedMakePublishesNothingAndIsRetried) {
    EXPECT_EQ(nullptr, g_plain.instance([] { return static_cast<counted_t*>(nullptr); }));
    EXPECT_EQ(0u, singleton_life_t::instance().size());
    EXPECT_NE(nullptr, g_plain.instance([] { return new counted_t; }));
}

TEST_F(LazySingleton, AKeptSingletonIsEmptiedAndItsStorageHandedOutAgain) {
    int made = 0;
    auto make = [&] {
        ++made;
        return new counted_t;
    };
    counted_t* p = g_kept.instance(make);
    singleton_life_t::instance().cleanup();
    EXPECT_EQ(nullptr, g_kept.get());
    // A reader still holding it meets an emptied object, not freed memory.
    EXPECT_EQ(1, p->m_cleared);
    EXPECT_EQ(p, g_kept.instance(make));
    EXPECT_EQ(1, made);
    EXPECT_EQ(1u, singleton_life_t::instance().size());
}

TEST_F(LazySingleton, AClosedSingletonStaysNullUntilReopened) {
    counted_t* p = g_plain.instance([] { return new counted_t; });
    EXPECT_FALSE(g_plain.reopen());
    counted_t* seen_under_lock = nullptr;
    EXPECT_EQ(p, g_plain.take(true, [&](counted_t* q) { seen_under_lock = q; }));
    EXPECT_EQ(p, seen_under_lock);
    delete p;
    EXPECT_TRUE(g_plain.closed());
    EXPECT_EQ(nullptr, g_plain.instance([] { return new counted_t; }));
    EXPECT_EQ(0, live());
    EXPECT_TRUE(g_plain.reopen());
    EXPECT_FALSE(g_plain.reopen());
    EXPECT_NE(nullptr, g_plain.instance([] { return new counted_t; }));
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
