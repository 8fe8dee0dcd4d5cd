#include "serve_clips.h"

#include <algorithm>
#include <cstdio>

#include "card_command.h"
#include "tools/calendar_time.h"

namespace {

constexpr uint32_t kMaxClipSeconds = 3600;  // one hour
constexpr size_t kMaxClipJobs = 32;         // the oldest finished clip goes first

// "YYYY-MM-DD_HH-MM-SS", local: a part of a file name.
std::string FileStamp(uint32_t seconds) {
    std::string text = LocalTimeText(seconds);
    std::replace(text.begin(), text.end(), ' ', '_');
    std::replace(text.begin(), text.end(), ':', '-');
    return text;
}

}  // namespace

ClipJobs::ClipJobs(std::string cardDir, std::string folder)
    : cardDir_(std::move(cardDir)), folder_(std::move(folder)) {
    worker_ = std::thread([this] { Work(); });
}

ClipJobs::~ClipJobs() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    worker_.join();
}

ApiReply ClipJobs::Start(uint32_t from, uint32_t to) {
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

ApiReply ClipJobs::Status(unsigned id) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = jobs_.find(id);
    if (found == jobs_.end()) return ApiError(kHttpNotFound, "no clip " + std::to_string(id));
    return ApiReply{kHttpOk, StatusJson(id, found->second)};
}

bool ClipJobs::Finished(unsigned id, std::string *path, std::string *name) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = jobs_.find(id);
    if (found == jobs_.end() || found->second.state != kDone) return false;
    *path = found->second.path;
    *name = found->second.name;
    return true;
}

std::string ClipJobs::StatusJson(unsigned id, const Job &job) const {
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

void ClipJobs::DropOldest() {
    for (auto it = jobs_.begin(); jobs_.size() >= kMaxClipJobs && it != jobs_.end();) {
        if (it->second.state == std::string(kDone) || it->second.state == std::string(kFailed)) {
            std::remove(it->second.path.c_str());
            it = jobs_.erase(it);
        } else {
            ++it;
        }
    }
}

void ClipJobs::Work() {
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
