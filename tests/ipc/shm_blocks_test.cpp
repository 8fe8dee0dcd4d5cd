// Alarm, watchdog and SPS/PPS blocks: what lands in the segment, and what is
// refused.
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <cstring>
#include <ctime>
#include <initializer_list>
#include <vector>

#include "common/log.h"
#include "ipc/alarm_shm.h"
#include "ipc/shm_block.h"
#include "ipc/sps_pps_shm.h"
#include "ipc/sysv_ipc.h"
#include "ipc/watchdog_shm.h"
#include "support/test_support.h"

namespace {

// Forgets every block of the process.
void ResetBlocks() {
    for (ShmBlock *block : {AlarmShmBlock(), WatchDogShmBlock(), AVSpsPpsShmBlock()})
        ShmBlockResetForTest(block);
}

class ShmBlocks : public ::testing::Test {
protected:
    void SetUp() override {
        REQUIRE_PRIVATE_IPC();
        LogEnable("test", 0);
        ResetBlocks();
        for (key_t key : {kAlarmShmKey, kWatchDogShmKey, kSpsPpsShmKey}) IpcShareMemRemoveByKey(key);
    }
    void TearDown() override { ResetBlocks(); }

    template <typename T>
    std::vector<T> Segment(key_t key, size_t count) {
        std::vector<T> out(count);
        IpcShareMemRead(shmget(key, 0, 0), 0, out.data(), count * sizeof(T));
        return out;
    }
};

TEST_F(ShmBlocks, AlarmWritesWholeImage) {
    ASSERT_EQ(libAlarmProcessInit(), 0);
    uint32_t before = static_cast<uint32_t>(time(nullptr));
    ASSERT_EQ(AlarmDataWrite(3, 1), 0);
    ASSERT_EQ(AlarmDataWrite(15, 0), 0);
    auto entries = Segment<AlarmShmEntry>(kAlarmShmKey, kAlarmSourceCount);
    EXPECT_EQ(entries[3].Status, 1u);
    EXPECT_GE(entries[3].Time, before);
    EXPECT_EQ(entries[15].Status, 0u);
    EXPECT_GE(entries[15].Time, before);
    EXPECT_EQ(entries[4].Time, 0u);

    AlarmShmEntry read[kAlarmSourceCount];
    ASSERT_EQ(AlarmDataRead(read), 0);
    EXPECT_EQ(memcmp(read, entries.data(), kAlarmImageSize), 0);

    struct shmid_ds ds {};
    shmctl(shmget(kAlarmShmKey, 0, 0), IPC_STAT, &ds);
    EXPECT_EQ(ds.shm_segsz, kAlarmShmSize);
}

TEST_F(ShmBlocks, WatchDogWritesOneEntry) {
    ASSERT_EQ(libWatchDogInit(), 0);
    // Another process's entry in the segment survives this process's writes.
    WatchDogShmEntry other{1234, 5};
    IpcShareMemWrite(shmget(kWatchDogShmKey, 0, 0), 8 * 2, &other, sizeof other);
    ASSERT_EQ(WatchDogStatusWrite(16, 9), 0);
    ASSERT_EQ(WatchDogDataWrite(kWatchDogSourceAVRecord), 0);
    auto entries = Segment<WatchDogShmEntry>(kWatchDogShmKey, kWatchDogSourceCount);
    EXPECT_EQ(entries[2].Time, 1234u);
    EXPECT_EQ(entries[2].Status, 5u);
    EXPECT_EQ(entries[16].Status, 9u);
    EXPECT_NE(entries[16].Time, 0u);
    EXPECT_NE(entries[7].Time, 0u);
    EXPECT_EQ(entries[7].Status, 0u);

    testing::internal::CaptureStdout();
    WatchDogShmEntry read[kWatchDogSourceCount];
    ASSERT_EQ(WatchDogDataRead(read), 0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("\n WatchDog time = 0 0 1234 ", 0), 0u) << out;
    EXPECT_EQ(out.back(), '\n');
}

TEST_F(ShmBlocks, SecondInitKeepsTheImage) {
    ASSERT_EQ(libAlarmProcessInit(), 0);
    ASSERT_EQ(AlarmDataWrite(1, 1), 0);
    ASSERT_EQ(libWatchDogInit(), 0);
    ASSERT_EQ(libAVSpsPpsProcessInit(), 0);
    const uint8_t pps[] = {0, 0, 0, 1, 0x68};
    ASSERT_EQ(AVSpsPpsDataWrite(2, pps, sizeof pps), 0);
    std::vector<uint8_t> full(kSpsPpsDataMax, 0x67);
    ASSERT_EQ(AVSpsPpsDataWrite(23, full.data(), 1024), 0);  // the longest accepted

    testing::internal::CaptureStderr();
    EXPECT_EQ(libAlarmProcessInit(), 0);
    EXPECT_EQ(libWatchDogInit(), 0);
    EXPECT_EQ(libAVSpsPpsProcessInit(), 0);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("libAlarmProcessInit has already init!"), std::string::npos) << log;
    EXPECT_NE(log.find("libWatchDogInit has already init!"), std::string::npos);
    EXPECT_NE(log.find("libAVSpsPpsProcessInit has already init!"), std::string::npos);

    // A later write of another entry still carries the earlier ones.
    ASSERT_EQ(AlarmDataWrite(2, 0), 0);
    ASSERT_EQ(AVSpsPpsDataWrite(3, pps, sizeof pps), 0);
    EXPECT_EQ((Segment<AlarmShmEntry>(kAlarmShmKey, kAlarmSourceCount)[1].Status), 1u);
    auto sps = Segment<AVSpsPpsShmEntry>(kSpsPpsShmKey, kSpsPpsIndexCount);
    EXPECT_EQ(sps[2].Length, sizeof pps);
    EXPECT_EQ(sps[2].Valid, 1u);
    EXPECT_EQ(sps[23].Length, 1024u);
    EXPECT_EQ(sps[23].Data[1023], 0x67);
    EXPECT_EQ(sps[4].Valid, 0u);
    std::vector<AVSpsPpsShmEntry> read(kSpsPpsIndexCount);
    ASSERT_EQ(AVSpsPpsDataRead(read.data()), 0);
    EXPECT_EQ(memcmp(read.data(), sps.data(), kSpsPpsImageSize), 0);
}

// Error paths: every refused argument leaves the segment unchanged.
TEST_F(ShmBlocks, RefusedWrites) {
    ASSERT_EQ(libAlarmProcessInit(), 0);
    ASSERT_EQ(libWatchDogInit(), 0);
    ASSERT_EQ(libAVSpsPpsProcessInit(), 0);
    std::vector<uint8_t> data(kSpsPpsDataMax + 1, 1);
    const struct {
        const char *what;
        int (*call)(const uint8_t *);
        const char *message;
    } cases[] = {
        {"alarm status 2", [](const uint8_t *) { return AlarmDataWrite(0, 2); }, "status  2 is wrong!"},
        {"alarm source 16", [](const uint8_t *) { return AlarmDataWrite(16, 1); }, "source  16 is wrong!"},
        {"watchdog source 17", [](const uint8_t *) { return WatchDogStatusWrite(17, 1); },
         "source  17 is wrong!"},
        {"watchdog time 17", [](const uint8_t *) { return WatchDogDataWrite(17); }, "source  17 is wrong!"},
        {"sps length 1025 before index", [](const uint8_t *d) { return AVSpsPpsDataWrite(99, d, 1025); },
         "index  99  length = 1025"},
        {"sps index 24", [](const uint8_t *d) { return AVSpsPpsDataWrite(24, d, 4); }, "index  24 is wrong!"},
        {"sps null data", [](const uint8_t *) { return AVSpsPpsDataWrite(0, nullptr, 4); }, ""},
        {"alarm read null", [](const uint8_t *) { return AlarmDataRead(nullptr); }, ""},
        {"watchdog read null", [](const uint8_t *) { return WatchDogDataRead(nullptr); }, ""},
        {"sps read null", [](const uint8_t *) { return AVSpsPpsDataRead(nullptr); }, ""},
    };
    auto alarm = Segment<uint8_t>(kAlarmShmKey, kAlarmImageSize);
    auto watchdog = Segment<uint8_t>(kWatchDogShmKey, kWatchDogImageSize);
    auto sps = Segment<uint8_t>(kSpsPpsShmKey, kSpsPpsImageSize);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        testing::internal::CaptureStderr();
        EXPECT_EQ(c.call(data.data()), -1);
        std::string log = testing::internal::GetCapturedStderr();
        EXPECT_NE(log.find(c.message), std::string::npos) << log;
    }
    EXPECT_EQ(Segment<uint8_t>(kAlarmShmKey, kAlarmImageSize), alarm);
    EXPECT_EQ(Segment<uint8_t>(kWatchDogShmKey, kWatchDogImageSize), watchdog);
    EXPECT_EQ(Segment<uint8_t>(kSpsPpsShmKey, kSpsPpsImageSize), sps);
}

TEST_F(ShmBlocks, NotOpenedBlocksRefuseEverything) {
    uint8_t buffer[kSpsPpsImageSize];
    testing::internal::CaptureStderr();
    EXPECT_EQ(AlarmDataWrite(0, 1), -1);
    EXPECT_EQ(WatchDogDataRead(buffer), -1);
    EXPECT_EQ(AVSpsPpsDataWrite(0, buffer, 4), -1);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("AVSpsPpsDataWrite"), std::string::npos);
    EXPECT_NE(log.find("gShmId -1 has something wrong!"), std::string::npos) << log;
}

}  // namespace
