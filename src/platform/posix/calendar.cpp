#include <time.h>

#include "../platform.h"

namespace ssb {
namespace plat {

namespace {

void from_tm(const struct tm& t, uint16_t millisecond, calendar_t* out) {
    out->year = static_cast<uint16_t>(t.tm_year + 1900);
    out->month = static_cast<uint16_t>(t.tm_mon + 1);
    out->day = static_cast<uint16_t>(t.tm_mday);
    out->hour = static_cast<uint16_t>(t.tm_hour);
    out->minute = static_cast<uint16_t>(t.tm_min);
    out->second = static_cast<uint16_t>(t.tm_sec);
    out->millisecond = millisecond;
    out->day_of_week = static_cast<uint16_t>(t.tm_wday);
}

}  // namespace

void local_time_now(calendar_t* out) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm t;
    time_t seconds = ts.tv_sec;
    localtime_r(&seconds, &t);
    from_tm(t, static_cast<uint16_t>(ts.tv_nsec / 1000000), out);
}

int64_t time_seconds() { return static_cast<int64_t>(time(nullptr)); }

bool seconds_to_local(int64_t seconds, calendar_t* out) {
    time_t s = static_cast<time_t>(seconds);
    struct tm t;
    if (!localtime_r(&s, &t))
        return false;
    from_tm(t, 0, out);
    return true;
}

bool seconds_to_utc(int64_t seconds, calendar_t* out) {
    time_t s = static_cast<time_t>(seconds);
    struct tm t;
    if (!gmtime_r(&s, &t))
        return false;
    from_tm(t, 0, out);
    return true;
}

}  // namespace plat
}  // namespace ssb
