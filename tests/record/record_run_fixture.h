// Test fixture for record runs in one process: a private IPC namespace with
// SysInfo, a card directory, one fake clock for the run, the section opener
// and the writer, and an encoder stand-in that answers key-frame requests.
#pragma once

#include <gtest/gtest.h>
#include <sys/msg.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_section.h"
#include "common/platform_paths.h"
#include "ipc/av_server_request.h"
#include "ipc/sysv_ipc.h"
#include "record/record_clock.h"
#include "record/record_flags.h"
#include "record/record_process.h"
#include "support/card_fixture.h"
#include "support/test_support.h"
#include "sysconfig/camera_access.h"
#include "sysconfig/sys_info.h"

namespace record_run_fixture {

inline constexpr uint32_t kMediaFiles = 4;
inline constexpr uint32_t kStartWall = 1700000000;
inline constexpr uint32_t kStartUptime = 5000;
inline constexpr int kTuesday = 2;

// One clock for the run, the section opener and the writer: wall clock and
// uptime advance together unless a test makes the wall clock jump.
inline std::atomic<uint32_t> g_wall{kStartWall};
inline std::atomic<uint32_t> g_uptime{kStartUptime};
inline std::atomic<int> g_localSecondOfDay{-1};  // -1: local time of g_wall

inline int FakeGetTimeOfDay(struct timeval *now) {
    now->tv_sec = g_wall.load();
    now->tv_usec = 0;
    return 0;
}
inline time_t FakeWall() { return g_wall.load(); }
inline uint32_t FakeUptime() { return g_uptime.load(); }
inline struct tm *FakeLocalTime(const time_t *when, struct tm *out) {
    localtime_r(when, out);
    int second = g_localSecondOfDay.load();
    if (second >= 0) {
        out->tm_wday = kTuesday;
        out->tm_hour = second / 3600;
        out->tm_min = second / 60 % 60;
        out->tm_sec = second % 60;
    }
    return out;
}
inline const RecordClockOps kFakeClock = {FakeGetTimeOfDay, FakeWall, FakeUptime, FakeLocalTime};
inline void FakeWriterWall(struct timeval *now) { FakeGetTimeOfDay(now); }
inline uint32_t FakeSeconds() { return g_wall.load(); }

// Answers the force-key-frame requests of the run the way the encoder does.
class KeyFrameResponder {
public:
    KeyFrameResponder() {
        queue_ = IpcMsgQueueOpen(kAVServerCtrlQueueKey);
        thread_ = std::thread([this] { Serve(); });
    }
    ~KeyFrameResponder() {
        stop_ = true;
        thread_.join();
    }
    int served() const { return served_.load(); }

private:
    void Serve() {
        while (!stop_) {
            AVServerMsg msg{};
            if (msgrcv(queue_, &msg, kAVServerMsgBodySize, kAVServerMsgTypeRequest, IPC_NOWAIT) < 0) {
                usleep(1000);
                continue;
            }
            msg.MsgType = kAVServerMsgTypeReply;
            msg.Result = 0;
            msgsnd(queue_, &msg, kAVServerMsgBodySize, 0);
            ++served_;
        }
    }
    int queue_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<int> served_{0};
    std::thread thread_;
};

// Annex-B access units as the encoder publishes them.
inline std::vector<uint8_t> KeyFrame() {
    return {0,    0,    0,    1, 0x67, 0x42, 0x00, 0x1f, 0,    0,    0,    1,    0x68,
            0xce, 0x3c, 0x80, 0, 0,    0,    1,    0x65, 0x88, 0x84, 0x00, 0x33, 0xff};
}
inline std::vector<uint8_t> PFrame() { return {0, 0, 0, 1, 0x41, 0x9a, 0x02, 0x03, 0x04}; }

class RecordRunTest : public testing::Test {
protected:
    void SetUp() override {
        REQUIRE_PRIVATE_IPC();
        CameraAccessInit(kCameraTypeCommon, kRecordProcessArgument);
        sys_ = GetSysInfoForWriting();
        ASSERT_NE(sys_, nullptr);
        memset(sys_, 0, sizeof *sys_);
        sys_->ucVideoStandard = kVideoStandard50Hz;
        sys_->stream[0].usWidth = 1920;
        sys_->stream[0].usHeight = 1080;
        sys_->stream[1].usWidth = 640;
        sys_->stream[1].usHeight = 360;
        sys_->videoRecord.ucEnable = 1;
        sys_->videoRecord.ucLackSpaceModel = 1;
        for (auto &day : sys_->videoRecord.weekScope.dayScope) day.ucSocpeMode = TIME_SCOPE_ALL;

        g_wall = kStartWall;
        g_uptime = kStartUptime;
        g_localSecondOfDay = -1;
        SetRecordClock(&kFakeClock);
        SetRecordClockForTest(FakeSeconds);
        LS_RecordSetClocks(FakeWriterWall, FakeUptime);

        root_.WriteFile(kCardDevice, "");
        card_ = root_.Under(kCardMountPoint);
        MakeDirectories(card_);
        MakeSparseCard(card_, kMediaFiles);
        AV_RecordConfigInfoInit(GetRecordConfigInfo(), 0, kMediaFiles);
        memset(GetFileInfoHead(), 0, sizeof(FileInfoHead));
        memset(GetSectionInfoHead(), 0, sizeof(SectionInfoHead));
        FlagSet(g_bRecordStop, 0);
        FlagSet(g_bRecording, 0);
        FlagSet(g_bDayEnd, 0);
        FlagSet(g_u32RecordScopeIndex, 0);
        responder_ = std::make_unique<KeyFrameResponder>();
    }

    void TearDown() override {
        responder_.reset();
        SetRecordClock(nullptr);
        SetRecordClockForTest(nullptr);
        LS_RecordSetClocks(nullptr, nullptr);
    }

    // Starts a run of stream on its own thread and waits until it records.
    void StartRun(uint32_t stream = 0) {
        done_ = false;
        runner_ = std::thread([this, stream] {
            result_ = StartRecord(static_cast<int>(stream), 600);
            done_ = true;
        });
        for (int i = 0; i < 300 && FlagGet(g_bRecording) == 0 && !done_; ++i) usleep(10000);
        ASSERT_EQ(FlagGet(g_bRecording), 1u);
    }

    // Feeds a key frame and count-1 P-frames, one second of clock apart each
    // 25 frames.
    void Feed(uint32_t stream, int count) {
        for (int i = 0; i < count; ++i) {
            std::vector<uint8_t> frame = (i == 0) ? KeyFrame() : PFrame();
            AVDataInfo info{};
            info.AVDataCheck = kAVDataCheckWord;
            info.SerialNumber = ++serial_;
            info.AVDataLen = static_cast<int32_t>(frame.size());
            info.AVSource = kAVSourceVideo;
            info.EndFlag = kAVEndFlagFrame;
            info.KeyFrameFlag = i == 0 ? 1 : 0;
            RecordFrameCallback(kAVSourceVideo, stream, frame.data(), &info);
            if (i % 25 == 24) Tick(1);
        }
    }

    static void Tick(uint32_t seconds) {
        g_wall += seconds;
        g_uptime += seconds;
    }

    // Waits for the run to end; false when it is still running after 3 s.
    bool WaitForEnd() {
        for (int i = 0; i < 300 && !done_; ++i) usleep(10000);
        if (!done_) return false;
        runner_.join();
        return true;
    }

    // True while the run keeps going for a few watch turns.
    bool StillRunningAfterAWhile() {
        usleep(200000);
        return !done_;
    }

    void StopRun() {
        StopRecord();
        ASSERT_TRUE(WaitForEnd());
        FlagSet(g_bRecordStop, 0);
    }

    // A record of the card's file `name` at offset.
    template <typename Record>
    Record CardRecord(const char *name, uint32_t offset) const {
        Record record{};
        std::string bytes = ReadFileAt(card_ + name, offset, sizeof record);
        memcpy(&record, bytes.data(), sizeof record);
        return record;
    }

    SectionInfoHead CardSection(uint32_t fileNo, uint32_t sectionNo) const {
        return CardRecord<SectionInfoHead>(kIndexFileName, SectionInfoHeadPosition(fileNo, sectionNo));
    }

    ScopedRoot root_;
    std::string card_;
    SysInfo *sys_ = nullptr;
    std::unique_ptr<KeyFrameResponder> responder_;
    std::thread runner_;
    std::atomic<bool> done_{false};
    std::atomic<int> result_{-2};
    uint32_t serial_ = 0;
};

}  // namespace record_run_fixture

using namespace record_run_fixture;
