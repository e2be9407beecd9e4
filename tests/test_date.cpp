#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <vector>

#include "date.h"
#include "test_support.h"

using namespace ssb;

namespace {

const int64_t DAY_MS = 86400000;

struct fields_t {
    int year, month, day, hour, minute, second, millisecond;
};

local_date_t make_date(const fields_t& f, unsigned short day_of_week = 9) {
    local_date_t d = local_date_t::from_epoch_ms(0);
    d.m_year = static_cast<unsigned short>(f.year);
    d.m_month = static_cast<unsigned short>(f.month);
    d.m_day = static_cast<unsigned short>(f.day);
    d.m_hour = static_cast<unsigned short>(f.hour);
    d.m_minute = static_cast<unsigned short>(f.minute);
    d.m_second = static_cast<unsigned short>(f.second);
    d.m_millisecond = static_cast<unsigned short>(f.millisecond);
    d.m_day_of_week = day_of_week;
    return d;
}

template <class date_type>
::testing::AssertionResult has_fields(const date_type& d, const fields_t& f) {
    const int got[] = {d.m_year, d.m_month, d.m_day, d.m_hour, d.m_minute, d.m_second, d.m_millisecond};
    const int want[] = {f.year, f.month, f.day, f.hour, f.minute, f.second, f.millisecond};
    for (int i = 0; i < 7; ++i)
        if (got[i] != want[i])
            return ::testing::AssertionFailure() << "field " << i << " is " << got[i] << ", want " << want[i];
    return ::testing::AssertionSuccess();
}

// The C library is the oracle, in whatever zone the process runs; only the
// main thread calls it.
std::tm c_local(std::time_t t) { return *std::localtime(&t); }
std::tm c_utc(std::time_t t) { return *std::gmtime(&t); }

template <class date_type>
::testing::AssertionResult matches_tm(const date_type& d, const std::tm& t) {
    ::testing::AssertionResult r = has_fields(
        d, {t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, d.m_millisecond});
    if (r && d.m_day_of_week != t.tm_wday)
        return ::testing::AssertionFailure() << "day of week " << d.m_day_of_week << ", want " << t.tm_wday;
    return r;
}

// Repeats make() until it falls inside one wall-clock second and returns
// that second. The constructors' clocks may lag system_clock, hence the
// window opening 100 ms early.
template <class make_fn>
std::time_t within_one_second(make_fn make) {
    using namespace std::chrono;
    for (;;) {
        const int64_t before = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
        make();
        const int64_t after = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
        if ((before - 100) / 1000 == after / 1000)
            return static_cast<std::time_t>(after / 1000);
    }
}

TEST(LocalDate, DayOfWeekOfKnownDatesAndOfTheCLibrary) {
    const struct {
        int year, month, day;
        unsigned short want;
    } cases[] = {
        {1970, 1, 1, 4},   {2000, 2, 29, 2},  {2000, 3, 1, 3}, {2024, 1, 1, 1},  {2024, 3, 1, 5},
        {1900, 2, 28, 3},  {1900, 3, 1, 4},   {2100, 3, 1, 1}, {1600, 2, 29, 2}, {1, 1, 1, 1},
        {9999, 12, 31, 5}, {2024, 0, 1, 5},  // month 0 is December of the year before
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.want, make_date({c.year, c.month, c.day, 12, 0, 0, 0}).dayofweek())
            << c.year << "-" << c.month << "-" << c.day;
    for (int64_t day = 0; day < 68 * 365; day += 11) {
        const local_date_t d = local_date_t::from_epoch_ms(static_cast<uint64_t>(day * DAY_MS + 12 * 3600000));
        ASSERT_EQ(d.m_day_of_week, d.dayofweek()) << d.m_year << "-" << d.m_month << "-" << d.m_day;
    }
}

TEST(LocalDateAdd, CarriesEachFieldAndChecksTheDayAgainstTheFollowingMonth) {
    const struct {
        fields_t start;
        int64_t amount;
        fields_t want;
    } cases[] = {
        // January is limited by February's length, leap years included.
        {{2023, 1, 28, 0, 0, 0, 0}, DAY_MS, {2023, 2, 1, 0, 0, 0, 0}},
        {{2024, 1, 28, 0, 0, 0, 0}, DAY_MS, {2024, 1, 29, 0, 0, 0, 0}},
        {{2024, 1, 29, 0, 0, 0, 0}, DAY_MS, {2024, 2, 1, 0, 0, 0, 0}},
        {{2000, 1, 28, 0, 0, 0, 0}, DAY_MS, {2000, 1, 29, 0, 0, 0, 0}},
        {{1900, 1, 28, 0, 0, 0, 0}, DAY_MS, {1900, 2, 1, 0, 0, 0, 0}},
        {{2023, 2, 28, 0, 0, 0, 0}, DAY_MS, {2023, 2, 29, 0, 0, 0, 0}},
        {{2023, 3, 30, 0, 0, 0, 0}, DAY_MS, {2023, 4, 1, 0, 0, 0, 0}},
        {{2023, 6, 30, 0, 0, 0, 0}, DAY_MS, {2023, 6, 31, 0, 0, 0, 0}},
        // After November comes month 0 of the next year, after December month 1.
        {{2023, 11, 31, 0, 0, 0, 0}, DAY_MS, {2024, 0, 1, 0, 0, 0, 0}},
        {{2024, 0, 31, 0, 0, 0, 0}, DAY_MS, {2024, 1, 1, 0, 0, 0, 0}},
        {{2023, 12, 31, 0, 0, 0, 0}, DAY_MS, {2024, 1, 1, 0, 0, 0, 0}},
        {{65535, 11, 31, 0, 0, 0, 0}, DAY_MS, {0, 0, 1, 0, 0, 0, 0}},
        {{2023, 5, 10, 23, 59, 59, 999}, 1, {2023, 5, 11, 0, 0, 0, 0}},
        {{2023, 5, 10, 0, 0, 0, 0}, DAY_MS - 1, {2023, 5, 10, 23, 59, 59, 999}},
        {{2023, 5, 10, 23, 59, 59, 999}, DAY_MS + 1, {2023, 5, 12, 0, 0, 0, 0}},
        {{2023, 5, 10, 10, 20, 30, 400}, 3600000 + 60000 + 1000 + 1, {2023, 5, 10, 11, 21, 31, 401}},
        // A day already past the limit stays until a day is carried.
        {{2023, 1, 31, 23, 59, 59, 998}, 1, {2023, 1, 31, 23, 59, 59, 999}},
        {{2023, 1, 31, 23, 59, 59, 999}, 1, {2023, 2, 1, 0, 0, 0, 0}},
        {{2023, 1, 20, 0, 0, 0, 0}, 30 * DAY_MS, {2023, 2, 22, 0, 0, 0, 0}},
        {{2023, 11, 15, 8, 30, 0, 250}, 60 * DAY_MS + 123456, {2024, 1, 13, 8, 32, 3, 706}},
        {{2024, 2, 10, 23, 59, 59, 999}, 400 * DAY_MS + 1, {2025, 3, 15, 0, 0, 0, 0}},
        // Negative amounts only turn the millisecond field.
        {{2023, 5, 10, 0, 0, 0, 0}, -1, {2023, 5, 10, 0, 0, 0, 999}},
        {{2023, 5, 10, 0, 0, 0, 600}, -1500, {2023, 5, 10, 0, 0, 0, 100}},
        {{2023, 5, 10, 7, 8, 9, 10}, -DAY_MS * 3, {2023, 5, 10, 7, 8, 9, 10}},
        {{2023, 5, 10, 7, 8, 9, 10}, INT64_MIN, {2023, 5, 10, 7, 8, 9, 202}},
        {{2023, 11, 31, 23, 59, 59, 999}, 0, {2023, 11, 31, 23, 59, 59, 999}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.start.year << "-" << c.start.month << "-" << c.start.day << " + "
                                          << c.amount << " ms");
        local_date_t d = make_date(c.start, 3);
        EXPECT_EQ(&d, &(d += c.amount));
        EXPECT_TRUE(has_fields(d, c.want));
        EXPECT_EQ(3, d.m_day_of_week) << "the day of week is not updated";
    }
}

TEST(LocalDateAdd, ALargeAmountEqualsTheSameAmountInOneDaySteps) {
    const fields_t starts[] = {
        {2023, 1, 28, 23, 59, 59, 999}, {2024, 2, 29, 6, 0, 0, 500}, {2023, 11, 30, 12, 0, 0, 0}, {2024, 0, 15, 1, 2, 3, 4},
    };
    for (const fields_t& s : starts) {
        for (int64_t amount : {31 * DAY_MS + 5, 366 * DAY_MS + 43200001, 1500 * DAY_MS + 999}) {
            SCOPED_TRACE(::testing::Message() << s.year << "-" << s.month << "-" << s.day << " + " << amount);
            local_date_t whole = make_date(s), stepped = make_date(s);
            whole += amount;
            for (int64_t left = amount; left > 0; left -= DAY_MS)
                stepped += left < DAY_MS ? left : DAY_MS;
            EXPECT_TRUE(has_fields(whole, {stepped.m_year, stepped.m_month, stepped.m_day, stepped.m_hour,
                                           stepped.m_minute, stepped.m_second, stepped.m_millisecond}));
        }
    }
}

TEST(LocalDateAdd, UnsignedAmountsWidenAndPlusLeavesTheOriginal) {
    const fields_t start = {2023, 1, 1, 0, 0, 0, 0}, later = {2023, 2, 22, 17, 2, 47, 295};
    local_date_t d = make_date(start);
    EXPECT_EQ(&d, &(d += uint32_t(0xFFFFFFFFu)));
    EXPECT_TRUE(has_fields(d, later));
    const local_date_t original = make_date(start);
    EXPECT_TRUE(has_fields(original + 0xFFFFFFFFu, later));
    EXPECT_TRUE(has_fields(original, start));
}

TEST(LocalDate, ClockConstructorsBreakTheCurrentSecondDownLocallyOrInUtc) {
    uint64_t unused = 0;
    local_date_t whole = local_date_t::from_epoch_ms(1), precise = whole;
    std::time_t second = within_one_second([&] {
        whole = local_date_t(nullptr);
        precise = local_date_t(&unused);
    });
    EXPECT_EQ(0, whole.m_millisecond);
    EXPECT_LT(precise.m_millisecond, 1000);
    EXPECT_TRUE(matches_tm(whole, c_local(second)));
    EXPECT_TRUE(matches_tm(precise, c_local(second)));

    gmt_date_t gmt_whole(nullptr), gmt_precise(nullptr);
    second = within_one_second([&] {
        gmt_whole = gmt_date_t(nullptr);
        gmt_precise = gmt_date_t(&unused);
    });
    EXPECT_EQ(0, gmt_whole.m_millisecond);
    EXPECT_LT(gmt_precise.m_millisecond, 1000);
    EXPECT_TRUE(matches_tm(gmt_whole, c_utc(second)));
    EXPECT_TRUE(matches_tm(gmt_precise, c_utc(second)));
}

TEST(LocalDate, FromEpochMsMatchesTheCLibraryAlsoWhenThreadsAlternateInstants) {
    const uint64_t instants[] = {
        0, 999, 1000, 951782400000ULL + 500,  // 2000-02-29
        1711846799999ULL, 1711846800000ULL,   // a DST switch in Europe
        2147483647000ULL,                     // the last second of 32-bit time_t
    };
    for (uint64_t ms : instants) {
        SCOPED_TRACE(ms);
        const local_date_t d = local_date_t::from_epoch_ms(ms);
        EXPECT_EQ(ms % 1000, d.m_millisecond);
        EXPECT_TRUE(matches_tm(d, c_local(static_cast<std::time_t>(ms / 1000))));
    }

    // A break-down reused across seconds or shared between threads shows up
    // as a wrong field.
    const int THREADS = 4;
    std::vector<uint64_t> spread;
    std::vector<std::tm> expected;
    for (uint64_t i = 0; i < 16; ++i) {
        spread.push_back(1700000000000ULL + i * 3599999ULL);
        expected.push_back(c_local(static_cast<std::time_t>(spread.back() / 1000)));
    }
    std::vector<int> mismatches(THREADS, 0);
    util_test::run_threads(THREADS, [&](int id) {
        for (int round = 0; round < 1000; ++round) {
            const size_t i = static_cast<size_t>(round * (id + 1) + id) % spread.size();
            const local_date_t d = local_date_t::from_epoch_ms(spread[i]);
            if (!matches_tm(d, expected[i]) || d.m_millisecond != spread[i] % 1000)
                ++mismatches[static_cast<size_t>(id)];
        }
    });
    for (int id = 0; id < THREADS; ++id)
        EXPECT_EQ(0, mismatches[static_cast<size_t>(id)]) << "thread " << id;
}

}  // namespace
