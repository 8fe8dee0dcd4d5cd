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
    void Put16(uint32_t offset, uint16_t value) {
        raw_[offset] = value & 0xFF;
        raw_[offset + 1] = value >> 8;
    }
    template <typename Record>
    static const uint8_t *Bytes(const Record &record) {
        return reinterpret_cast<const uint8_t *>(&record);
    }
    uint8_t *raw_ = nullptr;
};

TEST_F(CommonAccessTest, VideoEncodingFromStreamBytes) {
    for (int s = 0; s < kSysStreamCount; ++s) {
        Put16(3472 + 158 * s, 1920 - 640 * s);
        Put16(3474 + 158 * s, 1080 - 360 * s);
        raw_[3628 + 158 * s] = 10 + s;
        raw_[1369 + s] = 20 + s;
        raw_[1372 + s] = s & 1;
        raw_[1335 + s] = 30 + s;
    }
    VideoEncodingProperty streams[kSysStreamCount];
    std::memset(streams, 0x5A, sizeof(streams));
    ASSERT_EQ(CameraGetVideoEncodingProperty(streams), 0);
    const auto *words = reinterpret_cast<const int32_t *>(streams);
    for (int s = 0; s < kSysStreamCount; ++s) {
        const int32_t *w = words + 19 * s;
        EXPECT_EQ(w[0], 1);
        EXPECT_EQ(w[1], 30);  // 60 Hz standard
        EXPECT_EQ(w[2], 0);
        EXPECT_EQ(w[3], 1920 - 640 * s);
        EXPECT_EQ(w[4], 1080 - 360 * s);
        EXPECT_EQ(w[7], 20 + s);
        EXPECT_EQ(w[8], 30 + s);
        EXPECT_EQ(w[16], 10 + s);
        EXPECT_EQ(w[17], s & 1);
        EXPECT_EQ(w[18], 0);
    }
}

TEST_F(CommonAccessTest, FrameRateFromVideoStandardAndCap) {
    struct Case {
        uint8_t standard;
        uint8_t mode0;
        uint8_t mode1;
        int32_t rate;
    };
    const Case cases[] = {
        {1, 0, 0, 25}, {0, 0, 0, 30}, {2, 0, 0, 30}, {1, 4, 0, 15}, {0, 4, 0, 15}, {1, 0, 4, 25},
    };
    for (const Case &c : cases) {
        raw_[1313] = c.standard;
        raw_[1335] = c.mode0;
        raw_[1336] = c.mode1;
        VideoEncodingProperty streams[kSysStreamCount];
        ASSERT_EQ(CameraGetVideoEncodingProperty(streams), 0);
        for (const VideoEncodingProperty &stream : streams) {
            EXPECT_EQ(stream.iFrameRate, c.rate) << int(c.standard) << " " << int(c.mode0) << int(c.mode1);
        }
    }
}

TEST_F(CommonAccessTest, AudioRecordsFromAudioBytes) {
    const uint8_t audioBytes[] = {1, 7, 0, 0, 0, 0, 0, 0, 40, 50, 2, 3};
    std::memcpy(raw_ + 2440, audioBytes, sizeof(audioBytes));
    AudioProperty audio;
    ASSERT_EQ(CameraGetAudioProperty(&audio), 0);
    const uint8_t expected[6] = {0, 1, 50, 40, 2, 3};
    EXPECT_EQ(std::memcmp(Bytes(audio), expected, 6), 0);

    AudioEncodingProperty encoding;
    ASSERT_EQ(CameraGetAudioEncodingProperty(&encoding), 0);
    const int32_t words[7] = {7, 0, 64000, 8000, 0, 64000, 8000};
    EXPECT_EQ(std::memcmp(&encoding, words, sizeof(words)), 0);
}

TEST_F(CommonAccessTest, RegularRecordFromScheduleBytes) {
    raw_[7068] = 1;
    raw_[7074] = 2;
    for (int d = 0; d < kSysWeekDays; ++d) {
        raw_[7084 + 52 * d] = d % 4;
        for (int k = 0; k < kSysDaySegments; ++k) {
            for (int b = 0; b < 8; ++b) raw_[7088 + 52 * d + 8 * k + b] = d * 50 + k * 8 + b;
        }
    }
    RegularRecordProperty record;
    std::memset(&record, 0xEE, sizeof(record));
    ASSERT_EQ(CameraGetRegularRecordProperty(&record), 0);
    const uint8_t *out = Bytes(record);
    EXPECT_EQ(out[4], 1);
    EXPECT_EQ(out[5], 0);
    EXPECT_EQ(out[6], 2);
    EXPECT_EQ(out[28], 0);
    for (int d = 0; d < kSysWeekDays; ++d) {
        EXPECT_EQ(out[32 + 68 * d], d % 4);
        EXPECT_EQ(std::memcmp(out + 36 + 68 * d, raw_ + 7088 + 52 * d, 48), 0) << d;
        // Slots 6 and 7 of each day stay clear.
        for (int b = 36 + 68 * d + 48; b < 32 + 68 * (d + 1); ++b) EXPECT_EQ(out[b], 0) << b;
    }
    for (int b = 508; b < 540; ++b) EXPECT_EQ(out[b], 0);
}

TEST_F(CommonAccessTest, StorageAndAlarmFromRecordBytes) {
    const uint8_t record[] = {1, 0, 0, 0, 0, 1, 2, 1, 5, 3};  // 7068 ... 7077
    std::memcpy(raw_ + 7068, record, sizeof(record));
    StorageProperty storage;
    std::memset(&storage, 0xEE, sizeof(storage));
    ASSERT_EQ(CameraGetStorageProperty(&storage), 0);
    const uint8_t expected[24] = {0, 2, 0, 60, 1, 0, 5, 3};
    EXPECT_EQ(std::memcmp(Bytes(storage), expected, 24), 0);

    AlarmProperty alarm;
    ASSERT_EQ(CameraGetAlarmProperty(&alarm), 0);
    EXPECT_EQ(alarm.videoRecord.ucEnable, 1);
    EXPECT_EQ(alarm.videoRecord.ucStorageType, 0);
    EXPECT_EQ(alarm.videoRecord.ucVideoStreamType, 1);
    EXPECT_EQ(alarm.ucpreRecordTime, 5);
    EXPECT_EQ(alarm.ucrecordDelay, 3);
}

TEST_F(CommonAccessTest, ImageFromImageSettings) {
    SysImageConfig &image = GetSysInfoForWriting()->image;
    image = {1, 0, 1, 2, 1, 3, 2, 7, {}};
    std::memset(image.szOsdText, 'x', sizeof(image.szOsdText));  // no NUL
    ImageProperty property;
    ASSERT_EQ(CameraGetImageProperty(&property), 0);
    EXPECT_EQ(property.ucMirror, 1);
    EXPECT_EQ(property.ucIrSensitivity, 7);
    EXPECT_EQ(std::strlen(property.szOsdText), 31u);
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
        record.weekScop.dayScope[d].segment[6].beginHour.ucHour = 99;  // never sent
    }
    TestConfigServer server(GetSysInfoForWriting(), 3);
    EXPECT_EQ(CameraSetRegularRecordProperty(&record), 0);
    server.Join();

    ASSERT_EQ(server.served().size(), 3u);
    const int cmds[3] = {321, 323, 324};
    const int lengths[3] = {1, 364, 1};
    for (int i = 0; i < 3; ++i) {
        const SysMsgBody &request = server.served()[i].request;
        EXPECT_EQ(request.cmd, cmds[i]);
        EXPECT_EQ(request.length, lengths[i]);
        EXPECT_EQ(request.src, 5);
        EXPECT_EQ(request.offset, 36864);
        EXPECT_EQ(server.served()[i].result, 0);
    }
    EXPECT_EQ(raw_[7068], 1);
    EXPECT_EQ(raw_[7074], 2);
    for (int d = 0; d < kSysWeekDays; ++d) {
        EXPECT_EQ(raw_[7084 + 52 * d], TIME_SCOPE_DIFF);
        const uint8_t *seg = raw_ + 7088 + 52 * d + 8 * 5;
        EXPECT_EQ(seg[0], 5);
        EXPECT_EQ(seg[1], d);
        EXPECT_EQ(seg[4], 6);
        EXPECT_EQ(seg[7], 1);
    }
    // Read back through the getter: the same schedule.
    RegularRecordProperty back;
    ASSERT_EQ(CameraGetRegularRecordProperty(&back), 0);
    EXPECT_EQ(std::memcmp(&back.weekScop.dayScope[3].segment, &record.weekScop.dayScope[3].segment, 48), 0);
}

TEST_F(CommonAccessTest, SetRegularRecordWithOneWeekPattern) {
    RegularRecordProperty record{};
    record.weekScop.ucScopeModel = kScopeModelWeekPattern;
    record.weekScop.dayScope[0].ucSocpeMode = TIME_SCOPE_DIFF;
    record.weekScop.dayScope[4].ucSocpeMode = TIME_SCOPE_ALL;               // ignored
    record.weekScop.dayScope[4].segment[2] = {{1, 1, 1, 1}, {2, 2, 2, 2}};  // ignored
    record.weekPattern = {{8, 0, 0, 0}, {18, 30, 0, 3}};
    std::memset(raw_ + 7084, 0xFF, 364);
    TestConfigServer server(GetSysInfoForWriting(), 3);
    EXPECT_EQ(Common_SetRegularRecordProperty(&record), 0);
    server.Join();
    ASSERT_EQ(server.served().size(), 3u);
    const uint8_t pattern[8] = {8, 0, 0, 0, 18, 30, 0, 3};
    for (int d = 0; d < kSysWeekDays; ++d) {
        EXPECT_EQ(raw_[7084 + 52 * d], TIME_SCOPE_DIFF) << d;
        EXPECT_EQ(std::memcmp(raw_ + 7088 + 52 * d, pattern, 8), 0) << d;
        for (int b = 8; b < 48; ++b) EXPECT_EQ(raw_[7088 + 52 * d + b], 0) << d << " " << b;
    }
}

TEST_F(CommonAccessTest, StorageInfoAnswersForTheCard) {
    StorageInfoIn in{3, 0x81};
    StorageInfo out;
    std::memset(&out, 0xEE, sizeof(out));
    ASSERT_EQ(CameraGetStorageInfo(&in, &out), 0);
    const uint8_t expected[12] = {3, 1, 1, 0};
    EXPECT_EQ(std::memcmp(&out, expected, 12), 0);
    EXPECT_EQ(in.ucStorageType, 1);

    // Bit 0 clear: the answer is left alone, the asked type still becomes 1.
    StorageInfoIn other{2, 0x02};
    std::memset(&out, 0xEE, sizeof(out));
    ASSERT_EQ(CameraGetStorageInfo(&other, &out), 0);
    EXPECT_EQ(out.ucCh, 0xEE);
    EXPECT_EQ(other.ucStorageType, 1);
}

TEST_F(CommonAccessTest, ErrorPaths) {
    // Null records.
    EXPECT_EQ(CameraGetStorageInfo(nullptr, nullptr), -1);
    EXPECT_EQ(CameraGetPlayBackQueryFile(nullptr), -1);
    EXPECT_EQ(Common_GetPlayBackQueryFile(0, nullptr), -1);
    EXPECT_EQ(Common_SetRegularRecordProperty(nullptr), -1);
    PlayBackQuery query{};
    EXPECT_EQ(CameraGetPlayBackQueryFile(&query), 0);

    // Every reader fails without SysInfo.
    SysInfoDetach();
    VideoEncodingProperty streams[kSysStreamCount];
    AudioEncodingProperty audioEncoding;
    AudioProperty audio;
    ImageProperty image;
    RegularRecordProperty record;
    StorageProperty storage;
    AlarmProperty alarm;
    testing::internal::CaptureStderr();
    EXPECT_EQ(CameraGetVideoEncodingProperty(streams), -1);
    EXPECT_EQ(CameraGetAudioEncodingProperty(&audioEncoding), -1);
    EXPECT_EQ(CameraGetAudioProperty(&audio), -1);
    EXPECT_EQ(CameraGetImageProperty(&image), -1);
    EXPECT_EQ(CameraGetRegularRecordProperty(&record), -1);
    EXPECT_EQ(CameraGetStorageProperty(&storage), -1);
    EXPECT_EQ(CameraGetAlarmProperty(&alarm), -1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("NULL == pSysInfo"), std::string::npos) << err;
}

}  // namespace
