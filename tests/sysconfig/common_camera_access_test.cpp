#include "sysconfig/common_camera_access.h"

#include <cstring>

#include "config_server.h"
#include "sysconfig/camera_access.h"
#include "sysconfig_fixture.h"

namespace {

class CommonAccessTest : public SysconfigTest {
protected:
    void SetUp() override {
        SysconfigTest::SetUp();
        if (IsSkipped()) return;
        CameraAccessResetForTest();
        testing::internal::CaptureStderr();
        ASSERT_EQ(CameraAccessInit(kCameraTypeCommon, kAvRecordProcessArg), 0);
        testing::internal::GetCapturedStderr();
        raw_ = reinterpret_cast<uint8_t *>(GetSysInfoForWriting());
    }
    void TearDown() override {
        CameraAccessResetForTest();
        SysconfigTest::TearDown();
    }
    void Put(uint32_t offset, std::initializer_list<uint8_t> bytes) {
        std::memcpy(raw_ + offset, bytes.begin(), bytes.size());
    }
    uint8_t *raw_ = nullptr;
};

TEST_F(CommonAccessTest, VideoEncodingFromStreamBytes) {
    for (int s = 0; s < kSysStreamCount; ++s) {
        Put(3472 + 158 * s, {0x80, uint8_t(7 - s), 0x38, uint8_t(4 - s)});  // 0x780 x 0x438 for s 0
        Put(3628 + 158 * s, {uint8_t(10 + s)});
        Put(1369 + s, {uint8_t(20 + s)});
        Put(1372 + s, {uint8_t(s & 1)});
        Put(1335 + s, {uint8_t(30 + s)});
    }
    int32_t words[3 * 19];
    std::memset(words, 0x5A, sizeof(words));
    ASSERT_EQ(CameraGetVideoEncodingProperty(reinterpret_cast<VideoEncodingProperty *>(words)), 0);
    for (int s = 0; s < kSysStreamCount; ++s) {
        int32_t expected[19] = {1, 30, 0, 0x780 - 0x100 * s, 0x438 - 0x100 * s, 0, 0, 20 + s, 30 + s};
        expected[16] = 10 + s;
        expected[17] = s & 1;
        EXPECT_EQ(std::memcmp(words + 19 * s, expected, sizeof(expected)), 0) << s;
    }
}

TEST_F(CommonAccessTest, FrameRateFromVideoStandardAndCap) {
    struct Case {
        uint8_t standard, mode0, mode1;
        int32_t rate;
    };
    const Case cases[] = {{1, 0, 0, 25}, {0, 0, 0, 30}, {2, 0, 0, 30},
                          {1, 4, 0, 15}, {0, 4, 0, 15}, {1, 0, 4, 25}};
    for (const Case &c : cases) {
        Put(1313, {c.standard});
        Put(1335, {c.mode0, c.mode1});
        VideoEncodingProperty streams[kSysStreamCount];
        ASSERT_EQ(CameraGetVideoEncodingProperty(streams), 0);
        for (const VideoEncodingProperty &stream : streams)
            EXPECT_EQ(stream.iFrameRate, c.rate) << int(c.mode0);
    }
}

TEST_F(CommonAccessTest, SmallRecordsFromTheirBytes) {
    Put(2440, {1, 7, 0, 0, 0, 0, 0, 0, 40, 50, 2, 3});
    Put(7068, {1, 0, 0, 0, 0, 1, 2, 1, 5, 3});
    AudioProperty audio;
    AudioEncodingProperty encoding;
    StorageProperty storage;
    AlarmProperty alarm;
    ImageProperty image;
    std::memset(&storage, 0xEE, sizeof(storage));
    std::memset(GetSysInfoForWriting()->image.szOsdText, 'x', kSysOsdTextSize);  // no NUL
    ASSERT_EQ(CameraGetAudioProperty(&audio), 0);
    ASSERT_EQ(CameraGetAudioEncodingProperty(&encoding), 0);
    ASSERT_EQ(CameraGetStorageProperty(&storage), 0);
    ASSERT_EQ(CameraGetAlarmProperty(&alarm), 0);
    ASSERT_EQ(CameraGetImageProperty(&image), 0);

    const uint8_t audioBytes[6] = {0, 1, 50, 40, 2, 3};
    EXPECT_EQ(std::memcmp(&audio, audioBytes, 6), 0);
    const int32_t encodingWords[7] = {7, 0, 64000, 8000, 0, 64000, 8000};
    EXPECT_EQ(std::memcmp(&encoding, encodingWords, 28), 0);
    const uint8_t storageBytes[24] = {0, 2, 0, 60, 1, 0, 5, 3};
    EXPECT_EQ(std::memcmp(&storage, storageBytes, 24), 0);
    const uint8_t alarmBytes[12] = {0, 0, 0, 0, 1, 0, 1, 0, 5, 3};
    EXPECT_EQ(std::memcmp(&alarm, alarmBytes, 12), 0);
    EXPECT_EQ(std::strlen(image.image.szOsdText), 31u);
}

TEST_F(CommonAccessTest, RegularRecordFromScheduleBytes) {
    Put(7068, {1});
    Put(7074, {2});
    for (uint32_t b = 7084; b < 7448; ++b) raw_[b] = static_cast<uint8_t>(b * 3);
    uint8_t out[540];
    std::memset(out, 0xEE, sizeof(out));
    ASSERT_EQ(CameraGetRegularRecordProperty(reinterpret_cast<RegularRecordProperty *>(out)), 0);
    uint8_t expected[540] = {};
    expected[4] = 1;
    expected[6] = 2;
    for (int d = 0; d < kSysWeekDays; ++d) {
        expected[32 + 68 * d] = raw_[7084 + 52 * d];
        std::memcpy(expected + 36 + 68 * d, raw_ + 7088 + 52 * d, 48);
    }
    EXPECT_EQ(std::memcmp(out, expected, sizeof(out)), 0);
}

TEST_F(CommonAccessTest, SetRegularRecordSendsThreeRequestsInOrder) {
    RegularRecordProperty record{};
    record.videoRecord = {1, 9, 2, 0};
    for (int d = 0; d < kSysWeekDays; ++d) {
        record.weekScop.dayScope[d].ucSocpeMode = TIME_SCOPE_DIFF;
        for (int k = 0; k < kSysDaySegments; ++k) {
            record.weekScop.dayScope[d].segment[k] = {{uint8_t(k), uint8_t(d), 0, 0},
                                                      {uint8_t(k + 1), 0, 0, 1}};
        }
    }
    TestConfigServer server(GetSysInfoForWriting(), 3);
    EXPECT_EQ(CameraSetRegularRecordProperty(&record), 0);
    server.Join();

    ASSERT_EQ(server.served().size(), 3u);
    const int cmds[3] = {321, 323, 324};
    const int lengths[3] = {1, 364, 1};
    for (int i = 0; i < 3; ++i) {
        const SysConfigServed &served = server.served()[i];
        EXPECT_EQ(served.request.cmd, cmds[i]);
        EXPECT_EQ(served.request.length, lengths[i]);
        EXPECT_EQ(served.request.src, 5);
        EXPECT_EQ(served.request.offset, 36864);
        EXPECT_EQ(served.result, 0);
    }
    EXPECT_EQ(raw_[7068], 1);
    EXPECT_EQ(raw_[7074], 2);
    for (int d = 0; d < kSysWeekDays; ++d) {
        EXPECT_EQ(raw_[7084 + 52 * d], TIME_SCOPE_DIFF);
        const uint8_t lastSegment[8] = {5, uint8_t(d), 0, 0, 6, 0, 0, 1};
        EXPECT_EQ(std::memcmp(raw_ + 7088 + 52 * d + 40, lastSegment, 8), 0) << d;
    }
}

TEST_F(CommonAccessTest, SetRegularRecordWithOneWeekPattern) {
    RegularRecordProperty record{};
    record.weekScop.ucScopeModel = kScopeModelWeekPattern;
    record.weekScop.dayScope[0].ucSocpeMode = TIME_SCOPE_DIFF;
    record.weekScop.dayScope[4] = {TIME_SCOPE_ALL, {}, {{{1, 1, 1, 1}, {2, 2, 2, 2}}}};  // ignored
    record.weekPattern = {{8, 0, 0, 0}, {18, 30, 0, 3}};
    std::memset(raw_ + 7084, 0xFF, 364);
    TestConfigServer server(GetSysInfoForWriting(), 3);
    EXPECT_EQ(Common_SetRegularRecordProperty(&record), 0);
    server.Join();
    uint8_t day[52] = {TIME_SCOPE_DIFF, 0, 0, 0, 8, 0, 0, 0, 18, 30, 0, 3};
    for (int d = 0; d < kSysWeekDays; ++d) EXPECT_EQ(std::memcmp(raw_ + 7084 + 52 * d, day, 52), 0) << d;
}

TEST_F(CommonAccessTest, StorageInfoAnswersForTheCardOnly) {
    const uint8_t card[12] = {3, 1, 1, 0},
                  untouched[12] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    for (uint8_t asked : {0x81, 0x02}) {
        StorageInfoIn in{3, asked};
        uint8_t out[12];
        std::memset(out, 0xEE, sizeof(out));
        ASSERT_EQ(CameraGetStorageInfo(&in, reinterpret_cast<StorageInfo *>(out)), 0);
        EXPECT_EQ(std::memcmp(out, (asked & 1) ? card : untouched, 12), 0) << int(asked);
        EXPECT_EQ(in.ucStorageType, 1);
    }
}

TEST_F(CommonAccessTest, ErrorPaths) {
    EXPECT_EQ(CameraGetStorageInfo(nullptr, nullptr), -1);
    EXPECT_EQ(CameraGetPlayBackQueryFile(nullptr), -1);
    EXPECT_EQ(Common_SetRegularRecordProperty(nullptr), -1);
    PlayBackQuery query{};
    EXPECT_EQ(CameraGetPlayBackQueryFile(&query), 0);

    // Every reader fails without SysInfo.
    SysInfoDetach();
    uint8_t record[kVideoEncodingPropertySize];
    testing::internal::CaptureStderr();
    for (auto get : {CAMERA_CMD_GET_VIDEO_ENCODING, CAMERA_CMD_GET_AUDIO_ENCODING, CAMERA_CMD_GET_AUDIO,
                     CAMERA_CMD_GET_IMAGE, CAMERA_CMD_GET_REGULAR_RECORD, CAMERA_CMD_GET_STORAGE,
                     CAMERA_CMD_GET_ALARM}) {
        EXPECT_EQ(CameraDispatch(get, 0, record), -1) << get;
    }
    EXPECT_NE(testing::internal::GetCapturedStderr().find("NULL == pSysInfo"), std::string::npos);
}

}  // namespace
