#include "apps/avrecord-card/serve_api.h"

#include <gtest/gtest.h>

#include <string>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "avrecord_lib/record_section.h"
#include "support/card_fixture.h"
#include "support/es_frames.h"
#include "support/test_support.h"
#include "support/writer_fakes.h"

namespace {

constexpr uint32_t kStart = 1760000000;
constexpr uint32_t kFps = 25;
const Bytes kKey = Concat({Nal({0x67, 0x42}, 10, 1), Nal({0x68, 0xCE}, 2, 2), Nal({0x65, 0x88}, 2000, 3)});
const Bytes kOther = Nal({0x41, 0x9A}, 500, 4);

// A card with one section recorded through the frame writer: `seconds` of
// video at 25 fps with a key frame every `gop` frames, so key frames fall
// inside seconds as well as on their starts.
class RecordedCard {
public:
    RecordedCard(uint32_t seconds, uint32_t gop, const Bytes &key = kKey, const Bytes &other = kOther)
        : dir_(tmp_.File("card") + "/") {
        MakeDirectories(dir_);
        MakeSparseCard(dir_, 1);
        RecordConfigInfo header;
        AV_RecordConfigInfoInit(&header, 0, 1);
        WriteFileAt(dir_ + kIndexFileName, 0, RecordBytes(header));
        g_encoding = RecordEncodingInfo{640, 360, kFps, 0, 7, 0x12, 0, 1, 0, 0};
        g_uptime = 1000;
        LS_RecordSetEncodingSource(TestEncoding);
        LS_RecordSetClocks(TestWall, TestUptime);
        SetRecordClockForTest(TestRecordClock);
        LS_RecordSetCardDir(dir_.c_str());
        Record(seconds * kFps, gop, key, other);
    }
    ~RecordedCard() {
        LS_RecordSetCardDir(nullptr);
        LS_RecordSetEncodingSource(nullptr);
        LS_RecordSetClocks(nullptr, nullptr);
        SetRecordClockForTest(nullptr);
    }
    const std::string &dir() const { return dir_; }

private:
    void Record(uint32_t frames, uint32_t gop, const Bytes &key, const Bytes &other) {
        int fd = AVFileOpen((dir_ + kIndexFileName).c_str(), kAVFileModeReadWrite);
        AV_RecordConfigInfoRead(fd, GetRecordConfigInfo());
        AV_RecordFileInfoHeadRead(fd, GetRecordConfigInfo(), GetFileInfoHead());
        AVFileClose(fd);
        g_wall = {static_cast<time_t>(kStart), 0};
        ASSERT_EQ(
            AV_RecordFileConfigParamGet(GetRecordConfigInfo(), GetFileInfoHead(), GetSectionInfoHead(), 0),
            0);
        ASSERT_EQ(LS_RecordInit(GetFileInfoHead(), 0), 0);
        for (uint32_t n = 0; n < frames; ++n) {
            g_uptime = 1000 + n / kFps;
            g_wall = {static_cast<time_t>(kStart + n / kFps), static_cast<suseconds_t>(n % kFps * 40000)};
            const Bytes &frame = n % gop == 0 ? key : other;
            AVDataInfo info{};
            info.AVDataLen = static_cast<int32_t>(frame.size());
            info.AVSource = kFrameKindVideo;
            info.KeyFrameFlag = n % gop == 0;
            ASSERT_EQ(libAVRecordWriteFrame(0, kFrameKindVideo, frame.data(), &info), 0);
        }
        LS_RecordClose();
    }

    TempDir tmp_;
    std::string dir_;
};

// key_time is the key frame the video of the moment starts on: the last one
// before the moment's first frame, not a later key frame of the same second.
TEST(ServeApiTest, PlayNamesTheKeyFrameTheVideoStartsOn) {
    RecordedCard card(5, 30);  // key frames at 0, 1.2, 2.4, 3.6 and 4.8 s
    struct Case {
        uint32_t at;
        uint32_t keyTime;
    } cases[] = {{kStart, kStart},
                 {kStart + 1, kStart},
                 {kStart + 2, kStart + 1},
                 {kStart + 3, kStart + 2},
                 {kStart + 4, kStart + 3}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.at - kStart);
        ApiReply reply = ApiPlay(card.dir(), ApiQuery{{"at", std::to_string(c.at)}});
        ASSERT_EQ(reply.status, kHttpOk) << reply.body;
        EXPECT_NE(reply.body.find("\"key_time\":" + std::to_string(c.keyTime) + "}"), std::string::npos)
            << reply.body;
    }
}

// The codec is the one the recorder took the section's first key frame
// for. The first NAL header byte of an H.264 frame can also read as an H.265
// header: 0x47 (a sequence parameter set of reference priority 2) is an
// H.265 access unit delimiter.
TEST(ServeApiTest, SectionCodecIsTheOneTheRecorderWrote) {
    struct Case {
        const char *what;
        Bytes key;
        Bytes other;
        const char *codec;
    } cases[] = {
        {"H.264", kKey, kOther, "h264"},
        {"H.264, priority 2",
         Concat({Nal({0x47, 0x42}, 10, 1), Nal({0x48, 0xCE}, 2, 2), Nal({0x45, 0x88}, 2000, 3)}),
         Nal({0x41, 0x9A}, 500, 4), "h264"},
        {"H.265", Concat({Nal({0x40, 0x01}, 20, 1), Nal({0x42, 0x01}, 30, 2), Nal({0x26, 0x01}, 2000, 4)}),
         Nal({0x02, 0x01}, 500, 5), "h265"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        RecordedCard card(2, 25, c.key, c.other);
        ApiReply reply = ApiSection(card.dir(), ApiQuery{{"name", "hi000000_000001.mp4"}});
        ASSERT_EQ(reply.status, kHttpOk) << reply.body;
        EXPECT_NE(reply.body.find(std::string("\"codec\":\"") + c.codec + "\""), std::string::npos)
            << reply.body;
    }
}

}  // namespace
