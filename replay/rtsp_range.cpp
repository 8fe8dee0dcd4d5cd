#include "replay/rtsp_range.h"

#include <cctype>
#include <cstdio>
#include <ctime>

#include "common/card_time.h"
#include "replay/rtp_packetizer.h"
#include "tools/calendar_time.h"

namespace {

constexpr int kMaxFractionDigits = 6;
constexpr uint64_t kMaxEpochDigits = 12;  // seconds since 1970, far beyond the card's last time
constexpr uint64_t kMsPerSecond = 1000;
constexpr uint64_t kUsPerMs = 1000;

struct Cursor {
    std::string_view text;
    bool Done() const { return text.empty(); }
    bool Take(char c) {
        if (text.empty() || text.front() != c) return false;
        text.remove_prefix(1);
        return true;
    }
    bool Digits(size_t count, int *value) {
        if (text.size() < count) return false;
        int v = 0;
        for (size_t i = 0; i < count; ++i) {
            if (!isdigit(static_cast<unsigned char>(text[i]))) return false;
            v = v * 10 + (text[i] - '0');
        }
        text.remove_prefix(count);
        *value = v;
        return true;
    }
    // ".ddd" (optional): the fraction in microseconds.
    bool Fraction(uint64_t *us) {
        *us = 0;
        if (!Take('.')) return true;
        int digits = 0;
        uint64_t scale = kUsPerSecond;
        while (!text.empty() && isdigit(static_cast<unsigned char>(text.front()))) {
            if (digits < kMaxFractionDigits) {
                scale /= 10;
                *us += static_cast<uint64_t>(text.front() - '0') * scale;
            }
            ++digits;
            text.remove_prefix(1);
        }
        return digits > 0;
    }
};

bool CivilToUs(const DateTime &c, uint64_t fractionUs, uint64_t *us) {
    if (c.month < 1 || c.month > 12 || c.day < 1 || c.day > 31 || c.hour > 23 || c.minute > 59 ||
        c.second > 60)
        return false;
    int64_t seconds = UtcSeconds(c);
    if (seconds < 0) return false;
    *us = static_cast<uint64_t>(seconds) * kUsPerSecond + fractionUs;
    return true;
}

// The whole seconds of the time in UTC, by the strftime format.
std::string FormatUtc(uint64_t us, const char *format) {
    struct tm fields;
    time_t seconds = static_cast<time_t>(us / kUsPerSecond);
    char text[40];
    if (gmtime_r(&seconds, &fields) == nullptr || strftime(text, sizeof text, format, &fields) == 0)
        return "";
    return text;
}

bool ParseEpochSeconds(std::string_view text, uint64_t *us) {
    if (text.empty() || text.size() > kMaxEpochDigits) return false;
    Cursor cursor{text};
    uint64_t seconds = 0;
    while (!cursor.Done() && isdigit(static_cast<unsigned char>(cursor.text.front()))) {
        seconds = seconds * 10 + static_cast<uint64_t>(cursor.text.front() - '0');
        cursor.text.remove_prefix(1);
    }
    if (cursor.text.size() == text.size()) return false;
    uint64_t fraction;
    if (!cursor.Fraction(&fraction) || !cursor.Done()) return false;
    *us = seconds * kUsPerSecond + fraction;
    return true;
}

// "12.5" seconds or "hh:mm:ss(.f)" of an npt time.
bool ParseNptSeconds(std::string_view text, uint64_t *us) {
    size_t colon = text.find(':');
    if (colon == std::string_view::npos) return ParseEpochSeconds(text, us);
    uint64_t hoursUs;
    if (!ParseEpochSeconds(text.substr(0, colon), &hoursUs)) return false;
    Cursor cursor{text.substr(colon + 1)};
    int minutes, seconds;
    uint64_t fraction;
    if (!cursor.Digits(2, &minutes) || !cursor.Take(':') || !cursor.Digits(2, &seconds) ||
        !cursor.Fraction(&fraction) || !cursor.Done() || minutes > 59 || seconds > 59)
        return false;
    *us = hoursUs * 3600 +
          (static_cast<uint64_t>(minutes) * 60 + static_cast<uint64_t>(seconds)) * kUsPerSecond + fraction;
    return true;
}

bool ParseNptTime(std::string_view text, uint64_t base, uint64_t now, uint64_t *us, bool *from1900) {
    *from1900 = false;
    if (text == "now") {
        *us = now;
        return true;
    }
    uint64_t offset;
    if (!ParseNptSeconds(text, &offset)) return false;
    *from1900 = offset >= kNtpUnixOffset * kUsPerSecond;
    *us = *from1900 ? offset - kNtpUnixOffset * kUsPerSecond : base + offset;
    return true;
}

// "12.345" seconds of an npt time.
std::string FormatNptSeconds(uint64_t us) {
    char text[32];
    snprintf(text, sizeof text, "%llu.%03llu", static_cast<unsigned long long>(us / kUsPerSecond),
             static_cast<unsigned long long>(us % kUsPerSecond / kUsPerMs));
    return text;
}

// The two sides of "from-to"; to may be empty.
bool SplitRange(std::string_view text, std::string_view *from, std::string_view *to) {
    size_t semicolon = text.find(';');  // ";time=..." is not taken
    text = text.substr(0, semicolon);
    size_t dash = text.find('-');
    if (dash == std::string_view::npos || dash == 0) return false;
    *from = text.substr(0, dash);
    *to = text.substr(dash + 1);
    return true;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// "%3A" for ":" and "+" for a blank, as browsers and some players escape a time.
std::string PercentDecode(std::string_view text) {
    std::string decoded;
    for (size_t i = 0; i < text.size(); ++i) {
        int high = i + 2 < text.size() && text[i] == '%' ? HexDigit(text[i + 1]) : -1;
        int low = high >= 0 ? HexDigit(text[i + 2]) : -1;
        if (low >= 0) {
            decoded += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            decoded += text[i] == '+' ? ' ' : text[i];
        }
    }
    return decoded;
}

std::string_view Trim(std::string_view text) {
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    return text;
}

}  // namespace

uint64_t ReplayClockUs(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * kUsPerSecond + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

bool RtspParseClockTime(std::string_view text, uint64_t *us) {
    Cursor cursor{text};
    DateTime c{};
    uint64_t fraction;
    if (!cursor.Digits(4, &c.year) || !cursor.Digits(2, &c.month) || !cursor.Digits(2, &c.day) ||
        !cursor.Take('T') || !cursor.Digits(2, &c.hour) || !cursor.Digits(2, &c.minute) ||
        !cursor.Digits(2, &c.second) || !cursor.Fraction(&fraction) || !cursor.Take('Z') || !cursor.Done())
        return false;
    return CivilToUs(c, fraction, us);
}

std::string RtspFormatClockTime(uint64_t us) {
    std::string text = FormatUtc(us, "%Y%m%dT%H%M%S");
    uint64_t ms = us % kUsPerSecond / kUsPerMs;
    if (ms != 0) {
        char fraction[8];
        snprintf(fraction, sizeof fraction, ".%03u", static_cast<unsigned>(ms));
        text += fraction;
    }
    return text + "Z";
}

bool RtspParseUrlTime(std::string_view text, uint64_t *us) {
    if (ParseEpochSeconds(text, us)) return true;
    Cursor cursor{text};
    DateTime c{};
    uint64_t fraction;
    if (!cursor.Digits(4, &c.year) || !cursor.Take('-') || !cursor.Digits(2, &c.month) || !cursor.Take('-') ||
        !cursor.Digits(2, &c.day) || !(cursor.Take('T') || cursor.Take('t') || cursor.Take(' ')) ||
        !cursor.Digits(2, &c.hour) || !cursor.Take(':') || !cursor.Digits(2, &c.minute) ||
        !cursor.Take(':') || !cursor.Digits(2, &c.second) || !cursor.Fraction(&fraction))
        return false;
    bool utc = cursor.Take('Z') || cursor.Take('z') || cursor.text == "+00:00" || cursor.text == "-00:00";
    if (!utc) return false;
    return CivilToUs(c, fraction, us);
}

std::string RtspFormatUrlTime(uint64_t us) { return FormatUtc(us, "%Y-%m-%dT%H:%M:%SZ"); }

bool RtspParseRange(std::string_view value, uint64_t nptBaseUs, uint64_t nowUs, ReplayRange *range,
                    RtspRangeUnit *unit) {
    value = Trim(value);
    std::string_view from, to;
    ReplayRange parsed = {0, 0};
    RtspRangeUnit parsedUnit = RtspRangeUnit::kClock;
    if (value.substr(0, 6) == "clock=") {
        if (!SplitRange(value.substr(6), &from, &to)) return false;
        if (!RtspParseClockTime(from, &parsed.u64FromUs)) return false;
        if (!to.empty() && !RtspParseClockTime(to, &parsed.u64ToUs)) return false;
    } else if (value.substr(0, 4) == "npt=") {
        bool from1900, to1900;
        if (!SplitRange(value.substr(4), &from, &to)) return false;
        if (!ParseNptTime(from, nptBaseUs, nowUs, &parsed.u64FromUs, &from1900)) return false;
        if (!to.empty() && !ParseNptTime(to, nptBaseUs, nowUs, &parsed.u64ToUs, &to1900)) return false;
        parsedUnit = from1900 ? RtspRangeUnit::kNptFrom1900 : RtspRangeUnit::kNpt;
    } else {
        return false;
    }
    if (parsed.u64ToUs != 0 && parsed.u64ToUs < parsed.u64FromUs) return false;
    *range = parsed;
    if (unit != nullptr) *unit = parsedUnit;
    return true;
}

std::string RtspFormatRange(RtspRangeUnit unit, uint64_t nptBaseUs, uint64_t fromUs, uint64_t toUs) {
    if (unit == RtspRangeUnit::kClock)
        return "clock=" + RtspFormatClockTime(fromUs) + "-" + (toUs != 0 ? RtspFormatClockTime(toUs) : "");
    uint64_t origin = unit == RtspRangeUnit::kNptFrom1900 ? 0 : nptBaseUs;
    uint64_t shift = unit == RtspRangeUnit::kNptFrom1900 ? kNtpUnixOffset * kUsPerSecond : 0;
    std::string text = "npt=" + FormatNptSeconds(fromUs > origin ? fromUs - origin + shift : shift) + "-";
    if (toUs > origin) text += FormatNptSeconds(toUs - origin + shift);
    return text;
}

std::string_view RtspUrlPath(std::string_view uri) {
    size_t scheme = uri.find("://");
    if (scheme != std::string_view::npos) {
        size_t slash = uri.find('/', scheme + 3);
        uri = slash == std::string_view::npos ? std::string_view("/") : uri.substr(slash);
    }
    return uri.substr(0, uri.find('?'));
}

std::string_view RtspUrlQuery(std::string_view uri) {
    size_t question = uri.find('?');
    return question == std::string_view::npos ? std::string_view() : uri.substr(question + 1);
}

bool RtspQueryValue(std::string_view query, std::string_view key, std::string *value) {
    while (!query.empty()) {
        size_t end = query.find('&');
        std::string_view item = query.substr(0, end);
        size_t equals = item.find('=');
        if (item.substr(0, equals) == key) {
            *value = PercentDecode(equals == std::string_view::npos ? "" : item.substr(equals + 1));
            return true;
        }
        if (end == std::string_view::npos) break;
        query.remove_prefix(end + 1);
    }
    value->clear();
    return false;
}

bool RtspUrlRange(std::string_view uri, ReplayRange *range) {
    std::string_view query = RtspUrlQuery(uri);
    std::string text;
    ReplayRange parsed = {0, 0};
    if (RtspQueryValue(query, "start", &text) && !RtspParseUrlTime(text, &parsed.u64FromUs)) return false;
    if (RtspQueryValue(query, "end", &text) && !RtspParseUrlTime(text, &parsed.u64ToUs)) return false;
    if (parsed.u64ToUs != 0 && parsed.u64ToUs < parsed.u64FromUs) return false;
    *range = parsed;
    return true;
}
