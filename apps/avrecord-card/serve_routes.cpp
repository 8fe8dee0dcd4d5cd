#include "serve_routes.h"

#include <functional>
#include <memory>

#include "serve_assets.h"
#include "serve_stream.h"

namespace {

constexpr char kJson[] = "application/json";
constexpr char kRetryAfterSeconds[] = "5";

void ReplyBusy(httplib::Response &res) {
    res.set_header("Retry-After", kRetryAfterSeconds);
    Reply(res,
          ApiError(kHttpUnavailable, std::to_string(kMaxStreams) +
                                         " videos and downloads are being sent already; try again shortly"));
}

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

using Route = std::function<void(const httplib::Request &, httplib::Response &, const ApiQuery &)>;

// A route that gets the request's query, read once; a query that is not
// sound is refused before the route runs.
httplib::Server::Handler WithQuery(Route route) {
    return [route](const httplib::Request &req, httplib::Response &res) {
        ApiQuery query;
        ApiReply parsed = ParseQuery(req.target, &query);
        if (parsed.status != kHttpOk) return Reply(res, parsed);
        route(req, res, query);
    };
}

// A route of a call that takes no parameters.
bool NoParameters(const ApiQuery &query, httplib::Response &res) {
    ApiParams params(query, {});
    if (!params.Ok()) Reply(res, params.Error());
    return params.Ok();
}

unsigned ClipId(const httplib::Request &req) { return static_cast<unsigned>(std::stoul(req.matches[1])); }

}  // namespace

void Reply(httplib::Response &res, const ApiReply &reply) {
    res.status = reply.status;
    res.set_content(reply.body, kJson);
}

void AddRoutes(httplib::Server &server, const std::string &cardDir, ClipJobs &jobs, StreamSlots &slots) {
    using httplib::Request;
    using httplib::Response;
    auto card = [&server, cardDir](const char *path,
                                   ApiReply (*call)(const std::string &, const ApiQuery &)) {
        server.Get(path, WithQuery([cardDir, call](const Request &, Response &res, const ApiQuery &query) {
                       Reply(res, call(cardDir, query));
                   }));
    };
    card("/api/days", ApiDays);
    card("/api/sections", ApiSections);
    card("/api/events", ApiEvents);
    card("/api/section", ApiSection);
    card("/api/play", ApiPlay);
    card("/api/info", ApiInfo);
    card("/api/check", ApiCheck);
    card("/api/status", ApiRecorderStatus);
    server.Get("/api/video",
               WithQuery([cardDir, &slots](const Request &, Response &res, const ApiQuery &query) {
                   PlayTarget target;
                   ApiReply found = FindPlayable(cardDir, query, &target);
                   if (found.status != kHttpOk) return Reply(res, found);
                   std::shared_ptr<void> slot = slots.Take();
                   if (slot == nullptr) return ReplyBusy(res);
                   StreamVideo(cardDir, target.at, target.end, slot, res);
               }));
    server.Post(kClipsPath,
                WithQuery([cardDir, &jobs](const Request &, Response &res, const ApiQuery &query) {
                    Reply(res, StartClip(cardDir, query, jobs));
                }));
    server.Get(R"(/api/clips/(\d{1,9}))",
               WithQuery([&jobs](const Request &req, Response &res, const ApiQuery &query) {
                   if (NoParameters(query, res)) Reply(res, jobs.Status(ClipId(req)));
               }));
    server.Get(R"(/api/clips/(\d{1,9})/file)",
               WithQuery([&jobs, &slots](const Request &req, Response &res, const ApiQuery &query) {
                   if (!NoParameters(query, res)) return;
                   std::string path, name;
                   if (!jobs.Finished(ClipId(req), &path, &name))
                       return Reply(res, ApiError(kHttpNotFound, "no finished clip " + req.matches[1].str()));
                   std::shared_ptr<void> slot = slots.Take();
                   if (slot == nullptr) return ReplyBusy(res);
                   if (!SendClipFile(path, name, slot, res))
                       Reply(res, ApiError(kHttpServerError, "clip file is gone"));
               }));
    server.Get(".*", WithQuery([](const Request &req, Response &res, const ApiQuery &) {
                   if (req.path.rfind("/api/", 0) != 0 && ServeAsset(req, res)) return;
                   Reply(res, ApiError(kHttpNotFound, "no such page"));
               }));
}
