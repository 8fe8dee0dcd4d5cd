// What "avrecord-card serve" takes from a client before any route runs:
// the listen address it is started with, the Host, method and origin of a
// request, the query as it was sent, and how many videos and downloads go
// out at once. Clients are taken to be hostile; every refusal is an
// ApiReply with its status and message.
#pragma once

#include <httplib.h>

#include <atomic>
#include <memory>
#include <string>

#include "serve_api.h"

struct ServeOptions {
    std::string cardDir;  // ending with '/'
    std::string host;     // address to bind
    int port;             // 0: any free port
};

inline constexpr int kHttpMethodNotAllowed = 405;
inline constexpr int kHttpUnavailable = 503;
inline constexpr char kClipsPath[] = "/api/clips";
inline constexpr unsigned kMaxStreams = 16;  // videos and clip downloads at once

// Splits "HOST:PORT" ("[::1]:8080" for IPv6). False for anything else.
bool ParseListenAddress(const std::string &text, std::string *host, int *port);

// True for 127.0.0.0/8, ::1 and "localhost".
bool IsLoopbackHost(const std::string &host);

// Decodes one NAME or VALUE of a query: %XX escapes and '+' for a space.
// False for a broken escape.
bool DecodeQueryPart(const std::string &text, std::string *decoded);

// The query of a request target ("/path?a=1&b=2") as it was sent: every
// part NAME=VALUE with a name, and neither holding a control character once
// decoded. Status 200 with an empty body when it is sound.
ApiReply ParseQuery(const std::string &target, ApiQuery *query);

// Whether the server takes the request at all (its query aside, which the
// route reads): the reply refusing it, or status 0. Sets the Allow header
// of a 405.
ApiReply Admit(const httplib::Request &req, httplib::Response &res, const ServeOptions &options, int port);

// Videos and clip downloads being sent; each holds a slot until its answer
// is done (or its viewer is cut off).
class StreamSlots {
public:
    // A slot to keep for as long as the answer is sent, or nullptr when
    // all are taken.
    std::shared_ptr<void> Take() {
        if (used_.fetch_add(1) >= kMaxStreams) {
            used_.fetch_sub(1);
            return nullptr;
        }
        return std::make_shared<Slot>(used_);
    }

private:
    struct Slot {
        explicit Slot(std::atomic<unsigned> &used) : used(used) {}
        ~Slot() { used.fetch_sub(1); }
        std::atomic<unsigned> &used;
    };
    std::atomic<unsigned> used_{0};
};
