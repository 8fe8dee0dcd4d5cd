// The RTSP server over loopback with a card of its own making: what a
// session asks of the card (range, key frames only), how it paces, pauses,
// follows a live tail, queues plays, sends over UDP, and when it ends a
// client.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "avrecord_lib/ps_packetizer.h"
#include "replay/rtsp_server.h"
#include "replay/rtsp_stream.h"
#include "replay/sdp_builder.h"

namespace {

constexpr uint64_t kStartUs = 1795582800ull * 1000000;
constexpr uint64_t kFrameUs = 40000;

// A recording of `frames` video frames (a key frame every 10) and one audio
// frame each, then, when live, one "nothing new yet" before every further frame.
// With a gate, the last frame is written only once the gate is set.
class FakeSource : public ReplaySource {
public:
    FakeSource(int frames, bool intraOnly, int liveFrames, const std::atomic<int> *gate)
        : m_frames(frames), m_intra(intraOnly), m_live(liveFrames), m_gate(gate) {}
    int Next(ReplayUnit *unit) override {
        for (;;) {
            int total = m_frames + m_live;
            if (m_index >= total * 2) return kReplayDone;
            if (m_gate != nullptr && m_index == (total - 1) * 2 && m_gate->load() == 0) return kReplayWaiting;
            if (m_index >= m_frames * 2 && m_index % 2 == 0 && !m_waited) {
                m_waited = true;
                return kReplayWaiting;
            }
            m_waited = false;
            int frame = m_index / 2;
            bool video = m_index % 2 == 0;
            ++m_index;
            bool key = frame % 10 == 0;
            if (m_intra && (!video || !key)) continue;
            *unit = ReplayUnit{};
            unit->bVideo = video;
            unit->bKey = video && key;
            unit->u64CaptureUs = kStartUs + static_cast<uint64_t>(frame) * kFrameUs;
            unit->data = video
                             ? std::vector<uint8_t>{0, 0, 0, 1, static_cast<uint8_t>(key ? 0x65 : 0x41), 0x88}
                             : std::vector<uint8_t>(320, 0xD5);
            return kReplayUnit;
        }
    }

private:
    int m_frames, m_index = 0;
    bool m_intra, m_waited = false;
    int m_live;
    const std::atomic<int> *m_gate;
};

// Whether an RTCP compound packet holds a BYE, walked packet by packet (a
// sender report's time stamps may hold the BYE's type byte anywhere).
bool HoldsBye(const std::string &rtcp) {
    constexpr uint8_t kRtcpBye = 203;
    for (size_t at = 0; at + 4 <= rtcp.size();) {
        if (static_cast<uint8_t>(rtcp[at + 1]) == kRtcpBye) return true;
        size_t words =
            static_cast<size_t>(static_cast<uint8_t>(rtcp[at + 2])) << 8 | static_cast<uint8_t>(rtcp[at + 3]);
        at += (words + 1) * 4;
    }
    return false;
}

constexpr uint8_t kRtpExtensionBit = 0x10;
bool HasExtension(const std::string &rtp) { return !rtp.empty() && (rtp[0] & kRtpExtensionBit) != 0; }
uint32_t RtpTime(const std::string &rtp) {
    uint32_t time = 0;
    for (int i = 4; i < 8; ++i) time = time << 8 | static_cast<uint8_t>(rtp[i]);
    return time;
}

// A camera that the test makes write: `backlog` video frames (a key frame
// first) are on the card, every further one only once `written` counts it.
// The further frames are stamped `stepUs` apart, further than the test
// writes them: a camera slower than its set rate jumps to the next second.
// `waits` counts the times the stream found nothing new.
class WrittenSource : public ReplaySource {
public:
    WrittenSource(int backlog, uint64_t stepUs, const std::atomic<int> &written, std::atomic<int> &waits)
        : m_backlog(backlog), m_stepUs(stepUs), m_written(written), m_waits(waits) {}
    int Next(ReplayUnit *unit) override {
        if (m_index >= m_backlog + m_written.load()) {
            m_waits.fetch_add(1);
            return kReplayWaiting;
        }
        *unit = ReplayUnit{};
        unit->bVideo = true;
        unit->bKey = m_index == 0;
        uint64_t live = m_index > m_backlog ? static_cast<uint64_t>(m_index - m_backlog) : 0;
        unit->u64CaptureUs = kStartUs + static_cast<uint64_t>(m_index) * kFrameUs + live * m_stepUs;
        unit->data = {0, 0, 0, 1, static_cast<uint8_t>(unit->bKey ? 0x65 : 0x41), 0x88};
        ++m_index;
        return kReplayUnit;
    }

private:
    int m_backlog, m_index = 0;
    uint64_t m_stepUs;
    const std::atomic<int> &m_written;
    std::atomic<int> &m_waits;
};

struct Opened {
    uint64_t fromUs, toUs;
    bool intra;
};

class RtspSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        RtspBackend backend;
        backend.describe = [](ReplayTracks *tracks) {
            *tracks = ReplayTracks{};
            tracks->iVideoCodec = kVideoCodecH264;
            tracks->sps = {0x67, 0x42, 0xC0, 0x1F};
            tracks->pps = {0x68, 0xCE};
            tracks->bHasAudio = true;
            tracks->iAudioCodec = kAudioCodecG711A;
            tracks->u32AudioRate = 8000;
            tracks->u32AudioChannels = 1;
            tracks->u32Oldest = kStartUs / 1000000;
            tracks->u32Newest = tracks->u32Oldest + 60;
            return 0;
        };
        backend.open = [this](uint64_t fromUs, uint64_t toUs, bool intra) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_opened.push_back({fromUs, toUs, intra});
            if (m_writtenStepUs != 0)
                return std::unique_ptr<ReplaySource>(
                    std::make_unique<WrittenSource>(m_frames, m_writtenStepUs, m_written, m_waits));
            return std::unique_ptr<ReplaySource>(
                std::make_unique<FakeSource>(m_frames, intra, m_live, m_gated ? &m_gate : nullptr));
        };
        RtspServerOptions options;
        options.u16Port = 0;
        options.u32SessionTimeout = 1;
        options.u32RequestTimeout = 1;
        m_server = std::make_unique<RtspServer>(options, backend, m_auth);
        ASSERT_EQ(m_server->Start(), 0);
        m_fd = Connect();
    }
    void TearDown() override {
        if (m_fd >= 0) close(m_fd);
        m_server.reset();
    }

    int Connect() {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(m_server->Port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        return fd;
    }

    // Sends a request; returns the answer's head, gathering interleaved packets on the way.
    std::string Ask(const std::string &method, const std::string &path, const std::string &headers = "") {
        std::string text = method + " rtsp://127.0.0.1/" + path +
                           " RTSP/1.0\r\nCSeq: " + std::to_string(++m_cseq) + "\r\n" + SessionLine() +
                           headers + "\r\n";
        EXPECT_EQ(send(m_fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
        std::string head = ReadAnswer();
        size_t at = head.find("Session: ");
        if (at != std::string::npos) m_session = head.substr(at + 9, head.find(';', at) - at - 9);
        return head;
    }
    std::string SessionLine() const { return m_session.empty() ? "" : "Session: " + m_session + "\r\n"; }

    bool ReadByte(char *c, int timeoutMs = 5000) {
        pollfd wait = {m_fd, POLLIN, 0};
        return poll(&wait, 1, timeoutMs) == 1 && recv(m_fd, c, 1, 0) == 1;
    }
    // The next interleaved packet (channel, bytes); false when an answer or nothing came.
    bool ReadPacket(int *channel, std::string *packet, int timeoutMs = 5000) {
        char c;
        if (!ReadByte(&c, timeoutMs) || c != '$') return false;
        char header[3];
        for (char &h : header)
            if (!ReadByte(&h)) return false;
        *channel = static_cast<uint8_t>(header[0]);
        size_t length = static_cast<uint8_t>(header[1]) << 8 | static_cast<uint8_t>(header[2]);
        packet->clear();
        while (packet->size() < length && ReadByte(&c)) packet->push_back(c);
        return packet->size() == length;
    }
    std::string ReadAnswer() {
        std::string head;
        char c;
        while (head.size() < 4 || head.compare(head.size() - 4, 4, "\r\n\r\n") != 0) {
            if (!ReadByte(&c)) return head;
            if (head.empty() && c == '$') {
                std::string packet;
                char rest[3];
                for (char &r : rest) ReadByte(&r);
                size_t length = static_cast<uint8_t>(rest[1]) << 8 | static_cast<uint8_t>(rest[2]);
                while (packet.size() < length && ReadByte(&c)) packet.push_back(c);
                continue;
            }
            head.push_back(c);
        }
        size_t at = head.find("Content-Length: ");
        size_t length = at == std::string::npos ? 0 : std::stoul(head.substr(at + 16));
        for (size_t i = 0; i < length && ReadByte(&c); ++i) head.push_back(c);
        return head;
    }
    void SetUpTcp() {
        ASSERT_NE(Ask("DESCRIBE", "replay").find("200 OK"), std::string::npos);
        ASSERT_NE(Ask("SETUP", "replay/trackID=0", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n")
                      .find("200"),
                  std::string::npos);
        ASSERT_NE(Ask("SETUP", "replay/trackID=1", "Transport: RTP/AVP/TCP;unicast;interleaved=2-3\r\n")
                      .find("200"),
                  std::string::npos);
    }
    // Access units (RTP packets with the replay extension) per channel until the video's goodbye.
    std::map<int, int> PacketsUntilBye() {
        std::map<int, int> counts;
        int channel;
        std::string packet;
        while (ReadPacket(&channel, &packet)) {
            if (channel == 1 && HoldsBye(packet)) break;
            if (channel % 2 == 0 && HasExtension(packet)) ++counts[channel];
        }
        return counts;
    }

    struct Unit {
        int channel;
        uint8_t flags, cseq;  // the replay header extension's
    };
    // The access units (first packets) of every track until the video's goodbye.
    std::vector<Unit> UnitsUntilBye() {
        constexpr size_t kFlagsAt = 24, kCSeqAt = 25;
        std::vector<Unit> units;
        int channel;
        std::string packet;
        while (ReadPacket(&channel, &packet)) {
            if (channel == 1 && HoldsBye(packet)) break;
            if (channel % 2 == 0 && packet.size() > kCSeqAt && HasExtension(packet))
                units.push_back(
                    {channel, static_cast<uint8_t>(packet[kFlagsAt]), static_cast<uint8_t>(packet[kCSeqAt])});
        }
        return units;
    }
    // Reads until the play has sent `count` video units (first packets, with
    // the extension); false when they do not come.
    bool VideoUnits(int count) {
        int channel, video = 0;
        std::string packet;
        while (video < count && ReadPacket(&channel, &packet))
            if (channel == 0 && HasExtension(packet)) ++video;
        return video == count;
    }
    std::string Play(const std::string &headers) {
        return Ask("PLAY", "replay/", "Range: npt=0-\r\nRate-Control: no\r\n" + headers);
    }

    ReplayAuth m_auth{"", ""};
    std::unique_ptr<RtspServer> m_server;
    int m_fd = -1;
    int m_cseq = 0;
    std::string m_session;
    std::mutex m_mutex;
    std::vector<Opened> m_opened;
    int m_frames = 20;
    int m_live = 0;
    bool m_gated = false;  // the card's last frame waits for m_gate
    std::atomic<int> m_gate{0};
    uint64_t m_writtenStepUs = 0;  // not 0: the card is a WrittenSource
    std::atomic<int> m_written{0};
    std::atomic<int> m_waits{0};
};

TEST_F(RtspSessionTest, RangesReachTheCardAsAskedAndIntraLeavesAudioOut) {
    SetUpTcp();
    std::string answer = Ask("PLAY", "replay/", "Range: npt=1.5-2\r\nRate-Control: no\r\n");
    ASSERT_NE(answer.find("200 OK"), std::string::npos) << answer;
    EXPECT_NE(answer.find("RTP-Info: url="), std::string::npos);
    PacketsUntilBye();
    answer =
        Ask("PLAY", "replay/", "Range: clock=20261125T050010Z-\r\nFrames: intra\r\nRate-Control: no\r\n");
    ASSERT_NE(answer.find("200 OK"), std::string::npos) << answer;
    std::map<int, int> counts = PacketsUntilBye();
    EXPECT_EQ(counts[0], 2);  // key frames 0 and 10
    EXPECT_EQ(counts[2], 0);
    std::lock_guard<std::mutex> lock(m_mutex);
    ASSERT_EQ(m_opened.size(), 2u);
    // npt counts from the oldest recording when the URL names no start.
    EXPECT_EQ(m_opened[0].fromUs, kStartUs + 1500000);
    EXPECT_EQ(m_opened[0].toUs, kStartUs + 2000000);
    EXPECT_FALSE(m_opened[0].intra);
    EXPECT_EQ(m_opened[1].fromUs, kStartUs + 10000000);
    EXPECT_EQ(m_opened[1].toUs, 0u);
    EXPECT_TRUE(m_opened[1].intra);
}

uint16_t RtpSequence(const std::string &rtp) {
    return static_cast<uint16_t>(static_cast<uint8_t>(rtp[2]) << 8 | static_cast<uint8_t>(rtp[3]));
}

// The video track's seq= in an RTP-Info header.
uint16_t VideoInfoSequence(const std::string &answer) {
    size_t at = answer.find(std::string(kSdpVideoControl) + ";seq=");
    if (at == std::string::npos) return 0;
    return static_cast<uint16_t>(std::stoul(answer.substr(at + strlen(kSdpVideoControl) + 5)));
}

TEST_F(RtspSessionTest, PlayAnswersInTheRangeUnitAskedAndOpensWithParameterSets) {
    m_frames = 5;  // the plays are paced
    SetUpTcp();
    // npt since 1900: a player that took the description's clock range as npt.
    std::string answer = Ask("PLAY", "replay/", "Range: npt=4004571601-4004571602\r\n");
    EXPECT_NE(answer.find("Range: npt=4004571600.000-4004571602.000\r\n"), std::string::npos) << answer;
    // Over TCP the stream's parameter sets come first, one tick ahead of the
    // first picture and without the extension, then the picture with it;
    // RTP-Info names the picture's sequence number, not theirs.
    std::vector<std::string> video;
    int channel;
    std::string packet;
    while (video.size() < 3 && ReadPacket(&channel, &packet))
        if (channel == 0) video.push_back(packet);
    ASSERT_EQ(video.size(), 3u);
    EXPECT_EQ(static_cast<uint8_t>(video[0][12]), 0x67);
    EXPECT_EQ(static_cast<uint8_t>(video[1][12]), 0x68);
    EXPECT_FALSE(HasExtension(video[0]) || HasExtension(video[1]));
    EXPECT_TRUE(HasExtension(video[2]));
    EXPECT_EQ(RtpTime(video[0]), RtpTime(video[2]) - 1);
    EXPECT_EQ(RtpTime(video[1]), RtpTime(video[2]) - 1);
    EXPECT_EQ(VideoInfoSequence(answer), RtpSequence(video[2])) << answer;
    EXPECT_EQ(RtpSequence(video[1]), static_cast<uint16_t>(RtpSequence(video[2]) - 1));
    PacketsUntilBye();
    answer = Ask("PLAY", "replay/", "Range: npt=1-2\r\n");
    EXPECT_NE(answer.find("Range: npt=0.000-2.000\r\n"), std::string::npos) << answer;
    PacketsUntilBye();
    // A fast play's answer has no end: a player would estimate the end from
    // its running time, which stands still while everything arrives at once.
    answer = Ask("PLAY", "replay/", "Range: clock=20261125T050001Z-20261125T050002Z\r\nRate-Control: no\r\n");
    EXPECT_NE(answer.find("Range: clock=20261125T050000Z-\r\n"), std::string::npos) << answer;
    std::map<int, int> counts = PacketsUntilBye();
    EXPECT_EQ(counts[0], m_frames) << "the fast play ends all the same";
    std::lock_guard<std::mutex> lock(m_mutex);
    ASSERT_EQ(m_opened.size(), 3u);
    EXPECT_EQ(m_opened[0].fromUs, kStartUs + 1000000);
    EXPECT_EQ(m_opened[0].toUs, kStartUs + 2000000);
    EXPECT_EQ(m_opened[2].toUs, kStartUs + 2000000);
}

TEST_F(RtspSessionTest, ReverseScaleRefusedPacedPlayPausesAndGoesOn) {
    SetUpTcp();
    EXPECT_NE(Ask("PLAY", "replay/", "Scale: -1\r\n").find("456"), std::string::npos);
    ASSERT_NE(Ask("PLAY", "replay/", "Scale: 2\r\n").find("200 OK"), std::string::npos);
    auto began = std::chrono::steady_clock::now();
    ASSERT_NE(Ask("PAUSE", "replay/").find("200 OK"), std::string::npos);
    int channel;
    std::string packet;
    while (ReadPacket(&channel, &packet, 300)) {
    }  // what was under way before the pause
    EXPECT_FALSE(ReadPacket(&channel, &packet, 300)) << "sent while paused";
    ASSERT_NE(Ask("PLAY", "replay/").find("200 OK"), std::string::npos);
    std::map<int, int> counts = PacketsUntilBye();
    EXPECT_GT(counts[0], 0);
    // 20 frames of 40 ms at twice the speed take 0.4 s at least.
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(380));
}

TEST_F(RtspSessionTest, LiveTailFollowsTheCardAsItGrows) {
    m_live = 5;
    SetUpTcp();
    ASSERT_NE(Ask("PLAY", "replay/", "Range: clock=20261125T050000Z-\r\nRate-Control: no\r\n").find("200 OK"),
              std::string::npos);
    std::map<int, int> counts = PacketsUntilBye();
    EXPECT_EQ(counts[0], m_frames + m_live);
    EXPECT_EQ(counts[2], m_frames + m_live);
}

TEST_F(RtspSessionTest, PacedLiveTailSendsWhatIsWrittenAtOnce) {
    m_frames = 4;
    m_writtenStepUs = 1900000;  // paced from the play's first frame, each would wait this long
    SetUpTcp();
    ASSERT_NE(Ask("PLAY", "replay/", "Range: clock=20261125T050000Z-\r\n").find("200 OK"), std::string::npos);
    // An open range holds nothing back: the newest frame goes out too.
    ASSERT_TRUE(VideoUnits(m_frames));
    int channel;
    std::string packet;
    for (int written = 1; written <= 3; ++written) {
        // The recorder writes once the stream has caught up with it.
        int waits = m_waits.load();
        for (int i = 0; i < 500 && m_waits.load() == waits; ++i) usleep(2000);
        m_written.store(written);
        bool sent = false;
        while (!sent && ReadPacket(&channel, &packet, 1000)) sent = channel == 0;
        EXPECT_TRUE(sent) << "frame " << m_frames + written - 1 << " not sent once written";
    }
}

// A PLAY during a play waits for the range under way to end, then follows
// it without a goodbye in between; Immediate: yes replaces the range under
// way and drops what is queued.
TEST_F(RtspSessionTest, PlayDuringAPlayIsQueuedUnlessImmediate) {
    constexpr uint8_t kTerminal = 0x10, kDiscontinuity = 0x20;
    m_gated = true;
    SetUpTcp();
    ASSERT_NE(Play("").find("200 OK"), std::string::npos);
    uint8_t first = static_cast<uint8_t>(m_cseq);
    ASSERT_TRUE(VideoUnits(m_frames - 1));  // all but the last frame, which is not written yet
    std::string answer = Play("");
    ASSERT_NE(answer.find("200 OK"), std::string::npos) << answer;
    EXPECT_EQ(answer.find(";seq="), std::string::npos) << "a queued play cannot know its sequence number";
    uint8_t queued = static_cast<uint8_t>(m_cseq);
    m_gate.store(1);
    std::vector<Unit> units = UnitsUntilBye();
    std::vector<Unit> video;
    for (const Unit &u : units)
        if (u.channel == 0) video.push_back(u);
    ASSERT_EQ(video.size(), static_cast<size_t>(m_frames + 1));
    EXPECT_EQ(video[0].cseq, first) << "the first range's last frame comes first";
    EXPECT_TRUE(video[0].flags & kTerminal);
    for (size_t i = 1; i < video.size(); ++i) EXPECT_EQ(video[i].cseq, queued) << i;
    EXPECT_TRUE(video[1].flags & kDiscontinuity);
    EXPECT_TRUE(video.back().flags & kTerminal);

    m_gate.store(0);
    ASSERT_NE(Play("").find("200 OK"), std::string::npos);
    ASSERT_TRUE(VideoUnits(m_frames - 1));
    ASSERT_NE(Play("").find("200 OK"), std::string::npos);
    uint8_t dropped = static_cast<uint8_t>(m_cseq);
    answer = Play("Immediate: yes\r\n");
    ASSERT_NE(answer.find(";seq="), std::string::npos) << answer;
    uint8_t immediate = static_cast<uint8_t>(m_cseq);
    ASSERT_TRUE(VideoUnits(m_frames - 1)) << "Immediate: yes starts at once";
    m_gate.store(1);
    units = UnitsUntilBye();
    ASSERT_FALSE(units.empty());
    for (const Unit &u : units)
        EXPECT_EQ(u.cseq, immediate) << "the queued play " << int{dropped} << " went on";

    m_gate.store(0);
    ASSERT_NE(Play("").find("200 OK"), std::string::npos);
    ASSERT_TRUE(VideoUnits(m_frames - 1));
    for (size_t i = 0; i < kRtspMaxQueuedPlays; ++i)
        EXPECT_NE(Play("").find("200 OK"), std::string::npos) << i;
    EXPECT_NE(Play("").find("503"), std::string::npos) << "the queue is bounded";
}

TEST_F(RtspSessionTest, UdpPacketsGoToTheClientsPorts) {
    int udp = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(udp, reinterpret_cast<sockaddr *>(&local), sizeof local), 0);
    socklen_t size = sizeof local;
    getsockname(udp, reinterpret_cast<sockaddr *>(&local), &size);
    int port = ntohs(local.sin_port);
    ASSERT_NE(Ask("DESCRIBE", "replay").find("200 OK"), std::string::npos);
    std::string answer =
        Ask("SETUP", "replay/trackID=0",
            "Transport: RTP/AVP;multicast,RTP/AVP;unicast;client_port=" + std::to_string(port) + "-" +
                std::to_string(port + 1) + "\r\n");
    ASSERT_NE(answer.find("200 OK"), std::string::npos) << answer;
    EXPECT_NE(answer.find("server_port="), std::string::npos);
    ASSERT_NE(Ask("PLAY", "replay/", "Rate-Control: no\r\n").find("200 OK"), std::string::npos);
    char packet[2048];
    int received = 0;
    pollfd wait = {udp, POLLIN, 0};
    while (poll(&wait, 1, 2000) == 1 && recv(udp, packet, sizeof packet, 0) > 0) ++received;
    EXPECT_EQ(received, m_frames);
    close(udp);
}

TEST_F(RtspSessionTest, SilentSessionsAndSlowRequestsAreEnded) {
    SetUpTcp();
    char c;
    pollfd silent = {m_fd, POLLIN, 0};
    ASSERT_EQ(poll(&silent, 1, 3000), 1);
    EXPECT_EQ(recv(m_fd, &c, 1, 0), 0) << "a session without a request or report for its timeout ends";
    int slow = Connect();
    const char partial[] = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n";
    send(slow, partial, sizeof partial - 1, MSG_NOSIGNAL);
    pollfd wait = {slow, POLLIN, 0};
    ASSERT_EQ(poll(&wait, 1, 3000), 1);
    EXPECT_EQ(recv(slow, &c, 1, 0), 0) << "a request that never ends closes its connection";
    close(slow);
}

}  // namespace
