#include "tools/calendar_time.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/card_time.h"

namespace {

// Six int fields of any value and the separators: the compiler cannot know
// the fields stay within their calendar ranges.
constexpr size_t kTimeTextSize = 80;

DateTime FromTm(const struct tm &t) {
    return DateTime{t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, t.tm_wday};
}

}  // namespace

DateTime UtcDateTime(uint32_t seconds) {
    struct tm t {};
    CardTimeUtc(seconds, &t);
    return FromTm(t);
}

DateTime LocalDateTime(uint32_t seconds) {
    struct tm t {};
    CardTimeLocal(seconds, &t);
    return FromTm(t);
}

namespace {

std::string DateTimeText(const DateTime &t) {
    char text[kTimeTextSize];
    snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", t.year, t.month, t.day, t.hour, t.minute,
             t.second);
    return text;
}

}  // namespace

std::string LocalTimeText(uint32_t seconds) { return DateTimeText(LocalDateTime(seconds)); }

std::string UtcTimeText(uint32_t seconds) { return DateTimeText(UtcDateTime(seconds)); }

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

namespace {

bool AllDigits(const char *text) {
    if (*text == '\0') return false;
    for (const char *p = text; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9') return false;
    }
    return true;
}

// The fields name a time the local clock shows (no 02-30, no 25:00).
bool ExistsLocally(const DateTime &fields, int64_t *seconds) {
    *seconds = LocalSeconds(fields);
    if (*seconds < 0 || *seconds > static_cast<int64_t>(UINT32_MAX)) return false;
    DateTime back = LocalDateTime(static_cast<uint32_t>(*seconds));
    return back.year == fields.year && back.month == fields.month && back.day == fields.day &&
           back.hour == fields.hour && back.minute == fields.minute && back.second == fields.second;
}

}  // namespace

bool ParseDate(const char *text, DateTime *date) {
    if (text == nullptr || date == nullptr) return false;
    DateTime fields{};
    int used = -1;
    if (std::sscanf(text, "%4d-%2d-%2d%n", &fields.year, &fields.month, &fields.day, &used) != 3 ||
        used != static_cast<int>(std::strlen(text))) {
        return false;
    }
    int64_t seconds = 0;
    if (!ExistsLocally(fields, &seconds)) return false;
    *date = fields;
    return true;
}

bool ParseTimeArgument(const char *text, uint32_t *seconds) {
    if (text == nullptr || seconds == nullptr) return false;
    if (AllDigits(text)) {
        errno = 0;
        unsigned long long value = std::strtoull(text, nullptr, 10);
        if (errno != 0 || value > UINT32_MAX) return false;
        *seconds = static_cast<uint32_t>(value);
        return true;
    }
    DateTime fields{};
    int used = -1;
    if (std::sscanf(text, "%4d-%2d-%2dT%2d:%2d:%2d%n", &fields.year, &fields.month, &fields.day, &fields.hour,
                    &fields.minute, &fields.second, &used) != 6 ||
        used != static_cast<int>(std::strlen(text))) {
        return false;
    }
    int64_t local = 0;
    if (!ExistsLocally(fields, &local)) return false;
    *seconds = static_cast<uint32_t>(local);
    return true;
}
