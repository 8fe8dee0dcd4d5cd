#include "serve_admission.h"

#include <arpa/inet.h>

#include <algorithm>

#include "serve_connection.h"

namespace {

constexpr int kMaxPort = 65535;
constexpr int kHexBase = 16;

// A request must name this server in its Host header: a web site that
// points its own name at 127.0.0.1 gets nothing from the card.
bool HostAllowed(const httplib::Request &req, const ServeOptions &options, int port) {
    std::string host = LowerCase(req.get_header_value("Host"));
    std::string suffix(1, ':');
    suffix += std::to_string(port);
    if (host.size() > suffix.size() && host.compare(host.size() - suffix.size(), suffix.size(), suffix) == 0)
        host.resize(host.size() - suffix.size());
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    if (!IsLoopbackHost(options.host)) return true;
    return IsLoopbackHost(host);
}

// Starting a clip is the one call that takes POST; everything else is read
// with GET (or HEAD).
const char *AllowedMethods(const std::string &path) { return path == kClipsPath ? "POST" : "GET, HEAD"; }

bool MethodAllowed(const httplib::Request &req) {
    return req.path == kClipsPath ? req.method == "POST" : req.method == "GET" || req.method == "HEAD";
}

// A call that changes something must come from this server's own page:
// a browser names the page's origin and site on it, and a page of any
// other site is refused. Tools that send neither (curl) are taken.
bool FromOwnPage(const httplib::Request &req) {
    if (req.has_header("Sec-Fetch-Site") && req.get_header_value("Sec-Fetch-Site") != "same-origin")
        return false;
    return !req.has_header("Origin") ||
           LowerCase(req.get_header_value("Origin")) == "http://" + LowerCase(req.get_header_value("Host"));
}

bool HasControlCharacter(const std::string &text) {
    return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    c = static_cast<char>(c | 0x20);
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

}  // namespace

bool ParseListenAddress(const std::string &text, std::string *host, int *port) {
    size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 >= text.size() || colon + 6 < text.size())
        return false;
    std::string name = text.substr(0, colon);
    if (name.front() == '[') {
        if (name.size() < 3 || name.back() != ']') return false;
        name = name.substr(1, name.size() - 2);
    } else if (name.find(':') != std::string::npos) {
        return false;
    }
    int value = 0;
    for (char c : text.substr(colon + 1)) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    if (value > kMaxPort) return false;
    *host = name;
    *port = value;
    return true;
}

bool IsLoopbackHost(const std::string &host) {
    if (LowerCase(host) == "localhost" || host == "::1") return true;
    in_addr address;
    return inet_pton(AF_INET, host.c_str(), &address) == 1 && (ntohl(address.s_addr) >> 24) == 127;
}

bool DecodeQueryPart(const std::string &text, std::string *decoded) {
    decoded->clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            *decoded += ' ';
        } else if (text[i] != '%') {
            *decoded += text[i];
        } else {
            int high = i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
            int low = high >= 0 ? HexDigit(text[i + 2]) : -1;
            if (low < 0) return false;
            *decoded += static_cast<char>(high * kHexBase + low);
            i += 2;
        }
    }
    return true;
}

ApiReply ParseQuery(const std::string &target, ApiQuery *query) {
    size_t mark = target.find('?');
    if (mark == std::string::npos || mark + 1 == target.size()) return ApiReply{kHttpOk, ""};
    std::string text = target.substr(mark + 1);
    for (size_t at = 0; at <= text.size();) {
        size_t end = std::min(text.find('&', at), text.size());
        std::string part = text.substr(at, end - at);
        size_t equals = part.find('=');
        if (equals == 0 || equals == std::string::npos)
            return ApiError(kHttpBadRequest, "every parameter is NAME=VALUE, with a name");
        std::string name, value;
        if (!DecodeQueryPart(part.substr(0, equals), &name) ||
            !DecodeQueryPart(part.substr(equals + 1), &value))
            return ApiError(kHttpBadRequest, "a parameter holds a broken %-escape");
        if (HasControlCharacter(name) || HasControlCharacter(value))
            return ApiError(kHttpBadRequest, "a parameter holds a control character");
        query->emplace(std::move(name), std::move(value));
        at = end + 1;
    }
    return ApiReply{kHttpOk, ""};
}

ApiReply Admit(const httplib::Request &req, httplib::Response &res, const ServeOptions &options, int port) {
    if (req.get_header_value_count("Host") > 1) return ApiError(kHttpBadRequest, "more than one Host header");
    if (!HostAllowed(req, options, port))
        return ApiError(kHttpForbidden, "this server answers to its loopback address only");
    if (!MethodAllowed(req)) {
        res.set_header("Allow", AllowedMethods(req.path));
        return ApiError(kHttpMethodNotAllowed,
                        req.method + " is not taken here; " + AllowedMethods(req.path) + " is");
    }
    if (req.method != "GET" && req.method != "HEAD" && !FromOwnPage(req))
        return ApiError(kHttpForbidden,
                        "calls that change something are taken from this server's own page only");
    return ApiReply{0, ""};
}
