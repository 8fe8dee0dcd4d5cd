#include "serve_http.h"

#include <httplib.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>

#include "card_command.h"
#include "serve_admission.h"
#include "serve_clips.h"
#include "serve_connection.h"
#include "serve_routes.h"

namespace {

// What one client may take of the server. Videos and clip downloads are
// capped apart from the rest, and there are always handlers left for the
// page and the API while the capped ones wait on slow viewers.
constexpr ConnectionLimits kConnectionLimits{
    8192,                      // bytes of request line and headers
    2048,                      // bytes of request line
    std::chrono::seconds(10),  // for a whole request head
    std::chrono::seconds(5),   // idle between requests of one connection
    std::chrono::seconds(30),  // for a viewer to take more of its stream
};
constexpr size_t kMaxKeepAliveRequests = 100;
constexpr int kSendBufferBytes = 256 * 1024;  // what a stalled viewer holds of the kernel's memory
constexpr size_t kHandlerThreads = 128;       // the streams, and the rest beside them
constexpr int kListenBacklog = 128;           // connections the kernel holds until they are accepted
constexpr int kStopGraceTicks = 30;           // three seconds to finish after a signal
constexpr std::chrono::milliseconds kStopTick(100);

// The library's server, with every connection read through a
// ConnectionStream: request heads within their limits, no bodies, writes
// that give up on a client that stops reading.
//
// This is the one place off the library's public interface, on purpose:
// the library bounds each read of a head by a timeout but not the whole
// head (a client sending a byte every few seconds holds a handler thread
// for good), and it reads a body before any handler can refuse it. Its
// only way to put another stream under a connection is this virtual
// function, which it declares private; overriding it keeps the server's
// own request handling (process_request, which it leaves to subclasses).
class CardServer : public httplib::Server {
private:
    bool process_and_close_socket(socket_t sock) override {
        setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof kSendBufferBytes);
        ConnectionStream stream(sock, kConnectionLimits);
        for (size_t n = 0; n < kMaxKeepAliveRequests && is_running(); ++n) {
            HeadStatus head = stream.ReadHead(n == 0);
            if (head == HeadStatus::kClosed) break;
            if (head != HeadStatus::kComplete) {
                stream.Refuse(head);
                break;
            }
            bool closed = false;
            if (!process_request(stream, n + 1 == kMaxKeepAliveRequests, closed, nullptr) || closed) break;
        }
        shutdown(sock, SHUT_RDWR);
        close(sock);
        return true;
    }
};

// The listening socket may take over the port from a connection still
// closing, but never shares it with a running server.
void ListenSocketOptions(socket_t sock) {
    int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

// The library listens with room for five waiting connections. When a crowd
// of clients connects at once (a page's requests, or many stuck ones) the
// kernel drops the rest, and each dropped client tries again only a second
// later; a listening socket takes a longer queue by listening again.
void LengthenListenQueue(int sock) {
    if (sock >= 0 && listen(sock, kListenBacklog) != 0)
        fprintf(stderr, "avrecord-card serve: cannot lengthen the listen queue: %s\n", strerror(errno));
}

const char *ErrorText(int status) {
    return status == kHttpBadRequest ? "the request is not valid HTTP" : "request refused";
}

void SetUpServer(httplib::Server &server, const ServeOptions &options, const int *port, int *listenSocket) {
    server.new_task_queue = [] { return new httplib::ThreadPool(kHandlerThreads); };
    server.set_socket_options([listenSocket](socket_t sock) {
        ListenSocketOptions(sock);
        *listenSocket = sock;  // the last one made is the one bound
    });
    server.set_default_headers({{"X-Content-Type-Options", "nosniff"},
                                {"Content-Security-Policy", "default-src 'self'; img-src 'self' data:"},
                                {"Referrer-Policy", "no-referrer"}});
    server.set_pre_routing_handler([options, port](const httplib::Request &req, httplib::Response &res) {
        ApiReply refused = Admit(req, res, options, *port);
        if (refused.status == 0) return httplib::Server::HandlerResponse::Unhandled;
        Reply(res, refused);
        return httplib::Server::HandlerResponse::Handled;
    });
    // Errors the routes did not word themselves (an unknown method, say).
    server.set_error_handler(
        httplib::Server::HandlerWithResponse([](const httplib::Request &, httplib::Response &res) {
            if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
            Reply(res, ApiError(res.status, ErrorText(res.status)));
            return httplib::Server::HandlerResponse::Handled;
        }));
    server.set_exception_handler([](const httplib::Request &, httplib::Response &res, std::exception_ptr) {
        Reply(res, ApiError(kHttpServerError, "internal error"));
    });
}

// What the signal thread and the serving thread share about the end.
struct StopState {
    std::mutex mutex;
    httplib::Server *server = nullptr;  // listening; nullptr once it is being torn down
    std::atomic<bool> finished{false};  // everything is cleaned up
};

// SIGINT and SIGTERM end the server from a thread of their own. A stream
// whose viewer stopped reading could hold the server up for its write
// timeout: when the server has not finished within a grace time, the clips
// folder goes and the process ends there.
void StopOnSignal(sigset_t signals, std::string folder, std::shared_ptr<StopState> stop) {
    std::thread([signals, folder, stop] {
        int signal = 0;
        sigwait(&signals, &signal);
        {
            std::lock_guard<std::mutex> lock(stop->mutex);
            if (stop->server != nullptr) stop->server->stop();
        }
        for (int tick = 0; tick < kStopGraceTicks; ++tick) {
            if (stop->finished) return;
            std::this_thread::sleep_for(kStopTick);
        }
        std::filesystem::remove_all(folder);
        std::_Exit(kExitOk);
    }).detach();
}

}  // namespace

int ServeCard(const ServeOptions &options) {
    std::string reason;
    CardCatalog catalog;
    if (LoadCardCatalog(options.cardDir, &catalog, &reason) != 0) {
        fprintf(stderr, "avrecord-card serve: %s\n", reason.c_str());
        return kExitCardProblem;
    }
    char folderTemplate[] = "/tmp/avrecord-serve-XXXXXX";
    const char *folder = mkdtemp(folderTemplate);
    if (folder == nullptr) {
        fprintf(stderr, "avrecord-card serve: cannot make a temporary folder for clips\n");
        return kExitCardProblem;
    }
    // Threads started from here on leave these signals to the waiting one.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    int port = options.port;
    int status = kExitOk;
    auto stop = std::make_shared<StopState>();
    {
        StreamSlots slots;
        CardServer server;
        ClipJobs jobs(options.cardDir, folder);
        int listenSocket = -1;
        SetUpServer(server, options, &port, &listenSocket);
        AddRoutes(server, options.cardDir, jobs, slots);
        errno = 0;
        port = options.port == 0 ? server.bind_to_any_port(options.host)
                                 : (server.bind_to_port(options.host, options.port) ? options.port : -1);
        if (port < 0 && errno == EADDRINUSE) {
            fprintf(stderr, "avrecord-card serve: port %d is in use\n", options.port);
            status = kExitUsage;
        } else if (port < 0) {
            fprintf(stderr, "avrecord-card serve: cannot listen on %s:%d\n", options.host.c_str(),
                    options.port);
            status = kExitUsage;
        } else {
            LengthenListenQueue(listenSocket);
            if (!IsLoopbackHost(options.host))
                fprintf(stderr,
                        "avrecord-card serve: listening beyond this machine: anyone who reaches %s sees the "
                        "card\n",
                        options.host.c_str());
            bool v6 = options.host.find(':') != std::string::npos;
            printf("serving %s at http://%s%s%s:%d/ (Ctrl-C stops)\n", options.cardDir.c_str(), v6 ? "[" : "",
                   options.host.c_str(), v6 ? "]" : "", port);
            fflush(stdout);
            stop->server = &server;
            StopOnSignal(signals, folder, stop);
            server.listen_after_bind();
            std::lock_guard<std::mutex> lock(stop->mutex);
            stop->server = nullptr;
        }
    }
    stop->finished = true;
    std::filesystem::remove_all(folder);
    return status;
}
