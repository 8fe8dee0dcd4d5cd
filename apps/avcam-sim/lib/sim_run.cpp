#include "lib/sim_run.h"

#include <signal.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "ipc/alarm_shm.h"
#include "ipc/shm_block.h"
#include "ipc/sps_pps_shm.h"
#include "ipc/sysv_ipc.h"
#include "ipc/watchdog_shm.h"
#include "lib/sim_config_server.h"
#include "lib/sim_io.h"
#include "sysconfig/sys_info.h"

namespace {

constexpr long kFpsMax = 120;
constexpr double kSpeedMax = 1000.0;
constexpr uint8_t kEncodingH264 = 0;
constexpr uint8_t kEncodingH265 = 1;

bool TakesValue(const std::string &option) {
    return option == "--profile" || option == "--video0" || option == "--video1" || option == "--video2" ||
           option == "--audio" || option == "--audio-codec" || option == "--fps" || option == "--speed" ||
           option == "--publish-log";
}

// The segments "run" created itself (the encoder and the configuration
// server remove their own objects).
struct Created {
    std::vector<int> segments;
    void RemoveAll() {
        for (int id : segments) IpcShareMemRemove(id);
        segments.clear();
    }
};

bool OpenBlocks(const SimEncoderConfig &encoder, Created *created) {
    if (libAlarmProcessInit() != 0 || libWatchDogInit() != 0 || libAVSpsPpsProcessInit() != 0) return false;
    for (ShmBlock *block : {AlarmShmBlock(), WatchDogShmBlock(), AVSpsPpsShmBlock()}) {
        created->segments.push_back(block->gShmId);
    }
    for (uint32_t s = 0; s < kSimStreams; ++s) {
        const std::vector<uint8_t> &sets = encoder.video[s].paramSets;
        if (encoder.hasVideo[s] && sets.size() <= kSpsPpsDataMax) {
            AVSpsPpsDataWrite(s, sets.data(), static_cast<uint32_t>(sets.size()));
        }
    }
    return true;
}

bool OpenSysInfo(const std::vector<FieldChange> &settings, Created *created) {
    if (SysInfoAttach() != 0) return false;
    created->segments.push_back(shmget(kSysInfoShmKey, 0, 0));
    SysInfo *info = GetSysInfoForWriting();
    memset(info, 0, sizeof *info);
    ApplyChanges(reinterpret_cast<uint8_t *>(info), settings);
    return true;
}

void WaitForStopSignal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    int sig = 0;
    sigwait(&set, &sig);
}

}  // namespace

std::vector<FieldChange> DefaultSettings(const SimEncoderConfig &encoder) {
    std::vector<std::string> words = {"record-enable", "1", "stream-type", "0", "video-standard", "1",
                                      "audio-enable",  "0", "lack-space",  "1", "prerecord",      "1",
                                      "delay",         "0"};
    for (int d = 0; d < kSysWeekDays; ++d) {
        for (const std::string &w :
             {std::string("day-mode"), std::to_string(d), std::string("1"), std::string("segment"),
              std::to_string(d), std::string("0"), std::string("00:00:00-23:59:59"), std::string("0")}) {
            words.push_back(w);
        }
    }
    for (uint32_t s = 0; s < kSimStreams; ++s) {
        const VideoInput &video = encoder.video[s];
        bool h265 = encoder.hasVideo[s] && video.codec == VideoCodec::kH265;
        std::string stream = std::to_string(s);
        words.insert(words.end(), {"encoding", stream, std::to_string(h265 ? kEncodingH265 : kEncodingH264)});
        if (encoder.hasVideo[s] && video.width > 0 && video.height > 0) {
            words.insert(words.end(), {"width", stream, std::to_string(video.width), "height", stream,
                                       std::to_string(video.height)});
        }
    }
    if (encoder.hasAudio) {
        words.insert(words.end(), {"audio-enable", "1", "audio-encoding",
                                   std::to_string(AudioEncodingValue(encoder.audio.codec))});
    }
    std::vector<FieldChange> changes;
    std::string error;
    ParseSettings(words, &changes, &error);
    // Stream encoding bytes follow iEncoding.
    for (uint32_t s = 0; s < kSimStreams; ++s) {
        bool h265 = encoder.hasVideo[s] && encoder.video[s].codec == VideoCodec::kH265;
        changes.push_back(
            {SysStreamEncodingOffset(static_cast<int>(s)), {h265 ? kEncodingH265 : kEncodingH264}, -1});
    }
    return changes;
}

int ParseRunOptions(const std::vector<std::string> &args, SimRunOptions *options, std::string *error) {
    std::string profile, videoPath[kSimStreams], audioPath, audioCodec;
    SimEncoderConfig &encoder = options->encoder;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &option = args[i];
        if (option == "--no-loop") {
            encoder.loop = false;
            continue;
        }
        if (!TakesValue(option)) {
            *error = "unknown option '" + option + "' for run";
            return kSimExitUsage;
        }
        if (i + 1 >= args.size()) {
            *error = option + " needs a value";
            return kSimExitUsage;
        }
        const std::string &value = args[++i];
        long number = 0;
        if (option == "--profile")
            profile = value;
        else if (option == "--video0")
            videoPath[0] = value;
        else if (option == "--video1")
            videoPath[1] = value;
        else if (option == "--video2")
            videoPath[2] = value;
        else if (option == "--audio")
            audioPath = value;
        else if (option == "--audio-codec")
            audioCodec = value;
        else if (option == "--publish-log")
            encoder.publishLog = value;
        else if (option == "--fps") {
            if (!ParseNumber(value, 1, kFpsMax, &number)) {
                *error = "bad --fps '" + value + "' (expected 1.." + std::to_string(kFpsMax) + ")";
                return kSimExitUsage;
            }
            encoder.fps = static_cast<uint32_t>(number);
        } else {
            char *end = nullptr;
            encoder.speed = strtod(value.c_str(), &end);
            if (end == value.c_str() || *end != '\0' || !(encoder.speed > 0) || encoder.speed > kSpeedMax) {
                *error = "bad --speed '" + value + "' (expected a number above 0)";
                return kSimExitUsage;
            }
        }
    }
    if (audioPath.empty() != audioCodec.empty()) {
        *error = "--audio and --audio-codec go together";
        return kSimExitUsage;
    }
    AudioCodec codec = AudioCodec::G711A;
    if (!audioCodec.empty() && !ParseAudioCodec(audioCodec, &codec)) {
        *error = "bad --audio-codec '" + audioCodec + "' (expected g711a, g711u or aac)";
        return kSimExitUsage;
    }
    for (uint32_t s = 0; s < kSimStreams; ++s) {
        if (videoPath[s].empty()) continue;
        if (!LoadAnnexB(videoPath[s], &encoder.video[s], error)) return kSimExitFailed;
        encoder.hasVideo[s] = true;
    }
    if (!audioPath.empty()) {
        if (!LoadAudio(audioPath, codec, &encoder.audio, error)) return kSimExitFailed;
        encoder.hasAudio = true;
    }
    options->settings = DefaultSettings(encoder);
    if (!profile.empty() && !LoadProfile(profile, &options->settings, error)) return kSimExitFailed;
    return kSimExitOk;
}

int SimRun(SimRunOptions &options) {
    if (SimStatus *running = SimStatusAttach(); running != nullptr) {
        fprintf(stderr, "avcam-sim: already running in this IPC namespace (pid %d)\n", running->Pid);
        SimStatusDetach(running);
        return kSimExitFailed;
    }
    // Stop signals are taken by the main thread alone (sigwait), so no
    // worker is interrupted in a blocking call.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);

    Created created;
    SimStatus *status = nullptr;
    int statusId = SimStatusCreate(&status);
    if (statusId < 0) {
        fprintf(stderr, "avcam-sim: cannot create the status segment: %s\n", strerror(errno));
        return kSimExitFailed;
    }
    created.segments.push_back(statusId);
    SimConfigServer configServer;
    SimEncoder encoder;
    bool ok = OpenSysInfo(options.settings, &created) && configServer.Start(status) &&
              OpenBlocks(options.encoder, &created) && encoder.Start(options.encoder, status);
    if (!ok) {
        fprintf(stderr, "avcam-sim: cannot create the System V objects: %s\n", strerror(errno));
        encoder.Stop();
        configServer.Stop();
        SysInfoDetach();
        created.RemoveAll();
        SimStatusDetach(status);
        return kSimExitFailed;
    }
    status->Fps = options.encoder.fps;
    status->Pid = getpid();
    SimStore(status->Magic, kSimStatusMagic);
    fprintf(stderr, "avcam-sim: running (pid %d)\n", getpid());

    WaitForStopSignal();

    encoder.Stop();
    configServer.Stop();
    created.RemoveAll();
    SysInfoDetach();
    SimStatusDetach(status);
    fprintf(stderr, "avcam-sim: stopped\n");
    return kSimExitOk;
}
