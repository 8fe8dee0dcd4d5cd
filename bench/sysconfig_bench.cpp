// Cost of the configuration reads the frame writer and the record run make
// on every frame and every 20 ms, and of one configuration request round
// trip. Runs in its own IPC namespace so it never meets a live server.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/ipc.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "sysconfig/camera_access.h"
#include "sysconfig/sys_info.h"
#include "sysconfig/sys_request.h"

namespace {

bool SetUpOnce() {
    static const bool ready = [] {
        if (unshare(CLONE_NEWIPC) != 0) return false;
        FILE *quiet = freopen("/dev/null", "w", stderr);
        (void)quiet;
        return CameraAccessInit(kCameraTypeCommon, 6) == 0;
    }();
    return ready;
}

void BM_GetVideoEncodingProperty(benchmark::State &state) {
    if (!SetUpOnce()) return state.SkipWithError("no private IPC namespace");
    VideoEncodingProperty streams[kSysStreamCount];
    for (auto _ : state) {
        CameraGetVideoEncodingProperty(streams);
        benchmark::DoNotOptimize(streams);
    }
}
BENCHMARK(BM_GetVideoEncodingProperty);

void BM_GetRegularRecordProperty(benchmark::State &state) {
    if (!SetUpOnce()) return state.SkipWithError("no private IPC namespace");
    RegularRecordProperty record;
    for (auto _ : state) {
        CameraGetRegularRecordProperty(&record);
        benchmark::DoNotOptimize(record);
    }
}
BENCHMARK(BM_GetRegularRecordProperty);

void BM_ConfigRequestRoundTrip(benchmark::State &state) {
    if (!SetUpOnce()) return state.SkipWithError("no private IPC namespace");
    SysConfigServer server{};
    SysConfigServerOpen(&server);
    std::atomic<bool> stop{false};
    std::thread serving([&] {
        while (!stop.load()) SysConfigServeOne(server, GetSysInfoForWriting(), nullptr, IPC_NOWAIT);
    });
    uint8_t stream = 1;
    for (auto _ : state) benchmark::DoNotOptimize(ControlSystemData(SFIELD_SET_RECORD_STREAM, &stream, 1));
    stop.store(true);
    serving.join();
}
BENCHMARK(BM_ConfigRequestRoundTrip);

}  // namespace

BENCHMARK_MAIN();
