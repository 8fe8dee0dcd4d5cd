#include "replay/rtsp_request.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kMaxContentLengthDigits = 9;

// The end of the head (just behind the blank line) within size bytes, or 0.
size_t HeadEnd(const char *data, size_t size) {
    for (size_t i = 0; i + 1 < size; ++i) {
        if (data[i] != '\n') continue;
        if (data[i + 1] == '\n') return i + 2;
        if (data[i + 1] == '\r' && i + 2 < size && data[i + 2] == '\n') return i + 3;
    }
    return 0;
}

// Splits the head into lines without their line ends.
std::vector<std::string_view> HeadLines(std::string_view head) {
    std::vector<std::string_view> lines;
    while (!head.empty()) {
        size_t end = head.find('\n');
        std::string_view line = head.substr(0, end);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (!line.empty()) lines.push_back(line);
        if (end == std::string_view::npos) break;
        head.remove_prefix(end + 1);
    }
    return lines;
}

bool PrintableToken(std::string_view text) {
    if (text.empty()) return false;
    for (char c : text) {
        if (c <= ' ' || c == 0x7F) return false;
    }
    return true;
}

bool ParseRequestLine(std::string_view line, RtspRequest *request) {
    size_t first = line.find(' ');
    if (first == std::string_view::npos) return false;
    size_t second = line.find(' ', first + 1);
    if (second == std::string_view::npos) return false;
    std::string_view method = line.substr(0, first);
    std::string_view uri = line.substr(first + 1, second - first - 1);
    std::string_view version = line.substr(second + 1);
    if (!PrintableToken(method) || !PrintableToken(uri) || !PrintableToken(version)) return false;
    if (version.substr(0, 5) != "RTSP/" && version.substr(0, 5) != "HTTP/") return false;
    request->method = method;
    request->uri = uri;
    request->version = version;
    return true;
}

bool ParseHeaderLine(std::string_view line, RtspRequest *request) {
    size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) return false;
    std::string_view name = line.substr(0, colon);
    if (!PrintableToken(name)) return false;
    request->headers.emplace_back(std::string(name), std::string(RtspTrim(line.substr(colon + 1))));
    return true;
}

// The body length the headers announce; false when it is no number or over the bound.
bool BodyLength(const RtspRequest &request, size_t *length) {
    *length = 0;
    const std::string *value = request.Header("Content-Length");
    if (value == nullptr) return true;
    if (value->empty() || value->size() > kMaxContentLengthDigits) return false;
    for (char c : *value) {
        if (!isdigit(static_cast<unsigned char>(c))) return false;
    }
    *length = strtoul(value->c_str(), nullptr, 10);
    return *length <= kRtspMaxBodyBytes;
}

}  // namespace

bool RtspNameEquals(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (tolower(static_cast<unsigned char>(a[i])) != tolower(static_cast<unsigned char>(b[i])))
            return false;
    }
    return true;
}

std::string_view RtspTrim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

const std::string *RtspRequest::Header(std::string_view name) const {
    for (const auto &[key, value] : headers) {
        if (RtspNameEquals(key, name)) return &value;
    }
    return nullptr;
}

std::vector<std::pair<std::string, std::string>> RtspSplitParameters(std::string_view value, char separator) {
    std::vector<std::pair<std::string, std::string>> parameters;
    while (!value.empty()) {
        size_t end = value.find(separator);
        std::string_view item = RtspTrim(value.substr(0, end));
        if (!item.empty()) {
            size_t equals = item.find('=');
            std::string_view name = RtspTrim(item.substr(0, equals));
            std::string_view content =
                equals == std::string_view::npos ? "" : RtspTrim(item.substr(equals + 1));
            parameters.emplace_back(std::string(name), std::string(content));
        }
        if (end == std::string_view::npos) break;
        value.remove_prefix(end + 1);
    }
    return parameters;
}

RtspParse RtspParseRequest(const char *data, size_t size, RtspRequest *request, size_t *consumed) {
    size_t headEnd = HeadEnd(data, std::min(size, kRtspMaxHeadBytes));
    if (headEnd == 0) return size >= kRtspMaxHeadBytes ? kRtspMalformed : kRtspIncomplete;
    *request = RtspRequest{};
    std::vector<std::string_view> lines = HeadLines(std::string_view(data, headEnd));
    if (lines.empty() || lines.size() > kRtspMaxHeaders + 1) return kRtspMalformed;
    if (!ParseRequestLine(lines[0], request)) return kRtspMalformed;
    for (size_t i = 1; i < lines.size(); ++i) {
        if (!ParseHeaderLine(lines[i], request)) return kRtspMalformed;
    }
    size_t bodyLength;
    if (!BodyLength(*request, &bodyLength)) return kRtspMalformed;
    if (size - headEnd < bodyLength) return kRtspIncomplete;
    request->body.assign(data + headEnd, bodyLength);
    *consumed = headEnd + bodyLength;
    return kRtspParsed;
}
