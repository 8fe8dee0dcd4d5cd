#include "lib/sim_commands.h"

#include <sys/shm.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <thread>

#include "common/card_time.h"
#include "ipc/alarm_shm.h"
#include "ipc/sysv_ipc.h"
#include "ipc/watchdog_shm.h"
#include "lib/sim_fields.h"
#include "lib/sim_io.h"
#include "lib/sim_run.h"
#include "lib/sim_status.h"
#include "sysconfig/sys_info.h"

namespace {

constexpr int kInjectWaitMs = 5000;
constexpr long kInjectArgMax = 1000000;

bool HasFlag(const SimArgs &args, const char *flag) {
    for (const std::string &arg : args) {
        if (arg == flag) return true;
    }
    return false;
}

// The identifier of an existing segment, or -1 with an explanation.
int ExistingSegment(key_t key, const char *what, std::string *error) {
    int shmId = shmget(key, 0, 0);
    if (shmId < 0)
        *error = std::string(what) + " not found in this IPC namespace (is \"avcam-sim run\" running?)";
    return shmId;
}

const char *FaultName(SimFault fault) {
    switch (fault) {
        case SimFault::SerialGap:
            return "serial-gap";
        case SimFault::Pause:
            return "pause";
        case SimFault::CorruptCheck:
            return "corrupt-check";
        case SimFault::Burst:
            return "burst";
        default:
            return "none";
    }
}

}  // namespace

int SimFail(int code, const std::string &message) {
    fprintf(stderr, "avcam-sim: %s\n", message.c_str());
    return code;
}

int SimSet(const SimArgs &args) {
    std::vector<FieldChange> changes;
    std::string error;
    if (!ParseSettings(args, &changes, &error)) return SimFail(kSimExitUsage, error);
    int shmId = ExistingSegment(kSysInfoShmKey, "SysInfo", &error);
    if (shmId < 0) return SimFail(kSimExitFailed, error);
    void *info = shmat(shmId, nullptr, 0);
    if (info == reinterpret_cast<void *>(-1)) return SimFail(kSimExitFailed, "cannot attach SysInfo");
    ApplyChanges(static_cast<uint8_t *>(info), changes);
    shmdt(info);
    return kSimExitOk;
}

int SimAlarm(const SimArgs &args) {
    long source = 0;
    if (args.size() != 2) return SimFail(kSimExitUsage, "usage: avcam-sim alarm SOURCE on|off");
    if (!ParseNumber(args[0], 0, kAlarmSourceCount - 1, &source)) {
        return SimFail(kSimExitUsage, "bad alarm source '" + args[0] + "' (expected 0..15)");
    }
    if (args[1] != "on" && args[1] != "off")
        return SimFail(kSimExitUsage, "bad alarm state '" + args[1] + "' (on|off)");
    std::string error;
    int shmId = ExistingSegment(kAlarmShmKey, "alarm block", &error);
    if (shmId < 0) return SimFail(kSimExitFailed, error);
    AlarmShmEntry entry{};
    entry.Status = args[1] == "on" ? 1 : 0;
    entry.Time = CardTimeNowOrZero();
    IpcShareMemWrite(shmId, static_cast<size_t>(source) * sizeof entry, &entry, sizeof entry);
    return kSimExitOk;
}

int SimWatchdog(const SimArgs &args) {
    bool json = HasFlag(args, "--json");
    if (args.size() > (json ? 1u : 0u)) return SimFail(kSimExitUsage, "usage: avcam-sim watchdog [--json]");
    std::string error;
    int shmId = ExistingSegment(kWatchDogShmKey, "watchdog block", &error);
    if (shmId < 0) return SimFail(kSimExitFailed, error);
    WatchDogShmEntry entries[kWatchDogSourceCount];
    IpcShareMemRead(shmId, 0, entries, sizeof entries);
    for (uint32_t i = 0; i < kWatchDogSourceCount; ++i) {
        if (json) {
            printf("{\"slot\":%u,\"time\":%u,\"status\":%u}\n", i, entries[i].Time, entries[i].Status);
        } else {
            printf("slot %2u  time %10u  status %u\n", i, entries[i].Time, entries[i].Status);
        }
    }
    return kSimExitOk;
}

int SimInject(const SimArgs &args) {
    static const struct {
        const char *name;
        SimFault fault;
        long min;
    } kFaults[] = {{"serial-gap", SimFault::SerialGap, 1},
                   {"pause", SimFault::Pause, 1},
                   {"corrupt-check", SimFault::CorruptCheck, 1},
                   {"burst", SimFault::Burst, 1}};
    SimArgs words;
    long stream = 0;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] != "--stream") {
            words.push_back(args[i]);
            continue;
        }
        if (i + 1 >= args.size() || !ParseNumber(args[i + 1], 0, kSimStreams - 1, &stream)) {
            return SimFail(kSimExitUsage, "bad --stream (expected 0..2)");
        }
        ++i;
    }
    if (words.size() != 2) return SimFail(kSimExitUsage, "usage: avcam-sim inject FAULT N [--stream S]");
    SimFault fault = SimFault::None;
    long arg = 0;
    for (const auto &known : kFaults) {
        if (words[0] == known.name) fault = known.fault;
    }
    if (fault == SimFault::None) {
        return SimFail(kSimExitUsage,
                       "unknown fault '" + words[0] + "' (serial-gap, pause, corrupt-check, burst)");
    }
    if (!ParseNumber(words[1], 1, kInjectArgMax, &arg)) {
        return SimFail(kSimExitUsage, "bad value '" + words[1] + "' for " + words[0]);
    }
    SimStatus *status = SimStatusAttach();
    if (status == nullptr)
        return SimFail(kSimExitFailed, "no running \"avcam-sim run\" in this IPC namespace");
    if (SimLoad(status->Ring[stream].Active) == 0) {
        SimStatusDetach(status);
        return SimFail(kSimExitFailed, "stream " + std::to_string(stream) + " has no input");
    }
    SimStore(status->InjectFault, static_cast<uint32_t>(fault));
    SimStore(status->InjectArg, static_cast<uint32_t>(arg));
    SimStore(status->InjectStream, static_cast<uint32_t>(stream));
    uint32_t seq = SimLoad(status->InjectSeq) + 1;
    SimStore(status->InjectSeq, seq);
    bool taken = false;
    for (int waited = 0; waited < kInjectWaitMs && !taken; waited += 5) {
        taken = SimLoad(status->InjectDoneSeq) == seq;
        if (!taken) usleep(5000);
    }
    SimStatusDetach(status);
    if (!taken)
        return SimFail(kSimExitFailed, std::string(FaultName(fault)) + " was not taken by the encoder");
    return kSimExitOk;
}

int SimStatusCommand(const SimArgs &args) {
    bool json = HasFlag(args, "--json");
    if (args.size() > (json ? 1u : 0u)) return SimFail(kSimExitUsage, "usage: avcam-sim status [--json]");
    SimStatus *status = SimStatusAttach();
    if (status == nullptr)
        return SimFail(kSimExitFailed, "no running \"avcam-sim run\" in this IPC namespace");
    for (uint32_t s = 0; s < kSimStreams; ++s) {
        const SimRingStatus &ring = status->Ring[s];
        uint32_t active = SimLoad(ring.Active), serial = SimLoad(ring.Serial), frames = SimLoad(ring.Frames);
        uint32_t keys = SimLoad(ring.KeyFrames), asked = SimLoad(ring.ForceAsked),
                 forced = SimLoad(ring.ForceKey);
        int32_t position = static_cast<int32_t>(SimLoad(reinterpret_cast<const uint32_t &>(ring.Position)));
        if (json) {
            printf(
                "{\"stream\":%u,\"active\":%u,\"serial\":%u,\"position\":%d,\"frames\":%u,\"key_frames\":%u,"
                "\"force_asked\":%u,\"force_key\":%u}\n",
                s, active, serial, position, frames, keys, asked, forced);
        } else {
            printf(
                "stream %u  active %u  serial %u  position %d  frames %u  key frames %u  forced key %u after "
                "%u\n",
                s, active, serial, position, frames, keys, forced, asked);
        }
    }
    const char *format = json ? "{\"pid\":%d,\"fps\":%u,\"audio_frames\":%u,\"config_requests\":%u,"
                                "\"stream_requests\":%u,\"encoder_requests\":%u,\"force_iframes\":%u}\n"
                              : "pid %d  fps %u  audio frames %u  config requests %u  stream requests %u  "
                                "encoder requests %u  force-I-frames %u\n";
    printf(format, status->Pid, status->Fps, SimLoad(status->AudioFrames), SimLoad(status->ConfigRequests),
           SimLoad(status->StreamRequests), SimLoad(status->EncoderRequests), SimLoad(status->ForceIFrames));
    SimStatusDetach(status);
    return kSimExitOk;
}
