#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

#include "test_support.h"
#include "timer.h"

using namespace ssb;

namespace {

struct digits_t {
    uint32_t d[4];
};

template <class helper_t>
::testing::AssertionResult has_digits(const helper_t& h, const digits_t& want) {
    for (int k = 0; k < 4; ++k) {
        if (h.digit(k) != want.d[k])
            return ::testing::AssertionFailure()
                   << "digits {" << h.digit(0) << "," << h.digit(1) << "," << h.digit(2) << ","
                   << h.digit(3) << "}, want {" << want.d[0] << "," << want.d[1] << "," << want.d[2]
                   << "," << want.d[3] << "}";
    }
    return ::testing::AssertionSuccess();
}

// ticks_helper ------------------------------------------------------------------

struct set_case_t {
    uint32_t ticks;
    uint32_t value;  // what value() keeps
    digits_t digits;
    uint32_t round_trip;  // get_ticks()
};

TEST(TicksHelper, SetSplitsIntoBase64DigitsAndClampsAtTheMaxInterval) {
    const set_case_t cases[] = {
        {0, 0, {{0, 0, 0, 0}}, 0},
        {63, 63, {{63, 0, 0, 0}}, 63},
        {64, 64, {{0, 1, 0, 0}}, 64},
        {4095, 4095, {{63, 63, 0, 0}}, 4095},
        {4096, 4096, {{0, 0, 1, 0}}, 4096},
        {262143, 262143, {{63, 63, 63, 0}}, 262143},
        {262144, 262144, {{0, 0, 0, 1}}, 262144},
        {16777215, 16777215, {{63, 63, 63, 63}}, 16777215},
        // Four digits hold 24 bits: above that the top bits are dropped.
        {16777216, 16777216, {{0, 0, 0, 0}}, 0},
        {16777216 + 65, 16777216 + 65, {{1, 1, 0, 0}}, 65},
        // The limit itself is kept; one more is clamped to it.
        {165150710, 165150710, {{54, 63, 63, 53}}, 14155766},
        {165150711, 165150710, {{54, 63, 63, 53}}, 14155766},
        {0xFFFFFFFFu, 165150710, {{54, 63, 63, 53}}, 14155766},
    };
    for (const set_case_t& c : cases) {
        SCOPED_TRACE(c.ticks);
        ticks_helper h;
        h.set(c.ticks);
        EXPECT_EQ(c.value, h.value());
        EXPECT_TRUE(has_digits(h, c.digits));
        EXPECT_EQ(c.round_trip, h.get_ticks());

        ticks_helper constructed(c.ticks);
        EXPECT_EQ(c.value, constructed.value());
        EXPECT_TRUE(has_digits(constructed, c.digits));
        EXPECT_EQ(0u, constructed.carry_mask());
    }
}

TEST(TicksHelper, GetTicksRoundTripsEveryValueOfFourDigits) {
    for (uint32_t v = 0; v < (1u << 24); v += 997) {
        ticks_helper h(v);
        ASSERT_EQ(v, h.get_ticks());
    }
}

struct step_case_t {
    uint32_t start;
    digits_t digits;
    uint32_t mask;
};

TEST(TicksHelper, PrefixIncrementCarriesAcrossEachDigitBoundary) {
    const step_case_t cases[] = {
        {0, {{1, 0, 0, 0}}, 1},
        {62, {{63, 0, 0, 0}}, 1},
        {63, {{0, 1, 0, 0}}, 3},
        {127, {{0, 2, 0, 0}}, 3},
        {4094, {{63, 63, 0, 0}}, 1},
        {4095, {{0, 0, 1, 0}}, 7},
        {262143, {{0, 0, 0, 1}}, 15},
        {262144 + 4095, {{0, 0, 1, 1}}, 7},
        // Digit 3 wraps: the counter starts over.
        {16777215, {{0, 0, 0, 0}}, 15},
    };
    for (const step_case_t& c : cases) {
        SCOPED_TRACE(c.start);
        ticks_helper h(c.start);
        ticks_helper& same = ++h;
        EXPECT_EQ(&h, &same);
        EXPECT_TRUE(has_digits(h, c.digits));
        EXPECT_EQ(c.mask, h.carry_mask());
        EXPECT_EQ(c.start, h.value()) << "value() is the last set, not the position";
    }
}

TEST(TicksHelper, PostfixIncrementReturnsThePositionBefore) {
    ticks_helper h(4095);
    ticks_helper before = h++;
    EXPECT_EQ(4095u, before.get_ticks());
    EXPECT_EQ(4096u, h.get_ticks());
    EXPECT_EQ(7u, h.carry_mask());
    EXPECT_EQ(0u, before.carry_mask());
}

struct increase_case_t {
    uint32_t start;
    uint32_t n;
    digits_t digits;
    uint32_t mask;
};

TEST(TicksHelper, IncreaseMovesWholeCarriesAndReportsTheWidestDigitTouched) {
    const increase_case_t cases[] = {
        {63, 1, {{0, 1, 0, 0}}, 3},
        {62, 1, {{63, 0, 0, 0}}, 1},
        {0, 63, {{63, 0, 0, 0}}, 1},
        {0, 64, {{0, 1, 0, 0}}, 3},
        {1, 200, {{9, 3, 0, 0}}, 3},
        {0, 5 * 4096 + 7 * 64 + 3, {{3, 7, 5, 0}}, 7},
        {0, 4096, {{0, 0, 1, 0}}, 7},
        {16777215, 2, {{1, 0, 0, 0}}, 15},
        // A whole lap of the four digits comes back to the same position.
        {10, 16777216, {{10, 0, 0, 0}}, 15},
        {0, 0xFFFFFFFFu, {{63, 63, 63, 63}}, 15},
        // Digit 0 plus the amount exceeds 32 bits.
        {63, 0xFFFFFFFFu, {{62, 0, 0, 0}}, 15},
    };
    for (const increase_case_t& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.start << " + " << c.n);
        ticks_helper h(c.start);
        h.increase(c.n);
        EXPECT_TRUE(has_digits(h, c.digits));
        EXPECT_EQ(c.mask, h.carry_mask());
    }
}

TEST(TicksHelper, IncreaseByZeroClearsTheMaskAndKeepsTheDigits) {
    ticks_helper h(62);
    ++h;
    ASSERT_EQ(1u, h.carry_mask());
    h.increase(0);
    EXPECT_EQ(0u, h.carry_mask());
    EXPECT_TRUE(has_digits(h, {{63, 0, 0, 0}}));
    h.increase(1);
    EXPECT_TRUE(has_digits(h, {{0, 1, 0, 0}}));
    EXPECT_EQ(3u, h.carry_mask());
}

TEST(TicksHelper, IncreaseAgreesWithAdditionModulo2To24) {
    uint32_t seed = 12345;
    for (int i = 0; i < 20000; ++i) {
        seed = seed * 1103515245u + 12345u;
        const uint32_t start = seed & 0xFFFFFF;
        seed = seed * 1103515245u + 12345u;
        const uint32_t n = (i % 2) ? (seed >> 8) : seed;
        ticks_helper h(start);
        h.increase(n);
        ASSERT_EQ((start + n) & 0xFFFFFFu, h.get_ticks()) << start << " + " << n;
    }
}

struct sub_case_t {
    uint32_t self;
    uint32_t other;
    digits_t digits;
};

TEST(TicksHelper, SubBorrowsBelowTheHighestNonZeroDigitOnly) {
    const uint32_t D1 = 64, D2 = 4096, D3 = 262144;
    const sub_case_t cases[] = {
        // Digits 1..3 all zero: nothing to subtract from.
        {63, 5, {{63, 0, 0, 0}}},
        {0, 1, {{0, 0, 0, 0}}},
        {5, 5, {{5, 0, 0, 0}}},
        // Digit 1 on top: only digit 0 is subtracted.
        {2 * D1 + 5, 3, {{2, 2, 0, 0}}},
        {2 * D1 + 5, 7, {{62, 1, 0, 0}}},
        {1 * D1, 1, {{63, 0, 0, 0}}},
        {1 * D1 + 5, 9 * D1 + 2, {{3, 1, 0, 0}}},
        {3 * D1 + 4, 3 * D1 + 4, {{0, 3, 0, 0}}},
        // Digit 2 on top: a borrow chain through a zero digit 1.
        {1 * D2, 1, {{63, 63, 0, 0}}},
        {3 * D2 + 10 * D1 + 20, 7 * D2 + 15 * D1 + 30, {{54, 58, 2, 0}}},
        // Digit 3 on top.
        {1 * D3, 1, {{63, 63, 63, 0}}},
        {5 * D3, 1 * D2 + 1 * D1 + 1, {{63, 62, 62, 4}}},
        {2 * D3 + 5 * D2 + 6 * D1 + 7, 50 * D3 + 1 * D2 + 2 * D1 + 3, {{4, 4, 4, 2}}},
        {63 * D3 + 63 * D2 + 63 * D1 + 63, 63 * D2 + 63 * D1 + 63, {{0, 0, 0, 63}}},
    };
    for (const sub_case_t& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.self << " - " << c.other);
        ticks_helper h(c.self);
        h.increase(0);
        h.sub(ticks_helper(c.other));
        EXPECT_TRUE(has_digits(h, c.digits));
        EXPECT_EQ(0u, h.carry_mask());
        EXPECT_EQ(c.self, h.value());
    }
}

TEST(TicksHelper, CalcRemainderKeepsOneDigitPerLevelAndRejectsUnknownLevels) {
    const struct {
        uint32_t value, level, want;
    } cases[] = {
        {200, 0, 8},  {200, 1, 8},         {200, 2, 8},         {200, 3, 8},
        {63, 0, 63},  {64, 3, 0},          {200, 4, 200},       {0xFFFFFFFFu, 4, 0xFFFFFFFFu},
        {200, 5, 0},  {0xFFFFFFFFu, 5, 0}, {200, 0xFFFFFFFFu, 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.want, ticks_helper::calc_remainder(c.value, c.level)) << c.value << " @" << c.level;
}

TEST(TicksHelper, AssignmentCopiesPositionAndMask) {
    ticks_helper a(4095);
    ++a;
    ticks_helper b(7);
    b = a;
    EXPECT_TRUE(has_digits(b, {{0, 0, 1, 0}}));
    EXPECT_EQ(7u, b.carry_mask());
    EXPECT_EQ(4095u, b.value());
}

// timer_helper ------------------------------------------------------------------

TEST(TimerHelper, SetSplitsIntoCentisecondsSecondsMinutesHoursAndClamps) {
    const set_case_t cases[] = {
        {0, 0, {{0, 0, 0, 0}}, 0},
        {99, 99, {{99, 0, 0, 0}}, 99},
        {100, 100, {{0, 1, 0, 0}}, 100},
        {5999, 5999, {{99, 59, 0, 0}}, 5999},
        {6000, 6000, {{0, 0, 1, 0}}, 6000},
        {359999, 359999, {{99, 59, 59, 0}}, 359999},
        {360000, 360000, {{0, 0, 0, 1}}, 360000},
        // Hours are not limited to a digit's range: no bits are dropped.
        {356399990, 356399990, {{90, 59, 59, 989}}, 356399990},
        {356399991, 356399990, {{90, 59, 59, 989}}, 356399990},
        {0xFFFFFFFFu, 356399990, {{90, 59, 59, 989}}, 356399990},
    };
    for (const set_case_t& c : cases) {
        SCOPED_TRACE(c.ticks);
        timer_helper h(c.ticks);
        EXPECT_EQ(c.value, h.value());
        EXPECT_TRUE(has_digits(h, c.digits));
        EXPECT_EQ(c.round_trip, h.get_ticks());
        EXPECT_EQ(0u, h.carry_mask());
    }
}

TEST(TimerHelper, GetTicksRoundTripsUpToTheLimit) {
    for (uint32_t v = 0; v <= MAX_TIMER_HELPER_TICKS; v += 99991) {
        timer_helper h(v);
        ASSERT_EQ(v, h.get_ticks());
    }
}

TEST(TimerHelper, IncrementCarriesAt100And60And60) {
    const uint32_t H = 360000;
    const step_case_t cases[] = {
        {0, {{1, 0, 0, 0}}, 1},
        {98, {{99, 0, 0, 0}}, 1},
        {99, {{0, 1, 0, 0}}, 3},
        {5999, {{0, 0, 1, 0}}, 7},
        {6099, {{0, 1, 1, 0}}, 3},
        {359999, {{0, 0, 0, 1}}, 15},
        {44 * H + 359999, {{0, 0, 0, 45}}, 15},
        // Past 45 hours the hour digit is taken modulo 100: a no-op until 100.
        {45 * H + 359999, {{0, 0, 0, 46}}, 15},
        {99 * H + 359999, {{0, 0, 0, 0}}, 15},
        // Also applied when the step does not reach the hours.
        {356399990, {{91, 59, 59, 89}}, 1},
    };
    for (const step_case_t& c : cases) {
        SCOPED_TRACE(c.start);
        timer_helper h(c.start);
        ++h;
        EXPECT_TRUE(has_digits(h, c.digits));
        EXPECT_EQ(c.mask, h.carry_mask());
    }
    timer_helper h(99);
    timer_helper before = h++;
    EXPECT_EQ(99u, before.get_ticks());
    EXPECT_EQ(100u, h.get_ticks());
}

TEST(TimerHelper, IncreaseMovesWholeCarries) {
    const increase_case_t cases[] = {
        {99, 1, {{0, 1, 0, 0}}, 3},
        {0, 99, {{99, 0, 0, 0}}, 1},
        {0, 2 * 360000 + 3 * 6000 + 4 * 100 + 5, {{5, 4, 3, 2}}, 15},
        {50, 6000, {{50, 0, 1, 0}}, 7},
        // 11930 hours, reduced modulo 100.
        {0, 0xFFFFFFFFu, {{95, 52, 27, 30}}, 15},
    };
    for (const increase_case_t& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.start << " + " << c.n);
        timer_helper h(c.start);
        h.increase(c.n);
        EXPECT_TRUE(has_digits(h, c.digits));
        EXPECT_EQ(c.mask, h.carry_mask());
    }
    timer_helper h(98);
    ++h;
    h.increase(0);
    EXPECT_EQ(0u, h.carry_mask());
    EXPECT_TRUE(has_digits(h, {{99, 0, 0, 0}}));
}

TEST(TimerHelper, SubBorrowsInItsOwnRadix) {
    const uint32_t S = 100, M = 6000, H = 360000;
    const sub_case_t cases[] = {
        {99, 5, {{99, 0, 0, 0}}},
        {1 * S, 1, {{99, 0, 0, 0}}},
        {1 * S + 5, 7 * S + 2, {{3, 1, 0, 0}}},
        {1 * M, 1, {{99, 59, 0, 0}}},
        {1 * H, 1, {{99, 59, 59, 0}}},
        {2 * H, 7 * H + 1 * M + 1 * S + 1, {{99, 58, 58, 1}}},
        {3 * H + 30 * M + 30 * S + 50, 1 * H + 10 * M + 10 * S + 10, {{40, 20, 20, 3}}},
    };
    for (const sub_case_t& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.self << " - " << c.other);
        timer_helper h(c.self);
        h.sub(timer_helper(c.other));
        EXPECT_TRUE(has_digits(h, c.digits));
    }
}

TEST(TimerHelper, CalcRemainderUsesTheRadixOfEachLevel) {
    const struct {
        uint32_t value, level, want;
    } cases[] = {
        {250, 0, 50}, {250, 1, 10}, {250, 2, 10}, {250, 3, 50}, {250, 4, 250}, {250, 5, 0},
        {59, 1, 59},  {60, 2, 0},   {99, 0, 99},  {100, 3, 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.want, timer_helper::calc_remainder(c.value, c.level)) << c.value << " @" << c.level;
}

// tick_strategy ---------------------------------------------------------------

struct reading_case_t {
    uint64_t last;
    uint64_t reading;
    uint32_t returned;
    uint64_t last_after;
};

TEST(TickStrategy, StepAcceptsForwardReadingsAndFreezesOnBackwardOrHugeOnes) {
    const uint64_t WEEK = 604800000000ULL;  // the largest step taken
    const uint64_t TOP = ~0ULL;
    const reading_case_t cases[] = {
        {1000, 1000, 1000, 1000},
        {1000, 1001, 1001, 1001},
        {1000, 999, 1000, 1000},
        {1000, 0, 1000, 1000},
        {0, WEEK, static_cast<uint32_t>(WEEK), WEEK},
        {0, WEEK + 1, 0, 0},
        {5, WEEK + 5, static_cast<uint32_t>(WEEK + 5), WEEK + 5},
        {5, WEEK + 6, 5, 5},
        // Only the low 32 bits are returned.
        {(1ULL << 32) + 5, (1ULL << 32) + 10, 10, (1ULL << 32) + 10},
        {(1ULL << 32) + 5, (1ULL << 32) + 4, 5, (1ULL << 32) + 5},
        // The -3 of a backward step: two below the wrap point is huge ...
        {TOP - 1, 0, 0xFFFFFFFEu, TOP - 1},
        {TOP, 0, 0xFFFFFFFFu, TOP},
        // ... while exactly three below reads as a step of zero.
        {TOP - 2, 0, 0, 0},
        {TOP - 2, 5, 5, 5},
    };
    for (const reading_case_t& c : cases) {
        SCOPED_TRACE(::testing::Message() << "last " << c.last << ", reading " << c.reading);
        std::atomic<uint64_t> last(c.last);
        EXPECT_EQ(c.returned, tick_strategy::step(c.reading, last));
        EXPECT_EQ(c.last_after, last.load());
    }
}

TEST(TickStrategy, BackwardCounterHoldsThePreviousValueUntilOvertaken) {
    std::atomic<uint64_t> last(5000);
    const struct {
        uint64_t reading;
        uint32_t returned;
    } sequence[] = {
        {4990, 5000}, {4995, 5000}, {4999, 5000}, {5000, 5000}, {5003, 5003}, {5001, 5003}, {5004, 5004},
    };
    for (const auto& s : sequence)
        EXPECT_EQ(s.returned, tick_strategy::step(s.reading, last)) << s.reading;
}

TEST(TickStrategy, RacingReadersNeverMoveTheLastReadingBackwards) {
    const int THREADS = 4;
    const uint64_t PER_THREAD = 20000;
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
    uint32_t previous = tick_strategy::now();
    const uint32_t first = previous;
    for (int i = 0; i < 10000; ++i) {
        const uint32_t t = tick_strategy::now();
        ASSERT_LT(t - previous, 0x80000000u) << "went backwards";
        previous = t;
    }
    util_test::wait_until([&] { return tick_strategy::now() != first; });
    EXPECT_LT(tick_strategy::now() - first, 0x80000000u);
}

// time_strategy -----------------------------------------------------------------

uint64_t system_clock_us() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

TEST(TimeStrategy, NowIsMicrosecondsSince1970) {
    // Both read the same wall clock through different calls whose resolution
    // differs (about 16 ms on Windows); one second of slack still catches a
    // wrong unit or epoch, which would be off by years.
    const uint64_t SLACK_US = 1000000;
    const uint64_t before = system_clock_us();
    const uint64_t now = time_strategy::now();
    const uint64_t after = system_clock_us();
    EXPECT_GE(now + SLACK_US, before);
    EXPECT_LE(now, after + SLACK_US);
}

// cached drivers ---------------------------------------------------------------

// Restores the process-wide driver flags and tags whatever a test sets.
class DriverClocks : public ::testing::Test {
protected:
    void SetUp() override {
        m_ticks_start = ticks_drv_t::s_start.load();
        m_ticks_tag = ticks_drv_t::s_tag.load();
        m_times_start = times_drv_t::s_start.load();
        m_times_tag = times_drv_t::s_tag.load();
    }
    void TearDown() override {
        ticks_drv_t::s_start.store(m_ticks_start);
        ticks_drv_t::s_tag.store(m_ticks_tag);
        times_drv_t::s_start.store(m_times_start);
        times_drv_t::s_tag.store(m_times_tag);
    }

private:
    bool m_ticks_start = false;
    uint32_t m_ticks_tag = 0;
    bool m_times_start = false;
    uint64_t m_times_tag = 0;
};

TEST_F(DriverClocks, StartedDriversReturnTheCachedTags) {
    ticks_drv_t::s_tag.store(0xFFFFFFF0u);
    ticks_drv_t::s_start.store(true);
    times_drv_t::s_tag.store(1700000000123ULL);
    times_drv_t::s_start.store(true);
    EXPECT_EQ(0xFFFFFFF0u, ticks_drv_t::now());
    EXPECT_EQ(1700000000123ULL, times_drv_t::now());

    ticks_drv_t::s_tag.store(3);
    times_drv_t::s_tag.store(0);
    EXPECT_EQ(3u, ticks_drv_t::now());
    EXPECT_EQ(0u, times_drv_t::now());
}

TEST_F(DriverClocks, StoppedDriversReadTheRawSources) {
    ticks_drv_t::s_tag.store(7);
    ticks_drv_t::s_start.store(false);
    times_drv_t::s_tag.store(7);
    times_drv_t::s_start.store(false);

    // tick_strategy never steps back, so the driver's reading lies between
    // two raw ones.
    const uint32_t t0 = tick_strategy::now();
    const uint32_t t = ticks_drv_t::now();
    const uint32_t t1 = tick_strategy::now();
    EXPECT_LE(t - t0, t1 - t0);

    const uint64_t w0 = time_strategy::now() / 1000;
    const uint64_t w = times_drv_t::now();
    const uint64_t w1 = time_strategy::now() / 1000;
    EXPECT_LE(w0, w);
    EXPECT_LE(w, w1);
}

TEST_F(DriverClocks, ReadersSeeTheDriverTagOnlyMoveForward) {
    const uint32_t LAST = 200000;
    ticks_drv_t::s_tag.store(0);
    times_drv_t::s_tag.store(0);
    ticks_drv_t::s_start.store(true);
    times_drv_t::s_start.store(true);
    std::atomic<int> disorder(0);
    util_test::run_threads(4, [&](int id) {
        if (id == 0) {
            for (uint32_t i = 1; i <= LAST; ++i) {
                ticks_drv_t::s_tag.store(i, std::memory_order_relaxed);
                times_drv_t::s_tag.store(uint64_t(i) << 32, std::memory_order_relaxed);
            }
            return;
        }
        uint32_t seen = 0;
        uint64_t seen_wall = 0;
        while (seen < LAST) {
            const uint32_t t = ticks_drv_t::now();
            const uint64_t w = times_drv_t::now();
            if (t < seen || w < seen_wall)
                disorder.fetch_add(1);
            seen = t;
            seen_wall = w;
        }
    });
    EXPECT_EQ(0, disorder.load());
}

}  // namespace
