// The recorder stopped at every one of its card writes (and inside every
// media write) across three media files and a lap: section starts, a
// parameter split, an alarm event, files becoming full, a midnight split and
// the wrap onto the oldest file. Each state is taken up as after a reboot:
// the daemon loads the index and records a first section on it. Judged on
// the records alone (media bytes are markers, see memory_card.h):
// - the index check finds problems only where the cut fell, and the new
//   section adds none;
// - no section claims data that was not written in its own time;
// - frames whose writes were all done are still indexed;
// - the new section starts behind every section still on the card, or
//   takes over the next file in lap order when the current one is full,
//   and leaves every other record as it found it.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_config.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "avrecord_lib/record_section.h"
#include "card_reader/index_check.h"
#include "common/platform_paths.h"
#include "memory_card.h"
#include "record/alarm_event_thread.h"
#include "record/record_flags.h"
#include "record/record_param_init.h"
#include "record/record_run.h"
#include "support/scoped_zone.h"
#include "support/test_support.h"
#include "sweep_card.h"

namespace {

constexpr uint32_t kFiles = 3;
constexpr uint8_t kCoverOldest = 1;
constexpr uint32_t kFps = 5;
constexpr int kGop = 5;
constexpr int kAudioEvery = 2;
constexpr uint32_t kSmallFrame = 3000;
constexpr uint32_t kBigFrame = 4000000;           // about 65 frames fill a media file
constexpr uint32_t kDayStart = 1795651200;        // 2026-11-25 00:00:00 UTC
constexpr uint32_t kFirstStart = kDayStart - 20;  // 23:59:40 the day before
constexpr uint32_t kSecondsPerDay = 86400;
constexpr int kRunUntilEnd = 1 << 20;
constexpr uint32_t kAlarmSource = 2;  // watched by record type 1
constexpr uint8_t kAlarmRecordType = 1;
constexpr uint8_t kDelayFiveSeconds = 1;
constexpr uint32_t kRestartDelay = 60;
constexpr size_t kSectorSize = 512;

// The test clock: whole seconds advancing with the video frames.
struct Clock {
    static inline uint32_t base = 0;
    static inline uint32_t frames = 0;
    static uint32_t Now() { return base + frames / kFps; }
    static time_t SectionNow() { return Now(); }
    static void Wall(struct timeval *tv) { *tv = {static_cast<time_t>(Now()), 0}; }
    static uint32_t Uptime() { return 1000 + (Now() - kFirstStart); }
    static inline uint32_t width = 1280;
    static int Encoding(int, RecordEncodingInfo *info) {
        *info = RecordEncodingInfo{width, 720, kFps, 0, 0, 0, 0, 0, 8000, 0};
        return 0;
    }
};

enum class RunEnd { kAfterFrames, kFileFull, kDayEnd };

struct RunPlan {
    RunEnd end;
    int frames;          // video frames at most
    uint32_t width;      // picture width of the run
    int alarmFrom;       // video frames into the run the alarm is on (-1: none)
    int alarmFrames;     // for so many frames
    bool small = false;  // frames of a few kilobytes instead of megabytes
};

// A frame that left writes, with the media file it went to.
struct FrameMark {
    size_t before;  // log entries before its writes
    size_t after;   // log entries once they were all done
    uint32_t fileNo;
    uint32_t use;       // how often that file had been started afresh
    uint32_t dataSize;  // the file's data size with the frame
    uint32_t time;      // clock second of its writes
};

std::vector<uint8_t> Frame(bool key, uint32_t size) {
    std::vector<uint8_t> bytes;
    if (key) sweep::AppendNal(bytes, 0x67, size, 12);
    sweep::AppendNal(bytes, key ? 0x65 : 0x41, size, size);
    return bytes;
}

int WriteFrame(int kind, const std::vector<uint8_t> &bytes) {
    AVDataInfo info{};
    info.AVDataLen = static_cast<int32_t>(bytes.size());
    info.AVSource = static_cast<uint32_t>(kind);
    return libAVRecordWriteFrame(sweep::kChannel, kind, bytes.data(), &info);
}

// What a state of the card says, read through the index.
struct CardView {
    RecordConfigInfo header{};
    FileInfoHead files[kFiles] = {};
    std::vector<SectionInfoHead> sections[kFiles];  // slots 1 .. section sum
    std::vector<std::string> problems[kFiles + 1];  // by file, the header's last
};

class WritePointSweep : public testing::Test {
protected:
    void SetUp() override {
        cardDir_ = PlatformPath(kCardMountPoint);
        for (uint32_t n = 0; n < kFiles; ++n) pristine_.Create(MediaFilePath(n), kMediaFileSize, true);
        pristine_.Create(cardDir_ + kIndexFileName, kIndexFileSize, false);
        pristine_.Create(cardDir_ + kEventFileName, kEventFileSize, false);
        memcard::Mount mount(&pristine_, Clock::Now);
        MkfsCapacityInfo config = {};
        config.m_u32VideoFileNum = kFiles;
        ASSERT_EQ(AV_RecordFileConfigSet((cardDir_ + kIndexFileName).c_str(), &config), 0);
        LS_RecordSetEncodingSource(Clock::Encoding);
        LS_RecordSetClocks(Clock::Wall, Clock::Uptime);
        SetRecordClockForTest(Clock::SectionNow);
        LS_RecordSetSyncSeconds(1);
    }

    void TearDown() override {
        LS_RecordClose();
        LS_RecordSetEncodingSource(nullptr);
        LS_RecordSetClocks(nullptr, nullptr);
        SetRecordClockForTest(nullptr);
        LS_RecordSetSyncSeconds(0);
        FlagSet(g_bIndexLoaded, 0);
        g_u32LastRecordEndTime.store(0, std::memory_order_relaxed);
    }

    std::string MediaFilePath(uint32_t n) const { return CardMediaFilePath(cardDir_, n); }

    // The daemon's load: the index is read afresh, as after a reboot.
    static void Reboot() {
        FlagSet(g_bIndexLoaded, 0);
        FlagSet(g_bNewFileInfo, 0);
        g_u32LastRecordEndTime.store(0, std::memory_order_relaxed);
        LS_RecordClose();
    }

    // One record run as the daemon makes it: the index checked for a file,
    // a section opened, the writer armed, frames until the plan's end or a
    // full file (the watch turn after each frame), the alarm thread's turns,
    // then the end steps. marks (optional) gets every frame that wrote.
    int Run(const RunPlan &plan, const memcard::Mount &mount, std::vector<FrameMark> *marks) {
        if (AVRecordParamInit(kCoverOldest) != 0) return -1;
        LS_RecordStop();
        FileInfoHead before = *GetFileInfoHead();
        if (AV_RecordFileConfigParamGet(GetRecordConfigInfo(), GetFileInfoHead(), GetSectionInfoHead(), 1) !=
            0)
            return -1;
        uint32_t fileNo = GetFileInfoHead()->m_u32FileNo;
        if (GetSectionInfoHead()->m_u16SectionNo == 1) ++uses_[fileNo];
        if (LS_RecordInit(GetFileInfoHead(), sweep::kChannel) != 0) return -1;
        Clock::width = plan.width;
        int eventFd = AVFileOpen((cardDir_ + kEventFileName).c_str(), kAVFileModeReadWrite);
        AlarmEventTracker tracker;
        AlarmEventTrackerLoad(eventFd, &tracker);
        for (int v = 0; v < plan.frames; ++v) {
            size_t before = mount.log().size();
            uint32_t time = Clock::Now();
            bool key = v % kGop == 0;
            WriteFrame(kFrameKindVideo, plan.small ? (key ? smallKey_ : smallOther_) : (key ? key_ : other_));
            if (v % kAudioEvery == 1) WriteFrame(kFrameKindAudio, audio_);
            ++Clock::frames;
            if (marks != nullptr && mount.log().size() > before)
                marks->push_back({before, mount.log().size(), fileNo, uses_[fileNo],
                                  GetFileInfoHead()->m_u32DataSize, time});
            AlarmTurnAt(plan, v, eventFd, &tracker);
            if (AV_RecordFileInfoHeadIsFull(GetFileInfoHead())) break;
            if (plan.end == RunEnd::kDayEnd && Clock::Now() % kSecondsPerDay == kSecondsPerDay - 1) break;
        }
        LS_RecordStop();
        g_u32LastRecordEndTime.store(GetSectionInfoHead()->m_u32EndTime, std::memory_order_relaxed);
        AlarmEventFlush(eventFd, tracker);
        AVFileClose(eventFd);
        LS_RecordClose();
        RecordRunIndexEnd(before);
        if (plan.end == RunEnd::kDayEnd) Clock::frames += kFps;  // the next run starts in the new day
        return 0;
    }

    static void AlarmTurnAt(const RunPlan &plan, int v, int eventFd, AlarmEventTracker *tracker) {
        if (plan.alarmFrom < 0) return;
        AlarmShmEntry alarms[kAlarmSourceCount] = {};
        alarms[kAlarmSource].Status = v >= plan.alarmFrom && v < plan.alarmFrom + plan.alarmFrames ? 1 : 0;
        AlarmTurn turn{Clock::Now(),      kAlarmRecordType,    alarms, 0, kDelayFiveSeconds,
                       GetFileInfoHead(), GetSectionInfoHead()};
        if (tracker->Turn(turn) != AlarmAction::kNone) AlarmEventFlush(eventFd, *tracker);
    }

    // The recording the sweep cuts: three files and the start of a lap.
    void Record() {
        memcard::Card card = pristine_;
        memcard::Mount mount(&card, Clock::Now);
        Clock::base = kFirstStart;
        Clock::frames = 0;
        Reboot();
        const RunPlan plans[] = {
            {RunEnd::kAfterFrames, 20, 1280, -1, 0},         // file 0, then a parameter split
            {RunEnd::kFileFull, kRunUntilEnd, 1920, 2, 5},   // file 0 with an alarm until full
            {RunEnd::kDayEnd, kRunUntilEnd, 1920, -1, 0},    // file 1 until midnight
            {RunEnd::kFileFull, kRunUntilEnd, 1920, -1, 0},  // file 1 in the new day
            {RunEnd::kFileFull, kRunUntilEnd, 1920, -1, 0},  // file 2
            {RunEnd::kAfterFrames, 12, 1920, -1, 0},         // file 0 again, the oldest
        };
        for (const RunPlan &plan : plans) ASSERT_EQ(Run(plan, mount, &marks_), 0);
        EXPECT_EQ(uses_[0], 2u) << "the recording reaches the oldest file again";
        EXPECT_EQ(uses_[kFiles - 1], 1u);
        log_ = mount.log();
        recordedEnd_ = Clock::Now();
        size_t eventWrites = std::count_if(log_.begin(), log_.end(), [&](const memcard::Op &op) {
            return !op.sync && op.path == cardDir_ + kEventFileName;
        });
        EXPECT_GE(eventWrites, 2u) << "the alarm event's slot and entry";
        CardView view = View(&card);
        EXPECT_EQ(view.sections[0].size(), 1u) << "file 0 started afresh in the new lap";
        EXPECT_EQ(view.sections[1].size(), 2u) << "file 1 split at midnight";
    }

    // The card's records and the index check's findings.
    CardView View(memcard::Card *card) const {
        memcard::Mount mount(card, Clock::Now);
        CardView view;
        int fd = AVFileOpen((cardDir_ + kIndexFileName).c_str(), kAVFileModeRead);
        AV_RecordConfigInfoRead(fd, &view.header);
        for (uint32_t n = 0; n < kFiles; ++n) {
            AV_RecordFileInfoHeadAccecsFileNoRead(fd, n, &view.files[n]);
            if (view.files[n].m_u32HeadFlag != kFileInfoHeadFlag) continue;
            std::vector<SectionInfoHead> slots(kMaxSectionNo);
            if (AV_RecordSectionInfoHeadRead(fd, &view.files[n], slots.data()) != 0) continue;
            slots.resize(view.files[n].m_u32RecordSectionSum);
            view.sections[n] = slots;
        }
        AVFileClose(fd);
        std::vector<IndexProblem> problems;
        CheckCardIndex(cardDir_, &problems);
        for (const IndexProblem &p : problems) {
            size_t at = p.fileNo >= 0 && p.fileNo < kFiles ? static_cast<size_t>(p.fileNo) : kFiles;
            view.problems[at].push_back(FormatIndexProblem(p));
        }
        return view;
    }

    // End of the data the file's records account for, as the load takes it.
    static uint32_t RecordedEnd(const CardView &view, uint32_t n) {
        uint32_t end = view.files[n].m_u32HeadFlag == kFileInfoHeadFlag ? view.files[n].m_u32DataSize : 0;
        for (const SectionInfoHead &s : view.sections[n])
            if (s.m_u32HeadFlag == kSectionInfoHeadFlag)
                end = std::max(end, s.m_u32SectionOffset + s.m_u32SectionSize);
        return end;
    }

    // Of file n's latest use begun within the first `begun` writes: the
    // data size its frames done reached (0 when none) and when it began (0:
    // the file's first use, nothing of an earlier lap is overwritten).
    struct FileUse {
        uint32_t doneSize = 0;
        uint32_t lapStart = 0;
    };
    FileUse LatestUse(uint32_t n, size_t begun, size_t applied) const {
        const FrameMark *first = nullptr;
        for (const FrameMark &m : marks_)
            if (m.fileNo == n && m.before < begun && (first == nullptr || m.use != first->use)) first = &m;
        FileUse use;
        if (first == nullptr) return use;
        if (first->use > 1) use.lapStart = first->time;
        for (const FrameMark &m : marks_)
            if (m.fileNo == n && m.use == first->use && m.after <= applied)
                use.doneSize = std::max(use.doneSize, m.dataSize);
        return use;
    }

    // Sections claim only data written in their own time, and frames done
    // are indexed. skip: a file whose recordings the state may drop.
    void ExpectRecordsHoldTheDoneFrames(const memcard::Card &card, const CardView &view, size_t begun,
                                        size_t applied, int skip, const std::string &where) const {
        for (uint32_t n = 0; n < kFiles; ++n) {
            if (static_cast<int>(n) == skip) continue;
            FileUse use = LatestUse(n, begun, applied);
            EXPECT_GE(RecordedEnd(view, n), use.doneSize) << where << ": file " << n << " lost frames done";
            for (const SectionInfoHead &s : view.sections[n]) {
                if (s.m_u32HeadFlag != kSectionInfoHeadFlag || s.m_u32SectionSize == 0) continue;
                if (s.m_u32StartTime < use.lapStart) continue;  // of the lap being written over
                // A section joined to the run before it starts at that run's end,
                // and its first frame takes the section's start as its time.
                uint32_t last = s.m_u32EndTime + kSectionJoinSeconds;
                auto gaps = card.NotWrittenBetween(MediaFilePath(n), s.m_u32SectionOffset,
                                                   uint64_t{s.m_u32SectionOffset} + s.m_u32SectionSize,
                                                   s.m_u32StartTime, last);
                EXPECT_TRUE(gaps.empty())
                    << where << ": file " << n << " section " << s.m_u16SectionNo << " claims ["
                    << gaps[0].first << ", " << gaps[0].second << ") not written in its time";
            }
        }
    }

    // The restart's writes: behind the current file's recordings, or from
    // the start of the next file when the current one is full; the file it
    // took over, or -1.
    int ExpectRestartWritesInPlace(const CardView &view, const std::vector<memcard::Op> &writes,
                                   const std::string &where) const {
        uint32_t current = view.header.m_u32FileInfoHeadNo;
        uint32_t next = (current + 1) % kFiles;
        bool full = view.files[current].m_u32HeadFlag == kFileInfoHeadFlag &&
                    RecordedEnd(view, current) >= kMediaFileFullSize;
        uint32_t keyFrames = 0;
        for (const SectionInfoHead &s : view.sections[current]) keyFrames += s.m_u32KeyFrameSum;
        int takenOver = -1;
        for (const memcard::Op &op : writes) {
            for (uint32_t n = 0; n < kFiles; ++n) {
                if (op.sync || op.path != MediaFilePath(n)) continue;
                bool table = op.offset >= kKeyFrameTableOffset;
                if (n == next && full) {
                    takenOver = static_cast<int>(n);
                } else if (n != current || full) {
                    ADD_FAILURE() << where << ": the new section wrote into file " << n;
                } else if (table) {
                    EXPECT_GE(op.offset, kKeyFrameTableOffset + KeyFrameEntryOffset(keyFrames)) << where;
                } else {
                    EXPECT_GE(op.offset, RecordedEnd(view, current)) << where << ": over recorded data";
                }
            }
        }
        return takenOver;
    }

    // Every section record but those of the file taken over is as it was,
    // and so is every file record but the one recorded into.
    static void ExpectRecordsKept(const CardView &before, const CardView &after, uint32_t target,
                                  int takenOver, const std::string &where) {
        for (uint32_t n = 0; n < kFiles; ++n) {
            if (static_cast<int>(n) == takenOver) continue;
            if (n != target) {
                EXPECT_EQ(memcmp(&before.files[n], &after.files[n], sizeof(FileInfoHead)), 0)
                    << where << ": file record " << n << " changed";
            }
            ASSERT_GE(after.sections[n].size(), before.sections[n].size()) << where << ": file " << n;
            for (size_t s = 0; s < before.sections[n].size(); ++s) {
                EXPECT_EQ(memcmp(&before.sections[n][s], &after.sections[n][s], sizeof(SectionInfoHead)), 0)
                    << where << ": file " << n << " section " << s + 1 << " changed";
            }
        }
    }

    // Problems after the cut only where it fell: the current file, the one
    // being started, the header.
    static void ExpectProblemsOnlyAtTheCut(const CardView &view, const std::string &where) {
        uint32_t current = view.header.m_u32FileInfoHeadNo % kFiles;
        for (uint32_t n = 0; n < kFiles; ++n) {
            if (n == current || n == (current + 1) % kFiles) continue;
            for (const std::string &p : view.problems[n]) ADD_FAILURE() << where << ": " << p;
        }
    }

    // The new section adds no problem.
    static void ExpectNoNewProblems(const CardView &before, const CardView &after, const std::string &where) {
        for (uint32_t n = 0; n <= kFiles; ++n) {
            std::set<std::string> known(before.problems[n].begin(), before.problems[n].end());
            for (const std::string &p : after.problems[n])
                if (known.count(p) == 0) ADD_FAILURE() << where << ", after the restart: " << p;
        }
    }

    // A copy of the state, taken up: the daemon loads it and records.
    // `applied` writes are done, `begun` begun (one more when the cut tore
    // a write).
    void TakeUp(const memcard::Card &state, size_t begun, size_t applied, const std::string &where) {
        memcard::Card card = state;
        CardView before = View(&card);
        ExpectProblemsOnlyAtTheCut(before, where);
        ExpectRecordsHoldTheDoneFrames(card, before, begun, applied, -1, where);

        std::vector<memcard::Op> writes;
        {
            memcard::Mount mount(&card, Clock::Now);
            Reboot();
            Clock::base = recordedEnd_ + kRestartDelay;
            Clock::frames = 0;
            ASSERT_EQ(Run({RunEnd::kAfterFrames, 2, 1920, -1, 0, true}, mount, nullptr), 0) << where;
            writes = mount.log();
        }
        CardView after = View(&card);
        uint32_t target = GetFileInfoHead()->m_u32FileNo;
        int takenOver = ExpectRestartWritesInPlace(before, writes, where);
        ExpectRecordsKept(before, after, target, takenOver, where);
        ExpectNoNewProblems(before, after, where);
        ExpectRecordsHoldTheDoneFrames(card, after, begun, applied, takenOver, where);
        ASSERT_FALSE(after.sections[target].empty()) << where;
        EXPECT_EQ(after.sections[target].back().m_u32VideoFrameSum, 2u) << where << ": the new section";
        ++states_;
    }

    std::string cardDir_;
    memcard::Card pristine_;
    std::vector<uint8_t> key_ = Frame(true, kBigFrame);
    std::vector<uint8_t> other_ = Frame(false, kBigFrame);
    std::vector<uint8_t> smallKey_ = Frame(true, kSmallFrame);
    std::vector<uint8_t> smallOther_ = Frame(false, kSmallFrame);
    std::vector<uint8_t> audio_ = std::vector<uint8_t>(sweep::kG711FrameBytes, 0x55);
    uint32_t uses_[kFiles] = {};
    std::vector<FrameMark> marks_;
    std::vector<memcard::Op> log_;
    uint32_t recordedEnd_ = 0;
    int states_ = 0;
    ScopedRoot root_;
    ScopedZone utc_{"UTC"};
};

TEST_F(WritePointSweep, EveryWriteOfThreeFilesAndALap) {
    auto started = std::chrono::steady_clock::now();
    ASSERT_NO_FATAL_FAILURE(Record());
    int syncs = 0;
    int torn = 0;
    memcard::Card state = pristine_;
    for (size_t applied = 0; applied <= log_.size(); ++applied) {
        if (applied > 0) state.Apply(log_[applied - 1]);
        if (applied > 0 && log_[applied - 1].sync) {
            ++syncs;
            continue;  // the same state as after the write before it
        }
        ASSERT_NO_FATAL_FAILURE(
            TakeUp(state, applied, applied, "cut after write " + std::to_string(applied)));
        if (applied == log_.size() || log_[applied].sync || log_[applied].length < 2 * kSectorSize) continue;
        memcard::Op half = log_[applied];
        half.length = half.length / 2 / kSectorSize * kSectorSize;
        half.bytes.resize(std::min<size_t>(half.bytes.size(), half.length));
        memcard::Card tornState = state;
        tornState.Apply(half);
        ASSERT_NO_FATAL_FAILURE(
            TakeUp(tornState, applied + 1, applied, "cut inside write " + std::to_string(applied + 1)));
        ++torn;
    }
    auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
    sweep::PrintFigures(
        "write-point-sweep",
        "points=" + std::to_string(states_) + " failures=" + std::to_string(sweep::FailedParts()) +
            " writes=" + std::to_string(log_.size() - syncs) + " torn_writes=" + std::to_string(torn) +
            " flushes=" + std::to_string(syncs) + " ms=" + std::to_string(ms.count()));
}

}  // namespace
