// I/O errors at every card operation of a record run: the n-th read, write
// or seek fails once, or fails from then on. Whatever fails, the run ends,
// every frame the index references that reads back is a published frame in
// its order, and a single failure costs at most the rest of one GOP.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "support/faulty_file_io.h"
#include "support/test_support.h"
#include "sweep_card.h"

namespace {

using Op = FaultyFileIo::Op;

using sweep::FailedParts;
using sweep::kAudioEvery;
using sweep::kFirstRun;
using sweep::kGop;
using sweep::kSecondRun;
using sweep::kStartTime;
using sweep::kVideoFrames;
constexpr int kSmokeSample = 40;  // per operation kind and mode

struct OpKind {
    Op op;
    const char *name;
};
constexpr OpKind kOps[] = {{Op::kRead, "read"}, {Op::kWrite, "write"}, {Op::kSeek, "seek"}};

struct Tally {
    int points = 0;
    int failures = 0;
    int damaged = 0;  // points after which frames were lost
    int lostMax = 0;  // frames lost by one fault
    int named = 0;    // damaged points the writer reported
};

class IoFaultSweep : public testing::Test {
protected:
    void SetUp() override {
        card_ = dir_.path() + "/";
        first_ = sweep::MakeStream(kFirstRun, kVideoFrames, kGop, kAudioEvery);
        second_ = sweep::MakeStream(kSecondRun, kGop * 2, kGop, kAudioEvery);
        catalog_.Add(kFirstRun, first_);
        catalog_.Add(kSecondRun, second_);
    }

    // Operation counts of a clean run.
    void CountOperations(int counts[3]) {
        ASSERT_TRUE(sweep::MakeCard(card_));
        FaultyFileIo io;
        ASSERT_EQ(sweep::RecordRun(card_, first_, kStartTime), 0);
        for (const OpKind &k : kOps) counts[static_cast<int>(k.op)] = io.calls(k.op);
    }

    // The published frames of a run that did not come back, by position.
    static std::vector<size_t> Lost(const sweep::Stream &stream, uint32_t id, const std::set<int> &found) {
        std::vector<size_t> lost;
        for (size_t i = 0; i < stream.size(); ++i)
            if (found.count(sweep::FrameCatalog::Key(id, i)) == 0) lost.push_back(i);
        return lost;
    }

    // Lost frames lie between the first one lost and the next key frame.
    bool WithinOneGop(const std::vector<size_t> &lost) const {
        return lost.empty() || lost.back() < NextKey(lost.front());
    }
    size_t NextKey(size_t after) const {
        size_t next = after + 1;
        while (next < first_.size() && !first_[next].key) ++next;
        return next;
    }

    // What the card holds must be published frames in publishing order.
    static void ExpectInOrder(const sweep::ReadBack &back, const std::string &where) {
        EXPECT_EQ(back.foreign, 0) << where;
        EXPECT_TRUE(std::is_sorted(back.frames.begin(), back.frames.end())) << where;
        EXPECT_EQ(std::adjacent_find(back.frames.begin(), back.frames.end()), back.frames.end()) << where;
    }

    // A single failure: the run goes on (a run that could not start is
    // started again, as the schedule check does a second later).
    void FailOnce(const OpKind &kind, int n, Tally *tally) {
        std::string where = std::string(kind.name) + " #" + std::to_string(n) + " fails once";
        ASSERT_TRUE(sweep::MakeCard(card_));
        uint32_t errorsBefore = LS_RecordCounters().writeErrors;
        {
            FaultyFileIo io;
            io.FailNth(kind.op, n);
            if (sweep::RecordRun(card_, first_, kStartTime) < 0) {
                ASSERT_EQ(sweep::RecordRun(card_, first_, kStartTime), 0) << where;
            }
        }
        sweep::ReadBack back = sweep::ReadBackCard(card_, catalog_);
        std::set<int> found(back.frames.begin(), back.frames.end());
        std::vector<size_t> lost = Lost(first_, kFirstRun, found);
        std::vector<IndexProblem> problems = sweep::CheckCard(card_, true);
        int before = FailedParts();
        ExpectInOrder(back, where);
        EXPECT_TRUE(WithinOneGop(lost))
            << where << ": " << lost.size() << " frames lost from " << (lost.empty() ? 0 : lost.front());
        // Recording went on behind the fault: unless the damage is in the last
        // GOP, the run's last frame is on the card.
        if (lost.empty() || NextKey(lost.front()) < first_.size()) {
            EXPECT_TRUE(found.count(sweep::FrameCatalog::Key(kFirstRun, first_.size() - 1))) << where;
        }
        // A refused write leaves an index that claims nothing the card
        // lacks: frames it cost are not referenced, and the writer said so.
        // (A failed read of the index at the start is not the writer's.)
        for (const IndexProblem &p : problems) {
            if (kind.op == Op::kRead)
                EXPECT_GE(p.fileNo, 0) << where << ": " << FormatIndexProblem(p);
            else
                ADD_FAILURE() << where << ": " << FormatIndexProblem(p);
        }
        if (!lost.empty()) {
            EXPECT_GT(LS_RecordCounters().writeErrors, errorsBefore) << where << ": frames gone unnoticed";
        }
        Count(tally, lost.size(), LS_RecordCounters().writeErrors > errorsBefore, before);
    }

    // Failing from the n-th operation on: the index never claims more than
    // reached the card, and once the card works again a new run records.
    void FailFromThenOn(const OpKind &kind, int n, Tally *tally) {
        std::string where = std::string(kind.name) + " #" + std::to_string(n) + " fails from then on";
        ASSERT_TRUE(sweep::MakeCard(card_));
        {
            FaultyFileIo io;
            io.FailNth(kind.op, n, true);
            sweep::RecordRun(card_, first_, kStartTime);
        }
        uint32_t secondStart = kStartTime + kVideoFrames / sweep::kFps + 60;
        ASSERT_EQ(sweep::RecordRun(card_, second_, secondStart), 0) << where;
        sweep::ReadBack back = sweep::ReadBackCard(card_, catalog_);
        int before = FailedParts();
        ExpectInOrder(back, where);
        std::set<int> found(back.frames.begin(), back.frames.end());
        EXPECT_TRUE(Lost(second_, kSecondRun, found).empty())
            << where << ": the run after the fault lost frames";
        std::vector<size_t> lost = Lost(first_, kFirstRun, found);
        std::vector<IndexProblem> problems = sweep::CheckCard(card_);
        for (const IndexProblem &p : problems)
            EXPECT_GE(p.fileNo, 0) << where << ": " << FormatIndexProblem(p);
        // Beyond what the card took nothing is referenced: the frames that
        // came back are the run's first ones.
        if (kind.op != Op::kSeek && !lost.empty()) {
            EXPECT_EQ(lost.back() - lost.front() + 1, lost.size()) << where;
            EXPECT_EQ(lost.back(), first_.size() - 1) << where;
        }
        Count(tally, lost.size(), !problems.empty(), before);
    }

    // Every fault point (a sample of them in the smoke run) of every
    // operation kind through one fault mode.
    void SweepAll(bool fromThenOn, const char *name, std::string (*figures)(const Tally &)) {
        int counts[3];
        ASSERT_NO_FATAL_FAILURE(CountOperations(counts));
        Tally tally;
        for (const OpKind &kind : kOps) {
            int total = counts[static_cast<int>(kind.op)];
            int stride = sweep::SweepStride(total, kSmokeSample);
            for (int n = 1; n <= total; n += stride) {
                ASSERT_NO_FATAL_FAILURE(fromThenOn ? FailFromThenOn(kind, n, &tally)
                                                   : FailOnce(kind, n, &tally));
            }
        }
        sweep::PrintFigures(name, figures(tally));
    }

    static void Count(Tally *tally, size_t lost, bool named, int failuresBefore) {
        ++tally->points;
        tally->failures += FailedParts() > failuresBefore;
        if (lost == 0) return;
        ++tally->damaged;
        tally->lostMax = std::max(tally->lostMax, static_cast<int>(lost));
        if (named) ++tally->named;
    }

    static std::string Figures(const Tally &t) {
        return "points=" + std::to_string(t.points) + " failures=" + std::to_string(t.failures) +
               " damaged=" + std::to_string(t.damaged) + " reported=" + std::to_string(t.named) +
               " frames_lost_max=" + std::to_string(t.lostMax);
    }
    // From the fault on nothing reaches the card; what counts is that the
    // run after it is whole.
    static std::string FiguresFromThenOn(const Tally &t) {
        return "points=" + std::to_string(t.points) + " failures=" + std::to_string(t.failures) +
               " runs_cut_short=" + std::to_string(t.damaged) +
               " next_run_intact=" + std::to_string(t.points - t.failures);
    }

    TempDir dir_;
    std::string card_;
    sweep::Stream first_;
    sweep::Stream second_;
    sweep::FrameCatalog catalog_;
};

TEST_F(IoFaultSweep, CleanRunReadsBackEveryFrame) {
    ASSERT_TRUE(sweep::MakeCard(card_));
    ASSERT_EQ(sweep::RecordRun(card_, first_, kStartTime), 0);
    sweep::ReadBack back = sweep::ReadBackCard(card_, catalog_);
    EXPECT_EQ(back.frames.size(), first_.size());
    EXPECT_EQ(back.foreign, 0);
    EXPECT_EQ(back.resyncs, 0);
    EXPECT_TRUE(sweep::CheckCard(card_).empty());
}

TEST_F(IoFaultSweep, EachOperationFailsOnce) {
    ASSERT_NO_FATAL_FAILURE(SweepAll(false, "io-fault-once", Figures));
}

TEST_F(IoFaultSweep, OperationsFailFromThenOn) {
    ASSERT_NO_FATAL_FAILURE(SweepAll(true, "io-fault-from-n", FiguresFromThenOn));
}

// The card filling up in the middle of a frame: the write that crosses the
// limit is partial, every later one fails; the next run on a card with room
// again records normally.
TEST_F(IoFaultSweep, CardFullMidFrame) {
    ASSERT_TRUE(sweep::MakeCard(card_));
    {
        FaultyFileIo io;
        io.NoSpaceAfter(200000);
        sweep::RecordRun(card_, first_, kStartTime);
    }
    ASSERT_EQ(sweep::RecordRun(card_, second_, kStartTime + 3600), 0);
    sweep::ReadBack back = sweep::ReadBackCard(card_, catalog_);
    ExpectInOrder(back, "card full");
    std::set<int> found(back.frames.begin(), back.frames.end());
    EXPECT_TRUE(Lost(second_, kSecondRun, found).empty());
}

}  // namespace
