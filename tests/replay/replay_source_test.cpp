#include "replay/replay_source.h"

#include <gtest/gtest.h>

#include "avrecord_lib/ps_packetizer.h"
#include "common/nal_unit.h"
#include "replay/card_catalog.h"
#include "replay_card.h"

namespace {

constexpr uint64_t kUs = 1000000;

uint64_t At(uint32_t second, uint32_t ms = 0) { return uint64_t{second} * kUs + ms * 1000ull; }

class ReplaySourceTest : public ::testing::Test {
protected:
    std::string Card() { return tmp_.path() + "/"; }

    // Units until the source is done or waits; the last result in *last.
    std::vector<ReplayUnit> Drain(ReplaySource &source, int *last = nullptr) {
        std::vector<ReplayUnit> units;
        ReplayUnit unit;
        int r;
        while ((r = source.Next(&unit)) == kReplayUnit) units.push_back(unit);
        if (last != nullptr) *last = r;
        return units;
    }

    // The units match the written ones from `from` on, one for one.
    static void ExpectSame(const std::vector<ReplayUnit> &got, const std::vector<WrittenUnit> &written,
                           size_t from) {
        ASSERT_EQ(got.size(), written.size() - from);
        for (size_t i = 0; i < got.size(); ++i) {
            const WrittenUnit &w = written[from + i];
            ASSERT_EQ(got[i].bVideo, w.video) << i;
            ASSERT_EQ(got[i].bKey, w.key) << i;
            ASSERT_EQ(got[i].data, w.data) << i;
            if (w.video) {
                EXPECT_GE(got[i].u64CaptureUs, At(w.second)) << i;
                EXPECT_LT(got[i].u64CaptureUs, At(w.second + 1)) << i;
            }
        }
    }

    static size_t IndexOfKey(const std::vector<WrittenUnit> &written, uint32_t second) {
        for (size_t i = 0; i < written.size(); ++i) {
            if (written[i].key && written[i].second == second) return i;
        }
        return written.size();
    }

    TempDir tmp_;
};

// Two sections a minute apart: playback from inside the first starts at its
// key frame at or before the time, goes on across the gap and marks it.
TEST_F(ReplaySourceTest, FromTheKeyFrameAcrossAGap) {
    ReplayRecorder rec(Card());
    rec.Open(kReplayStart);
    for (uint32_t s = 0; s < 4; ++s) rec.Second(kReplayStart + s, true);
    rec.Close();
    size_t firstOfSecond = rec.written.size();
    rec.Open(kReplayStart + 60);
    for (uint32_t s = 0; s < 3; ++s) rec.Second(kReplayStart + 60 + s, true);
    rec.Close();

    auto source = ReplayOpen({Card()}, At(kReplayStart + 1, 500), At(kReplayStart + 100), false);
    ASSERT_NE(source, nullptr);
    int last = 0;
    std::vector<ReplayUnit> got = Drain(*source, &last);
    EXPECT_EQ(last, kReplayDone);
    size_t from = IndexOfKey(rec.written, kReplayStart + 1);
    ExpectSame(got, rec.written, from);
    for (size_t i = 0; i < got.size(); ++i) {
        size_t w = from + i;
        EXPECT_EQ(got[i].bGapAfter, w + 1 == firstOfSecond || w + 1 == rec.written.size()) << i;
        EXPECT_EQ(got[i].bGapBefore, w == firstOfSecond) << i;
        EXPECT_EQ(got[i].bLast, i + 1 == got.size()) << i;
    }
}

// Where a range starts and ends: in a gap it starts at the next recording;
// it ends with the last unit at or before its end; key frames only when
// asked; nothing at all after the footage.
TEST_F(ReplaySourceTest, RangeEdgesAndKeyFramesOnly) {
    ReplayRecorder rec(Card());
    rec.Open(kReplayStart);
    for (uint32_t s = 0; s < 2; ++s) rec.Second(kReplayStart + s);
    rec.Close();
    size_t second = rec.written.size();
    rec.Open(kReplayStart + 60);
    for (uint32_t s = 0; s < 4; ++s) rec.Second(kReplayStart + 60 + s);
    rec.Close();

    auto source = ReplayOpen({Card()}, At(kReplayStart + 30), At(kReplayStart + 61, 300), false);
    std::vector<ReplayUnit> got = Drain(*source);
    // Frames of a second are 200 ms apart: 61.0 and 61.2 are in, 61.4 not.
    ASSERT_EQ(got.size(), kReplayFps + 2);
    EXPECT_EQ(got.front().data, rec.written[second].data);
    EXPECT_FALSE(got.front().bGapBefore);
    EXPECT_TRUE(got.back().bLast);
    EXPECT_FALSE(got.back().bGapAfter);

    // As recorded: the same frames, with their pack and PES headers.
    auto recorded = ReplayOpenRecorded({Card()}, At(kReplayStart + 30), At(kReplayStart + 61, 300));
    std::vector<ReplayUnit> raw = Drain(*recorded);
    ASSERT_EQ(raw.size(), kReplayFps + 2);
    for (size_t i = 0; i < raw.size(); ++i) {
        ASSERT_GT(raw[i].data.size(), got[i].data.size());
        EXPECT_EQ(raw[i].data[3], 0xBA) << i;
    }

    auto keys = ReplayOpen({Card()}, At(kReplayStart), At(kReplayStart + 100), true);
    got = Drain(*keys);
    ASSERT_EQ(got.size(), 6u);
    for (const ReplayUnit &u : got) EXPECT_TRUE(u.bKey && u.bVideo);
    EXPECT_TRUE(got[1].bGapAfter);
    EXPECT_TRUE(got[2].bGapBefore);

    auto after = ReplayOpen({Card()}, At(kReplayStart + 200), At(kReplayStart + 300), false);
    int last = 0;
    EXPECT_TRUE(Drain(*after, &last).empty());
    EXPECT_EQ(last, kReplayDone);
    EXPECT_EQ(ReplayOpen({tmp_.File("none")}, 0, 0, false), nullptr);
}

// A range reaching the present follows the section while it is written,
// and the next one after a gap. What the recorder has written goes out at
// once when the range is open; a range with an end holds its newest unit
// back until what follows tells whether a gap comes after it.
TEST_F(ReplaySourceTest, LiveTailFollowsTheRecorder) {
    for (uint64_t end : {uint64_t{0}, At(UINT32_MAX)}) {
        SCOPED_TRACE(end == 0 ? "open range" : "range with an end");
        size_t held = end == 0 ? 0 : 1;
        TempDir card;
        ReplayRecorder rec(card.path() + "/");
        rec.Open(kReplayStart);
        rec.Second(kReplayStart, true);
        auto source = ReplayOpen({card.path() + "/"}, At(kReplayStart), end, false);
        int last = 0;
        std::vector<ReplayUnit> got = Drain(*source, &last);
        EXPECT_EQ(last, kReplayWaiting);
        EXPECT_EQ(got.size(), rec.written.size() - held);

        rec.Second(kReplayStart + 1, true);
        for (ReplayUnit &u : Drain(*source, &last)) got.push_back(u);
        EXPECT_EQ(last, kReplayWaiting);
        EXPECT_EQ(got.size(), rec.written.size() - held);
        rec.Close();
        size_t firstOfSecond = rec.written.size();
        rec.Open(kReplayStart + 20);
        rec.Second(kReplayStart + 20, true);
        rec.Second(kReplayStart + 21, true);
        for (ReplayUnit &u : Drain(*source, &last)) got.push_back(u);
        rec.Close();
        ASSERT_EQ(got.size(), rec.written.size() - held);
        ExpectSame(got, std::vector<WrittenUnit>(rec.written.begin(), rec.written.end() - held), 0);
        EXPECT_EQ(got[firstOfSecond - 1].bGapAfter, held == 1);
        EXPECT_TRUE(got[firstOfSecond].bGapBefore);
    }
}

// The recorder starts the media file over under a reader of its older
// footage: the older footage ends where it was still whole, and the new
// lap follows after a gap. No frame of the new lap passes as an old one.
TEST_F(ReplaySourceTest, TheNextLapEndsTheOlderFootage) {
    ReplayRecorder rec(Card());
    rec.Open(kReplayStart);
    for (uint32_t s = 0; s < 4; ++s) rec.Second(kReplayStart + s);
    rec.Close();
    std::vector<WrittenUnit> older = rec.written;
    auto source = ReplayOpen({Card()}, At(kReplayStart), At(kReplayStart + 200), false);
    std::vector<ReplayUnit> got;
    ReplayUnit unit;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(source->Next(&unit), kReplayUnit);
        got.push_back(unit);
    }
    rec.written.clear();
    rec.Open(kReplayStart + 100, true);
    rec.Second(kReplayStart + 100, false, 0x80);
    rec.Close();
    for (ReplayUnit &u : Drain(*source)) got.push_back(u);

    ASSERT_GE(got.size(), 3 + rec.written.size());
    size_t lapAt = got.size() - rec.written.size();
    for (size_t i = 0; i < lapAt; ++i) EXPECT_EQ(got[i].data, older[i].data) << i;
    for (size_t i = 0; i < rec.written.size(); ++i) EXPECT_EQ(got[lapAt + i].data, rec.written[i].data) << i;
    EXPECT_TRUE(got[lapAt].bGapBefore);
    EXPECT_TRUE(got[lapAt - 1].bGapAfter);
}

// The file before the oldest one is full: the recorder's next frame may
// land at the start of the oldest file, so the footage there is over.
TEST_F(ReplaySourceTest, AFullFileBeforeEndsTheOldestFootage) {
    ReplayRecorder rec(Card());
    rec.Open(kReplayStart);
    rec.Second(kReplayStart);
    rec.Close();
    std::string index = Card() + kIndexFileName;
    FileInfoHead full{};
    full.m_u32HeadFlag = kFileInfoHeadFlag;
    full.m_u32FileNo = 1;
    full.m_u32StartTime = kReplayStart + 10;
    full.m_u32DataSize = kMediaFileFullSize;
    WriteFileAt(index, FileInfoHeadPosition(1), RecordBytes(full));
    RecordConfigInfo header;
    AV_RecordConfigInfoInit(&header, 0, 2);
    header.m_u32FileInfoHeadNo = 1;
    WriteFileAt(index, 0, RecordBytes(header));

    auto source = ReplayOpen({Card()}, At(kReplayStart), At(kReplayStart + 5), false);
    int last = 0;
    EXPECT_TRUE(Drain(*source, &last).empty());
    EXPECT_EQ(last, kReplayDone);
}

TEST_F(ReplaySourceTest, DescribeTellsCodecsParameterSetsAndAudio) {
    ReplayRecorder rec(Card());
    rec.Open(kReplayStart);
    rec.Second(kReplayStart, true);
    rec.Close();
    rec.Open(kReplayStart + 60);
    rec.Second(kReplayStart + 60, false, 0x10, true);
    rec.Second(kReplayStart + 61, false, 0x10, true);
    rec.Close();

    ReplayTracks tracks;
    ASSERT_EQ(ReplayDescribe({Card()}, kReplayStart, 0, &tracks), 0);
    EXPECT_EQ(tracks.iVideoCodec, kVideoCodecH264);
    Bytes sps = Nal({0x67, 0x42}, 10, 0x0B);
    EXPECT_EQ(tracks.sps, Bytes(sps.begin() + sizeof kNalStartCode, sps.end()));
    EXPECT_EQ(tracks.pps, (Bytes{0x68, 0xCE, 0x0C, 0x0C}));
    EXPECT_TRUE(tracks.vps.empty());
    EXPECT_TRUE(tracks.bHasAudio);
    EXPECT_EQ(tracks.iAudioCodec, kAudioCodecG711A);
    EXPECT_EQ(tracks.u32AudioRate, 8000u);
    EXPECT_EQ(tracks.u32AudioChannels, 1u);
    EXPECT_EQ(tracks.u32Oldest, kReplayStart);
    EXPECT_EQ(tracks.u32Newest, kReplayStart + 61);
    EXPECT_EQ(tracks.u16Width, 1280);

    // A time in the gap describes the recording after it.
    ASSERT_EQ(ReplayDescribe({Card()}, kReplayStart + 30, 0, &tracks), 0);
    EXPECT_EQ(tracks.iVideoCodec, kVideoCodecH265);
    EXPECT_EQ(tracks.vps.size(), 22u);
    EXPECT_EQ(tracks.sps.size(), 32u);
    EXPECT_EQ(tracks.pps.size(), 7u);
    EXPECT_FALSE(tracks.bHasAudio);
    EXPECT_EQ(ReplayDescribe({tmp_.File("none")}, 0, 0, &tracks), -1);
}

}  // namespace
