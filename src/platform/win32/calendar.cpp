#include <windows.h>

#include <time.h>

#include "../platform.h"

namespace ssb {
namespace plat {

namespace {

void from_tm(const struct tm& t, calendar_t* out) {
    out->year = static_cast<uint16_t>(t.tm_year + 1900);
    out->month = static_cast<uint16_t>(t.tm_mon + 1);
    out->day = static_cast<uint16_t>(t.tm_mday);
    out->hour = static_cast<uint16_t>(t.tm_hour);
    out->minute = static_cast<uint16_t>(t.tm_min);
    out->second = static_cast<uint16_t>(t.tm_sec);
    out->millisecond = 0;
    out->day_of_week = static_cast<uint16_t>(t.tm_wday);
}

}  // namespace

void local_time_now(calendar_t* out) {
    SYSTEMTIME st;
    GetLocalTime(&st);
    out->year = st.wYear;
    out->month = st.wMonth;
    out->day = st.wDay;
    out->hour = st.wHour;
    out->minute = st.wMinute;
    out->second = st.wSecond;
    out->millisecond = st.wMilliseconds;
    out->day_of_week = st.wDayOfWeek;
}

int64_t time_seconds() { return static_cast<int64_t>(_time64(nullptr)); }

bool seconds_to_local(int64_t seconds, calendar_t* out) {
    __time64_t s = seconds;
    struct tm t;
    if (_localtime64_s(&t, &s) != 0)
        return false;
    from_tm(t, out);
    return true;
}

bool seconds_to_utc(int64_t seconds, calendar_t* out) {
    __time64_t s = seconds;
    struct tm t;
    if (_gmtime64_s(&t, &s) != 0)
        return false;
    from_tm(t, out);
    return true;
}

}  // namespace plat
}  // namespace ssb
