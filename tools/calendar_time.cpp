#include "tools/calendar_time.h"

#include <ctime>

namespace {

DateTime FromTm(const struct tm &t) {
    return DateTime{t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, t.tm_wday};
}

}  // namespace

DateTime UtcDateTime(uint32_t seconds) {
    time_t value = static_cast<time_t>(seconds);
    struct tm t {};
    gmtime_r(&value, &t);
    return FromTm(t);
}

DateTime LocalDateTime(uint32_t seconds) {
    time_t value = static_cast<time_t>(seconds);
    struct tm t {};
    localtime_r(&value, &t);
    return FromTm(t);
}

int64_t LocalSeconds(const DateTime &local) {
    struct tm t {};
    t.tm_year = local.year - 1900;
    t.tm_mon = local.month - 1;
    t.tm_mday = local.day;
    t.tm_hour = local.hour;
    t.tm_min = local.minute;
    t.tm_sec = local.second;
    t.tm_isdst = -1;
    time_t value = mktime(&t);
    return static_cast<int64_t>(value);
}
