// Ring reader throughput and latency: an encoder-side writer publishes into
// the three rings while the reader threads deliver to a callback that
// measures publish-to-callback latency (the payload carries its publish
// time). Runs in a private IPC namespace of its own.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "ipc/av_ring_writer.h"
#include "ipc/av_stream.h"
#include "ipc/sysv_ipc.h"

namespace {

constexpr uint32_t kType = 5;
constexpr size_t kTimeOffset = 8;  // after start code and NAL header

int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::mutex g_mutex;
std::vector<int64_t> g_latencyNs;
uint32_t g_delivered[kAVVideoChannelCount];
uint32_t g_outOfOrder;
uint32_t g_lastSerial[kAVVideoChannelCount];

int OnFrame(uint32_t, uint32_t channel, uint8_t *data, AVDataInfo *info) {
    int64_t published = 0;
    memcpy(&published, data + kTimeOffset, sizeof published);
    int64_t now = NowNs();
    std::lock_guard<std::mutex> lock(g_mutex);
    g_latencyNs.push_back(now - published);
    if (info->SerialNumber != g_lastSerial[channel] + 1) ++g_outOfOrder;
    g_lastSerial[channel] = info->SerialNumber;
    ++g_delivered[channel];
    return 0;
}

// Rings, control queue and its answering thread for one run.
class Encoder {
public:
    Encoder() {
        for (uint32_t i = 0; i < kAVVideoChannelCount; ++i) AVRingWriterOpen(&rings_[i], i);
        msgId_ = IpcMsgQueueOpen(kAVStreamCtrlQueueKey);
        server_ = std::thread([this] {
            while (AVRingServeControl(msgId_, &Encoder::Answer, this) >= 0) {
            }
        });
        std::lock_guard<std::mutex> lock(g_mutex);
        g_latencyNs.clear();
        g_outOfOrder = 0;
        for (uint32_t i = 0; i < kAVVideoChannelCount; ++i) g_delivered[i] = g_lastSerial[i] = 0;
    }
    ~Encoder() {
        AVStreamResetForTest();
        IpcMsgQueueRemove(msgId_);
        server_.join();
        for (auto &ring : rings_) AVRingWriterClose(&ring, true);
    }

    void StartReaders() {
        GetAVStreamInit(kType, OnFrame, nullptr);
        for (uint32_t i = 0; i < kAVVideoChannelCount; ++i) AVStreamStart(kType, i);
    }

    void Publish(uint32_t channel, int32_t size, bool key) {
        std::vector<uint8_t> &payload = payload_[channel];
        payload.assign(static_cast<size_t>(size), 0x33);
        const uint8_t head[] = {0, 0, 0, 1, static_cast<uint8_t>(key ? 0x67 : 0x41)};
        memcpy(payload.data(), head, sizeof head);
        int64_t now = NowNs();
        memcpy(payload.data() + kTimeOffset, &now, sizeof now);
        AVRingWriterPublish(&rings_[channel], payload.data(), size, kAVSourceVideo,
                            static_cast<uint32_t>(now / 1000000), key);
    }

    uint32_t Published() const {
        uint32_t total = 0;
        for (const auto &ring : rings_) total += ring.Published.load();
        return total;
    }

private:
    static int32_t Answer(void *context, uint32_t command, uint32_t channel) {
        auto *self = static_cast<Encoder *>(context);
        return channel < kAVVideoChannelCount ? AVRingWriterAnswer(&self->rings_[channel], command) : -1;
    }

    AVRingWriter rings_[kAVVideoChannelCount];
    std::vector<uint8_t> payload_[kAVVideoChannelCount];
    int msgId_ = -1;
    std::thread server_;
};

void Report(benchmark::State &state, const Encoder &encoder) {
    usleep(100000);  // let the readers drain
    std::lock_guard<std::mutex> lock(g_mutex);
    std::vector<int64_t> latency = g_latencyNs;
    std::sort(latency.begin(), latency.end());
    auto percentile = [&](double p) {
        return latency.empty() ? 0.0 : latency[static_cast<size_t>(p * (latency.size() - 1))] / 1000.0;
    };
    uint32_t delivered = g_delivered[0] + g_delivered[1] + g_delivered[2];
    state.counters["published"] = encoder.Published();
    state.counters["delivered"] = delivered;
    state.counters["lost"] = encoder.Published() - delivered;
    state.counters["out_of_order"] = g_outOfOrder;
    state.counters["p50_us"] = percentile(0.50);
    state.counters["p99_us"] = percentile(0.99);
    state.counters["max_us"] = percentile(1.0);
}

// Readers that sit idle for long give up their place and wait for a newer key
// frame, so a run begins once the first key frames have arrived.
void WaitDelivered(uint32_t frames) {
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(g_mutex);
            if (g_delivered[0] + g_delivered[1] + g_delivered[2] >= frames) return;
        }
        usleep(1000);
    }
}

// Sizes of a typical main, second and third stream frame (key frames x5).
constexpr int32_t kFrameSize[kAVVideoChannelCount] = {40000, 12000, 4000};

// 25 fps on three channels for the given seconds, a key frame every 50.
void BM_RingReader25fps3Channels(benchmark::State &state) {
    const int frames = static_cast<int>(state.range(0)) * 25;
    for (auto _ : state) {
        Encoder encoder;
        encoder.StartReaders();
        for (uint32_t ch = 0; ch < kAVVideoChannelCount; ++ch) encoder.Publish(ch, kFrameSize[ch] * 5, true);
        WaitDelivered(kAVVideoChannelCount);
        auto next = std::chrono::steady_clock::now();
        for (int n = 1; n < frames; ++n) {
            next += std::chrono::milliseconds(40);
            std::this_thread::sleep_until(next);
            for (uint32_t ch = 0; ch < kAVVideoChannelCount; ++ch) {
                bool key = n % 50 == 0;
                encoder.Publish(ch, kFrameSize[ch] * (key ? 5 : 1), key);
            }
        }
        Report(state, encoder);
    }
}
BENCHMARK(BM_RingReader25fps3Channels)->Arg(10)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

// A burst as fast as the writer can go, staying inside the main ring
// (count x (size + 64) below its capacity).
void BM_RingReaderBurst(benchmark::State &state) {
    const int count = static_cast<int>(state.range(0));
    const int32_t size = static_cast<int32_t>(state.range(1));
    for (auto _ : state) {
        Encoder encoder;
        encoder.StartReaders();
        encoder.Publish(0, size, true);
        WaitDelivered(1);
        for (int n = 1; n < count; ++n) encoder.Publish(0, size, n % 50 == 0);
        Report(state, encoder);
    }
}
BENCHMARK(BM_RingReaderBurst)
    ->Args({3000, 1200})
    ->Args({300, 12000})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
    if (unshare(CLONE_NEWIPC) != 0) {
        fprintf(stderr,
                "ring_reader_bench: needs a private IPC namespace (run as root or under unshare -r --ipc)\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
