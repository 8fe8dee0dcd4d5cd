// Power cut at every card write of a record run: the run's write log is
// replayed onto a fresh card one write at a time, and after each write (and
// inside each large write, torn at a sector) the card is taken up again as
// after a reboot: the search lists the recording, every completed frame
// reads back, the index check finds nothing but the torn tail of the cut
// section, and a new run on that card records every frame.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>

#include "common/platform_paths.h"
#include "support/faulty_file_io.h"
#include "support/test_support.h"
#include "sweep_card.h"
#include "tools/seek_file.h"

namespace {

using sweep::FailedParts;
using sweep::kAudioEvery;
using sweep::kFirstRun;
using sweep::kGop;
using sweep::kSecondRun;
using sweep::kStartTime;
using sweep::kVideoFrames;
constexpr uint32_t kSecondStart = kStartTime + 3600;
constexpr size_t kSectorSize = 512;
constexpr int kSmokeSample = 60;

struct Tally {
    int points = 0;
    int torn = 0;  // cuts inside a write
    int failures = 0;
    int tailReports = 0;  // cuts after which the check named the torn tail
};

class CrashSweep : public testing::Test {
protected:
    void SetUp() override {
        source_ = dir_.path() + "/";
        pristine_ = pristineDir_.path() + "/";
        replica_ = root_.Under(kCardMountPoint);
        MakeDirectories(replica_);
        first_ = sweep::MakeStream(kFirstRun, kVideoFrames, kGop, kAudioEvery);
        second_ = sweep::MakeStream(kSecondRun, kGop * 2, kGop, kAudioEvery);
        catalog_.Add(kFirstRun, first_);
        catalog_.Add(kSecondRun, second_);
        ASSERT_TRUE(sweep::MakeCard(source_));
        ASSERT_TRUE(sweep::MakeCard(pristine_));
        ASSERT_TRUE(sweep::MakeCard(replica_));
        FaultyFileIo io;
        io.LogWrites();
        ASSERT_EQ(sweep::RecordRun(
                      source_, first_, kStartTime, [&] { return io.writeLog().size(); }, &writesAfter_),
                  0);
        log_ = io.writeLog();
        for (WriteLogEntry &entry : log_) entry.path = OnReplica(entry.path);
    }

    std::string OnReplica(const std::string &path) const { return replica_ + path.substr(source_.size()); }
    std::string OnPristine(const std::string &path) const { return pristine_ + path.substr(replica_.size()); }

    // The replica's bytes of [offset, offset + length) of path with the
    // first `applied` writes of the log on it.
    std::string ExpectedBytes(const std::string &path, int64_t offset, size_t length, size_t applied) const {
        std::string bytes = ReadFileAt(OnPristine(path), static_cast<uint64_t>(offset), length);
        bytes.resize(length, '\0');
        for (size_t i = 0; i < applied; ++i) {
            const WriteLogEntry &w = log_[i];
            int64_t from = std::max(offset, w.offset);
            int64_t to = std::min<int64_t>(offset + length, w.offset + static_cast<int64_t>(w.data.size()));
            if (w.path != path || from >= to) continue;
            bytes.replace(from - offset, to - from, w.data, from - w.offset, to - from);
        }
        return bytes;
    }

    // Puts back what the given writes changed on the replica.
    void Undo(const std::vector<WriteLogEntry> &writes, size_t applied) const {
        for (const WriteLogEntry &w : writes)
            WriteFileAt(w.path, w.offset, ExpectedBytes(w.path, w.offset, w.data.size(), applied));
    }

    // Frames of the first run whose writes have all reached the card.
    int CompletedFrames(size_t applied) const {
        return static_cast<int>(std::upper_bound(writesAfter_.begin(), writesAfter_.end(), applied) -
                                writesAfter_.begin());
    }

    // Frames of a run found on the card, in card order.
    static std::vector<size_t> RunFrames(const sweep::ReadBack &back, uint32_t id) {
        std::vector<size_t> positions;
        for (int key : back.frames)
            if (static_cast<uint32_t>(key) >> 20 == id) positions.push_back(key & 0xFFFFF);
        return positions;
    }

    // Recording time of the first run's frame at a position (the search
    // lists a section once it lasts a second).
    uint32_t SecondsInto(size_t position) const {
        auto videoBefore =
            std::count_if(first_.begin(), first_.begin() + static_cast<long>(position),
                          [](const sweep::StreamFrame &f) { return f.kind == kFrameKindVideo; });
        return static_cast<uint32_t>(videoBefore) / sweep::kFps;
    }

    // The first run's frames on the card: its first ones, in order, no fewer
    // than were completed and at most the one being written when cut.
    void ExpectCompletedPrefix(const std::vector<size_t> &found, int completed, const std::string &where) {
        EXPECT_GE(found.size(), static_cast<size_t>(completed)) << where;
        EXPECT_LE(found.size(), static_cast<size_t>(completed) + 1) << where;
        for (size_t i = 0; i < found.size(); ++i) {
            if (found[i] != i) {
                ADD_FAILURE() << where << ": frame " << found[i] << " where " << i << " belongs";
                break;
            }
        }
    }

    void ExpectSearchLists(bool recorded, const std::string &where) {
        auto list = std::make_unique<FileListInfo>();
        ASSERT_EQ(SeekFile(kSeekTypeNormal, kStartTime - 10, kSecondStart + 3600, list.get()), 0) << where;
        EXPECT_GE(list->s32FileNum, recorded ? 1 : 0) << where;
        EXPECT_LE(list->s32FileNum, 2) << where;
    }

    // Problems after a cut may only concern the media file being recorded.
    int ExpectOnlyTornTail(const std::string &where) {
        std::vector<IndexProblem> problems = sweep::CheckCard(replica_);
        for (const IndexProblem &p : problems) {
            EXPECT_EQ(p.fileNo, 0) << where << ": " << FormatIndexProblem(p);
        }
        return problems.empty() ? 0 : 1;
    }

    // The card as it is after `applied` writes, taken up again.
    void TakeUp(size_t applied, const std::string &where, Tally *tally) {
        int before = FailedParts();
        int completed = CompletedFrames(applied);
        sweep::ReadBack back = sweep::ReadBackCard(replica_, catalog_);
        EXPECT_EQ(back.foreign, 0) << where;
        std::vector<size_t> found = RunFrames(back, kFirstRun);
        ExpectCompletedPrefix(found, completed, where);
        ExpectSearchLists(completed > 0 && SecondsInto(completed - 1) > 0, where);
        tally->tailReports += ExpectOnlyTornTail(where);

        // Recording goes on: a new run keeps every frame and costs none of
        // those completed before the cut.
        std::vector<WriteLogEntry> resumed;
        {
            FaultyFileIo io;
            io.LogWrites();
            EXPECT_EQ(sweep::RecordRun(replica_, second_, kSecondStart), 0) << where;
            resumed = io.writeLog();
        }
        back = sweep::ReadBackCard(replica_, catalog_);
        std::vector<size_t> next = RunFrames(back, kSecondRun);
        std::set<size_t> distinct(next.begin(), next.end());
        EXPECT_EQ(distinct.size(), second_.size()) << where << ": frames of the new run missing";
        EXPECT_GE(RunFrames(back, kFirstRun).size(), static_cast<size_t>(completed)) << where;
        ExpectOnlyTornTail(where + ", after the new run");
        Undo(resumed, applied);

        ++tally->points;
        tally->failures += FailedParts() > before;
    }

    // The cut falls inside write `n` (0-based): its first sectors landed.
    void TakeUpTorn(size_t n, Tally *tally) {
        const WriteLogEntry &w = log_[n];
        size_t keep = (w.data.size() / 2) / kSectorSize * kSectorSize;
        if (keep == 0) return;
        WriteFileAt(w.path, w.offset, w.data.substr(0, keep));
        TakeUp(n, "cut inside write " + std::to_string(n + 1), tally);
        Undo({WriteLogEntry{w.path, w.offset, w.data.substr(0, keep)}}, n);
        ++tally->torn;
    }

    static std::string Figures(const Tally &t) {
        return "points=" + std::to_string(t.points) + " failures=" + std::to_string(t.failures) +
               " torn_writes=" + std::to_string(t.torn) +
               " torn_tail_reports=" + std::to_string(t.tailReports);
    }

    ScopedRoot root_;
    TempDir dir_;
    TempDir pristineDir_;
    std::string source_;
    std::string pristine_;
    std::string replica_;
    sweep::Stream first_;
    sweep::Stream second_;
    sweep::FrameCatalog catalog_;
    std::vector<WriteLogEntry> log_;
    std::vector<size_t> writesAfter_;
};

TEST_F(CrashSweep, EveryWriteCutAndTakenUpAgain) {
    ASSERT_EQ(ReadFileAt(replica_ + kIndexFileName, 0, kSectorSize),
              ReadFileAt(pristine_ + kIndexFileName, 0, kSectorSize));
    Tally tally;
    int stride = sweep::SweepStride(static_cast<int>(log_.size()) + 1, kSmokeSample);
    for (size_t applied = 0; applied <= log_.size(); ++applied) {
        if (applied > 0)
            WriteFileAt(log_[applied - 1].path, log_[applied - 1].offset, log_[applied - 1].data);
        if (applied % stride != 0 && applied != log_.size()) continue;
        ASSERT_NO_FATAL_FAILURE(TakeUp(applied, "cut after write " + std::to_string(applied), &tally));
        if (applied < log_.size()) {
            ASSERT_NO_FATAL_FAILURE(TakeUpTorn(applied, &tally));
        }
    }
    sweep::PrintFigures("crash-sweep", Figures(tally));
    EXPECT_EQ(sweep::ReadBackCard(replica_, catalog_).frames.size(), first_.size());
}

// Replaying the whole log gives the card the uninterrupted run left.
TEST_F(CrashSweep, FullReplayMatchesTheRecordedCard) {
    ReplayWriteLog(log_, log_.size());
    for (const char *name : {kIndexFileName, "hi000000.mp4"}) {
        EXPECT_EQ(ReadFileAt(replica_ + name, 0, 1 << 20), ReadFileAt(source_ + name, 0, 1 << 20)) << name;
    }
}

}  // namespace
