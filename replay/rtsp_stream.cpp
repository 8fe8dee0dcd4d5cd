#include "replay/rtsp_stream.h"

#include <time.h>

#include "common/log.h"
#include "replay/rtp_rtcp.h"
#include "replay/rtsp_range.h"

namespace {

constexpr uint32_t kLiveWaitMs = 20;       // the card has nothing new yet: ask again after this
constexpr uint64_t kHeldLimitUs = 500000;  // a range with an end: held units wait this long at the live edge
constexpr uint64_t kReportEveryUs = 5000000;  // sender reports
constexpr uint64_t kMaxPaceWaitUs = 2000000;  // a longer wait is a jump in the times: start pacing anew
constexpr uint32_t kUdpByeDelayMs = 200;      // lets the last packets arrive before the goodbye
constexpr uint64_t kUsPerMs = 1000;

// Only video has one: the parameter sets (audio has nothing to spare).
bool SendsLeadIn(const RtspTrack &track) {
    return track.output && track.packetizer && track.output->Tcp() && !track.parameterSets.empty();
}

}  // namespace

uint16_t RtspLeadInPackets(const RtspTrack &track) {
    if (!SendsLeadIn(track)) return 0;
    return track.packetizer->PacketsFor(track.parameterSets.data(), track.parameterSets.size());
}

uint32_t RtspTimestamp(uint32_t base, uint32_t clockRate, uint64_t anchorUs, uint64_t captureUs) {
    int64_t delta = static_cast<int64_t>(captureUs - anchorUs);
    int64_t ticks = delta * static_cast<int64_t>(clockRate) / 1000000;
    return base + static_cast<uint32_t>(ticks);
}

void RtspStream::Start(RtspPlay play) {
    Stop();
    m_play = std::move(play);
    m_stop.store(0, std::memory_order_relaxed);
    m_paused.store(0, std::memory_order_relaxed);
    m_running.store(1, std::memory_order_relaxed);
    m_thread = std::thread(&RtspStream::Run, this);
}

bool RtspStream::QueueFull() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_queued.size() >= kRtspMaxQueuedPlays;
}

void RtspStream::Queue(RtspPlay play) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_running.load(std::memory_order_relaxed) != 0) {
            m_queued.push_back(std::move(play));
            return;
        }
    }
    Start(std::move(play));
}

void RtspStream::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop.store(1, std::memory_order_relaxed);
    }
    m_wake.notify_all();
    if (m_thread.joinable()) m_thread.join();
    m_play.source.reset();
    m_queued.clear();
    m_running.store(0, std::memory_order_relaxed);
}

void RtspStream::Pause(bool bPaused) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_paused.store(bPaused ? 1 : 0, std::memory_order_relaxed);
        // Resumed playback is paced from where it stands (by the stream's
        // thread, the only one that touches the pacing).
        m_restartPace.store(1, std::memory_order_relaxed);
    }
    m_wake.notify_all();
}

bool RtspStream::WaitFor(uint32_t ms) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_wake.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_stop.load() != 0; });
    return m_stop.load() == 0;
}

int RtspStream::NextUnit(ReplayUnit *unit) {
    if (m_play.bHasFirst) {
        m_play.bHasFirst = false;
        *unit = std::move(m_play.first);
        return kReplayUnit;
    }
    return m_play.source->Next(unit);
}

// The latest monotonic time the unit may go out without falling further
// behind the recorder than the play's start did.
uint64_t RtspStream::LatestSend(const ReplayUnit &unit, uint64_t now, bool restarted) {
    uint64_t wall = ReplayClockUs(CLOCK_REALTIME);
    uint64_t behind = wall > unit.u64CaptureUs ? wall - unit.u64CaptureUs : 0;
    if (restarted) m_lagLimitUs = behind;
    // Slow motion falls behind on purpose.
    if (m_play.options.dScale < 1.0) return UINT64_MAX;
    return behind >= m_lagLimitUs ? now : now + (m_lagLimitUs - behind);
}

bool RtspStream::WaitPace(const ReplayUnit &unit) {
    if (!m_play.options.bRateControl) return m_stop.load(std::memory_order_relaxed) == 0;
    uint64_t now = ReplayClockUs(CLOCK_MONOTONIC);
    bool restarted = m_restartPace.exchange(0, std::memory_order_relaxed) != 0;
    if (restarted || m_paceWallUs == 0 || unit.bGapBefore || unit.u64CaptureUs < m_paceMediaUs) {
        m_paceWallUs = now;
        m_paceMediaUs = unit.u64CaptureUs;
    }
    uint64_t due =
        m_paceWallUs + static_cast<uint64_t>((unit.u64CaptureUs - m_paceMediaUs) / m_play.options.dScale);
    uint64_t latest = LatestSend(unit, now, restarted);
    if (due > latest) {
        m_paceWallUs = latest;
        m_paceMediaUs = unit.u64CaptureUs;
        due = latest;
    }
    if (due > now + kMaxPaceWaitUs) {
        m_paceWallUs = now;
        m_paceMediaUs = unit.u64CaptureUs;
        due = now;
    }
    if (due <= now) return m_stop.load(std::memory_order_relaxed) == 0;
    return WaitFor(static_cast<uint32_t>((due - now + kUsPerMs - 1) / kUsPerMs));
}

bool RtspStream::SendUnit(const ReplayUnit &unit, bool firstOfPlay) {
    RtspTrack &track = m_tracks[unit.bVideo ? kRtspVideoTrack : kRtspAudioTrack];
    if (!track.output || !track.packetizer || unit.data.empty()) return true;
    RtpFrameMarks marks = {unit.u64CaptureUs, 0, m_play.options.u8CSeq};
    if (unit.bKey || !unit.bVideo) marks.u8Flags |= kReplayFlagClean;
    if (unit.bGapAfter) marks.u8Flags |= kReplayFlagEnd;
    if (unit.bGapBefore || firstOfPlay) marks.u8Flags |= kReplayFlagDiscontinuity;
    if (unit.bLast) marks.u8Flags |= kReplayFlagTerminal;
    uint32_t timestamp =
        RtspTimestamp(track.u32BaseTimestamp, track.u32ClockRate, m_play.u64AnchorUs, unit.u64CaptureUs);
    RtspTrackOutput *output = track.output.get();
    if (firstOfPlay && SendsLeadIn(track) && !SendParameterSets(track, timestamp)) return false;
    bool sent = track.packetizer->SendFrame(
        unit.data.data(), unit.data.size(), timestamp, &marks,
        [output](const uint8_t *packet, size_t size) { return output->QueueRtp(packet, size); });
    track.u64LastCaptureUs = unit.u64CaptureUs;
    track.u32LastTimestamp = timestamp;
    return sent && output->FlushRtp();
}

// A player that stamps only the first packet of an interleaved stream with
// its arrival (GStreamer's rtspsrc over TCP) cannot place that packet in a
// play announced in recorded clock time: it drops it and every packet of
// its RTP time stamp. The parameter sets, one tick ahead of the picture,
// take that loss; the picture carries its own, and the description has them.
// Their sequence numbers come before the one RTP-Info names, so such a
// player drops them as older than the play; counted as lost instead, they
// would hold every packet in its jitter buffer for the buffer's whole
// latency, and until a packet leaves that buffer the player ignores the
// stream's goodbye: a fast play (Rate-Control: no), whose goodbye comes at
// once, would not end.
bool RtspStream::SendParameterSets(RtspTrack &track, uint32_t firstTimestamp) {
    RtspTrackOutput *output = track.output.get();
    return track.packetizer->SendFrame(
        track.parameterSets.data(), track.parameterSets.size(), firstTimestamp - 1, nullptr,
        [output](const uint8_t *packet, size_t size) { return output->QueueRtp(packet, size); });
}

void RtspStream::SendReports(bool bBye) {
    for (RtspTrack &track : m_tracks) {
        if (!track.output || !track.packetizer) continue;
        if (track.output->DrainClientRtcp()) m_heard.store(1, std::memory_order_relaxed);
        RtcpSender sender = {track.packetizer->Ssrc(), track.u64LastCaptureUs, track.u32LastTimestamp,
                             track.packetizer->Packets(), track.packetizer->Octets()};
        uint8_t packet[kRtcpMaxCompound];
        size_t size = RtcpCompound(sender, bBye, packet);
        track.output->SendRtcp(packet, size);
    }
}

bool RtspStream::Wanted(const ReplayUnit &unit) {
    // Audio from before the play's first picture would run before the time stamps' origin.
    if (!unit.bVideo)
        return !m_play.options.bIntraOnly && m_play.options.u32IntraGapMs == 0 &&
               unit.u64CaptureUs >= m_play.u64AnchorUs;
    if (m_play.options.u32IntraGapMs == 0) return true;
    if (!unit.bKey) return false;
    if (m_lastKeyUs != 0 && unit.u64CaptureUs < m_lastKeyUs + m_play.options.u32IntraGapMs * kUsPerMs)
        return false;
    m_lastKeyUs = unit.u64CaptureUs;
    return true;
}

bool RtspStream::Deliver(const ReplayUnit &unit) {
    if (!WaitPace(unit)) return false;
    bool &first = m_firstOfPlay[unit.bVideo ? kRtspVideoTrack : kRtspAudioTrack];
    if (!SendUnit(unit, first)) return false;
    first = false;
    uint64_t now = ReplayClockUs(CLOCK_MONOTONIC);
    if (now - m_lastReportUs >= kReportEveryUs) {
        SendReports(false);
        m_lastReportUs = now;
    }
    return true;
}

// Caught up with the recorder: the units held back to mark the range's last
// go out unmarked, at once when the range follows the recording (it has no
// last), else once the wait grows long.
bool RtspStream::ReleaseHeld() {
    uint64_t now = ReplayClockUs(CLOCK_MONOTONIC);
    if (m_waitingSinceUs == 0) m_waitingSinceUs = now;
    if (!m_play.options.bOpenEnd && now - m_waitingSinceUs < kHeldLimitUs) return true;
    for (std::unique_ptr<ReplayUnit> &held : m_held) {
        if (held && !Deliver(*held)) return false;
        held.reset();
    }
    return true;
}

// The next queued play becomes the current one; with none queued, no play
// is under way any longer.
bool RtspStream::TakeQueued() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_queued.empty() || m_stop.load(std::memory_order_relaxed) != 0) {
        m_running.store(0, std::memory_order_relaxed);
        return false;
    }
    m_play = std::move(m_queued.front());
    m_queued.pop_front();
    return true;
}

// The range ended: true when a queued play follows it, else the play ends
// with a goodbye.
bool RtspStream::Finish(int result) {
    // Each track's last unit of the range carries T.
    for (int track = 0; track < kRtspTracks; ++track) {
        if (!m_held[track]) continue;
        m_held[track]->bLast = result == kReplayDone;
        if (!Deliver(*m_held[track])) return false;
        m_held[track].reset();
    }
    if (result == kReplayError)
        LogTrace("%s %d: the card could not be read, the play ends\n", __FUNCTION__, __LINE__);
    if (TakeQueued()) return true;
    bool udp = m_tracks[kRtspVideoTrack].output && !m_tracks[kRtspVideoTrack].output->Tcp();
    if (udp) WaitFor(kUdpByeDelayMs);
    SendReports(true);
    return false;
}

// A range begins: nothing held, each track's first unit marked as the
// first of its play, pacing and the key-frame spacing afresh.
void RtspStream::BeginRange() {
    // Every track holds its newest unit back until the next one comes, so
    // that the range's last unit of each is known when it is sent.
    m_firstOfPlay[kRtspVideoTrack] = m_firstOfPlay[kRtspAudioTrack] = true;
    for (auto &held : m_held) held.reset();
    m_waitingSinceUs = 0;
    m_restartPace.store(1, std::memory_order_relaxed);
    m_lastKeyUs = 0;
    // A sender report ties the play's RTP times to the recording's clock
    // before its first packet: ONVIF players (GStreamer) drop packets they
    // cannot place on that clock.
    for (RtspTrack &track : m_tracks) {
        track.u64LastCaptureUs = m_play.u64AnchorUs;
        track.u32LastTimestamp = track.u32BaseTimestamp;
    }
    SendReports(false);
    m_lastReportUs = ReplayClockUs(CLOCK_MONOTONIC);
}

void RtspStream::Run() {
    BeginRange();
    for (;;) {
        if (m_stop.load(std::memory_order_relaxed) != 0) break;
        if (m_paused.load(std::memory_order_relaxed) != 0) {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_wake.wait(lock, [this] { return m_stop.load() != 0 || m_paused.load() == 0; });
            continue;
        }
        auto unit = std::make_unique<ReplayUnit>();
        int result = NextUnit(unit.get());
        if (result == kReplayWaiting) {
            // Caught up with the recorder: what it writes next goes out at
            // once and is paced from there, however far its time stamps ran.
            m_paceWallUs = 0;
            if (!ReleaseHeld() || !WaitFor(kLiveWaitMs)) break;
            continue;
        }
        m_waitingSinceUs = 0;
        if (result != kReplayUnit) {
            if (!Finish(result)) break;
            BeginRange();
            continue;
        }
        if (!Wanted(*unit)) continue;
        std::unique_ptr<ReplayUnit> &held = m_held[unit->bVideo ? kRtspVideoTrack : kRtspAudioTrack];
        unit->bLast = false;
        if (held && !Deliver(*held)) break;
        held = std::move(unit);
    }
    m_running.store(0, std::memory_order_relaxed);
}
