// A listening TCP socket that serves each connection on a thread of its
// own, up to a cap; a connection over the cap is handed to a refusal
// instead (which answers at once and returns).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

class TcpListener {
public:
    // Serves one connection (the listener closes fd afterwards, once the
    // connection no longer counts against the cap). stop turns non-zero
    // when the listener stops: a long answer ends then.
    using Serve = std::function<void(int fd, const std::atomic<uint32_t> &stop)>;
    using Refuse = std::function<void(int fd)>;

    TcpListener() = default;
    ~TcpListener() { Stop(); }
    TcpListener(const TcpListener &) = delete;
    TcpListener &operator=(const TcpListener &) = delete;

    // Binds the IPv4 address and port (0: any free port) and starts
    // accepting. 0, or -1 (logged) when it cannot listen there.
    int Start(const std::string &address, uint16_t port, uint32_t maxConnections, Serve serve, Refuse refuse);
    uint16_t Port() const { return port_; }
    // Stops accepting and waits until every connection has ended.
    void Stop();

private:
    struct Shared {
        std::atomic<uint32_t> stop{0};
        std::atomic<uint32_t> connections{0};
    };
    void AcceptLoop(uint32_t maxConnections, Serve serve, Refuse refuse);

    std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
    int listenFd_ = -1;
    uint16_t port_ = 0;
    std::thread acceptThread_;
};

// Sends all bytes, giving up on an error or when a send times out. True
// when everything went.
bool TcpSendAll(int fd, const void *data, size_t size);

// Ends sends and receives on fd that take longer than seconds.
void TcpSetTimeouts(int fd, uint32_t seconds);
