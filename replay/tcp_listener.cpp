#include "replay/tcp_listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>

#include "common/log.h"

namespace {

constexpr int kListenBacklog = 32;
constexpr int kAcceptPollMs = 200;
constexpr std::chrono::milliseconds kStopWait{20};

}  // namespace

int TcpListener::Start(const std::string &address, uint16_t port, uint32_t maxConnections, Serve serve,
                       Refuse refuse) {
    sockaddr_in where = {};
    where.sin_family = AF_INET;
    where.sin_port = htons(port);
    if (inet_pton(AF_INET, address.c_str(), &where.sin_addr) != 1) {
        LogError("%s %d: no IPv4 address to listen on: %s\n", __FUNCTION__, __LINE__, address.c_str());
        return -1;
    }
    listenFd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int on = 1;
    socklen_t size = sizeof where;
    if (listenFd_ < 0 || setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listenFd_, reinterpret_cast<sockaddr *>(&where), sizeof where) != 0 ||
        listen(listenFd_, kListenBacklog) != 0 ||
        getsockname(listenFd_, reinterpret_cast<sockaddr *>(&where), &size) != 0) {
        LogError("%s %d: cannot listen on %s:%u\n", __FUNCTION__, __LINE__, address.c_str(), port);
        if (listenFd_ >= 0) close(listenFd_);
        listenFd_ = -1;
        return -1;
    }
    port_ = ntohs(where.sin_port);
    acceptThread_ =
        std::thread(&TcpListener::AcceptLoop, this, maxConnections, std::move(serve), std::move(refuse));
    return 0;
}

void TcpListener::AcceptLoop(uint32_t maxConnections, Serve serve, Refuse refuse) {
    std::shared_ptr<Shared> shared = shared_;
    while (shared->stop.load(std::memory_order_relaxed) == 0) {
        pollfd wait = {listenFd_, POLLIN, 0};
        if (poll(&wait, 1, kAcceptPollMs) <= 0) continue;
        int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        if (shared->connections.load() >= maxConnections) {
            refuse(fd);
            close(fd);
            continue;
        }
        shared->connections.fetch_add(1);
        std::thread([shared, serve, fd] {
            serve(fd, shared->stop);
            shared->connections.fetch_sub(1);
            close(fd);
        }).detach();
    }
}

void TcpListener::Stop() {
    if (listenFd_ < 0) return;
    shared_->stop.store(1);
    if (acceptThread_.joinable()) acceptThread_.join();
    close(listenFd_);
    listenFd_ = -1;
    while (shared_->connections.load() != 0) std::this_thread::sleep_for(kStopWait);
}

bool TcpSendAll(int fd, const void *data, size_t size) {
    const char *at = static_cast<const char *>(data);
    while (size > 0) {
        ssize_t sent = send(fd, at, size, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        at += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

void TcpSetTimeouts(int fd, uint32_t seconds) {
    timeval limit = {static_cast<time_t>(seconds), 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}
