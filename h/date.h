// Broken-down calendar values, local and UTC. Plain values: copy freely.
#ifndef SSB_DATE_H
#define SSB_DATE_H

#include "util_def.h"

namespace ssb {

class UTIL_API local_date_t {
public:
    // Now. A non-null argument reads the system's local time, milliseconds
    // included; null reads whole seconds from the C library (millisecond 0).
    // The pointed-to value is not read.
    explicit local_date_t(uint64_t* clock_select);
    // The local time of `ms` milliseconds since 1970-01-01 UTC.
    static local_date_t from_epoch_ms(uint64_t ms);

    // Advances by `ms`, a day at a time. The day is checked against the
    // length of the following month (28 January + 1 day is 1 February; 30
    // November + 1 day is 31 November), the month after November is 0 of the
    // next year, and the day of week is left as it was. Negative amounts are
    // not supported: they only turn the millisecond field, modulo 1000.
    // Write amounts with their type (uint32_t or int64_t): a plain int
    // literal matches both overloads.
    local_date_t& operator+=(int64_t ms);
    local_date_t& operator+=(uint32_t ms);
    local_date_t operator+(uint32_t ms) const;
    // 0..6, Sunday = 0, from year, month and day.
    unsigned short dayofweek() const;

    unsigned short m_year;
    unsigned short m_month;
    unsigned short m_day;
    unsigned short m_hour;
    unsigned short m_minute;
    unsigned short m_second;
    unsigned short m_millisecond;
    unsigned short m_day_of_week;

private:
    local_date_t() {}
    static unsigned short get_day_of_mon(unsigned short year, unsigned short month);
};

class UTIL_API gmt_date_t {
public:
    // Now, in UTC; the argument selects the clock as for local_date_t.
    explicit gmt_date_t(uint64_t* clock_select);

    unsigned short m_year;
    unsigned short m_month;
    unsigned short m_day;
    unsigned short m_hour;
    unsigned short m_minute;
    unsigned short m_second;
    unsigned short m_millisecond;
    unsigned short m_day_of_week;
};

}  // namespace ssb

#endif
