// The replay server's RTSP side: a listening socket, one thread per client
// connection (with a cap and a clear refusal beyond it), and what the
// connections share: the card behind them and the credentials.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "replay/replay_auth.h"
#include "replay/replay_source.h"
#include "replay/tcp_listener.h"

struct RtspServerOptions {
    std::string listenAddress = "127.0.0.1";  // IPv4 address to bind, "0.0.0.0" for every one
    uint16_t u16Port = 554;                   // 0: any free port (tests)
    uint32_t u32MaxSessions = 8;              // clients served at once; more are refused
    uint32_t u32SessionTimeout = 60;          // seconds without a request or report before a session ends
    uint32_t u32RequestTimeout = 10;          // seconds a request may take to arrive, or a write to leave
};

// The card behind the server: what DESCRIBE announces, and the frames of a range.
struct RtspBackend {
    std::function<int(ReplayTracks *tracks)> describe;  // 0, or -1 when the card holds nothing
    std::function<std::unique_ptr<ReplaySource>(uint64_t fromUs, uint64_t toUs, bool bIntraOnly)> open;
};

// What the connections share.
struct RtspServerContext {
    RtspServerOptions options;
    RtspBackend backend;
    const ReplayAuth *auth;
    std::atomic<uint32_t> stop{0};
    std::atomic<uint32_t> sessions{0};
};

class RtspServer {
public:
    RtspServer(const RtspServerOptions &options, RtspBackend backend, const ReplayAuth &auth);
    ~RtspServer() { Stop(); }

    // Binds and starts accepting. 0, or -1 (logged) when the address cannot be bound.
    int Start();
    // The port listened on (the chosen one when the options said 0).
    uint16_t Port() const { return m_listener.Port(); }
    // Stops accepting, ends every connection and waits for their threads.
    void Stop();

private:
    std::shared_ptr<RtspServerContext> m_context;
    TcpListener m_listener;
};

// Serves one client connection until it closes, times out or the server
// stops; the caller closes fd afterwards.
void RtspServeConnection(int fd, std::shared_ptr<RtspServerContext> context);
