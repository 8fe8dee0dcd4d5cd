#include "replay/rtsp_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "common/log.h"

namespace {

constexpr int kListenBacklog = 32;
constexpr int kAcceptPollMs = 200;
constexpr uint32_t kConnectionsPerSession = 2;  // room for clients that open a second connection
constexpr int kStopWaitMs = 20;

}  // namespace

RtspServer::RtspServer(const RtspServerOptions &options, RtspBackend backend, const ReplayAuth &auth)
    : m_context(std::make_shared<RtspServerContext>()) {
    m_context->options = options;
    m_context->backend = std::move(backend);
    m_context->auth = &auth;
}

int RtspServer::Start() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(m_context->options.u16Port);
    if (inet_pton(AF_INET, m_context->options.listenAddress.c_str(), &address.sin_addr) != 1) {
        LogError("%s %d: no IPv4 address to listen on: %s\n", __FUNCTION__, __LINE__,
                 m_context->options.listenAddress.c_str());
        return -1;
    }
    m_listenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int on = 1;
    setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    socklen_t size = sizeof address;
    if (m_listenFd < 0 || bind(m_listenFd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(m_listenFd, kListenBacklog) != 0 ||
        getsockname(m_listenFd, reinterpret_cast<sockaddr *>(&address), &size) != 0) {
        LogError("%s %d: cannot listen on %s:%u\n", __FUNCTION__, __LINE__,
                 m_context->options.listenAddress.c_str(), m_context->options.u16Port);
        if (m_listenFd >= 0) close(m_listenFd);
        m_listenFd = -1;
        return -1;
    }
    m_port = ntohs(address.sin_port);
    m_acceptThread = std::thread(&RtspServer::AcceptLoop, this);
    return 0;
}

void RtspServer::AcceptLoop() {
    RtspServerContext &context = *m_context;
    uint32_t maxConnections = context.options.u32MaxSessions * kConnectionsPerSession;
    while (context.stop.load(std::memory_order_relaxed) == 0) {
        pollfd wait = {m_listenFd, POLLIN, 0};
        if (poll(&wait, 1, kAcceptPollMs) <= 0) continue;
        int fd = accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        if (context.connections.load() >= maxConnections) {
            // Over the cap even for a refusal in RTSP: closed at once.
            LogTrace("%s %d: too many connections, one closed\n", __FUNCTION__, __LINE__);
            close(fd);
            continue;
        }
        context.connections.fetch_add(1);
        std::thread(RtspServeConnection, fd, m_context).detach();
    }
}

void RtspServer::Stop() {
    if (m_listenFd < 0) return;
    m_context->stop.store(1);
    if (m_acceptThread.joinable()) m_acceptThread.join();
    close(m_listenFd);
    m_listenFd = -1;
    while (m_context->connections.load() != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(kStopWaitMs));
}
