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
typedef std::vector<int> fields_t;  // year, month, day, hour, minute, second, millisecond

local_date_t make_date(const fields_t& f) {
    local_date_t d = local_date_t::from_epoch_ms(0);
    unsigned short* out[] = {&d.m_year, &d.m_month, &d.m_day, &d.m_hour, &d.m_minute, &d.m_second, &d.m_millisecond};
    for (size_t i = 0; i < 7; ++i)
        *out[i] = static_cast<unsigned short>(f[i]);
    d.m_day_of_week = 3;  // additions leave it as it is
    return d;
}

template <class date_type>
fields_t fields(const date_type& d) {
    return {d.m_year, d.m_month, d.m_day, d.m_hour, d.m_minute, d.m_second, d.m_millisecond, d.m_day_of_week};
}
// The C library as the oracle, in whatever zone the process runs; only the main thread calls it.
fields_t c_fields(std::time_t s, int ms, bool utc) {
    const std::tm t = utc ? *std::gmtime(&s) : *std::localtime(&s);
    return {t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, ms, t.tm_wday};
}

TEST(LocalDate, DayOfWeekAcrossCenturyLeapRulesAndMonthZero) {
    const int cases[][4] = {{1970, 1, 1, 4}, {2000, 2, 29, 2}, {1900, 3, 1, 4}, {2100, 3, 1, 1}, {2024, 0, 1, 5}};
    for (const auto& c : cases)
        EXPECT_EQ(c[3], make_date({c[0], c[1], c[2], 12, 0, 0, 0}).dayofweek()) << c[0] << "-" << c[1] << "-" << c[2];
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
        {{2023, 1, 28, 0, 0, 0, 0}, DAY_MS, {2023, 2, 1, 0, 0, 0, 0}},  // limited by February's length
        {{1900, 1, 28, 0, 0, 0, 0}, DAY_MS, {1900, 2, 1, 0, 0, 0, 0}},
        {{2000, 1, 28, 0, 0, 0, 0}, DAY_MS, {2000, 1, 29, 0, 0, 0, 0}},
        {{2023, 11, 31, 0, 0, 0, 0}, DAY_MS, {2024, 0, 1, 0, 0, 0, 0}},  // after November: month 0
        {{2023, 12, 31, 0, 0, 0, 0}, DAY_MS, {2024, 1, 1, 0, 0, 0, 0}},
        {{2023, 11, 15, 8, 30, 0, 250}, 60 * DAY_MS + 123456, {2024, 1, 13, 8, 32, 3, 706}},
        {{2024, 2, 10, 23, 59, 59, 999}, 400 * DAY_MS + 1, {2025, 3, 15, 0, 0, 0, 0}},
        {{2023, 5, 10, 0, 0, 0, 600}, -1500, {2023, 5, 10, 0, 0, 0, 100}},  // negative: milliseconds only
        {{2023, 5, 10, 7, 8, 9, 10}, INT64_MIN, {2023, 5, 10, 7, 8, 9, 202}},
    };
    for (const auto& c : cases) {
        local_date_t d = make_date(c.start);
        EXPECT_EQ(&d, &(d += c.amount));
        EXPECT_EQ(fields(make_date(c.want)), fields(d))
            << c.start[0] << "-" << c.start[1] << "-" << c.start[2] << " + " << c.amount;
    }
    EXPECT_EQ(fields(make_date({2023, 2, 22, 17, 2, 47, 295})),
              fields(make_date({2023, 1, 1, 0, 0, 0, 0}) + 0xFFFFFFFFu));
}

TEST(LocalDate, ClockConstructorsAndFromEpochMsMatchTheCLibraryAlsoUnderThreads) {
    using namespace std::chrono;
    auto now_ms = [] { return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count(); };
    uint64_t unused = 0;
    for (;;) {  // until one second holds all four readings; the window opens early for a lagging clock
        const int64_t early = now_ms() - 100;
        const local_date_t whole(nullptr), precise(&unused);
        const gmt_date_t gmt_whole(nullptr), gmt_precise(&unused);
        const std::time_t before = static_cast<std::time_t>(now_ms() / 1000);
        if (early / 1000 != before)
            continue;
        EXPECT_EQ(c_fields(before, 0, false), fields(whole));
        EXPECT_EQ(c_fields(before, precise.m_millisecond, false), fields(precise));
        EXPECT_EQ(c_fields(before, 0, true), fields(gmt_whole));
        EXPECT_EQ(c_fields(before, gmt_precise.m_millisecond, true), fields(gmt_precise));
        break;
    }
    std::vector<uint64_t> spread = {0, 999, 1000, 951782400500ULL, 2147483647000ULL};
    for (uint64_t i = 0; i < 11; ++i)
        spread.push_back(1700000000000ULL + i * 3599999ULL);
    std::vector<fields_t> expected;
    for (uint64_t ms : spread)
        expected.push_back(c_fields(static_cast<std::time_t>(ms / 1000), static_cast<int>(ms % 1000), false));
    std::vector<int> mismatches(4, 0);
    util_test::run_threads(4, [&](int id) {
        for (int round = 0; round < 1000; ++round) {
            const size_t i = static_cast<size_t>(round * (id + 1) + id) % spread.size();
            if (fields(local_date_t::from_epoch_ms(spread[i])) != expected[i])
                ++mismatches[static_cast<size_t>(id)];
        }
    });
    EXPECT_EQ(std::vector<int>(4, 0), mismatches);
}

}  // namespace
