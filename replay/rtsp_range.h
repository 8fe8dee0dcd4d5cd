// Times a replay client asks for: the Range header (ONVIF "clock=" or
// "npt="), and start=/end= on the URL for clients that send plain RTSP.
// Every time here is microseconds since 1970-01-01 UTC.
#pragma once

#include <time.h>

#include <cstdint>
#include <string>
#include <string_view>

inline constexpr uint64_t kUsPerSecond = 1000000;

struct ReplayRange {
    uint64_t u64FromUs;  // where playback starts
    uint64_t u64ToUs;    // where it ends; 0: open (into the live recording)
};

// The clock (CLOCK_MONOTONIC for pacing and timeouts, CLOCK_REALTIME for
// "now") in microseconds.
uint64_t ReplayClockUs(clockid_t clock);

// "20261125T050118Z" or "20261125T050118.25Z". False for anything else.
bool RtspParseClockTime(std::string_view text, uint64_t *us);

// "20261125T050118Z", with ".mmm" when the time has milliseconds.
std::string RtspFormatClockTime(uint64_t us);

// A URL time: RFC 3339 UTC ("2026-11-25T05:01:18Z", fractions allowed, "+00:00"
// as well as "Z") or seconds since 1970. False for anything else.
bool RtspParseUrlTime(std::string_view text, uint64_t *us);

// "2026-11-25T05:01:18Z".
std::string RtspFormatUrlTime(uint64_t us);

// How a Range header counts its times; the answer to a PLAY counts alike.
enum class RtspRangeUnit {
    kClock,        // clock=: UTC
    kNpt,          // npt=: seconds from the play's origin (the URL's start=, or the oldest recording)
    kNptFrom1900,  // npt=: seconds since 1900-01-01 UTC, as a player reads a clock= range into npt
};

// A Range header value. "clock=" times are absolute; "npt=" seconds count
// from nptBaseUs ("now" meaning the present, nowUs), except that an npt time
// of 1970 or later counted from 1900 (2208988800 s and more) is that UTC time:
// a player that keeps the description's clock= range as npt asks that way.
// An absent end stays 0. False for a range this server does not take (smpte,
// an end before the start). *unit (when given) tells how the start counted.
bool RtspParseRange(std::string_view value, uint64_t nptBaseUs, uint64_t nowUs, ReplayRange *range,
                    RtspRangeUnit *unit = nullptr);

// "clock=...-..." or "npt=...-..." of the times in the unit (the end left
// open when 0), npt counted from nptBaseUs (kNpt) or from 1900 (kNptFrom1900).
std::string RtspFormatRange(RtspRangeUnit unit, uint64_t nptBaseUs, uint64_t fromUs, uint64_t toUs);

// The path of an RTSP URL ("rtsp://host:port/replay?start=..." -> "/replay"),
// its query, and the value of one query key ("" and false when absent).
std::string_view RtspUrlPath(std::string_view uri);
std::string_view RtspUrlQuery(std::string_view uri);
bool RtspQueryValue(std::string_view query, std::string_view key, std::string *value);

// start= and end= of the URL's query. 0 in either when absent; false when one
// is there but no time.
bool RtspUrlRange(std::string_view uri, ReplayRange *range);
