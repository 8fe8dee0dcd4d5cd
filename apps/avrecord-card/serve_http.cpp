#include "serve_http.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
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
#include "tools/calendar_time.h"

namespace {

constexpr uint32_t kMaxClipSeconds = 3600;  // one hour
constexpr size_t kMaxClipJobs = 32;         // the oldest finished clip goes first
constexpr size_t kMaxPayload = 1024;        // no call takes a body
constexpr time_t kReadTimeoutSeconds = 30;
constexpr time_t kWriteTimeoutSeconds = 600;  // a paused video stops reading its stream
constexpr int kMaxPort = 65535;
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
    std::string host = req.get_header_value("Host");
    std::string suffix(1, ':');
    suffix += std::to_string(port);
    if (host.size() > suffix.size() && host.compare(host.size() - suffix.size(), suffix.size(), suffix) == 0)
        host.resize(host.size() - suffix.size());
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    if (!IsLoopbackHost(options.host)) return true;
    return IsLoopbackHost(host);
}

// Decides a clip request: 202 with the job, or 400.
ApiReply StartClip(const std::string &cardDir, const ApiQuery &query, ClipJobs &jobs) {
    ApiParams params(query, {"from", "to"});
    uint32_t from = 0, to = 0;
    if (!params.Range(&from, &to)) return params.Error();
    if (from == to) return ApiError(kHttpBadRequest, "a clip needs 'to' after 'from'");
    if (to - from > kMaxClipSeconds) return ApiError(kHttpBadRequest, "a clip is at most one hour long");
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
void StreamVideo(const std::string &cardDir, uint32_t at, uint32_t end, httplib::Response &res) {
    // The stream has no length to take ranges of: whatever range the
    // browser asks for, it gets the whole of it.
    res.status = kHttpOk;
    res.set_header("Cache-Control", "no-store");
    res.set_chunked_content_provider("video/mp4", [cardDir, at, end](size_t, httplib::DataSink &sink) {
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
        if (streamed != kClipOk && streamed != kClipCancelled)
            fprintf(stderr, "avrecord-card serve: playback stopped: %s\n", reason.c_str());
        sink.done();
        return true;
    });
}

void AddRoutes(httplib::Server &server, const std::string &cardDir, ClipJobs &jobs) {
    using httplib::Request;
    using httplib::Response;
    auto card = [&server, cardDir](const char *path,
                                   ApiReply (*call)(const std::string &, const ApiQuery &)) {
        server.Get(path, [cardDir, call](const Request &req, Response &res) {
            Reply(res, call(cardDir, req.params));
        });
    };
    card("/api/days", ApiDays);
    card("/api/sections", ApiSections);
    card("/api/events", ApiEvents);
    card("/api/section", ApiSection);
    card("/api/play", ApiPlay);
    card("/api/info", ApiInfo);
    card("/api/check", ApiCheck);
    server.Get("/api/video", [cardDir](const Request &req, Response &res) {
        uint32_t at = 0, end = 0;
        ApiReply found = FindPlayable(cardDir, req.params, &at, &end);
        if (found.status != kHttpOk) return Reply(res, found);
        StreamVideo(cardDir, at, end, res);
    });
    server.Post("/api/clips", [cardDir, &jobs](const Request &req, Response &res) {
        Reply(res, StartClip(cardDir, req.params, jobs));
    });
    server.Get(R"(/api/clips/(\d{1,9}))", [&jobs](const Request &req, Response &res) {
        ApiParams params(req.params, {});
        if (!params.Ok()) return Reply(res, params.Error());
        Reply(res, jobs.Status(static_cast<unsigned>(std::stoul(req.matches[1]))));
    });
    server.Get(R"(/api/clips/(\d{1,9})/file)", [&jobs](const Request &req, Response &res) {
        ApiParams params(req.params, {});
        if (!params.Ok()) return Reply(res, params.Error());
        std::string path, name;
        if (!jobs.Finished(static_cast<unsigned>(std::stoul(req.matches[1])), &path, &name))
            return Reply(res, ApiError(kHttpNotFound, "no finished clip " + req.matches[1].str()));
        auto file = std::make_shared<std::FILE *>(std::fopen(path.c_str(), "rb"));
        if (*file == nullptr) return Reply(res, ApiError(kHttpServerError, "clip file is gone"));
        std::error_code error;
        size_t size = std::filesystem::file_size(path, error);
        res.set_header("Content-Disposition", "attachment; filename=\"" + name + "\"");
        res.set_content_provider(
            size, "video/mp4",
            [file](size_t offset, size_t length, httplib::DataSink &sink) {
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

void SetUpServer(httplib::Server &server, const ServeOptions &options, const int *port) {
    server.set_payload_max_length(kMaxPayload);
    server.set_read_timeout(kReadTimeoutSeconds);
    server.set_write_timeout(kWriteTimeoutSeconds);
    server.set_default_headers({{"X-Content-Type-Options", "nosniff"},
                                {"Content-Security-Policy", "default-src 'self'; img-src 'self' data:"},
                                {"Referrer-Policy", "no-referrer"}});
    server.set_pre_routing_handler([options, port](const httplib::Request &req, httplib::Response &res) {
        if (HostAllowed(req, options, *port)) return httplib::Server::HandlerResponse::Unhandled;
        Reply(res, ApiError(kHttpForbidden, "this server answers to its loopback address only"));
        return httplib::Server::HandlerResponse::Handled;
    });
    // Errors the routes did not word themselves (an unknown method, say).
    server.set_error_handler(
        httplib::Server::HandlerWithResponse([](const httplib::Request &, httplib::Response &res) {
            if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
            Reply(res, ApiError(res.status, "request refused"));
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
    if (host == "localhost" || host == "::1") return true;
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
        httplib::Server server;
        ClipJobs jobs(options.cardDir, folder);
        SetUpServer(server, options, &port);
        AddRoutes(server, options.cardDir, jobs);
        port = options.port == 0 ? server.bind_to_any_port(options.host)
                                 : (server.bind_to_port(options.host, options.port) ? options.port : -1);
        if (port < 0) {
            fprintf(stderr, "avrecord-card serve: cannot listen on %s:%d\n", options.host.c_str(),
                    options.port);
            status = kExitUsage;
        } else {
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
