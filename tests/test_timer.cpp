#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

#include "test_support.h"
#include "timer.h"

using namespace ssb;

namespace {

struct row_t {
    uint32_t a, b;  // set: ticks and kept value; increase/sub: start and operand
    uint32_t d[4];
    uint32_t extra;  // set: get_ticks(); increase: carry mask
};

template <class H>
std::vector<uint32_t> digits(const H& h) {
    return {h.digit(0), h.digit(1), h.digit(2), h.digit(3)};
}

template <class H>
void check(const std::vector<row_t>& set, const std::vector<row_t>& adds, const std::vector<row_t>& subs) {
    for (const row_t& r : set) {
        SCOPED_TRACE(::testing::Message() << "set " << r.a);
        H h(99);
        h.set(r.a);
        EXPECT_EQ(r.b, h.value());
        EXPECT_EQ(std::vector<uint32_t>(r.d, r.d + 4), digits(h));
        EXPECT_EQ(r.extra, h.get_ticks());
    }
    for (const row_t& r : adds) {
        SCOPED_TRACE(::testing::Message() << r.a << " + " << r.b);
        H h(r.a);
        h.increase(r.b);
        EXPECT_EQ(std::vector<uint32_t>(r.d, r.d + 4), digits(h));
        EXPECT_EQ(r.extra, h.carry_mask());
        EXPECT_EQ(r.a, h.value()) << "value() is the last set, not the position";
    }
    for (const row_t& r : subs) {
        SCOPED_TRACE(::testing::Message() << r.a << " - " << r.b);
        H h(r.a);
        h.sub(H(r.b));
        EXPECT_EQ(std::vector<uint32_t>(r.d, r.d + 4), digits(h));
    }
    H h(0);
    EXPECT_EQ(0u, h++.get_ticks());
    EXPECT_EQ(&h, &++h);
    EXPECT_EQ(2u, h.get_ticks());
    h.increase(0);
    EXPECT_EQ(0u, h.carry_mask());
}

TEST(TicksHelper, SetClampsIncreaseCarriesSubBorrowsBelowTheTopDigitAndRemainderPerLevel) {
    const uint32_t D1 = 64, D2 = 4096, D3 = 262144;
    check<ticks_helper>({{16777216 + 65, 16777216 + 65, {1, 1, 0, 0}, 65},  // bits above 24 dropped
                         {MAX_INTERVAL + 1, MAX_INTERVAL, {54, 63, 63, 53}, 14155766}},
                        {{63, 1, {0, 1, 0, 0}, 3},
                         {4095, 1, {0, 0, 1, 0}, 7},
                         {262143, 1, {0, 0, 0, 1}, 15},
                         {16777215, 1, {0, 0, 0, 0}, 15},
                         {1, 200, {9, 3, 0, 0}, 3},
                         {63, 0xFFFFFFFFu, {62, 0, 0, 0}, 15}},  // digit 0 plus the amount exceeds 32 bits
                        {{63, 5, {63, 0, 0, 0}, 0},              // no digit above 0: nothing is subtracted
                         {1 * D1 + 5, 9 * D1 + 2, {3, 1, 0, 0}, 0},
                         {2 * D3 + 5 * D2 + 6 * D1 + 7, 50 * D3 + 1 * D2 + 2 * D1 + 3, {4, 4, 4, 2}, 0}});
    uint32_t seed = 12345;
    for (int i = 0; i < 3000; ++i) {
        seed = seed * 1103515245u + 12345u;
        const uint32_t start = seed & 0xFFFFFF, n = seed * 2654435761u;
        ticks_helper r(start);
        r.increase(n);
        ASSERT_EQ((start + n) & 0xFFFFFFu, r.get_ticks()) << start << " + " << n;
    }
    EXPECT_EQ(8u, ticks_helper::calc_remainder(200, 3));
    EXPECT_EQ(0u, ticks_helper::calc_remainder(200, 5));  // unknown level
}

TEST(TimerHelper, CarriesAt100And60And60WrapsHoursAndRemainderPerLevel) {
    const uint32_t S = 100, M = 6000, H = 360000, TOP = MAX_TIMER_HELPER_TICKS;
    check<timer_helper>({{H, H, {0, 0, 0, 1}, H}, {TOP + 1, TOP, {90, 59, 59, 989}, TOP}},
                        {{99, 1, {0, 1, 0, 0}, 3},
                         {5999, 1, {0, 0, 1, 0}, 7},
                         {45 * H + 359999, 1, {0, 0, 0, 46}, 15},
                         {99 * H + 359999, 1, {0, 0, 0, 0}, 15},
                         {TOP, 1, {91, 59, 59, 89}, 1},  // hours reduced even without a carry
                         {0, 0xFFFFFFFFu, {95, 52, 27, 30}, 15}},
                        {{1 * S + 5, 7 * S + 2, {3, 1, 0, 0}, 0}, {2 * H, 7 * H + M + S + 1, {99, 58, 58, 1}, 0}});
    EXPECT_EQ(50u, timer_helper::calc_remainder(250, 3));
    EXPECT_EQ(10u, timer_helper::calc_remainder(250, 2));
    EXPECT_EQ(250u, timer_helper::calc_remainder(250, 4));
    EXPECT_EQ(0u, timer_helper::calc_remainder(250, 5));  // unknown level
}

TEST(TickStrategy, StepAcceptsForwardReadingsAndFreezesOnBackwardOrHugeOnes) {
    const uint64_t WEEK = 604800000000ULL, TOP = ~0ULL;
    const struct {
        uint64_t last, reading, returned, last_after;
    } cases[] = {
        {1000, 1001, 1001, 1001},
        {1000, 999, 1000, 1000},
        {5, WEEK + 5, WEEK + 5, WEEK + 5},
        {5, WEEK + 6, 5, 5},
        {TOP - 1, 0, TOP - 1, TOP - 1},
        {TOP - 2, 0, 0, 0},  // a backward step is taken less 3
        {(1ULL << 32) + 5, (1ULL << 32) + 10, 10, (1ULL << 32) + 10},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "last " << c.last << ", reading " << c.reading);
        std::atomic<uint64_t> last(c.last);
        EXPECT_EQ(static_cast<uint32_t>(c.returned), tick_strategy::step(c.reading, last));
        EXPECT_EQ(c.last_after, last.load());
    }
}

TEST(TickStrategy, RacingReadersNeverMoveTheLastReadingBackwards) {
    const int THREADS = 4, PER_THREAD = 10000;
    std::atomic<uint64_t> last(0);
    std::atomic<int> disorder(0);
    util_test::run_threads(THREADS, [&](int id) {
        uint32_t previous = 0;
        for (uint32_t reading = static_cast<uint32_t>(id); reading < PER_THREAD * THREADS; reading += THREADS) {
            const uint32_t got = tick_strategy::step(reading, last);
            if (got < reading || got < previous)
                disorder.fetch_add(1);
            previous = got;
        }
    });
    EXPECT_EQ(0, disorder.load());
    EXPECT_EQ(uint64_t(PER_THREAD * THREADS - 1), last.load());
}

TEST(Clocks, RawSourcesAdvanceInTheirUnitsAndStartedDriversReturnTheTags) {
    const uint32_t first = tick_strategy::now();
    UTIL_WAIT_UNTIL([&] { return tick_strategy::now() != first; });
    EXPECT_LT(tick_strategy::now() - first, 0x80000000u) << "went backwards";
    using namespace std::chrono;
    const uint64_t sys =
        static_cast<uint64_t>(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
    EXPECT_LT(time_strategy::now() - (sys - 1000000), 2000000u) << "not microseconds since 1970";

    ticks_drv_t::s_tag.store(0xFFFFFFF0u);
    ticks_drv_t::s_start.store(true);
    times_drv_t::s_tag.store(1700000000123ULL);
    times_drv_t::s_start.store(true);
    EXPECT_EQ(0xFFFFFFF0u, ticks_drv_t::now());
    EXPECT_EQ(1700000000123ULL, times_drv_t::now());
    ticks_drv_t::s_start.store(false);
    times_drv_t::s_start.store(false);
    EXPECT_LT(ticks_drv_t::now() - first, 0x80000000u);
    EXPECT_LT(times_drv_t::now() - sys / 1000 + 1000, 2000u) << "stopped driver is not the raw wall clock in ms";
}

}  // namespace
