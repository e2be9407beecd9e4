#include "date.h"

#include "platform/platform.h"

namespace ssb {

namespace {

template <class date_type>
void assign(date_type& d, const plat::calendar_t& c) {
    d.m_year = c.year;
    d.m_month = c.month;
    d.m_day = c.day;
    d.m_hour = c.hour;
    d.m_minute = c.minute;
    d.m_second = c.second;
    d.m_millisecond = c.millisecond;
    d.m_day_of_week = c.day_of_week;
}

plat::calendar_t seconds_to_local(int64_t seconds) {
    plat::calendar_t c = plat::calendar_t();
    plat::seconds_to_local(seconds, &c);
    return c;
}

}  // namespace

local_date_t::local_date_t(uint64_t* clock_select) {
    plat::calendar_t c;
    if (clock_select)
        plat::local_time_now(&c);
    else
        c = seconds_to_local(plat::time_seconds());
    assign(*this, c);
}

local_date_t local_date_t::from_epoch_ms(uint64_t ms) {
    // Log headers ask many times a second: break the second down once per
    // thread and only add the milliseconds.
    struct cache_t {
        int64_t second;
        plat::calendar_t calendar;
    };
    static thread_local cache_t s_cache = {-1, plat::calendar_t()};
    const int64_t second = static_cast<int64_t>(ms / 1000);
    if (second != s_cache.second) {
        s_cache.calendar = seconds_to_local(second);
        s_cache.second = second;
    }
    local_date_t d;
    assign(d, s_cache.calendar);
    d.m_millisecond = static_cast<unsigned short>(ms % 1000);
    return d;
}

gmt_date_t::gmt_date_t(uint64_t* clock_select) {
    plat::calendar_t c = plat::calendar_t();
    if (clock_select) {
        // 100-ns units since 1601 to milliseconds since 1970.
        uint64_t ms = (plat::system_time_100ns() - 116444736000000000ULL) / 10000;
        plat::seconds_to_utc(static_cast<int64_t>(ms / 1000), &c);
        c.millisecond = static_cast<uint16_t>(ms % 1000);
    } else {
        plat::seconds_to_utc(plat::time_seconds(), &c);
    }
    assign(*this, c);
}

}  // namespace ssb
