#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>

#include "test_support.h"
#include "timer.h"

using namespace ssb;

namespace {

struct digits_t {
    uint32_t d[4];
};

template <class helper_t>
::testing::AssertionResult has_digits(const helper_t& h, const digits_t& want) {
    for (int k = 0; k < 4; ++k)
        if (h.digit(k) != want.d[k])
            return ::testing::AssertionFailure() << "digit " << k << " is " << h.digit(k) << ", want " << want.d[k];
    return ::testing::AssertionSuccess();
}

struct set_case_t {
    uint32_t ticks, value;  // value(): what is kept after the clamp
    digits_t digits;
    uint32_t round_trip;  // get_ticks()
};
struct step_case_t {
    uint32_t start;
    digits_t digits;
    uint32_t mask;
};
struct increase_case_t {
    uint32_t start, n;
    digits_t digits;
    uint32_t mask;
};
struct sub_case_t {
    uint32_t self, other;
    digits_t digits;
};
struct remainder_case_t {
    uint32_t value, level, want;
};

template <class helper_t>
void check_set(const set_case_t* cases, size_t n, uint32_t round_trip_limit, uint32_t stride) {
    for (size_t i = 0; i < n; ++i) {
        const set_case_t& c = cases[i];
        SCOPED_TRACE(c.ticks);
        helper_t h(99);
        h.set(c.ticks);
        EXPECT_EQ(c.value, h.value());
        EXPECT_TRUE(has_digits(h, c.digits));
        EXPECT_EQ(c.round_trip, h.get_ticks());
        EXPECT_EQ(0u, helper_t(c.ticks).carry_mask());
    }
    for (uint32_t v = 0; v <= round_trip_limit - stride; v += stride)
        ASSERT_EQ(v, helper_t(v).get_ticks());
}

template <class helper_t>
void check_steps(const step_case_t* cases, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const step_case_t& c = cases[i];
        SCOPED_TRACE(c.start);
        helper_t h(c.start);
        EXPECT_EQ(&h, &++h);
        EXPECT_TRUE(has_digits(h, c.digits));
        EXPECT_EQ(c.mask, h.carry_mask());
        EXPECT_EQ(c.start, h.value()) << "value() is the last set, not the position";
        helper_t post(c.start);
        const helper_t before = post++;
        EXPECT_EQ(c.start, before.get_ticks());
        EXPECT_TRUE(has_digits(post, c.digits));
    }
}

template <class helper_t>
void check_increase(const increase_case_t* cases, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const increase_case_t& c = cases[i];
        SCOPED_TRACE(::testing::Message() << c.start << " + " << c.n);
        helper_t h(c.start);
        h.increase(c.n);
        EXPECT_TRUE(has_digits(h, c.digits));
        EXPECT_EQ(c.mask, h.carry_mask());
    }
}

template <class helper_t>
void check_sub(const sub_case_t* cases, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const sub_case_t& c = cases[i];
        SCOPED_TRACE(::testing::Message() << c.self << " - " << c.other);
        helper_t h(c.self);
        h.sub(helper_t(c.other));
        EXPECT_TRUE(has_digits(h, c.digits));
        EXPECT_EQ(c.self, h.value());
    }
}

TEST(TicksHelper, SetSplitsIntoBase64DigitsDropsBitsAbove24AndClamps) {
    const set_case_t cases[] = {
        {0, 0, {{0, 0, 0, 0}}, 0},
        {63, 63, {{63, 0, 0, 0}}, 63},
        {64, 64, {{0, 1, 0, 0}}, 64},
        {4096, 4096, {{0, 0, 1, 0}}, 4096},
        {262143, 262143, {{63, 63, 63, 0}}, 262143},
        {262144, 262144, {{0, 0, 0, 1}}, 262144},
        {16777215, 16777215, {{63, 63, 63, 63}}, 16777215},
        {16777216 + 65, 16777216 + 65, {{1, 1, 0, 0}}, 65},
        {165150710, 165150710, {{54, 63, 63, 53}}, 14155766},
        {165150711, 165150710, {{54, 63, 63, 53}}, 14155766},
        {0xFFFFFFFFu, 165150710, {{54, 63, 63, 53}}, 14155766},
    };
    check_set<ticks_helper>(cases, sizeof cases / sizeof cases[0], 1u << 24, 997);
}

TEST(TicksHelper, IncrementCarriesAcrossEachDigitBoundary) {
    const step_case_t cases[] = {
        {0, {{1, 0, 0, 0}}, 1},        {62, {{63, 0, 0, 0}}, 1},          {63, {{0, 1, 0, 0}}, 3},
        {4094, {{63, 63, 0, 0}}, 1},   {4095, {{0, 0, 1, 0}}, 7},         {262143, {{0, 0, 0, 1}}, 15},
        {266239, {{0, 0, 1, 1}}, 7},   {16777215, {{0, 0, 0, 0}}, 15},
    };
    check_steps<ticks_helper>(cases, sizeof cases / sizeof cases[0]);
}

TEST(TicksHelper, IncreaseMovesWholeCarriesAndMasksTheWidestDigitTouched) {
    const increase_case_t cases[] = {
        {63, 1, {{0, 1, 0, 0}}, 3},
        {0, 63, {{63, 0, 0, 0}}, 1},
        {1, 200, {{9, 3, 0, 0}}, 3},
        {0, 5 * 4096 + 7 * 64 + 3, {{3, 7, 5, 0}}, 7},
        {16777215, 2, {{1, 0, 0, 0}}, 15},
        {10, 16777216, {{10, 0, 0, 0}}, 15},
        {0, 0xFFFFFFFFu, {{63, 63, 63, 63}}, 15},
        {63, 0xFFFFFFFFu, {{62, 0, 0, 0}}, 15},  // digit 0 plus the amount exceeds 32 bits
    };
    check_increase<ticks_helper>(cases, sizeof cases / sizeof cases[0]);

    ticks_helper h(63);
    ++h;
    h.increase(0);
    EXPECT_EQ(0u, h.carry_mask());
    EXPECT_TRUE(has_digits(h, {{0, 1, 0, 0}}));

    uint32_t seed = 12345;
    for (int i = 0; i < 3000; ++i) {
        seed = seed * 1103515245u + 12345u;
        const uint32_t start = seed & 0xFFFFFF, n = seed * 2654435761u;
        ticks_helper r(start);
        r.increase(n);
        ASSERT_EQ((start + n) & 0xFFFFFFu, r.get_ticks()) << start << " + " << n;
    }
}

TEST(TicksHelper, SubBorrowsBelowTheHighestNonZeroDigitOnly) {
    const uint32_t D1 = 64, D2 = 4096, D3 = 262144;
    const sub_case_t cases[] = {
        {63, 5, {{63, 0, 0, 0}}},  // no digit above 0: nothing is subtracted
        {2 * D1 + 5, 7, {{62, 1, 0, 0}}},
        {1 * D1 + 5, 9 * D1 + 2, {{3, 1, 0, 0}}},
        {1 * D2, 1, {{63, 63, 0, 0}}},
        {3 * D2 + 10 * D1 + 20, 7 * D2 + 15 * D1 + 30, {{54, 58, 2, 0}}},
        {5 * D3, 1 * D2 + 1 * D1 + 1, {{63, 62, 62, 4}}},
        {2 * D3 + 5 * D2 + 6 * D1 + 7, 50 * D3 + 1 * D2 + 2 * D1 + 3, {{4, 4, 4, 2}}},
    };
    check_sub<ticks_helper>(cases, sizeof cases / sizeof cases[0]);
}

TEST(TimerHelper, SetSplitsIntoCentisecondsSecondsMinutesHoursAndClamps) {
    const set_case_t cases[] = {
        {99, 99, {{99, 0, 0, 0}}, 99},
        {100, 100, {{0, 1, 0, 0}}, 100},
        {5999, 5999, {{99, 59, 0, 0}}, 5999},
        {6000, 6000, {{0, 0, 1, 0}}, 6000},
        {360000, 360000, {{0, 0, 0, 1}}, 360000},
        {356399990, 356399990, {{90, 59, 59, 989}}, 356399990},
        {356399991, 356399990, {{90, 59, 59, 989}}, 356399990},
        {0xFFFFFFFFu, 356399990, {{90, 59, 59, 989}}, 356399990},
    };
    check_set<timer_helper>(cases, sizeof cases / sizeof cases[0], MAX_TIMER_HELPER_TICKS, 99991);
}

TEST(TimerHelper, IncrementCarriesAt100And60And60AndWrapsHoursAt100) {
    const uint32_t H = 360000;
    const step_case_t cases[] = {
        {98, {{99, 0, 0, 0}}, 1},
        {99, {{0, 1, 0, 0}}, 3},
        {5999, {{0, 0, 1, 0}}, 7},
        {6099, {{0, 1, 1, 0}}, 3},
        {44 * H + 359999, {{0, 0, 0, 45}}, 15},
        {45 * H + 359999, {{0, 0, 0, 46}}, 15},
        {99 * H + 359999, {{0, 0, 0, 0}}, 15},
        {356399990, {{91, 59, 59, 89}}, 1},  // hours reduced even without a carry into them
    };
    check_steps<timer_helper>(cases, sizeof cases / sizeof cases[0]);
}

TEST(TimerHelper, IncreaseAndSubWorkInTheirOwnRadix) {
    const increase_case_t adds[] = {
        {99, 1, {{0, 1, 0, 0}}, 3},
        {0, 2 * 360000 + 3 * 6000 + 4 * 100 + 5, {{5, 4, 3, 2}}, 15},
        {50, 6000, {{50, 0, 1, 0}}, 7},
        {0, 0xFFFFFFFFu, {{95, 52, 27, 30}}, 15},
    };
    check_increase<timer_helper>(adds, sizeof adds / sizeof adds[0]);

    const uint32_t S = 100, M = 6000, H = 360000;
    const sub_case_t subs[] = {
        {99, 5, {{99, 0, 0, 0}}},
        {1 * S + 5, 7 * S + 2, {{3, 1, 0, 0}}},
        {1 * H, 1, {{99, 59, 59, 0}}},
        {2 * H, 7 * H + 1 * M + 1 * S + 1, {{99, 58, 58, 1}}},
        {3 * H + 30 * M + 30 * S + 50, 1 * H + 10 * M + 10 * S + 10, {{40, 20, 20, 3}}},
    };
    check_sub<timer_helper>(subs, sizeof subs / sizeof subs[0]);
}

TEST(TicksAndTimerHelper, CalcRemainderKeepsOneDigitPerLevelAndRejectsUnknownLevels) {
    const remainder_case_t ticks[] = {
        {200, 0, 8}, {200, 3, 8}, {63, 0, 63}, {64, 3, 0}, {0xFFFFFFFFu, 4, 0xFFFFFFFFu}, {200, 5, 0},
    };
    for (const remainder_case_t& c : ticks)
        EXPECT_EQ(c.want, ticks_helper::calc_remainder(c.value, c.level)) << c.value << " @" << c.level;
    const remainder_case_t timer[] = {
        {250, 0, 50}, {250, 1, 10}, {250, 2, 10}, {250, 3, 50}, {250, 4, 250}, {250, 5, 0}, {59, 1, 59}, {60, 2, 0},
    };
    for (const remainder_case_t& c : timer)
        EXPECT_EQ(c.want, timer_helper::calc_remainder(c.value, c.level)) << c.value << " @" << c.level;
}

TEST(TickStrategy, StepAcceptsForwardReadingsAndFreezesOnBackwardOrHugeOnes) {
    const uint64_t WEEK = 604800000000ULL, TOP = ~0ULL;
    const struct {
        uint64_t last, reading;
        uint32_t returned;
        uint64_t last_after;
    } cases[] = {
        {1000, 1000, 1000, 1000},
        {1000, 1001, 1001, 1001},
        {1000, 999, 1000, 1000},
        {1000, 0, 1000, 1000},
        {5, WEEK + 5, static_cast<uint32_t>(WEEK + 5), WEEK + 5},
        {5, WEEK + 6, 5, 5},
        {(1ULL << 32) + 5, (1ULL << 32) + 10, 10, (1ULL << 32) + 10},
        {(1ULL << 32) + 5, (1ULL << 32) + 4, 5, (1ULL << 32) + 5},
        // A backward step less 3: two below the wrap point is still huge,
        // exactly three below is a step of zero.
        {TOP - 1, 0, 0xFFFFFFFEu, TOP - 1},
        {TOP, 0, 0xFFFFFFFFu, TOP},
        {TOP - 2, 0, 0, 0},
        {TOP - 2, 5, 5, 5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "last " << c.last << ", reading " << c.reading);
        std::atomic<uint64_t> last(c.last);
        EXPECT_EQ(c.returned, tick_strategy::step(c.reading, last));
        EXPECT_EQ(c.last_after, last.load());
    }
}

TEST(TickStrategy, RacingReadersNeverMoveTheLastReadingBackwards) {
    const int THREADS = 4;
    const uint64_t PER_THREAD = 10000;
    std::atomic<uint64_t> last(0);
    std::atomic<int> disorder(0);
    util_test::run_threads(THREADS, [&](int id) {
        uint32_t previous = 0;
        for (uint64_t i = 0; i < PER_THREAD; ++i) {
            const uint64_t reading = i * THREADS + static_cast<uint64_t>(id);
            const uint32_t got = tick_strategy::step(reading, last);
            if (got < reading || got < previous)
                disorder.fetch_add(1);
            previous = got;
        }
    });
    EXPECT_EQ(0, disorder.load());
    EXPECT_EQ(PER_THREAD * THREADS - 1, last.load());
}

TEST(TickStrategy, NowNeverStepsBackAndAdvances) {
    const uint32_t first = tick_strategy::now();
    uint32_t previous = first;
    for (int i = 0; i < 10000; ++i) {
        const uint32_t t = tick_strategy::now();
        ASSERT_LT(t - previous, 0x80000000u) << "went backwards";
        previous = t;
    }
    util_test::wait_until([&] { return tick_strategy::now() != first; });
}

uint64_t system_clock_us() {
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
}

TEST(TimeStrategy, NowIsMicrosecondsSince1970) {
    // A second of slack covers the coarser clock on Windows; a wrong unit or
    // epoch is off by years.
    const uint64_t SLACK_US = 1000000;
    const uint64_t before = system_clock_us();
    const uint64_t now = time_strategy::now();
    const uint64_t after = system_clock_us();
    EXPECT_GE(now + SLACK_US, before);
    EXPECT_LE(now, after + SLACK_US);
}

TEST(DriverClocks, StartedDriversReturnTheCachedTagsStoppedOnesTheRawSources) {
    const bool ticks_start = ticks_drv_t::s_start.load(), times_start = times_drv_t::s_start.load();
    const uint32_t ticks_tag = ticks_drv_t::s_tag.load();
    const uint64_t times_tag = times_drv_t::s_tag.load();

    ticks_drv_t::s_tag.store(0xFFFFFFF0u);
    ticks_drv_t::s_start.store(true);
    times_drv_t::s_tag.store(1700000000123ULL);
    times_drv_t::s_start.store(true);
    EXPECT_EQ(0xFFFFFFF0u, ticks_drv_t::now());
    EXPECT_EQ(1700000000123ULL, times_drv_t::now());

    ticks_drv_t::s_tag.store(7);
    ticks_drv_t::s_start.store(false);
    times_drv_t::s_tag.store(7);
    times_drv_t::s_start.store(false);
    const uint32_t t0 = tick_strategy::now();
    const uint32_t t = ticks_drv_t::now();
    const uint32_t t1 = tick_strategy::now();
    EXPECT_LE(t - t0, t1 - t0);
    const uint64_t w0 = time_strategy::now() / 1000;
    const uint64_t w = times_drv_t::now();
    const uint64_t w1 = time_strategy::now() / 1000;
    EXPECT_LE(w0, w);
    EXPECT_LE(w, w1);

    ticks_drv_t::s_start.store(ticks_start);
    ticks_drv_t::s_tag.store(ticks_tag);
    times_drv_t::s_start.store(times_start);
    times_drv_t::s_tag.store(times_tag);
}

}  // namespace
