#include "replay/replay_http.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>

#include "common/file_io.h"
#include "common/log.h"
#include "common/platform_paths.h"
#include "replay/replay_export.h"
#include "replay/replay_list.h"
#include "replay/rtsp_range.h"
#include "replay/rtsp_request.h"

namespace {

constexpr size_t kMaxRequestBytes = kRtspMaxHeadBytes + kRtspMaxBodyBytes;
constexpr size_t kReadChunk = 2048;
constexpr size_t kMaxStatusBytes = 64 * 1024;
// Asks a refused client to come back after 5 s.
constexpr char kRetryAfter[] = "Retry-After: 5\r\n";
constexpr char kJson[] = "application/json";

using SteadyClock = std::chrono::steady_clock;

struct Reply {
    int status;
    const char *reason;
};
constexpr Reply kOk{200, "OK"};
constexpr Reply kBadRequest{400, "Bad Request"};
constexpr Reply kUnauthorized{401, "Unauthorized"};
constexpr Reply kForbidden{403, "Forbidden"};
constexpr Reply kNotFound{404, "Not Found"};
constexpr Reply kNotAllowed{405, "Method Not Allowed"};
constexpr Reply kTimeout{408, "Request Timeout"};
constexpr Reply kServerError{500, "Internal Server Error"};
constexpr Reply kUnavailable{503, "Service Unavailable"};

std::string Head(const Reply &reply, const char *type, const std::string &extra) {
    return "HTTP/1.1 " + std::to_string(reply.status) + " " + reply.reason + "\r\nContent-Type: " + type +
           "\r\nCache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\nConnection: close\r\n" + extra;
}

void Send(int fd, const Reply &reply, const char *type, const std::string &body,
          const std::string &extra = "") {
    std::string text =
        Head(reply, type, extra + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n");
    TcpSendAll(fd, text.data(), text.size()) && TcpSendAll(fd, body.data(), body.size());
}

std::string JsonText(const std::string &text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        if (static_cast<unsigned char>(c) >= 0x20) out += c;
    }
    return out + "\"";
}

void SendError(int fd, const Reply &reply, const std::string &message, const std::string &extra = "") {
    Send(fd, reply, kJson, "{\"error\": " + JsonText(message) + "}\n", extra);
}

// Reads one request within the time limit. 0, or the reply to refuse with.
const Reply *ReadRequest(int fd, uint32_t seconds, const std::atomic<uint32_t> &stop, RtspRequest *request) {
    std::string data;
    SteadyClock::time_point deadline = SteadyClock::now() + std::chrono::seconds(seconds);
    for (;;) {
        size_t used = 0;
        RtspParse parsed = RtspParseRequest(data.data(), data.size(), request, &used);
        if (parsed == kRtspParsed) return nullptr;
        if (parsed == kRtspMalformed || data.size() >= kMaxRequestBytes) return &kBadRequest;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now());
        pollfd wait = {fd, POLLIN, 0};
        if (left.count() <= 0 || stop.load(std::memory_order_relaxed) != 0 ||
            poll(&wait, 1, static_cast<int>(left.count())) <= 0) {
            return &kTimeout;
        }
        char chunk[kReadChunk];
        ssize_t got = recv(fd, chunk, std::min(sizeof chunk, kMaxRequestBytes - data.size()), 0);
        if (got <= 0) return &kBadRequest;
        data.append(chunk, static_cast<size_t>(got));
    }
}

// A page of another site may not make the browser ask on its behalf.
bool CrossSite(const RtspRequest &request) {
    const std::string *origin = request.Header("Origin");
    const std::string *host = request.Header("Host");
    if (origin == nullptr || *origin == "null") return origin != nullptr;
    return host == nullptr || (*origin != "http://" + *host && *origin != "https://" + *host);
}

bool Authorized(const ReplayHttpOptions &options, const RtspRequest &request) {
    if (options.auth == nullptr || !options.auth->Required()) return true;
    const std::string *authorization = request.Header("Authorization");
    return authorization != nullptr && options.auth->Check(request.method, *authorization, true);
}

std::string Challenges(const ReplayHttpOptions &options) {
    return "WWW-Authenticate: " + options.auth->DigestChallenge() +
           "\r\nWWW-Authenticate: " + options.auth->BasicChallenge() + "\r\n";
}

// A time of the query: RFC 3339 UTC or seconds since 1970; fallback when absent.
bool QueryTime(std::string_view query, const char *key, uint64_t fallback, uint64_t *us) {
    std::string text;
    if (!RtspQueryValue(query, key, &text)) {
        *us = fallback;
        return true;
    }
    return RtspParseUrlTime(text, us);
}

uint64_t NowUs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

void ServeList(int fd, const ReplayHttpOptions &options, std::string_view query) {
    uint64_t start = 0, end = 0;
    if (!QueryTime(query, "start", 0, &start) || !QueryTime(query, "end", NowUs(), &end) || end < start) {
        SendError(fd, kBadRequest, "start and end are RFC 3339 UTC times or seconds since 1970, start first");
        return;
    }
    std::vector<ReplaySpan> spans;
    uint64_t last = std::min<uint64_t>(end / kUsPerSecond, UINT32_MAX);
    if (ReplayListSpans(options.card, static_cast<uint32_t>(start / kUsPerSecond),
                        static_cast<uint32_t>(last), &spans) != 0) {
        SendError(fd, kUnavailable, "the card's index cannot be read");
        return;
    }
    Send(fd, kOk, kJson, ReplaySpansJson(spans));
}

// A whole number of seconds from 1 to most.
bool QuerySeconds(std::string_view query, const char *key, uint32_t most, uint32_t *seconds) {
    std::string text;
    if (!RtspQueryValue(query, key, &text) || text.empty() || text.size() > 10) return false;
    char *end = nullptr;
    unsigned long value = std::strtoul(text.c_str(), &end, 10);
    *seconds = static_cast<uint32_t>(value);
    return *end == '\0' && text[0] != '-' && value >= 1 && value <= most;
}

void ServeGet(int fd, const ReplayHttpOptions &options, std::string_view query,
              const std::atomic<uint32_t> &stop) {
    uint64_t start = 0;
    uint32_t seconds = 0;
    std::string format;
    if (!RtspQueryValue(query, "format", &format)) format = "avi";
    std::string startText;
    if (!RtspQueryValue(query, "start", &startText) || !RtspParseUrlTime(startText, &start) ||
        !QuerySeconds(query, "duration", options.u32MaxGetSeconds, &seconds) ||
        (format != "avi" && format != "ps")) {
        SendError(fd, kBadRequest,
                  "start (RFC 3339 UTC or seconds since 1970), duration (1 to " +
                      std::to_string(options.u32MaxGetSeconds) + " seconds) and format avi or ps are needed");
        return;
    }
    bool avi = format == "avi";
    std::string name = "replay-" + RtspFormatClockTime(start) + (avi ? ".avi" : ".ps");
    bool headSent = false;
    auto begin = [&] {
        std::string head = Head(kOk, avi ? "video/x-msvideo" : "video/MP2P",
                                "Content-Disposition: attachment; filename=\"" + name + "\"\r\n\r\n");
        headSent = TcpSendAll(fd, head.data(), head.size());
        return headSent;
    };
    auto sink = [&](const uint8_t *data, size_t size) {
        return stop.load(std::memory_order_relaxed) == 0 && TcpSendAll(fd, data, size);
    };
    int r = ReplayExport(options.card, start, start + uint64_t{seconds} * kUsPerSecond,
                         avi ? ReplayFormat::kAvi : ReplayFormat::kPs, begin, sink);
    if (r == kExportEmpty) SendError(fd, kNotFound, "no recording in the range");
    if (r == kExportFailed && !headSent) SendError(fd, kServerError, "the card could not be read");
}

// The recorder's published status, as it is.
void ServeStatus(int fd, const ReplayHttpOptions &options) {
    std::string path = options.statusPath.empty() ? StatusFilePath() : options.statusPath;
    int file = FileIo().open(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (file < 0) {
        SendError(fd, kUnavailable, "the recorder has published no status", kRetryAfter);
        return;
    }
    std::string body(kMaxStatusBytes, '\0');
    ssize_t got = FileIo().read(file, body.data(), body.size());
    FileIo().close(file);
    if (got < 0) {
        SendError(fd, kUnavailable, "the recorder's status cannot be read");
        return;
    }
    body.resize(static_cast<size_t>(got));
    Send(fd, kOk, kJson, body);
}

}  // namespace

void ReplayHttpServe(int fd, const ReplayHttpOptions &options, const std::atomic<uint32_t> &stop) {
    TcpSetTimeouts(fd, options.u32Timeout);
    RtspRequest request;
    if (const Reply *refusal = ReadRequest(fd, options.u32Timeout, stop, &request)) {
        SendError(fd, *refusal,
                  refusal == &kTimeout ? "the request did not arrive in time" : "not an HTTP request");
        return;
    }
    if (request.method != "GET") {
        SendError(fd, kNotAllowed, "only GET is served", "Allow: GET\r\n");
        return;
    }
    if (CrossSite(request)) {
        SendError(fd, kForbidden, "requests from other sites are refused");
        return;
    }
    if (!Authorized(options, request)) {
        SendError(fd, kUnauthorized, "credentials needed", Challenges(options));
        return;
    }
    std::string_view path = RtspUrlPath(request.uri);
    std::string_view query = RtspUrlQuery(request.uri);
    if (path == "/list") return ServeList(fd, options, query);
    if (path == "/get") return ServeGet(fd, options, query, stop);
    if (path == "/status") return ServeStatus(fd, options);
    SendError(fd, kNotFound, "no such page: /list, /get and /status are served");
}

int ReplayHttpServer::Start() {
    const ReplayHttpOptions &options = options_;
    auto serve = [&options](int fd, const std::atomic<uint32_t> &stop) {
        ReplayHttpServe(fd, options, stop);
    };
    auto refuse = [](int fd) {
        SendError(fd, kUnavailable, "too many clients; try again shortly", kRetryAfter);
    };
    if (listener_.Start(options_.listenAddress, options_.u16Port, options_.u32MaxClients, serve, refuse) != 0)
        return -1;
    return 0;
}
