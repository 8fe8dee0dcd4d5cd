// One client connection of "avrecord-card serve", as the HTTP library reads
// and writes it. Each request head is read here first, whole, within a size
// and a time: a client that sends a huge head, or sends it a byte at a
// time, or never finishes it, is answered and cut off without holding more
// than a few KiB and a few seconds. No call takes a request body: a request
// that announces one is refused before any of it is read. Writes wait for
// the client at most the write time, so a viewer that stops reading its
// stream lets the server go on.
#pragma once

#include <httplib.h>

#include <chrono>
#include <string>

struct ConnectionLimits {
    size_t maxHeadBytes;                  // request line and headers
    size_t maxRequestLineBytes;           // method, address and version
    std::chrono::milliseconds headTime;   // from its first byte to its blank line
    std::chrono::milliseconds idleTime;   // between requests on one connection
    std::chrono::milliseconds writeTime;  // for the client to take more of an answer
};

// What reading a request head came to. Every refusal closes the connection.
enum class HeadStatus {
    kComplete,     // a head without a body, ready for the library
    kClosed,       // nothing more came before the connection ended or went idle
    kTooSlow,      // 408: the head did not come within its time
    kHasBody,      // 413: the request announces a body
    kLineTooLong,  // 414: the request line is too long
    kTooLarge,     // 431: the head is too large
};

class ConnectionStream : public httplib::Stream {
public:
    ConnectionStream(int socket, const ConnectionLimits &limits) : socket_(socket), limits_(limits) {}

    // Reads the next request head (the first one of a connection may take
    // the whole head time to begin; a later one the idle time).
    HeadStatus ReadHead(bool first);

    // Answers a refused head with its status and a JSON message, then
    // takes what the client still sends for a moment, so that it reads the
    // answer rather than a reset connection.
    void Refuse(HeadStatus status);

    // The library's side. Reading ends with the head: the request's body
    // is empty.
    bool is_readable() const override { return position_ < headEnd_; }
    bool is_writable() const override;
    ssize_t read(char *ptr, size_t size) override;
    ssize_t write(const char *ptr, size_t size) override;
    void get_remote_ip_and_port(std::string &ip, int &port) const override;
    void get_local_ip_and_port(std::string &ip, int &port) const override;
    int socket() const override { return socket_; }

private:
    bool WaitFor(short events, std::chrono::milliseconds time) const;
    // True once the head so far decides the request (*status says how);
    // false while more is needed.
    bool Judge(HeadStatus *status);

    int socket_;
    ConnectionLimits limits_;
    std::string buffer_;   // received, from the current head on
    size_t headEnd_ = 0;   // the current head's length with its blank line
    size_t position_ = 0;  // what the library has read of it
};

// ASCII text in lower case: header names, host names and the like compare
// without regard to case.
std::string LowerCase(std::string text);
