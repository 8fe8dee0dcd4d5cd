#include "replay/rtsp_server.h"

#include "common/log.h"

namespace {

constexpr uint32_t kConnectionsPerSession = 2;  // room for clients that open a second connection

}  // namespace

RtspServer::RtspServer(const RtspServerOptions &options, RtspBackend backend, const ReplayAuth &auth)
    : m_context(std::make_shared<RtspServerContext>()) {
    m_context->options = options;
    m_context->backend = std::move(backend);
    m_context->auth = &auth;
}

int RtspServer::Start() {
    const RtspServerOptions &options = m_context->options;
    std::shared_ptr<RtspServerContext> context = m_context;
    return m_listener.Start(
        options.listenAddress, options.u16Port, options.u32MaxSessions * kConnectionsPerSession,
        [context](int fd, const std::atomic<uint32_t> &) { RtspServeConnection(fd, context); },
        [](int) {
            // Over the cap even for a refusal in RTSP: closed at once.
            LogTrace("%s %d: too many connections, one closed\n", __FUNCTION__, __LINE__);
        });
}

void RtspServer::Stop() {
    m_context->stop.store(1);
    m_listener.Stop();
}
