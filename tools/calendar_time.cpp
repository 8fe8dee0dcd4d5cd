#include "tools/calendar_time.h"

#include <algorithm>
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
constexpr int64_t kSecondsPerDay = 86400;
constexpr int64_t kSecondsPerHour = 3600;
// Offsets before and after a change are looked up this far away: the
// clocks of a zone change at most once in that time.
constexpr int64_t kOffsetLookAround = kSecondsPerDay;

DateTime FromTm(const struct tm &t) {
    return DateTime{t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, t.tm_wday};
}

struct tm LocalTm(int64_t seconds) {
    time_t value = static_cast<time_t>(seconds);
    struct tm t {};
    localtime_r(&value, &t);
    return t;
}

int32_t OffsetAt(int64_t seconds) { return static_cast<int32_t>(LocalTm(seconds).tm_gmtoff); }

// The moments whose local clock reads `asUtc` (local fields as if UTC): two
// in the repeated hour, none in the skipped one, else one. Returns how many.
int LocalMoments(int64_t asUtc, int64_t moments[2]) {
    int32_t before = OffsetAt(asUtc - kOffsetLookAround);
    int32_t after = OffsetAt(asUtc + kOffsetLookAround);
    // The larger offset gives the earlier moment.
    const int32_t offsets[2] = {std::max(before, after), std::min(before, after)};
    int candidates = before == after ? 1 : 2;
    int found = 0;
    for (int i = 0; i < candidates; ++i) {
        int64_t moment = asUtc - offsets[i];
        if (OffsetAt(moment) == offsets[i]) moments[found++] = moment;
    }
    return found;
}

}  // namespace

DateTime UtcDateTime(uint32_t seconds) {
    struct tm t {};
    CardTimeUtc(seconds, &t);
    return FromTm(t);
}

int64_t UtcSeconds(const DateTime &utc) {
    struct tm t {};
    t.tm_year = utc.year - 1900;
    t.tm_mon = utc.month - 1;
    t.tm_mday = utc.day;
    t.tm_hour = utc.hour;
    t.tm_min = utc.minute;
    t.tm_sec = utc.second;
    return static_cast<int64_t>(timegm(&t));
}

DateTime LocalDateTime(uint32_t seconds) { return FromTm(LocalTm(CardTimeToTime(seconds))); }

namespace {

std::string DateText(const DateTime &t) {
    char text[kTimeTextSize];
    snprintf(text, sizeof text, "%04d-%02d-%02d", t.year, t.month, t.day);
    return text;
}

std::string ClockFieldsText(const DateTime &t) {
    char text[kTimeTextSize];
    snprintf(text, sizeof text, "%02d:%02d:%02d", t.hour, t.minute, t.second);
    return text;
}

}  // namespace

std::string LocalClockText(uint32_t seconds) {
    std::string out = ClockFieldsText(LocalDateTime(seconds));
    if (LocalTimeRepeats(seconds)) {
        out += ' ';
        out += LocalZoneName(seconds);
    }
    return out;
}

std::string LocalTimeText(uint32_t seconds) {
    std::string out = DateText(LocalDateTime(seconds));
    out += ' ';
    out += LocalClockText(seconds);
    return out;
}

std::string UtcTimeText(uint32_t seconds) {
    DateTime t = UtcDateTime(seconds);
    std::string out = DateText(t);
    out += ' ';
    out += ClockFieldsText(t);
    return out;
}

int64_t LocalSeconds(const DateTime &local) {
    int64_t asUtc = UtcSeconds(local);
    if (asUtc == -1) return -1;
    int64_t moments[2];
    if (LocalMoments(asUtc, moments) == 0) return asUtc - OffsetAt(asUtc - kOffsetLookAround);
    return moments[0];  // the earlier one when there are two
}

int32_t LocalUtcOffset(uint32_t seconds) { return OffsetAt(CardTimeToTime(seconds)); }

std::string LocalZoneName(uint32_t seconds) {
    struct tm t = LocalTm(CardTimeToTime(seconds));
    return t.tm_zone != nullptr ? t.tm_zone : "";
}

bool LocalTimeRepeats(uint32_t seconds) {
    int64_t moments[2];
    int64_t at = CardTimeToTime(seconds);
    return LocalMoments(at + OffsetAt(at), moments) == 2;
}

std::vector<LocalClockSpan> LocalClockSpans(uint32_t from, uint32_t to) {
    std::vector<LocalClockSpan> spans{{from, LocalUtcOffset(from), LocalZoneName(from)}};
    // Hour by hour, then to the second inside the hour where the offset changed.
    for (int64_t at = from; at < to;) {
        int64_t next = std::min<int64_t>(at + kSecondsPerHour, to);
        if (OffsetAt(next) != spans.back().offset) {
            int64_t low = at, high = next;  // offset of low is the span's, of high is not
            while (high - low > 1) {
                int64_t middle = low + (high - low) / 2;
                (OffsetAt(middle) == spans.back().offset ? low : high) = middle;
            }
            uint32_t change = static_cast<uint32_t>(high);
            spans.push_back({change, LocalUtcOffset(change), LocalZoneName(change)});
            next = high;
        }
        at = next;
    }
    return spans;
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
