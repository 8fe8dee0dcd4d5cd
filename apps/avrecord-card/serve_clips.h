// Clips of "avrecord-card serve": made one at a time, in the order asked
// for, by one worker thread; each lands as a file in the server's own
// temporary folder, the oldest finished one going when there are too many.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "card_clip.h"
#include "serve_api.h"

class ClipJobs {
public:
    ClipJobs(std::string cardDir, std::string folder);
    ~ClipJobs();
    ClipJobs(const ClipJobs &) = delete;
    ClipJobs &operator=(const ClipJobs &) = delete;

    // Queues a clip of [from, to]: 202 with its status.
    ApiReply Start(uint32_t from, uint32_t to);
    // The clip's status, or 404.
    ApiReply Status(unsigned id);
    // The finished clip's file and download name.
    bool Finished(unsigned id, std::string *path, std::string *name);

private:
    using Clock = std::chrono::steady_clock;
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

    std::string StatusJson(unsigned id, const Job &job) const;
    void DropOldest();
    void Work();

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

// Decides a clip request (from, to: both ends included, at most an hour):
// 202 with the job, or the refusal.
ApiReply StartClip(const std::string &cardDir, const ApiQuery &query, ClipJobs &jobs);
