#include "serve_http.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "card_clip.h"
#include "card_command.h"
#include "serve_api.h"
#include "serve_assets.h"
#include "serve_connection.h"
#include "tools/calendar_time.h"

namespace {

constexpr uint32_t kMaxClipSeconds = 3600;  // one hour
constexpr size_t kMaxClipJobs = 32;         // the oldest finished clip goes first
constexpr int kMaxPort = 65535;
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
constexpr unsigned kMaxStreams = 16;          // videos and clip downloads at once
constexpr size_t kHandlerThreads = 128;       // the streams, and the rest beside them
constexpr int kListenBacklog = 128;           // connections the kernel holds until they are accepted
constexpr char kRetryAfterSeconds[] = "5";
constexpr int kHttpMethodNotAllowed = 405;
constexpr int kHttpUnavailable = 503;
constexpr int kStopGraceTicks = 30;  // three seconds to finish after a signal
constexpr std::chrono::milliseconds kStopTick(100);
constexpr char kJson[] = "application/json";

using Clock = std::chrono::steady_clock;

void Reply(httplib::Response &res, const ApiReply &reply) {
    res.status = reply.status;
    res.set_content(reply.body, kJson);
}

// "YYYY-MM-DD_HH-MM-SS", local: a part of a file name.
std::string FileStamp(uint32_t seconds) {
    std::string text = LocalTimeText(seconds);
    std::replace(text.begin(), text.end(), ' ', '_');
    std::replace(text.begin(), text.end(), ':', '-');
    return text;
}

// Clips are made one at a time, in the order asked for, by one worker
// thread; each lands as a file in the server's own temporary folder.
class ClipJobs {
public:
    ClipJobs(std::string cardDir, std::string folder)
        : cardDir_(std::move(cardDir)), folder_(std::move(folder)) {
        worker_ = std::thread([this] { Work(); });
    }
    ~ClipJobs() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        worker_.join();
    }

    ApiReply Start(uint32_t from, uint32_t to) {
        std::lock_guard<std::mutex> lock(mutex_);
        DropOldest();
        unsigned id = ++lastId_;
        Job &job = jobs_[id];
        job.from = from;
        job.to = to;
        job.path = folder_ + "/clip" + std::to_string(id) + ".mp4";
        job.name = "avrecord_" + FileStamp(from) + "_" + std::to_string(to - from + 1) + "s.mp4";
        queue_.push_back(id);
        wake_.notify_all();
        return ApiReply{kHttpAccepted, StatusJson(id, job)};
    }

    ApiReply Status(unsigned id) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = jobs_.find(id);
        if (found == jobs_.end()) return ApiError(kHttpNotFound, "no clip " + std::to_string(id));
        return ApiReply{kHttpOk, StatusJson(id, found->second)};
    }

    // The finished clip's file and download name.
    bool Finished(unsigned id, std::string *path, std::string *name) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = jobs_.find(id);
        if (found == jobs_.end() || found->second.state != kDone) return false;
        *path = found->second.path;
        *name = found->second.name;
        return true;
    }

private:
    static constexpr const char *kQueued = "queued";
    static constexpr const char *kWorking = "working";
    static constexpr const char *kDone = "done";
    static constexpr const char *kFailed = "failed";

    struct Job {
        uint32_t from = 0;
        uint32_t to = 0;
        std::string path;
        std::string name;
        std::string state = kQueued;
        std::string error;
        ClipProgress progress{};
        double done = 0;  // share of the clip made
        Clock::time_point started{};
        double seconds = 0;  // making time, once done
    };

    std::string StatusJson(unsigned id, const Job &job) const {
        JsonLine line;
        line.Add("id", id).Add("from", job.from).Add("to", job.to).Add("state", job.state);
        line.Add("frames", static_cast<unsigned long long>(job.progress.videoFrames))
            .Add("frames_total", static_cast<unsigned long long>(job.progress.videoFramesTotal))
            .Add("bytes", static_cast<unsigned long long>(job.progress.outputBytes))
            .Add("done", job.done);
        if (job.state == std::string(kWorking) && job.done > 0) {
            double elapsed = std::chrono::duration<double>(Clock::now() - job.started).count();
            line.Add("seconds_left", elapsed * (1 - job.done) / job.done);
        }
        if (job.state == std::string(kDone)) line.Add("url", "/api/clips/" + std::to_string(id) + "/file");
        if (!job.error.empty()) line.Add("error", job.error);
        return line.Text();
    }

    void DropOldest() {
        for (auto it = jobs_.begin(); jobs_.size() >= kMaxClipJobs && it != jobs_.end();) {
            if (it->second.state == std::string(kDone) || it->second.state == std::string(kFailed)) {
                std::remove(it->second.path.c_str());
                it = jobs_.erase(it);
            } else {
                ++it;
            }
        }
    }

    void Work() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
            if (stopping_) return;
            unsigned id = queue_.front();
            queue_.pop_front();
            Job &job = jobs_[id];
            job.state = kWorking;
            job.started = Clock::now();
            Job copy = job;
            lock.unlock();
            std::string reason;
            ClipRequest request;
            request.cardDir = cardDir_;
            request.from = copy.from;
            request.to = copy.to;
            ClipInfo info;
            int made = CardClipToFile(
                request, copy.path,
                [this, id](const ClipProgress &progress) {
                    std::lock_guard<std::mutex> guard(mutex_);
                    Job &job = jobs_[id];
                    job.progress = progress;
                    if (progress.cardBytesTotal > 0)
                        job.done =
                            std::min(1.0, static_cast<double>(progress.cardBytes) / progress.cardBytesTotal);
                    return !stopping_;
                },
                &info, &reason);
            lock.lock();
            Job &done = jobs_[id];
            done.state = made == kClipOk ? kDone : kFailed;
            done.error = reason;
            if (made == kClipOk) {
                done.done = 1;
                done.progress.videoFrames = info.videoFrames;
                done.progress.outputBytes = info.outputBytes;
            }
        }
    }

    std::string cardDir_;
    std::string folder_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<unsigned> queue_;
    std::map<unsigned, Job> jobs_;
    unsigned lastId_ = 0;
    bool stopping_ = false;
    std::thread worker_;
};

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

void ReplyBusy(httplib::Response &res) {
    res.set_header("Retry-After", kRetryAfterSeconds);
    Reply(res,
          ApiError(kHttpUnavailable, std::to_string(kMaxStreams) +
                                         " videos and downloads are being sent already; try again shortly"));
}

// The library's server, with every connection read through a
// ConnectionStream: request heads within their limits, no bodies, writes
// that give up on a client that stops reading.
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

// The page's own files, nothing from the disk.
bool ServeAsset(const httplib::Request &req, httplib::Response &res) {
    std::string path = req.path == "/" ? "/index.html" : req.path;
    for (size_t i = 0; i < kPageAssetCount; ++i) {
        const PageAsset &asset = kPageAssets[i];
        if (path == asset.path) {
            res.set_content(reinterpret_cast<const char *>(asset.data), asset.size, asset.type);
            return true;
        }
    }
    return false;
}

// A request must name this server in its Host header: a web site that
// points its own name at 127.0.0.1 gets nothing from the card.
bool HostAllowed(const httplib::Request &req, const ServeOptions &options, int port) {
    std::string host = LowerCase(req.get_header_value("Host"));
    std::string suffix(1, ':');
    suffix += std::to_string(port);
    if (host.size() > suffix.size() && host.compare(host.size() - suffix.size(), suffix.size(), suffix) == 0)
        host.resize(host.size() - suffix.size());
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    if (!IsLoopbackHost(options.host)) return true;
    return IsLoopbackHost(host);
}

constexpr char kClipsPath[] = "/api/clips";

// Starting a clip is the one call that takes POST; everything else is read
// with GET (or HEAD).
const char *AllowedMethods(const std::string &path) { return path == kClipsPath ? "POST" : "GET, HEAD"; }

bool MethodAllowed(const httplib::Request &req) {
    return req.path == kClipsPath ? req.method == "POST" : req.method == "GET" || req.method == "HEAD";
}

// A call that changes something must come from this server's own page:
// a browser names the page's origin and site on it, and a page of any
// other site is refused. Tools that send neither (curl) are taken.
bool FromOwnPage(const httplib::Request &req) {
    if (req.has_header("Sec-Fetch-Site") && req.get_header_value("Sec-Fetch-Site") != "same-origin")
        return false;
    return !req.has_header("Origin") ||
           LowerCase(req.get_header_value("Origin")) == "http://" + LowerCase(req.get_header_value("Host"));
}

bool HasControlCharacter(const std::string &text) {
    return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

// The query as it was sent. The library's own parameter list folds a
// repeated NAME=VALUE into one and passes over empty names, so the query is
// split here: every part is NAME=VALUE with a name, and neither holds a
// control character once decoded. An empty ApiReply body when it is sound.
ApiReply ParseQuery(const httplib::Request &req, ApiQuery *query) {
    size_t mark = req.target.find('?');
    if (mark == std::string::npos || mark + 1 == req.target.size()) return ApiReply{kHttpOk, ""};
    std::string text = req.target.substr(mark + 1);
    for (size_t at = 0; at <= text.size();) {
        size_t end = std::min(text.find('&', at), text.size());
        std::string part = text.substr(at, end - at);
        size_t equals = part.find('=');
        if (equals == 0 || equals == std::string::npos)
            return ApiError(kHttpBadRequest, "every parameter is NAME=VALUE, with a name");
        std::string name = httplib::detail::decode_url(part.substr(0, equals), true);
        std::string value = httplib::detail::decode_url(part.substr(equals + 1), true);
        if (HasControlCharacter(name) || HasControlCharacter(value))
            return ApiError(kHttpBadRequest, "a parameter holds a control character");
        query->emplace(std::move(name), std::move(value));
        at = end + 1;
    }
    return ApiReply{kHttpOk, ""};
}

// The query of a request Admit took.
ApiQuery QueryOf(const httplib::Request &req) {
    ApiQuery query;
    ParseQuery(req, &query);
    return query;
}

// Whether the server takes the request at all: the reply refusing it, or
// status 0.
ApiReply Admit(const httplib::Request &req, httplib::Response &res, const ServeOptions &options, int port) {
    if (req.get_header_value_count("Host") > 1) return ApiError(kHttpBadRequest, "more than one Host header");
    if (!HostAllowed(req, options, port))
        return ApiError(kHttpForbidden, "this server answers to its loopback address only");
    if (!MethodAllowed(req)) {
        res.set_header("Allow", AllowedMethods(req.path));
        return ApiError(kHttpMethodNotAllowed,
                        req.method + " is not taken here; " + AllowedMethods(req.path) + " is");
    }
    if (req.method != "GET" && req.method != "HEAD" && !FromOwnPage(req))
        return ApiError(kHttpForbidden,
                        "calls that change something are taken from this server's own page only");
    ApiQuery query;
    ApiReply parsed = ParseQuery(req, &query);
    return parsed.status == kHttpOk ? ApiReply{0, ""} : parsed;
}

// Decides a clip request: 202 with the job, or 400.
ApiReply StartClip(const std::string &cardDir, const ApiQuery &query, ClipJobs &jobs) {
    ApiParams params(query, {"from", "to"});
    uint32_t from = 0, to = 0;
    if (!params.Range(&from, &to)) return params.Error();
    if (from == to) return ApiError(kHttpBadRequest, "a clip needs 'to' after 'from'");
    // Both ends are included: from..to spans to - from + 1 seconds.
    if (to - from >= kMaxClipSeconds) return ApiError(kHttpBadRequest, "a clip is at most one hour long");
    CardCatalog catalog;
    std::string reason;
    if (LoadCardCatalog(cardDir, &catalog, &reason) != 0) return ApiError(kHttpServerError, reason);
    bool any = false;
    for (const CatalogSection &s : catalog.sections)
        any = any || (s.head.m_u32StartTime < to && s.end > from);
    if (!any) return ApiError(kHttpNotFound, "nothing was recorded in that time");
    return jobs.Start(from, to);
}

// Checks the moment to play; the section that holds it, or an error. *at
// and *end give the stretch to play: from the moment to the section's end.
ApiReply FindPlayable(const std::string &cardDir, const ApiQuery &query, uint32_t *at, uint32_t *end) {
    ApiParams params(query, {"at"});
    if (!params.Time("at", at)) return params.Error();
    CardCatalog catalog;
    std::string reason;
    if (LoadCardCatalog(cardDir, &catalog, &reason) != 0) return ApiError(kHttpServerError, reason);
    const CatalogSection *section = CatalogSectionAt(catalog, *at, kPlaySlackSeconds);
    if (section == nullptr) return ApiError(kHttpNotFound, "nothing was recorded at that moment");
    *at = std::max(*at, section->head.m_u32StartTime);
    *end = section->end;
    return ApiReply{kHttpOk, SectionJson(*section)};
}

// Fragmented MP4 from the key frame at or before the moment, made while it
// is sent: the browser shows the first frames before the rest is read.
void StreamVideo(const std::string &cardDir, uint32_t at, uint32_t end, std::shared_ptr<void> slot,
                 httplib::Response &res) {
    // The stream has no length to take ranges of: whatever range the
    // browser asks for, it gets the whole of it.
    res.status = kHttpOk;
    res.set_header("Cache-Control", "no-store");
    res.set_chunked_content_provider("video/mp4", [cardDir, at, end, slot](size_t, httplib::DataSink &sink) {
        ClipRequest request;
        request.cardDir = cardDir;
        request.from = at;
        request.to = end;
        ClipInfo info;
        std::string reason;
        int streamed = CardClipToStream(
            request,
            [&sink](const uint8_t *data, size_t size) {
                return sink.is_writable() && sink.write(reinterpret_cast<const char *>(data), size);
            },
            nullptr, &info, &reason);
        if (streamed == kClipOk) {
            sink.done();
            return true;
        }
        // A stream cut short must not look finished: no last chunk, the
        // connection just ends.
        if (streamed != kClipCancelled)
            fprintf(stderr, "avrecord-card serve: playback stopped: %s\n", reason.c_str());
        return false;
    });
}

void AddRoutes(httplib::Server &server, const std::string &cardDir, ClipJobs &jobs, StreamSlots &slots) {
    using httplib::Request;
    using httplib::Response;
    auto card = [&server, cardDir](const char *path,
                                   ApiReply (*call)(const std::string &, const ApiQuery &)) {
        server.Get(path, [cardDir, call](const Request &req, Response &res) {
            Reply(res, call(cardDir, QueryOf(req)));
        });
    };
    card("/api/days", ApiDays);
    card("/api/sections", ApiSections);
    card("/api/events", ApiEvents);
    card("/api/section", ApiSection);
    card("/api/play", ApiPlay);
    card("/api/info", ApiInfo);
    card("/api/check", ApiCheck);
    server.Get("/api/video", [cardDir, &slots](const Request &req, Response &res) {
        uint32_t at = 0, end = 0;
        ApiReply found = FindPlayable(cardDir, QueryOf(req), &at, &end);
        if (found.status != kHttpOk) return Reply(res, found);
        std::shared_ptr<void> slot = slots.Take();
        if (slot == nullptr) return ReplyBusy(res);
        StreamVideo(cardDir, at, end, slot, res);
    });
    server.Post(kClipsPath, [cardDir, &jobs](const Request &req, Response &res) {
        Reply(res, StartClip(cardDir, QueryOf(req), jobs));
    });
    server.Get(R"(/api/clips/(\d{1,9}))", [&jobs](const Request &req, Response &res) {
        ApiQuery query = QueryOf(req);
        ApiParams params(query, {});
        if (!params.Ok()) return Reply(res, params.Error());
        Reply(res, jobs.Status(static_cast<unsigned>(std::stoul(req.matches[1]))));
    });
    server.Get(R"(/api/clips/(\d{1,9})/file)", [&jobs, &slots](const Request &req, Response &res) {
        ApiQuery query = QueryOf(req);
        ApiParams params(query, {});
        if (!params.Ok()) return Reply(res, params.Error());
        std::string path, name;
        if (!jobs.Finished(static_cast<unsigned>(std::stoul(req.matches[1])), &path, &name))
            return Reply(res, ApiError(kHttpNotFound, "no finished clip " + req.matches[1].str()));
        std::shared_ptr<void> slot = slots.Take();
        if (slot == nullptr) return ReplyBusy(res);
        auto file = std::make_shared<std::FILE *>(std::fopen(path.c_str(), "rb"));
        if (*file == nullptr) return Reply(res, ApiError(kHttpServerError, "clip file is gone"));
        std::error_code error;
        size_t size = std::filesystem::file_size(path, error);
        res.set_header("Content-Disposition", "attachment; filename=\"" + name + "\"");
        res.set_content_provider(
            size, "video/mp4",
            [file, slot](size_t offset, size_t length, httplib::DataSink &sink) {
                char buffer[1 << 16];
                if (fseeko(*file, static_cast<off_t>(offset), SEEK_SET) != 0) return false;
                size_t got = fread(buffer, 1, std::min(length, sizeof buffer), *file);
                return got > 0 && sink.write(buffer, got);
            },
            [file](bool) { std::fclose(*file); });
    });
    server.Get(".*", [](const Request &req, Response &res) {
        if (req.path.rfind("/api/", 0) != 0 && ServeAsset(req, res)) return;
        Reply(res, ApiError(kHttpNotFound, "no such page"));
    });
}

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

bool ParseListenAddress(const std::string &text, std::string *host, int *port) {
    size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 >= text.size() || colon + 6 < text.size())
        return false;
    std::string name = text.substr(0, colon);
    if (name.front() == '[') {
        if (name.size() < 3 || name.back() != ']') return false;
        name = name.substr(1, name.size() - 2);
    } else if (name.find(':') != std::string::npos) {
        return false;
    }
    int value = 0;
    for (char c : text.substr(colon + 1)) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    if (value > kMaxPort) return false;
    *host = name;
    *port = value;
    return true;
}

bool IsLoopbackHost(const std::string &host) {
    if (LowerCase(host) == "localhost" || host == "::1") return true;
    in_addr address;
    return inet_pton(AF_INET, host.c_str(), &address) == 1 && (ntohl(address.s_addr) >> 24) == 127;
}

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
