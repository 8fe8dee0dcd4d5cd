// The replay server's HTTP side: the card's recordings listed by time, a
// range downloaded as AVI or as the recorded program stream, and the
// recorder's published status. GET only, one request per connection,
// bounded requests, a time limit on each client, a cap on clients, and the
// credentials when they are set.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "replay/replay_auth.h"
#include "replay/replay_source.h"
#include "replay/tcp_listener.h"

struct ReplayHttpOptions {
    std::string listenAddress = "127.0.0.1";  // IPv4 address to bind, "0.0.0.0" for every one
    uint16_t u16Port = 8080;                  // 0: any free port (tests)
    uint32_t u32MaxClients = 4;               // clients served at once; more are refused
    uint32_t u32Timeout = 10;                 // seconds a request may take to arrive, or a write to leave
    uint32_t u32MaxGetSeconds = 3600;         // longest range one download takes
    ReplayCard card;
    const ReplayAuth *auth = nullptr;  // nullptr or no user: no credentials asked
    std::string statusPath;            // the recorder's status file ("": where the recorder publishes it)
};

class ReplayHttpServer {
public:
    explicit ReplayHttpServer(const ReplayHttpOptions &options) : options_(options) {}
    // Binds and starts serving. 0, or -1 (logged) when the address cannot be bound.
    int Start();
    uint16_t Port() const { return listener_.Port(); }
    void Stop() { listener_.Stop(); }

private:
    ReplayHttpOptions options_;
    TcpListener listener_;
};

// Answers one request read from fd (then closes nothing: the caller owns fd).
void ReplayHttpServe(int fd, const ReplayHttpOptions &options, const std::atomic<uint32_t> &stop);
