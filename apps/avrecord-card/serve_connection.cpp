#include "serve_connection.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "serve_api.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kLineEnd[] = "\r\n";
constexpr char kHeadEnd[] = "\r\n\r\n";
constexpr size_t kHeadEndLength = 4;
constexpr size_t kReceiveChunk = 4096;
// After a refusal: what the client still sends is read and dropped for up
// to this long (or this much), then the connection closes.
constexpr std::chrono::milliseconds kDrainTime(1000);
constexpr size_t kDrainBytes = 1 << 20;

std::string Trimmed(const std::string &text) {
    size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t") + 1 - first);
}

// True when a header line of the head (request line excluded) announces a
// body: any Transfer-Encoding, or a Content-Length other than 0.
bool AnnouncesBody(const std::string &head) {
    size_t at = head.find(kLineEnd) + 2;
    while (at < head.size()) {
        size_t end = head.find(kLineEnd, at);
        std::string line = head.substr(at, end - at);
        at = end + 2;
        size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        std::string name = LowerCase(Trimmed(line.substr(0, colon)));
        std::string value = Trimmed(line.substr(colon + 1));
        if (name == "transfer-encoding") return true;
        if (name == "content-length" && (value.empty() || value.find_first_not_of('0') != std::string::npos))
            return true;
    }
    return false;
}

// The status line of each refusal.
struct Refusal {
    HeadStatus status;
    int code;
    const char *reason;
};
constexpr Refusal kRefusals[] = {
    {HeadStatus::kTooSlow, 408, "Request Timeout"},
    {HeadStatus::kHasBody, 413, "Payload Too Large"},
    {HeadStatus::kLineTooLong, 414, "URI Too Long"},
    {HeadStatus::kTooLarge, 431, "Request Header Fields Too Large"},
};

const Refusal &RefusalOf(HeadStatus status) {
    for (const Refusal &refusal : kRefusals) {
        if (refusal.status == status) return refusal;
    }
    return kRefusals[0];
}

std::string RefusalMessage(HeadStatus status, const ConnectionLimits &limits) {
    switch (status) {
        case HeadStatus::kHasBody:
            return "the request has a body; no call here takes one";
        case HeadStatus::kLineTooLong:
            return "the request line is longer than " + std::to_string(limits.maxRequestLineBytes) + " bytes";
        case HeadStatus::kTooLarge:
            return "the request headers are larger than " + std::to_string(limits.maxHeadBytes) + " bytes";
        default:
            return "the request did not come within " +
                   std::to_string(std::chrono::duration_cast<std::chrono::seconds>(limits.headTime).count()) +
                   " s";
    }
}

bool SocketName(int socket, bool peer, std::string *ip, int *port) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    sockaddr *any = reinterpret_cast<sockaddr *>(&address);
    if ((peer ? getpeername(socket, any, &length) : getsockname(socket, any, &length)) != 0) return false;
    char host[NI_MAXHOST], service[NI_MAXSERV];
    if (getnameinfo(any, length, host, sizeof host, service, sizeof service,
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return false;
    *ip = host;
    *port = std::atoi(service);
    return true;
}

}  // namespace

std::string LowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool ConnectionStream::WaitFor(short events, std::chrono::milliseconds time) const {
    Clock::time_point deadline = Clock::now() + time;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd wait{socket_, events, 0};
        int ready = poll(&wait, 1, static_cast<int>(std::max<long long>(left.count(), 0)));
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

bool ConnectionStream::Judge(HeadStatus *status) {
    size_t lineEnd = buffer_.find(kLineEnd);
    if ((lineEnd == std::string::npos ? buffer_.size() : lineEnd) > limits_.maxRequestLineBytes) {
        *status = HeadStatus::kLineTooLong;
        return true;
    }
    size_t end = buffer_.find(kHeadEnd);
    if (end == std::string::npos || end + kHeadEndLength > limits_.maxHeadBytes) {
        *status = HeadStatus::kTooLarge;
        return buffer_.size() > limits_.maxHeadBytes;
    }
    headEnd_ = end + kHeadEndLength;
    *status = AnnouncesBody(buffer_.substr(0, headEnd_)) ? HeadStatus::kHasBody : HeadStatus::kComplete;
    return true;
}

HeadStatus ConnectionStream::ReadHead(bool first) {
    buffer_.erase(0, headEnd_);
    headEnd_ = 0;
    position_ = 0;
    bool started = !buffer_.empty();  // a request sent right behind the last one
    Clock::time_point deadline = Clock::now() + (first || started ? limits_.headTime : limits_.idleTime);
    for (;;) {
        HeadStatus status;
        if (started && Judge(&status)) return status;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0 || !WaitFor(POLLIN, left))
            return started ? HeadStatus::kTooSlow : HeadStatus::kClosed;
        char chunk[kReceiveChunk];
        size_t room = limits_.maxHeadBytes + 1 - buffer_.size();
        ssize_t got = recv(socket_, chunk, std::min(sizeof chunk, room), 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return HeadStatus::kClosed;
        if (!started && !first) deadline = Clock::now() + limits_.headTime;
        started = true;
        buffer_.append(chunk, static_cast<size_t>(got));
    }
}

void ConnectionStream::Refuse(HeadStatus status) {
    const Refusal &refusal = RefusalOf(status);
    std::string body = ApiError(refusal.code, RefusalMessage(status, limits_)).body;
    std::string answer =
        "HTTP/1.1 " + std::to_string(refusal.code) + " " + refusal.reason +
        "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
        "\r\nConnection: close\r\nX-Content-Type-Options: nosniff\r\n\r\n" + body;
    for (size_t sent = 0; sent < answer.size();) {
        ssize_t n = write(answer.data() + sent, answer.size() - sent);
        if (n <= 0) return;
        sent += static_cast<size_t>(n);
    }
    shutdown(socket_, SHUT_WR);
    Clock::time_point deadline = Clock::now() + kDrainTime;
    for (size_t drained = 0; drained < kDrainBytes;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        char chunk[kReceiveChunk];
        if (left.count() <= 0 || !WaitFor(POLLIN, left)) return;
        ssize_t got = recv(socket_, chunk, sizeof chunk, 0);
        if (got <= 0) return;
        drained += static_cast<size_t>(got);
    }
}

bool ConnectionStream::is_writable() const { return WaitFor(POLLOUT, limits_.writeTime); }

ssize_t ConnectionStream::read(char *ptr, size_t size) {
    size_t n = std::min(size, headEnd_ - position_);
    std::memcpy(ptr, buffer_.data() + position_, n);
    position_ += n;
    return static_cast<ssize_t>(n);
}

ssize_t ConnectionStream::write(const char *ptr, size_t size) {
    for (;;) {
        if (!is_writable()) return -1;
        ssize_t sent = send(socket_, ptr, size, MSG_NOSIGNAL);
        if (sent >= 0 || (errno != EINTR && errno != EAGAIN)) return sent;
    }
}

void ConnectionStream::get_remote_ip_and_port(std::string &ip, int &port) const {
    SocketName(socket_, true, &ip, &port);
}

void ConnectionStream::get_local_ip_and_port(std::string &ip, int &port) const {
    SocketName(socket_, false, &ip, &port);
}
