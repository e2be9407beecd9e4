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
    if (d.m_year == f.year && d.m_month == f.month && d.m_day == f.day && d.m_hour == f.hour &&
        d.m_minute == f.minute && d.m_second == f.second && d.m_millisecond == f.millisecond)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << d.m_year << "-" << d.m_month << "-" << d.m_day << " " << d.m_hour << ":" << d.m_minute
           << ":" << d.m_second << "." << d.m_millisecond << ", want " << f.year << "-" << f.month
           << "-" << f.day << " " << f.hour << ":" << f.minute << ":" << f.second << "."
           << f.millisecond;
}

// The C library is the oracle for local and UTC break-downs: it runs in the
// same process with the same time zone, so the tests hold in any zone
// without changing TZ. Only the main thread calls these, and the result is
// copied out of the library's static buffer at once.
std::tm c_local(std::time_t t) { return *std::localtime(&t); }
std::tm c_utc(std::time_t t) { return *std::gmtime(&t); }

template <class date_type>
::testing::AssertionResult matches_tm(const date_type& d, const std::tm& t) {
    const fields_t f = {t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, d.m_millisecond};
    ::testing::AssertionResult r = has_fields(d, f);
    if (r && d.m_day_of_week != t.tm_wday)
        return ::testing::AssertionFailure() << "day of week " << d.m_day_of_week << ", want " << t.tm_wday;
    return r;
}

// Calls make() until the call falls inside one wall-clock second and
// returns that second. The date constructors read coarser clocks than
// system_clock (time() and GetLocalTime tick every few milliseconds and may
// lag it), so the window starts 100 ms early.
template <class make_fn>
std::time_t within_one_second(make_fn make) {
    using namespace std::chrono;
    const int64_t LAG_MS = 100;
    for (;;) {
        const int64_t before = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
        make();
        const int64_t after = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
        if ((before - LAG_MS) / 1000 == after / 1000)
            return static_cast<std::time_t>(after / 1000);
    }
}

// dayofweek -----------------------------------------------------------------------

TEST(LocalDate, DayOfWeekOfKnownDates) {
    const struct {
        int year, month, day;
        unsigned short want;
    } cases[] = {
        {1970, 1, 1, 4},   {1999, 12, 31, 5}, {2000, 1, 1, 6},  {2000, 2, 29, 2}, {2000, 3, 1, 3},
        {2023, 12, 31, 0}, {2024, 1, 1, 1},   {2024, 2, 29, 4}, {2024, 3, 1, 5},  {1900, 2, 28, 3},
        {1900, 3, 1, 4},   {2100, 2, 28, 0},  {2100, 3, 1, 1},  {1600, 2, 29, 2}, {1582, 10, 15, 5},
        {2038, 1, 19, 2},  {1, 1, 1, 1},      {9999, 12, 31, 5},
    };
    for (const auto& c : cases) {
        const local_date_t d = make_date({c.year, c.month, c.day, 12, 0, 0, 0});
        EXPECT_EQ(c.want, d.dayofweek()) << c.year << "-" << c.month << "-" << c.day;
    }
}

TEST(LocalDate, DayOfWeekAgreesWithTheCLibraryEveryDayFrom1970To2037) {
    for (int64_t day = 0; day < 68 * 365; ++day) {
        const int64_t ms = day * DAY_MS + 12 * 3600000;
        const local_date_t d = local_date_t::from_epoch_ms(static_cast<uint64_t>(ms));
        ASSERT_EQ(d.m_day_of_week, d.dayofweek()) << d.m_year << "-" << d.m_month << "-" << d.m_day;
    }
}

TEST(LocalDate, DayOfWeekReadsMonthZeroAsDecemberOfThePreviousYear) {
    const local_date_t month_zero = make_date({2024, 0, 1, 0, 0, 0, 0});
    EXPECT_EQ(make_date({2023, 12, 1, 0, 0, 0, 0}).dayofweek(), month_zero.dayofweek());
    EXPECT_EQ(5, month_zero.dayofweek());
}

// operator+= ----------------------------------------------------------------------

struct add_case_t {
    fields_t start;
    int64_t amount;
    fields_t want;
};

void check_add_cases(const add_case_t* cases, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const add_case_t& c = cases[i];
        SCOPED_TRACE(::testing::Message() << "case " << i << ", + " << c.amount << " ms");
        local_date_t d = make_date(c.start, 3);
        local_date_t& same = (d += c.amount);
        EXPECT_EQ(&d, &same);
        EXPECT_TRUE(has_fields(d, c.want));
        EXPECT_EQ(3, d.m_day_of_week) << "the day of week is not updated";
    }
}

TEST(LocalDateAdd, OneDayChecksTheLengthOfTheFollowingMonth) {
    const add_case_t cases[] = {
        // January is limited by February's length, leap years included.
        {{2023, 1, 27, 0, 0, 0, 0}, DAY_MS, {2023, 1, 28, 0, 0, 0, 0}},
        {{2023, 1, 28, 0, 0, 0, 0}, DAY_MS, {2023, 2, 1, 0, 0, 0, 0}},
        {{2024, 1, 28, 0, 0, 0, 0}, DAY_MS, {2024, 1, 29, 0, 0, 0, 0}},
        {{2024, 1, 29, 0, 0, 0, 0}, DAY_MS, {2024, 2, 1, 0, 0, 0, 0}},
        {{2000, 1, 28, 0, 0, 0, 0}, DAY_MS, {2000, 1, 29, 0, 0, 0, 0}},
        {{2000, 1, 29, 0, 0, 0, 0}, DAY_MS, {2000, 2, 1, 0, 0, 0, 0}},
        {{1900, 1, 28, 0, 0, 0, 0}, DAY_MS, {1900, 2, 1, 0, 0, 0, 0}},
        {{2100, 1, 28, 0, 0, 0, 0}, DAY_MS, {2100, 2, 1, 0, 0, 0, 0}},
        {{2023, 1, 31, 0, 0, 0, 0}, DAY_MS, {2023, 2, 1, 0, 0, 0, 0}},
        // February is limited by March's 31, March by April's 30.
        {{2023, 2, 28, 0, 0, 0, 0}, DAY_MS, {2023, 2, 29, 0, 0, 0, 0}},
        {{2023, 2, 31, 0, 0, 0, 0}, DAY_MS, {2023, 3, 1, 0, 0, 0, 0}},
        {{2023, 3, 29, 0, 0, 0, 0}, DAY_MS, {2023, 3, 30, 0, 0, 0, 0}},
        {{2023, 3, 30, 0, 0, 0, 0}, DAY_MS, {2023, 4, 1, 0, 0, 0, 0}},
        {{2023, 6, 30, 0, 0, 0, 0}, DAY_MS, {2023, 6, 31, 0, 0, 0, 0}},
        {{2023, 7, 31, 0, 0, 0, 0}, DAY_MS, {2023, 8, 1, 0, 0, 0, 0}},
        {{2023, 8, 30, 0, 0, 0, 0}, DAY_MS, {2023, 9, 1, 0, 0, 0, 0}},
        {{2023, 10, 29, 0, 0, 0, 0}, DAY_MS, {2023, 10, 30, 0, 0, 0, 0}},
        {{2023, 10, 30, 0, 0, 0, 0}, DAY_MS, {2023, 11, 1, 0, 0, 0, 0}},
        {{2023, 10, 31, 0, 0, 0, 0}, DAY_MS, {2023, 11, 1, 0, 0, 0, 0}},
        // After November comes month 0 of the next year ...
        {{2023, 11, 30, 0, 0, 0, 0}, DAY_MS, {2023, 11, 31, 0, 0, 0, 0}},
        {{2023, 11, 31, 0, 0, 0, 0}, DAY_MS, {2024, 0, 1, 0, 0, 0, 0}},
        {{2024, 0, 30, 0, 0, 0, 0}, DAY_MS, {2024, 0, 31, 0, 0, 0, 0}},
        {{2024, 0, 31, 0, 0, 0, 0}, DAY_MS, {2024, 1, 1, 0, 0, 0, 0}},
        // ... and after December, month 1.
        {{2023, 12, 30, 0, 0, 0, 0}, DAY_MS, {2023, 12, 31, 0, 0, 0, 0}},
        {{2023, 12, 31, 0, 0, 0, 0}, DAY_MS, {2024, 1, 1, 0, 0, 0, 0}},
        {{65535, 11, 31, 0, 0, 0, 0}, DAY_MS, {0, 0, 1, 0, 0, 0, 0}},
    };
    check_add_cases(cases, sizeof(cases) / sizeof(cases[0]));
}

TEST(LocalDateAdd, CarriesThroughSecondsMinutesHoursAndDays) {
    const add_case_t cases[] = {
        {{2023, 5, 10, 12, 34, 56, 998}, 1, {2023, 5, 10, 12, 34, 56, 999}},
        {{2023, 5, 10, 12, 34, 56, 999}, 1, {2023, 5, 10, 12, 34, 57, 0}},
        {{2023, 5, 10, 12, 34, 59, 999}, 1, {2023, 5, 10, 12, 35, 0, 0}},
        {{2023, 5, 10, 12, 59, 59, 999}, 1, {2023, 5, 10, 13, 0, 0, 0}},
        {{2023, 5, 10, 23, 59, 59, 999}, 1, {2023, 5, 11, 0, 0, 0, 0}},
        {{2023, 5, 10, 0, 0, 0, 0}, DAY_MS - 1, {2023, 5, 10, 23, 59, 59, 999}},
        {{2023, 5, 10, 0, 0, 0, 0}, DAY_MS, {2023, 5, 11, 0, 0, 0, 0}},
        {{2023, 5, 10, 12, 0, 0, 0}, DAY_MS + 1, {2023, 5, 11, 12, 0, 0, 1}},
        {{2023, 5, 10, 23, 59, 59, 999}, DAY_MS, {2023, 5, 11, 23, 59, 59, 999}},
        {{2023, 5, 10, 23, 59, 59, 999}, DAY_MS + 1, {2023, 5, 12, 0, 0, 0, 0}},
        {{2023, 5, 10, 10, 20, 30, 400}, 3600000 + 60000 + 1000 + 1, {2023, 5, 10, 11, 21, 31, 401}},
        // A day that is already past the limit stays until a day is carried.
        {{2023, 1, 31, 23, 59, 59, 998}, 1, {2023, 1, 31, 23, 59, 59, 999}},
        {{2023, 1, 31, 23, 59, 59, 999}, 1, {2023, 2, 1, 0, 0, 0, 0}},
    };
    check_add_cases(cases, sizeof(cases) / sizeof(cases[0]));
}

TEST(LocalDateAdd, MultiDayAmountsCrossSeveralMonths) {
    const add_case_t cases[] = {
        {{2023, 1, 1, 0, 0, 0, 0}, 10 * DAY_MS, {2023, 1, 11, 0, 0, 0, 0}},
        {{2023, 1, 20, 0, 0, 0, 0}, 30 * DAY_MS, {2023, 2, 22, 0, 0, 0, 0}},
        {{2023, 1, 1, 0, 0, 0, 0}, 0xFFFFFFFFLL, {2023, 2, 22, 17, 2, 47, 295}},
        {{2023, 11, 15, 8, 30, 0, 250}, 60 * DAY_MS + 123456, {2024, 1, 13, 8, 32, 3, 706}},
        {{2024, 2, 10, 23, 59, 59, 999}, 400 * DAY_MS + 1, {2025, 3, 15, 0, 0, 0, 0}},
        {{2023, 1, 1, 0, 0, 0, 0}, 365 * DAY_MS, {2024, 1, 1, 0, 0, 0, 0}},
    };
    check_add_cases(cases, sizeof(cases) / sizeof(cases[0]));
}

TEST(LocalDateAdd, ALargeAmountEqualsTheSameAmountInOneDaySteps) {
    const fields_t starts[] = {
        {2023, 1, 1, 0, 0, 0, 0},     {2023, 1, 28, 23, 59, 59, 999}, {2024, 2, 29, 6, 0, 0, 500},
        {2023, 11, 30, 12, 0, 0, 0},  {2023, 12, 31, 18, 30, 0, 0},   {1899, 12, 1, 0, 0, 0, 0},
        {2024, 0, 15, 1, 2, 3, 4},
    };
    const int64_t amounts[] = {2 * DAY_MS, 31 * DAY_MS + 5, 366 * DAY_MS + 43200001, 1500 * DAY_MS + 999};
    for (const fields_t& s : starts) {
        for (int64_t amount : amounts) {
            SCOPED_TRACE(::testing::Message() << s.year << "-" << s.month << "-" << s.day << " + " << amount);
            local_date_t whole = make_date(s);
            whole += amount;
            local_date_t stepped = make_date(s);
            for (int64_t left = amount; left > 0; left -= DAY_MS)
                stepped += left < DAY_MS ? left : DAY_MS;
            EXPECT_TRUE(has_fields(whole, {stepped.m_year, stepped.m_month, stepped.m_day, stepped.m_hour,
                                           stepped.m_minute, stepped.m_second, stepped.m_millisecond}));
        }
    }
}

TEST(LocalDateAdd, ZeroChangesNothing) {
    const fields_t f = {2023, 11, 31, 23, 59, 59, 999};
    local_date_t d = make_date(f, 4);
    d += int64_t(0);
    d += uint32_t(0);
    EXPECT_TRUE(has_fields(d, f));
    EXPECT_EQ(4, d.m_day_of_week);
    EXPECT_TRUE(has_fields(d + 0u, f));
}

TEST(LocalDateAdd, UnsignedAmountsWidenAndPlusLeavesTheOriginal) {
    const fields_t start = {2023, 1, 1, 0, 0, 0, 0};
    const fields_t later = {2023, 2, 22, 17, 2, 47, 295};
    local_date_t d = make_date(start);
    local_date_t& same = (d += uint32_t(0xFFFFFFFFu));
    EXPECT_EQ(&d, &same);
    EXPECT_TRUE(has_fields(d, later));

    const local_date_t original = make_date(start);
    const local_date_t copy = original + 0xFFFFFFFFu;
    EXPECT_TRUE(has_fields(copy, later));
    EXPECT_TRUE(has_fields(original, start));
}

TEST(LocalDateAdd, NegativeAmountsOnlyTurnTheMillisecondField) {
    const add_case_t cases[] = {
        {{2023, 5, 10, 0, 0, 0, 0}, -1, {2023, 5, 10, 0, 0, 0, 999}},
        {{2023, 5, 10, 0, 0, 0, 600}, -200, {2023, 5, 10, 0, 0, 0, 400}},
        {{2023, 5, 10, 0, 0, 0, 600}, -1500, {2023, 5, 10, 0, 0, 0, 100}},
        {{2023, 5, 10, 7, 8, 9, 10}, -DAY_MS * 3, {2023, 5, 10, 7, 8, 9, 10}},
        {{2023, 5, 10, 7, 8, 9, 10}, INT64_MIN, {2023, 5, 10, 7, 8, 9, 202}},
    };
    check_add_cases(cases, sizeof(cases) / sizeof(cases[0]));
}

// construction ------------------------------------------------------------------

TEST(LocalDate, NullArgumentReadsWholeSecondsAsLocalTime) {
    local_date_t d = local_date_t::from_epoch_ms(1);
    const std::time_t second = within_one_second([&] { d = local_date_t(nullptr); });
    EXPECT_EQ(0, d.m_millisecond);
    EXPECT_TRUE(matches_tm(d, c_local(second)));
    EXPECT_EQ(d.m_day_of_week, d.dayofweek());
}

TEST(LocalDate, NonNullArgumentReadsTheSystemLocalTimeWithMilliseconds) {
    uint64_t unused = 0;
    local_date_t d = local_date_t::from_epoch_ms(0);
    const std::time_t second = within_one_second([&] { d = local_date_t(&unused); });
    EXPECT_LT(d.m_millisecond, 1000);
    EXPECT_TRUE(matches_tm(d, c_local(second)));
}

TEST(GmtDate, BothClocksBreakTheTimeDownInUtc) {
    uint64_t unused = 0;
    gmt_date_t whole(nullptr), precise(nullptr);
    const std::time_t second = within_one_second([&] {
        whole = gmt_date_t(nullptr);
        precise = gmt_date_t(&unused);
    });
    EXPECT_EQ(0, whole.m_millisecond);
    EXPECT_LT(precise.m_millisecond, 1000);
    EXPECT_TRUE(matches_tm(whole, c_utc(second)));
    EXPECT_TRUE(matches_tm(precise, c_utc(second)));
}

TEST(LocalDate, FromEpochMsMatchesTheCLibraryLocalTime) {
    const uint64_t instants[] = {
        0,
        999,
        1000,
        951782400000ULL + 500,  // 2000-02-29 00:00:00.500 UTC
        1700000000123ULL,
        1700000000999ULL,
        1700000001000ULL,
        1711846799999ULL,  // 2024-03-31 00:59:59.999 UTC, a DST switch in Europe
        1711846800000ULL,
        2147483647000ULL,  // the last second of 32-bit time_t
    };
    for (uint64_t ms : instants) {
        SCOPED_TRACE(ms);
        const local_date_t d = local_date_t::from_epoch_ms(ms);
        EXPECT_EQ(ms % 1000, d.m_millisecond);
        EXPECT_TRUE(matches_tm(d, c_local(static_cast<std::time_t>(ms / 1000))));
    }
}

TEST(LocalDate, FromEpochMsStaysRightWhenThreadsAlternateInstants) {
    // Each thread revisits second boundaries in turn; a break-down reused
    // across seconds or shared between threads shows up as a wrong field.
    const int THREADS = 4;
    std::vector<uint64_t> instants;
    for (int i = 0; i < 16; ++i)
        instants.push_back(1700000000000ULL + static_cast<uint64_t>(i) * 3599999ULL);
    std::vector<std::tm> expected;
    for (uint64_t ms : instants)
        expected.push_back(c_local(static_cast<std::time_t>(ms / 1000)));

    std::vector<int> mismatches(THREADS, 0);
    util_test::run_threads(THREADS, [&](int id) {
        for (int round = 0; round < 2000; ++round) {
            const size_t i = static_cast<size_t>(round * (id + 1) + id) % instants.size();
            const local_date_t d = local_date_t::from_epoch_ms(instants[i]);
            if (!matches_tm(d, expected[i]) || d.m_millisecond != instants[i] % 1000)
                ++mismatches[static_cast<size_t>(id)];
        }
    });
    for (int id = 0; id < THREADS; ++id)
        EXPECT_EQ(0, mismatches[static_cast<size_t>(id)]) << "thread " << id;
}

TEST(LocalDate, CopiesAreIndependentValues) {
    local_date_t a = make_date({2023, 5, 10, 1, 2, 3, 4}, 3);
    local_date_t b = a;
    b += int64_t(DAY_MS);
    EXPECT_TRUE(has_fields(a, {2023, 5, 10, 1, 2, 3, 4}));
    a = b;
    EXPECT_TRUE(has_fields(a, {2023, 5, 11, 1, 2, 3, 4}));
}

}  // namespace
