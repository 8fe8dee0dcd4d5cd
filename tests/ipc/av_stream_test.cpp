// The ring reader against a real ring: a publisher writes records into the
// segment and answers the control queue, the tests check what reaches the
// callback and what is logged.
#include "ipc/av_stream.h"

#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "common/log.h"
#include "ipc/av_ring_writer.h"
#include "ipc/sysv_ipc.h"
#include "support/test_support.h"

namespace {

constexpr uint32_t kType = 5;
constexpr int32_t kPayloadSize = 200;
constexpr int32_t kRecordSize = kPayloadSize + 64;
constexpr uint32_t kSleepSlots = 501;

struct Frame {
    uint32_t serial;
    uint32_t channel;
    uint32_t source;
    int32_t length;
};

std::mutex g_framesMutex;
std::vector<Frame> g_frames;
std::atomic<uint32_t> g_sleepCalls[kSleepSlots];

int Collect(uint32_t source, uint32_t channel, uint8_t *, AVDataInfo *info) {
    std::lock_guard<std::mutex> lock(g_framesMutex);
    g_frames.push_back({info->SerialNumber, channel, source, info->AVDataLen});
    return 0;
}

int NeverReady(uint32_t) { return 0; }

// Runs on the reader thread at its n-th sleep of a given length, so a test
// can act at an exact point of the reader's waiting. A test may set several.
struct SleepAction {
    uint32_t ms;
    uint32_t nth;
    std::function<void()> action;
};
std::vector<SleepAction> g_sleepActions;
std::mutex g_sleepActionMutex;

void OnSleep(uint32_t ms, uint32_t nth, std::function<void()> action) {
    std::lock_guard<std::mutex> lock(g_sleepActionMutex);
    g_sleepActions.push_back({ms, nth, std::move(action)});
}

void ClearSleepActions() {
    std::lock_guard<std::mutex> lock(g_sleepActionMutex);
    g_sleepActions.clear();
}

// Set on the test's thread while it starts a reader: the start's own pause
// is the caller's, not the reader's, and is neither counted nor acted on
// (it can fall before or after the reader's first sleeps).
thread_local bool t_startingReader = false;

// Counts every sleep of the reader by its length and sleeps a twentieth.
// What a test writes into a ring while a reader runs goes through an
// OnSleep action: the reader is then between two reads, so it never sees a
// half-written record, and no wall-clock race decides what it sees next.
void FastSleep(uint32_t ms) {
    if (t_startingReader) {
        usleep(ms * 50);
        return;
    }
    uint32_t n = ms < kSleepSlots ? g_sleepCalls[ms].fetch_add(1) + 1 : 0;
    {
        std::lock_guard<std::mutex> lock(g_sleepActionMutex);
        for (const SleepAction &a : g_sleepActions) {
            if (a.ms == ms && a.nth == n) a.action();
        }
    }
    usleep(ms * 50);
}

uint32_t Sleeps(uint32_t ms) { return g_sleepCalls[ms].load(); }

std::vector<uint32_t> Serials() {
    std::lock_guard<std::mutex> lock(g_framesMutex);
    std::vector<uint32_t> serials;
    for (const Frame &f : g_frames) serials.push_back(f.serial);
    return serials;
}

template <typename Pred>
bool WaitFor(Pred pred, int timeoutMs = 5000) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        usleep(500);
    }
    return true;
}

size_t Count(const std::string &text, const std::string &pattern) {
    std::regex re(pattern);
    return static_cast<size_t>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), re), std::sregex_iterator()));
}

// The start of what has been logged so far while the harness captures
// stderr (into a file, which the descriptor still names). A reader that
// spins logs megabytes a second; the lines waited for come first.
std::string LoggedSoFar() {
    constexpr size_t kLogHead = 64 * 1024;
    std::ifstream in("/proc/self/fd/2");
    std::string head(kLogHead, '\0');
    in.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<size_t>(in.gcount()));
    return head;
}

// Every line the reader logs names the reader's own function (or one of the
// named functions it calls), never an internal helper: field logs are
// searched by these names.
void ExpectReaderFunctionNames(const std::string &log) {
    const std::regex line("\\]: ([A-Za-z_]\\w*) ?\\d+");
    for (auto it = std::sregex_iterator(log.begin(), log.end(), line); it != std::sregex_iterator(); ++it) {
        std::string name = (*it)[1];
        EXPECT_TRUE(name == "AVStreamGetAVDataThread" || name == "CheckOutOfPos" || name == "GetLastIFrame" ||
                    name == "GetAVStreamInit" || name == "GetAVControlInit")
            << name;
    }
}

// Payload kinds: 'K' H.264 SPS (key frame), 'P' H.264 slice, 'I' IDR slice
// alone, 'V' H.265 VPS, 'J' JPEG, 'A' AAC audio.
std::vector<uint8_t> Payload(char kind, int32_t size = kPayloadSize) {
    std::vector<uint8_t> bytes(static_cast<size_t>(size), 0x5A);
    const uint8_t startCode[] = {0, 0, 0, 1};
    memcpy(bytes.data(), startCode, sizeof startCode);
    switch (kind) {
        case 'K':
            bytes[4] = 0x67;
            break;
        case 'P':
            bytes[4] = 0x41;
            break;
        case 'I':
            bytes[4] = 0x65;
            break;
        case 'V':
            bytes[4] = 0x40;
            break;
        case 'J':
            bytes[0] = 0xFF, bytes[1] = 0xD8, bytes[4] = 0xE0;
            break;
        default:
            bytes[0] = 0xFF, bytes[1] = 0xF1, bytes[4] = 0x80;
            break;
    }
    return bytes;
}

// Three rings, the control queue and an encoder thread answering it; the
// trace log is captured from construction to Finish().
class RingHarness {
public:
    RingHarness() {
        for (auto &calls : g_sleepCalls) calls.store(0);
        {
            std::lock_guard<std::mutex> lock(g_framesMutex);
            g_frames.clear();
        }
        AVStreamSetSleepForTest(FastSleep);
        LogEnable("test", 0);
        for (uint32_t i = 0; i < kAVVideoChannelCount; ++i) AVRingWriterOpen(&rings_[i], i);
        msgId_ = IpcMsgQueueOpen(kAVStreamCtrlQueueKey);
        server_ = std::thread([this] {
            while (AVRingServeControl(msgId_, &RingHarness::Answer, this) >= 0) {
            }
        });
        testing::internal::CaptureStderr();
    }
    ~RingHarness() { Finish(); }

    void StartReader(uint32_t channel, StreamStatusFunc status = nullptr) {
        ASSERT_EQ(GetAVStreamInit(kType, Collect, status), 0);
        t_startingReader = true;
        int started = AVStreamStart(kType, channel);
        t_startingReader = false;
        ASSERT_EQ(started, 0);
    }

    int32_t Put(uint32_t channel, uint32_t serial, char kind, int32_t size = kPayloadSize) {
        rings_[channel].NextSerial.store(serial);
        std::vector<uint8_t> payload = Payload(kind, size);
        uint32_t source = kind == 'A' ? kAVSourceAudio : kAVSourceVideo;
        return AVRingWriterPublish(&rings_[channel], payload.data(), size, source, serial * 40, kind == 'K');
    }

    // A hand-made header at the writer's next position (the writer stays there).
    AVDataInfo *PutHeader(uint32_t channel, uint32_t endFlag, int32_t length, uint32_t serial) {
        auto *header = Header(channel, rings_[channel].WritePos.load());
        AVDataInfo info{};
        info.AVDataCheck = kAVDataCheckWord;
        info.SerialNumber = serial;
        info.AVDataLen = length;
        info.PublisherWord = 0xABCD;
        info.EndFlag = endFlag;
        info.TimeStamp = 777;
        memcpy(header, &info, sizeof info);
        return header;
    }

    AVDataInfo *Header(uint32_t channel, int32_t pos) {
        return reinterpret_cast<AVDataInfo *>(rings_[channel].Base + pos);
    }

    // Answers 0x2001 with a fixed position (-1: the writer's own answer).
    void AnswerStartWith(int32_t pos) { startAnswer_.store(pos); }
    // Answers 0x2002 from a list, the last entry repeated.
    void AnswerKeyFramesWith(std::vector<int32_t> positions) { keyAnswers_ = std::move(positions); }
    uint32_t KeyFrameQuestions() const { return keyQuestions_.load(); }

    AVRingWriter &Ring(uint32_t channel) { return rings_[channel]; }

    // Stops the readers and the encoder thread; returns the captured log.
    std::string Finish() {
        if (finished_) return log_;
        finished_ = true;
        AVStreamResetForTest();
        log_ = testing::internal::GetCapturedStderr();
        ExpectReaderFunctionNames(log_);
        IpcMsgQueueRemove(msgId_);
        server_.join();
        for (auto &ring : rings_) AVRingWriterClose(&ring, true);
        AVStreamSetSleepForTest(nullptr);
        ClearSleepActions();
        return log_;
    }

private:
    static int32_t Answer(void *context, uint32_t command, uint32_t channel) {
        auto *self = static_cast<RingHarness *>(context);
        if (command == kAVStreamCmdStartPos && self->startAnswer_.load() != -1)
            return self->startAnswer_.load();
        if (command == kAVStreamCmdLastIFrame) {
            uint32_t n = self->keyQuestions_.fetch_add(1);
            if (!self->keyAnswers_.empty())
                return self->keyAnswers_[std::min<size_t>(n, self->keyAnswers_.size() - 1)];
        }
        return AVRingWriterAnswer(&self->rings_[channel], command);
    }

    AVRingWriter rings_[kAVVideoChannelCount];
    int msgId_ = -1;
    std::thread server_;
    std::atomic<int32_t> startAnswer_{-1};
    std::vector<int32_t> keyAnswers_;
    std::atomic<uint32_t> keyQuestions_{0};
    bool finished_ = false;
    std::string log_;
};

struct Record {
    uint32_t serial;
    char kind;
};

struct SerialCase {
    const char *name;
    std::vector<Record> records;
    int32_t firstPos;  // where the first record goes
    std::vector<uint32_t> delivered;
    const char *logPattern;  // must appear exactly once ("" for none)
    const char *absentPattern;
};

const int32_t kNearEnd = kAVStreamCapacity[0] - 2 * kRecordSize - 50;

const SerialCase kSerialCases[] = {
    {"consecutive", {{1, 'K'}, {2, 'P'}, {3, 'P'}, {4, 'P'}}, 0, {1, 2, 3, 4}, "", "sub = "},
    {"gap of 2 delivered",
     {{1, 'K'}, {2, 'P'}, {4, 'P'}, {5, 'P'}},
     0,
     {1, 2, 4, 5},
     ":MsgAVType = 5 VideoIndex = 0 sub = 4 - 2 = 2 pos = 528 ",
     "index = 0 sub"},
    {"gap of 30 delivered",
     {{1, 'K'}, {2, 'P'}, {32, 'P'}, {33, 'P'}},
     0,
     {1, 2, 32, 33},
     "sub = 32 - 2 = 30 ",
     "index = 0 sub"},
    {"gap of 31 resynchronises",
     {{1, 'K'}, {2, 'P'}, {33, 'P'}, {34, 'P'}, {35, 'K'}, {36, 'P'}},
     0,
     {1, 2, 35, 36},
     "MsgAVType = 5 index = 0 sub = 33 - 2 = 31 pos = 528 ",
     "VideoIndex = 0 sub"},
    {"serial 0 first skips to next picture",
     {{0, 'P'}, {1, 'P'}, {2, 'P'}},
     0,
     {1, 2},
     "pos = 0 pDataInfo->SerialNumber 0 oldSerialNumber 0",
     ""},
    {"serial 0 before audio resynchronises",
     {{0, 'P'}, {1, 'A'}, {2, 'K'}, {3, 'P'}},
     0,
     {2, 3},
     "pDataInfo->SerialNumber 0 oldSerialNumber 0",
     ""},
    {"wrap keeps the last serial",
     {{2, 'K'}, {3, 'P'}, {5, 'P'}, {6, 'P'}},
     kNearEnd,
     {2, 3, 5, 6},
     "MsgAVType = 5  Index = 0 Endflag == 255",
     ""},
};

TEST(AVStreamReader, SerialCases) {
    REQUIRE_PRIVATE_IPC();
    for (const SerialCase &c : kSerialCases) {
        SCOPED_TRACE(c.name);
        RingHarness ring;
        ring.Ring(0).WritePos.store(c.firstPos);
        ring.AnswerStartWith(c.firstPos);
        for (const Record &r : c.records) ring.Put(0, r.serial, r.kind);
        ring.StartReader(0);
        ASSERT_TRUE(WaitFor([&] { return Serials().size() >= c.delivered.size(); }))
            << testing::PrintToString(Serials());
        usleep(20000);
        std::string log = ring.Finish();
        EXPECT_EQ(Serials(), c.delivered);
        if (*c.logPattern != '\0') {
            EXPECT_EQ(Count(log, c.logPattern), 1u) << log;
        }
        if (*c.absentPattern != '\0') {
            EXPECT_EQ(Count(log, c.absentPattern), 0u) << log;
        }
    }
}

TEST(AVStreamReader, SerialBehindWaitsForTheWriter) {
    REQUIRE_PRIVATE_IPC();
    RingHarness ring;
    ring.Put(1, 1, 'K');
    ring.Put(1, 2, 'P');
    ring.Put(1, 3, 'P');
    ring.PutHeader(1, kAVEndFlagFrame, kPayloadSize, 2);  // a stale slot
    OnSleep(8, 3, [&] { ring.Put(1, 4, 'P'); });
    ring.StartReader(1);
    ASSERT_TRUE(WaitFor([] { return Serials().size() >= 4; }));
    std::string log = ring.Finish();
    EXPECT_EQ(Serials(), (std::vector<uint32_t>{1, 2, 3, 4}));
    // It waited on the stale slot until the writer came, without giving up
    // on it. (Past serial 4 the ring is empty: the reader may or may not
    // have resynchronised on that by the time it was stopped.)
    EXPECT_EQ(Sleeps(8), 3u);
    EXPECT_EQ(Count(log, "VideoPos = 792 Endflag == 254"), 0u) << log;
}

TEST(AVStreamReader, CheckWordMissWaitsThenResynchronisesAfter101) {
    REQUIRE_PRIVATE_IPC();
    RingHarness ring;
    ring.Put(0, 1, 'K');
    ring.Put(0, 2, 'P');
    OnSleep(4, 5, [&] { ring.Put(0, 3, 'P'); });  // arrives while the reader waits: delivered
    // Nothing more: after 101 misses the reader asks for a key frame newer
    // than serial 3 and keeps asking every 10 ms; the writer goes on.
    std::atomic<uint32_t> missSleeps{0};
    OnSleep(10, 2, [&] {
        missSleeps.store(Sleeps(4));
        ring.Put(0, 4, 'P');
        ring.Put(0, 5, 'K');
        ring.Put(0, 6, 'P');
    });
    ring.StartReader(0);
    ASSERT_TRUE(WaitFor([] { return Serials().size() >= 5; }));
    EXPECT_EQ(missSleeps.load(), 100u + 5u);
    std::string log = ring.Finish();
    EXPECT_EQ(Serials(), (std::vector<uint32_t>{1, 2, 3, 5, 6}));
    EXPECT_EQ(Count(log, "VideoIndex = 0 VideoPos = 792 AVDataCheck == 0\n"), 1u) << log;
}

TEST(AVStreamReader, PauseWritesOneMarkerAtOffsetZero) {
    REQUIRE_PRIVATE_IPC();
    RingHarness ring;
    ring.Put(2, 1, 'K');
    ring.Put(2, 2, 'P');
    ring.PutHeader(2, AV_RINGBUFFER_FLAG_PAUSE, 5, 99);
    // At its second pause the reader has written the marker; then the
    // writer resumes at 0 with a new pass.
    AVDataInfo marker{};
    OnSleep(500, 2, [&] {
        marker = *ring.Header(2, 0);
        ring.Ring(2).WritePos.store(0);
        ring.Put(2, 3, 'K');
    });
    ring.StartReader(2);
    ASSERT_TRUE(WaitFor([] { return Serials().size() >= 3; }));
    std::string log = ring.Finish();
    EXPECT_EQ(marker.AVDataCheck, kAVDataCheckWord);
    EXPECT_EQ(marker.EndFlag, AV_RINGBUFFER_FLAG_PAUSE);
    EXPECT_EQ(marker.SerialNumber, 0u);
    EXPECT_EQ(marker.AVDataLen, 0);
    EXPECT_EQ(marker.PublisherWord, 0u);
    EXPECT_EQ(marker.TimeStamp, 777u);
    EXPECT_EQ(Serials(), (std::vector<uint32_t>{1, 2, 3}));
    EXPECT_EQ(Count(log, "Endflag == 253\n"), 1u) << log;
}

TEST(AVStreamReader, UnknownFlagWaitsThenResynchronises) {
    REQUIRE_PRIVATE_IPC();
    RingHarness ring;
    ring.Put(1, 1, 'K');
    ring.Put(1, 2, 'P');
    ring.PutHeader(1, 0x10, kPayloadSize, 3);
    std::atomic<uint32_t> flagSleeps{0};
    OnSleep(10, 2, [&] {  // resynchronising
        flagSleeps.store(Sleeps(5));
        ring.Put(1, 3, 'K');
        ring.Put(1, 4, 'P');
    });
    ring.StartReader(1);
    ASSERT_TRUE(WaitFor([] { return Serials().size() >= 4; }));
    EXPECT_EQ(flagSleeps.load(), 50u);
    std::string log = ring.Finish();
    EXPECT_EQ(Serials(), (std::vector<uint32_t>{1, 2, 3, 4}));
    EXPECT_EQ(Count(log, "VideoIndex = 1 VideoPos = 528 Endflag == 16\n"), 1u) << log;
}

TEST(AVStreamReader, OversizedLengthIsReadAgain) {
    REQUIRE_PRIVATE_IPC();
    RingHarness ring;
    ring.Put(1, 1, 'K');
    ring.PutHeader(1, kAVEndFlagFrame, kAVStreamCapacity[1], 2);
    OnSleep(5, 3, [&] { ring.Put(1, 2, 'P'); });  // the writer finishes the record
    ring.StartReader(1);
    ASSERT_TRUE(WaitFor([] { return Serials().size() >= 2; }));
    std::string log = ring.Finish();
    EXPECT_EQ(Serials(), (std::vector<uint32_t>{1, 2}));
    EXPECT_GE(Count(log, "AVDataLen = 1048576 up to Max 1048576\n"), 3u);
}

// A record whose length is below the channel's limit but whose payload
// would run past the end of the segment is not handed to the consumer (it
// would read outside the segment): it waits like an oversized one.
TEST(AVStreamReader, PayloadPastTheSegmentEndIsNotDelivered) {
    REQUIRE_PRIVATE_IPC();
    RingHarness ring;
    const int32_t nearEnd = kAVStreamCapacity[1] - 100;
    ring.Ring(1).WritePos.store(nearEnd);
    ring.AnswerStartWith(nearEnd);
    ring.PutHeader(1, kAVEndFlagFrame, 1000, 1);
    ring.StartReader(1);
    ASSERT_TRUE(WaitFor([] { return Sleeps(5) >= 3; }));
    std::string log = ring.Finish();
    EXPECT_TRUE(Serials().empty());
    EXPECT_GE(Count(log, "AVDataLen = 1000 up to Max 1048576\n"), 3u) << log;
}

TEST(AVStreamReader, StartPositionBounds) {
    REQUIRE_PRIVATE_IPC();
    const struct {
        uint32_t channel;
        int32_t answer;
        bool asksAgain;
        bool outOfPos;
    } cases[] = {
        {0, kAVStreamCapacity[0], false, true},
        {1, kAVStreamCapacity[1] + 1, true, false},
        {2, -5, true, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.answer);
        RingHarness ring;
        ring.AnswerStartWith(c.answer);
        ring.StartReader(c.channel);
        std::string channel = std::to_string(c.channel);
        std::string askedAgain = "AVStreamGetAVDataThread \\d+: VideoIndex = " + channel + "\n";
        std::string outOfPos = "iVideoIndex = " + channel + " VideoPos = " + std::to_string(c.answer) + "\n";
        // A refused answer is asked again after a 1 ms pause; an answer at
        // the capacity is taken and refused by every round that follows,
        // with no pause: the log is all there is to wait on.
        ASSERT_TRUE(WaitFor([&] { return Count(LoggedSoFar(), c.asksAgain ? askedAgain : outOfPos) > 0; }));
        std::string log = ring.Finish();
        EXPECT_EQ(Count(log, askedAgain) > 0, c.asksAgain);
        EXPECT_EQ(Count(log, outOfPos) > 0, c.outOfPos);
        EXPECT_TRUE(Serials().empty());
    }
}

TEST(AVStreamReader, GetLastIFrameAcceptsKeyFramesOnly) {
    REQUIRE_PRIVATE_IPC();
    const struct {
        char kind;
        uint32_t serial;
        uint32_t lastSerial;
        bool accepted;
        const char *log;
    } cases[] = {
        {'J', 5, 9, true, ""},  // JPEG whatever its serial
        {'K', 10, 9, true, "AVType = 5 VideoIndex = 1 VideoPos = 0\n"},
        {'K', 3, 0, true, ""},   // no last serial
        {'K', 9, 9, false, ""},  // not newer
        {'V', 10, 9, true, "3516A nalu = 0x40\n"},
        {'I', 10, 9, false, ""},  // an IDR slice without its parameter sets
        {'P', 10, 0, false, ""},
        {'X', 10, 0, false, ""},  // its NAL byte would lie at the capacity: asked again
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(1, c.kind) + std::to_string(c.serial));
        RingHarness ring;
        int32_t candidate = c.kind == 'X' ? kAVStreamCapacity[1] - 68 : ring.Put(1, c.serial, c.kind);
        int32_t fallback = ring.Put(1, 100, 'K');
        ring.AnswerKeyFramesWith({candidate, fallback});
        ring.StartReader(1, NeverReady);  // sets the run flag, reads nothing
        int32_t pos = GetLastIFrame(ring.Ring(1).Base, kType, 1, c.lastSerial);
        std::string log = ring.Finish();
        EXPECT_EQ(pos, c.accepted ? candidate : fallback);
        if (*c.log != '\0') {
            EXPECT_EQ(Count(log, c.log), 1u) << log;
        }
    }
}

// A negative answer is no key frame: like any other it is asked again
// only after the 10 ms pause.
TEST(AVStreamReader, NegativeKeyFrameAnswerWaitsBeforeAskingAgain) {
    REQUIRE_PRIVATE_IPC();
    RingHarness ring;
    int32_t keyFrame = ring.Put(1, 7, 'K');
    ring.AnswerKeyFramesWith({-8, -8, -8, keyFrame});
    ring.StartReader(1, NeverReady);
    EXPECT_EQ(GetLastIFrame(ring.Ring(1).Base, kType, 1, 0), keyFrame);
    ring.Finish();
    EXPECT_EQ(ring.KeyFrameQuestions(), 4u);
    EXPECT_EQ(Sleeps(10), 3u);
}

// Error paths: bad arguments, null buffers, a channel whose ring was never opened.
TEST(AVStreamReader, RefusesBadArguments) {
    REQUIRE_PRIVATE_IPC();
    RingHarness ring;
    AVStreamCtrlMsg msg;
    EXPECT_EQ(AVStreamStart(kType, 4), kAVStreamBadArgument);
    EXPECT_EQ(AVStreamStart(1, 0), kAVStreamBadArgument);
    EXPECT_EQ(AVStreamStart(17, 0), kAVStreamBadArgument);
    EXPECT_EQ(GetAVStreamInit(17, Collect, nullptr), kAVStreamBadArgument);
    EXPECT_EQ(AVStreamControlRequest(kAVStreamCmdStartPos, kType, 4, &msg), kAVStreamBadArgument);
    EXPECT_EQ(AVStreamControlRequest(kAVStreamCmdStartPos, 1, 0, &msg), kAVStreamBadArgument);
    EXPECT_EQ(AVStreamControlRequest(kAVStreamCmdStartPos, kType, 0, nullptr), kAVStreamNullBuffer);
    ring.StartReader(3);  // the talk ring is not opened here: the thread ends
    AVStreamStop(kType, 3);
    std::string log = ring.Finish();
    EXPECT_EQ(Count(log, "StreamSysInfo->StreamSharememID\\[3\\] -1 < 0\n"), 1u) << log;
}

TEST(AVStreamReader, ControlInitOpensTheThreeRings) {
    REQUIRE_PRIVATE_IPC();
    ASSERT_EQ(GetAVStreamInit(kType, Collect, nullptr), 0);
    for (uint32_t i = 0; i < 3; ++i) {
        int shmId = shmget(kAVStreamShmKey[i], 0, 0);
        ASSERT_GE(shmId, 0);
        struct shmid_ds ds {};
        shmctl(shmId, IPC_STAT, &ds);
        EXPECT_EQ(ds.shm_segsz, AVStreamSegmentSize(i));
        EXPECT_EQ(ds.shm_perm.mode & 0777, 0777u);
        IpcShareMemRemove(shmId);
    }
    EXPECT_LT(shmget(kAVStreamShmKey[3], 0, 0), 0);
    EXPECT_GE(msgget(kAVStreamCtrlQueueKey, 0), 0);
    IpcMsgQueueRemove(msgget(kAVStreamCtrlQueueKey, 0));
    AVStreamResetForTest();
}

}  // namespace
