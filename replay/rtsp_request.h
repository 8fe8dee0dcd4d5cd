// RTSP requests off a client's connection: the request line, the headers and
// a body of Content-Length bytes, each bounded, so a hostile client can make
// the server hold no more than one request's worth of bytes.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

inline constexpr size_t kRtspMaxHeadBytes = 8192;  // request line and headers
inline constexpr size_t kRtspMaxHeaders = 48;
inline constexpr size_t kRtspMaxBodyBytes = 4096;

struct RtspRequest {
    std::string method;
    std::string uri;
    std::string version;
    std::vector<std::pair<std::string, std::string>> headers;  // in order, names as sent
    std::string body;

    // The value of the first header of that name (any letter case), or nullptr.
    const std::string *Header(std::string_view name) const;
};

enum RtspParse {
    kRtspParsed = 0,      // *request filled, *consumed bytes taken
    kRtspIncomplete = 1,  // more bytes are needed
    kRtspMalformed = -1,  // not a request, or over a bound
};

// Parses one request at the start of data (lines end in CRLF or LF).
RtspParse RtspParseRequest(const char *data, size_t size, RtspRequest *request, size_t *consumed);

// Case-insensitive comparison of ASCII names.
bool RtspNameEquals(std::string_view a, std::string_view b);

// The text without leading and trailing blanks.
std::string_view RtspTrim(std::string_view text);

// The parameters of a header value "a;b=c;d": each with its value ("" when
// none), names as sent.
std::vector<std::pair<std::string, std::string>> RtspSplitParameters(std::string_view value, char separator);
