// The playback of one RTSP session: a thread that takes the card's frames
// from a replay source, paces them (or not: Rate-Control: no), stamps and
// packetizes them and sends them on the session's tracks; at the end of the
// range it says goodbye (RTCP BYE) on every track.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "replay/replay_source.h"
#include "replay/rtp_packetizer.h"
#include "replay/rtsp_output.h"

inline constexpr int kRtspTracks = 2;  // video, audio
inline constexpr int kRtspVideoTrack = 0;
inline constexpr int kRtspAudioTrack = 1;

struct RtspTrack {
    std::unique_ptr<RtspTrackOutput> output;  // null: the client did not set the track up
    std::unique_ptr<RtpPacketizer> packetizer;
    uint32_t u32ClockRate = 0;
    uint32_t u32BaseTimestamp = 0;  // the RTP time of the play's anchor
    // Video: the stream's parameter sets (Annex B), sent over TCP as a unit
    // of their own one tick ahead of a play's first picture.
    std::vector<uint8_t> parameterSets;
    uint64_t u64LastCaptureUs = 0;  // the frame last sent, for sender reports
    uint32_t u32LastTimestamp = 0;
};

// How one PLAY asked to be served.
struct RtspPlayOptions {
    bool bRateControl = true;    // pace at the recording's rate (times the scale)
    double dScale = 1.0;         // forward speed when paced
    uint32_t u32IntraGapMs = 0;  // Frames: intra/<ms>: at most one key frame per that many ms
    bool bIntraOnly = false;
    bool bOpenEnd = false;  // the range has no end: it follows the recording
    uint8_t u8CSeq = 0;     // low byte of the PLAY's CSeq, in every frame's extension
};

// One PLAY's range, ready to go out: its source with the first unit already
// taken (first, when bHasFirst), the capture time its RTP times count from,
// and how it was asked for.
struct RtspPlay {
    std::unique_ptr<ReplaySource> source;
    ReplayUnit first;
    bool bHasFirst = false;
    uint64_t u64AnchorUs = 0;
    RtspPlayOptions options;
};

// The packets a play sends on the track ahead of its first unit (over TCP,
// the video's parameter sets); the PLAY answer's RTP-Info names the
// sequence number that follows them.
uint16_t RtspLeadInPackets(const RtspTrack &track);

// Plays a session may queue behind the one under way.
inline constexpr size_t kRtspMaxQueuedPlays = 4;

// The RTP time stamp of a frame: the track's clock since the anchor, from the base.
uint32_t RtspTimestamp(uint32_t base, uint32_t clockRate, uint64_t anchorUs, uint64_t captureUs);

class RtspStream {
public:
    explicit RtspStream(RtspTrack (&tracks)[kRtspTracks]) : m_tracks(tracks) {}
    ~RtspStream() { Stop(); }

    // Starts sending the play's range at once: a play under way and those
    // queued behind it are dropped.
    void Start(RtspPlay play);
    // Queues the play to start where the range under way ends (without a
    // goodbye in between); starts it at once when none is under way.
    void Queue(RtspPlay play);
    bool QueueFull();
    void Stop();
    void Pause(bool bPaused);
    bool Paused() const { return m_paused.load(std::memory_order_relaxed) != 0; }
    // True while a play is under way or held by PAUSE.
    bool Running() const { return m_running.load(std::memory_order_relaxed) != 0; }
    // The client's RTCP reports heard since the last call (UDP keep-alive).
    bool TakeClientHeard() { return m_heard.exchange(0, std::memory_order_relaxed) != 0; }

private:
    void Run();
    void BeginRange();
    bool TakeQueued();
    int NextUnit(ReplayUnit *unit);
    uint64_t LatestSend(const ReplayUnit &unit, uint64_t now, bool restarted);
    bool WaitPace(const ReplayUnit &unit);
    bool WaitFor(uint32_t ms);
    bool SendUnit(const ReplayUnit &unit, bool firstOfPlay);
    bool SendParameterSets(RtspTrack &track, uint32_t firstTimestamp);
    bool Wanted(const ReplayUnit &unit);
    bool Deliver(const ReplayUnit &unit);
    bool ReleaseHeld();
    bool Finish(int result);
    void SendReports(bool bBye);

    RtspTrack (&m_tracks)[kRtspTracks];
    RtspPlay m_play;
    std::deque<RtspPlay> m_queued;  // under m_mutex
    std::thread m_thread;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::atomic<uint32_t> m_stop{0};
    std::atomic<uint32_t> m_paused{0};
    std::atomic<uint32_t> m_running{0};
    std::atomic<uint32_t> m_heard{0};
    // Pacing, the stream thread's own: the monotonic time and capture time
    // of the last reset.
    uint64_t m_paceWallUs = 0;
    uint64_t m_paceMediaUs = 0;
    // Set when a range begins or the play resumes: pacing starts afresh
    // from the next unit, and how far behind the wall clock that unit is
    // becomes the limit: pacing never lets the play fall further behind the
    // recorder.
    std::atomic<uint32_t> m_restartPace{1};
    uint64_t m_lagLimitUs = 0;
    uint64_t m_lastReportUs = 0;
    uint64_t m_lastKeyUs = 0;
    std::unique_ptr<ReplayUnit> m_held[kRtspTracks];
    uint64_t m_waitingSinceUs = 0;  // the card has had nothing new since (monotonic); 0: not waiting
    bool m_firstOfPlay[kRtspTracks] = {true, true};
};
