// Settings of avcam-sim as the recorder sees them: through the SysInfo
// record and the camera-access property getters.
#include "lib/sim_fields.h"

#include <gtest/gtest.h>

#include <cstring>

#include "lib/sim_run.h"
#include "support/test_support.h"
#include "sysconfig/camera_access.h"
#include "sysconfig/sys_info.h"

namespace {

class SimFields : public ::testing::Test {
protected:
    void SetUp() override {
        REQUIRE_PRIVATE_IPC();
        ASSERT_EQ(SysInfoAttach(), 0);
        info_ = GetSysInfoForWriting();
        memset(info_, 0, sizeof *info_);
    }
    void TearDown() override { SysInfoDetach(); }

    bool Set(std::vector<std::string> words) {
        std::vector<FieldChange> changes;
        std::string error;
        if (!ParseSettings(words, &changes, &error)) return false;
        ApplyChanges(reinterpret_cast<uint8_t *>(info_), changes);
        return true;
    }

    SysInfo *info_ = nullptr;
};

TEST_F(SimFields, EverySettingLandsInItsField) {
    ASSERT_TRUE(Set({"record-enable", "1", "stream-type", "2", "width", "1", "800", "height", "2", "450"}));
    ASSERT_TRUE(
        Set({"encoding", "0", "4", "video-standard", "2", "stream-mode", "0", "4", "codec-mode", "7"}));
    ASSERT_TRUE(Set(
        {"audio-enable", "1", "audio-encoding", "3", "lack-space", "0", "prerecord", "10", "delay", "3"}));
    ASSERT_TRUE(Set({"record-type", "9", "day-mode", "6", "3", "segment", "6", "5", "08:30-17:45:10", "2"}));
    ASSERT_TRUE(Set({"rotate", "1", "rotate", "3"}));
    const SysInfo *info = GetSysInfo();
    EXPECT_EQ(info->videoRecord.ucEnable, 1);
    EXPECT_EQ(info->videoRecord.ucVideoStreamType, 2);
    EXPECT_EQ(info->stream[1].usWidth, 800);
    EXPECT_EQ(info->stream[2].usHeight, 450);
    EXPECT_EQ(info->iEncoding[0], 4);
    EXPECT_EQ(info->ucVideoStandard, 2);
    EXPECT_EQ(info->ucStreamMode[0], 4);
    EXPECT_EQ(info->nVideocodecmode, 7);
    EXPECT_EQ(info->audio.ucEnable, 1);
    EXPECT_EQ(info->audio.ucEncoding, 3);
    EXPECT_EQ(info->videoRecord.ucLackSpaceModel, 0);
    EXPECT_EQ(info->videoRecord.ucpreRecordTime, 10);
    EXPECT_EQ(info->videoRecord.ucrecordDelay, 3);
    EXPECT_EQ(info->ucRecordFileOption, 9);
    EXPECT_EQ(info->ucVideoRotateMode, 3);
    EXPECT_EQ(info->preRotate, 1);  // the rotation in force before
    const SysDayScope &saturday = info->videoRecord.weekScope.dayScope[6];
    EXPECT_EQ(saturday.ucSocpeMode, 3);
    const ScopeSegment &last = saturday.segment[5];
    EXPECT_EQ(last.beginHour.ucHour, 8);
    EXPECT_EQ(last.beginHour.ucMinute, 30);
    EXPECT_EQ(last.endHour.ucHour, 17);
    EXPECT_EQ(last.endHour.ucSecond, 10);
    EXPECT_EQ(last.endHour.ucType, 2);
}

// Fault injection writes what the checked settings refuse, but only into
// the bytes the setting names.
TEST_F(SimFields, UncheckedWritesOutOfRangeValues) {
    EXPECT_FALSE(Set({"stream-type", "7"}));
    ASSERT_TRUE(Set({"--unchecked", "stream-type", "7", "day-mode", "2", "9", "rotate", "200"}));
    ASSERT_TRUE(Set({"--unchecked", "segment", "2", "0", "99:99-99:00", "255"}));
    const SysInfo *info = GetSysInfo();
    EXPECT_EQ(info->videoRecord.ucVideoStreamType, 7);
    EXPECT_EQ(info->videoRecord.weekScope.dayScope[2].ucSocpeMode, 9);
    EXPECT_EQ(info->ucVideoRotateMode, 200);
    EXPECT_EQ(info->videoRecord.weekScope.dayScope[2].segment[0].beginHour.ucHour, 99);
    EXPECT_EQ(info->videoRecord.weekScope.dayScope[2].segment[0].beginHour.ucMinute, 99);
    EXPECT_EQ(info->videoRecord.weekScope.dayScope[2].segment[0].endHour.ucType, 255);
    EXPECT_FALSE(Set({"--unchecked", "day-mode", "7", "1"}));  // no eighth weekday
    EXPECT_FALSE(Set({"--unchecked", "stream-type", "256"}));  // wider than the byte
    EXPECT_FALSE(Set({"--unchecked"}));
}

// The defaults of "run", read back through the camera-access getters.
TEST_F(SimFields, RunDefaultsThroughThePropertyGetters) {
    SimEncoderConfig encoder;
    encoder.hasVideo[0] = encoder.hasVideo[1] = true;
    encoder.video[0] = VideoInput{VideoCodec::kH264, 1920, 1080, {}, {}};
    encoder.video[1] = VideoInput{VideoCodec::kH265, 1280, 720, {}, {}};
    encoder.hasAudio = true;
    encoder.audio.codec = AudioCodec::Aac;
    ApplyChanges(reinterpret_cast<uint8_t *>(info_), DefaultSettings(encoder));

    CameraAccessResetForTest();
    ASSERT_EQ(CameraAccessInit(kCameraTypeCommon, 6), 0);
    VideoEncodingProperty streams[kSysStreamCount] = {};
    ASSERT_EQ(CameraGetVideoEncodingProperty(streams), 0);
    EXPECT_EQ(streams[0].iWidth, 1920);
    EXPECT_EQ(streams[0].iHeight, 1080);
    EXPECT_EQ(streams[0].iFrameRate, 25);  // 50 Hz
    EXPECT_EQ(streams[1].iWidth, 1280);
    EXPECT_NE(streams[0].iEncoding, streams[1].iEncoding);  // H.264 / H.265
    EXPECT_EQ(streams[1].iStreamEncoding, streams[1].iEncoding);
    RegularRecordProperty record{};
    ASSERT_EQ(CameraGetRegularRecordProperty(&record), 0);
    EXPECT_EQ(record.videoRecord.ucEnable, 1);
    EXPECT_EQ(record.videoRecord.ucVideoStreamType, 0);
    for (const DayScopeProperty &day : record.weekScop.dayScope) EXPECT_EQ(day.ucSocpeMode, TIME_SCOPE_ALL);
    AudioProperty audio{};
    ASSERT_EQ(CameraGetAudioProperty(&audio), 0);
    EXPECT_EQ(audio.ucEnable, 1);
    EXPECT_EQ(GetSysInfo()->videoRecord.ucLackSpaceModel, 1);
    EXPECT_EQ(GetSysInfo()->videoRecord.ucpreRecordTime, 1);

    // "set" while running is seen by the next read.
    ASSERT_TRUE(Set({"width", "0", "1280", "height", "0", "720", "record-enable", "0"}));
    ASSERT_EQ(CameraGetVideoEncodingProperty(streams), 0);
    EXPECT_EQ(streams[0].iWidth, 1280);
    ASSERT_EQ(CameraGetRegularRecordProperty(&record), 0);
    EXPECT_EQ(record.videoRecord.ucEnable, 0);
    CameraAccessResetForTest();
}

TEST(SimProfile, LinesWithComments) {
    TempDir dir;
    WriteWholeFile(dir.File("p.cfg"),
                   "# camera profile\nrecord-enable 0\n\nwidth 1 704  # D1\nsegment 0 1 "
                   "22:00-24:00 1\n");
    std::vector<FieldChange> changes;
    std::string error;
    ASSERT_TRUE(LoadProfile(dir.File("p.cfg"), &changes, &error)) << error;
    EXPECT_EQ(changes.size(), 3u);
    WriteWholeFile(dir.File("bad.cfg"), "record-enable 1\nheight 2\n");
    EXPECT_FALSE(LoadProfile(dir.File("bad.cfg"), &changes, &error));
    EXPECT_NE(error.find("bad.cfg:2: height needs S PIXELS"), std::string::npos) << error;
    EXPECT_FALSE(LoadProfile(dir.File("none.cfg"), &changes, &error));
}

// Error paths: one reason, and nothing returned for any part of the line.
TEST(SimSettings, RefusedSettings) {
    const struct {
        std::vector<std::string> words;
        const char *reason;
    } cases[] = {
        {{}, "no setting given"},
        {{"colour", "1"}, "unknown setting 'colour'"},
        {{"record-enable"}, "record-enable needs 0|1"},
        {{"record-enable", "2"}, "bad value '2'"},
        {{"width", "3", "640"}, "bad stream '3'"},
        {{"width", "0", "0"}, "bad value '0'"},
        {{"rotate", "4"}, "bad rotation '4'"},
        {{"day-mode", "7", "1"}, "bad day '7'"},
        {{"segment", "0", "6", "00:00-01:00", "0"}, "bad segment '6'"},
        {{"segment", "0", "0", "00:00", "0"}, "expected HH:MM-HH:MM"},
        {{"segment", "0", "0", "24:00-01:00", "0"}, "bad time '24:00'"},
        {{"segment", "0", "0", "00:00-24:01", "0"}, "bad time '24:01'"},
        {{"delay", "1", "width"}, "width needs"},
    };
    for (const auto &c : cases) {
        std::vector<FieldChange> changes = {{0, {1}, -1}};
        std::string error;
        EXPECT_FALSE(ParseSettings(c.words, &changes, &error));
        EXPECT_NE(error.find(c.reason), std::string::npos) << error;
        EXPECT_EQ(changes.size(), 1u);
    }
}

}  // namespace
