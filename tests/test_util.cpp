#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <string>

#include "singleton.h"
#include "test_support.h"
#include "util.h"

using namespace ssb;

namespace {

// Counts tear-downs: the last util_uninit runs the singleton registry, which
// calls this once for each time it was registered.
std::atomic<int> g_teardowns(0);

void probe_destroy() {
    ++g_teardowns;
    singleton_life_t::instance().unregist(&probe_destroy);
}

void arm_probe() { singleton_life_t::instance().regist(&probe_destroy); }

class Lifecycle : public ::testing::Test {
protected:
    void SetUp() override { g_teardowns = 0; }
};

TEST(Version, ReportsOneZeroAndTheBuildBanner) {
    unsigned int major = 7, minor = 7;
    const char* description = nullptr;
    util_version(&major, &minor, &description);
    EXPECT_EQ(1u, major);
    EXPECT_EQ(0u, minor);
    ASSERT_NE(nullptr, description);
    EXPECT_TRUE(std::regex_match(std::string(description),
                                 std::regex("UTIL has been built on:[A-Z][a-z]{2} [ 123][0-9] [0-9]{4} at "
                                            "[0-9]{2}:[0-9]{2}:[0-9]{2}")))
        << description;
    EXPECT_LT(std::string(description).size(), 128u);

    const char* again = nullptr;
    util_version(nullptr, nullptr, &again);
    EXPECT_EQ(description, again);
    util_version(nullptr, nullptr, nullptr);
}

TEST_F(Lifecycle, NestedCallsTearDownOnlyOnTheLastUninit) {
    util_init(1, nullptr, nullptr, nullptr, 0, 0);
    util_init(2, nullptr, nullptr, nullptr, 0, 0);
    arm_probe();
    util_uninit(2);
    EXPECT_EQ(0, g_teardowns.load());
    util_uninit(1);
    EXPECT_EQ(1, g_teardowns.load());
}

TEST_F(Lifecycle, UninitWithoutInitIsIgnoredAndTheCountStaysAtZero) {
    util_uninit(1);
    util_uninit(1);
    // Had the count gone negative, this pair would never tear down.
    util_init(1, nullptr, nullptr, nullptr, 0, 0);
    arm_probe();
    util_uninit(1);
    EXPECT_EQ(1, g_teardowns.load());
    util_uninit(1);
    EXPECT_EQ(1, g_teardowns.load());
}

TEST_F(Lifecycle, ServicesRestartAfterAFullTearDown) {
    for (int round = 1; round <= 3; ++round) {
        util_init(1, nullptr, nullptr, nullptr, 0, 0);
        arm_probe();
        util_uninit(1);
        EXPECT_EQ(round, g_teardowns.load());
    }
}

TEST_F(Lifecycle, CountingFromManyThreadsIsExact) {
    const int THREADS = 4, ROUNDS = 2000;
    util_init(1, nullptr, nullptr, nullptr, 0, 0);
    arm_probe();
    // The outer reference keeps the count above zero throughout.
    util_test::run_threads(THREADS, [&](int i) {
        for (int r = 0; r < ROUNDS; ++r) {
            util_init(10 + i, nullptr, nullptr, nullptr, 0, 0);
            if (r % 2)
                util_uninit(10 + i);
        }
    });
    EXPECT_EQ(0, g_teardowns.load());
    util_test::run_threads(THREADS, [&](int i) {
        for (int r = 0; r < ROUNDS / 2; ++r)
            util_uninit(10 + i);
    });
    EXPECT_EQ(0, g_teardowns.load());
    util_uninit(1);
    EXPECT_EQ(1, g_teardowns.load());
}

TEST_F(Lifecycle, RacingUninitsNeverDropBelowZero) {
    util_init(1, nullptr, nullptr, nullptr, 0, 0);
    arm_probe();
    // Eight callers race for a single reference: one tears down, the rest
    // are refused.
    util_test::run_threads(8, [&](int) { util_uninit(1); });
    EXPECT_EQ(1, g_teardowns.load());
    util_init(1, nullptr, nullptr, nullptr, 0, 0);
    arm_probe();
    util_uninit(1);
    EXPECT_EQ(2, g_teardowns.load());
}

}  // namespace
