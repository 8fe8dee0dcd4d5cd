// Fuzz entry: the replay server's HTTP side answering arbitrary request
// bytes (over a socket pair, the client's side closed behind them), on a
// card folder that holds nothing.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_support.h"
#include "replay/replay_http.h"
#include "replay/rtsp_request.h"

namespace fuzz {

inline int FuzzHttpRequest(const uint8_t *data, size_t size) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return 0;
    // Larger requests are refused unread; the socket buffer holds these.
    size_t sent = 0;
    while (sent < size && sent < kRtspMaxHeadBytes + kRtspMaxBodyBytes + 1) {
        ssize_t n = send(pair[1], data + sent, size - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
    shutdown(pair[1], SHUT_WR);
    ReplayHttpOptions options;
    options.u32Timeout = 1;
    options.card = {std::string(ScratchDir()) + "/no-card/"};
    options.statusPath = std::string(ScratchDir()) + "/no-status.json";
    std::atomic<uint32_t> stop{0};
    ReplayHttpServe(pair[0], options, stop);
    char reply[4096];
    while (recv(pair[1], reply, sizeof reply, MSG_DONTWAIT) > 0) {
    }
    close(pair[0]);
    close(pair[1]);
    return 0;
}

}  // namespace fuzz
