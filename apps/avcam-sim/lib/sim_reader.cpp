// "avcam-sim read": a consumer of the rings built on the ring reader, for
// end-to-end checks. It counts what arrives per stream, checks the serials,
// can save the payloads and can ask for a forced key frame and time it.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "ipc/av_server_request.h"
#include "ipc/av_stream.h"
#include "lib/sim_commands.h"
#include "lib/sim_io.h"
#include "lib/sim_run.h"
#include "lib/sim_status.h"

namespace {

constexpr uint32_t kReaderType = 6;
constexpr long kSecondsMax = 86400;

struct StreamTally {
    uint32_t frames = 0;       // video frames
    uint32_t keyFrames = 0;    // key frames among them
    uint32_t audioFrames = 0;  // audio records (main ring)
    uint32_t firstSerial = 0;  // first serial seen
    uint32_t lastSerial = 0;   // last serial seen
    uint32_t gaps = 0;         // serial steps above 1
    uint32_t repeats = 0;      // serial steps of 0 or backwards
    FILE *video = nullptr;     // payloads of video frames
    FILE *audio = nullptr;     // payloads of audio frames
};

// Forced key frame measurement.
struct ForceProbe {
    int stream = -1;           // stream asked, -1 none
    uint32_t afterSerial = 0;  // last serial before the request
    bool armed = false;        // request sent, key frame not yet seen
    std::chrono::steady_clock::time_point askedAt;
    double latencyMs = -1;  // request to key frame arrival
};

std::mutex g_mutex;
StreamTally g_tally[kSimStreams];
ForceProbe g_probe;

std::chrono::steady_clock::time_point g_lastFrameAt;

int OnFrame(uint32_t source, uint32_t channel, uint8_t *data, AVDataInfo *info) {
    if (channel >= kSimStreams) return 0;
    auto now = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lastFrameAt = now;
    StreamTally &t = g_tally[channel];
    uint32_t serial = info->SerialNumber;
    if (t.frames + t.audioFrames == 0) {
        t.firstSerial = serial;
    } else if (serial != t.lastSerial + 1) {
        ++(serial > t.lastSerial ? t.gaps : t.repeats);
    }
    t.lastSerial = serial;
    size_t length = static_cast<size_t>(info->AVDataLen);
    if (source == kAVSourceAudio) {
        ++t.audioFrames;
        if (t.audio != nullptr) fwrite(data, 1, length, t.audio);
        return 0;
    }
    ++t.frames;
    if (info->KeyFrameFlag != 0) ++t.keyFrames;
    if (t.video != nullptr) fwrite(data, 1, length, t.video);
    if (g_probe.armed && static_cast<int>(channel) == g_probe.stream && serial > g_probe.afterSerial) {
        if (info->KeyFrameFlag != 0) {
            g_probe.armed = false;
            g_probe.latencyMs = std::chrono::duration<double, std::milli>(now - g_probe.askedAt).count();
        }
    }
    return 0;
}

struct ReadOptions {
    bool streams[kSimStreams] = {true, true, true};
    long seconds = 10;      // longest run
    long quietMs = 0;       // stop after this long without frames (0: never)
    std::string outDir;     // payload files
    long forceStream = -1;  // stream for the force-I-frame probe
    long forceAfterMs = 2000;
};

int ParseReadOptions(const SimArgs &args, ReadOptions *o) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &option = args[i];
        if (i + 1 >= args.size())
            return SimFail(kSimExitUsage, "unknown or incomplete option '" + option + "' for read");
        const std::string &value = args[++i];
        bool ok = true;
        if (option == "--streams") {
            for (bool &on : o->streams) on = false;
            for (char c : value) {
                if (c == ',') continue;
                ok = ok && c >= '0' && c < static_cast<char>('0' + kSimStreams);
                if (ok) o->streams[c - '0'] = true;
            }
        } else if (option == "--seconds") {
            ok = ParseNumber(value, 1, kSecondsMax, &o->seconds);
        } else if (option == "--quiet-exit-ms") {
            ok = ParseNumber(value, 1, kSecondsMax * 1000, &o->quietMs);
        } else if (option == "--out") {
            o->outDir = value;
        } else if (option == "--force-iframe") {
            ok = ParseNumber(value, 0, kSimStreams - 1, &o->forceStream);
        } else if (option == "--force-after-ms") {
            ok = ParseNumber(value, 0, kSecondsMax * 1000, &o->forceAfterMs);
        } else {
            return SimFail(kSimExitUsage, "unknown option '" + option + "' for read");
        }
        if (!ok) return SimFail(kSimExitUsage, "bad value '" + value + "' for " + option);
    }
    return kSimExitOk;
}

bool OpenOutputs(const std::string &dir) {
    if (dir.empty()) return true;
    for (uint32_t s = 0; s < kSimStreams; ++s) {
        g_tally[s].video = fopen((dir + "/video" + std::to_string(s) + ".bin").c_str(), "wb");
        if (g_tally[s].video == nullptr) return false;
    }
    g_tally[0].audio = fopen((dir + "/audio.bin").c_str(), "wb");
    return g_tally[0].audio != nullptr;
}

void AskForKeyFrame(uint32_t stream) {
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_probe.stream = static_cast<int>(stream);
        g_probe.afterSerial = g_tally[stream].lastSerial;
        g_probe.askedAt = std::chrono::steady_clock::now();
        g_probe.armed = true;
    }
    AVServerVideoForceIFrame(static_cast<int>(stream));
}

void PrintReport() {
    std::lock_guard<std::mutex> lock(g_mutex);
    for (uint32_t s = 0; s < kSimStreams; ++s) {
        const StreamTally &t = g_tally[s];
        printf(
            "{\"stream\":%u,\"frames\":%u,\"key_frames\":%u,\"audio_frames\":%u,\"first_serial\":%u,"
            "\"last_serial\":%u,\"gaps\":%u,\"repeats\":%u}\n",
            s, t.frames, t.keyFrames, t.audioFrames, t.firstSerial, t.lastSerial, t.gaps, t.repeats);
        if (t.video != nullptr) fclose(t.video);
        if (t.audio != nullptr) fclose(t.audio);
    }
    if (g_probe.stream >= 0) {
        printf("{\"force_stream\":%d,\"latency_ms\":%.1f}\n", g_probe.stream, g_probe.latencyMs);
    }
    fflush(stdout);
}

}  // namespace

int SimRead(const SimArgs &args) {
    ReadOptions o;
    if (int code = ParseReadOptions(args, &o); code != kSimExitOk) return code;
    if (!OpenOutputs(o.outDir)) return SimFail(kSimExitFailed, "cannot write into " + o.outDir);
    if (GetAVStreamInit(kReaderType, OnFrame, nullptr) != 0)
        return SimFail(kSimExitFailed, "cannot open the rings");
    auto start = std::chrono::steady_clock::now();
    for (uint32_t s = 0; s < kSimStreams; ++s) {
        if (o.streams[s]) AVStreamStart(kReaderType, s);
    }
    bool forced = o.forceStream < 0;
    for (;;) {
        auto now = std::chrono::steady_clock::now();
        if (now - start >= std::chrono::seconds(o.seconds)) break;
        if (!forced && now - start >= std::chrono::milliseconds(o.forceAfterMs)) {
            AskForKeyFrame(static_cast<uint32_t>(o.forceStream));
            forced = true;
        }
        if (o.quietMs > 0) {
            std::lock_guard<std::mutex> lock(g_mutex);
            bool any = g_tally[0].frames + g_tally[1].frames + g_tally[2].frames > 0;
            if (any && now - g_lastFrameAt >= std::chrono::milliseconds(o.quietMs)) break;
        }
        usleep(10000);
    }
    for (uint32_t s = 0; s < kSimStreams; ++s) AVStreamStop(kReaderType, s);
    PrintReport();
    return kSimExitOk;
}
