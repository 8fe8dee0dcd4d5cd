#include "sysconfig/sys_request.h"

#include <sys/msg.h>

#include <cstring>

#include "config_server.h"
#include "sysconfig_fixture.h"

namespace {

class SysRequestTest : public SysconfigTest {
protected:
    void SetUp() override {
        SysconfigTest::SetUp();
        if (IsSkipped()) return;
        testing::internal::CaptureStderr();
        ASSERT_EQ(SysConfigInit(kAvRecordProcessArg), 0);
        testing::internal::GetCapturedStderr();
        info_ = GetSysInfoForWriting();
    }
    SysInfo *info_ = nullptr;
};

TEST_F(SysRequestTest, ValueTravelsThroughOwnAreaAndReplyIsPickedByProcessNumber) {
    int qid = SysGetMsgId();
    // A reply meant for another process waits in the queue beside ours.
    SysMsgBuf other{6, {0, 0, 0, 99, 0}};
    SysMsgBuf ours{5, {0, 0, 0, 42, 0}};
    ASSERT_EQ(Msg_Send(qid, &other, kSysMsgSize), 0);
    ASSERT_EQ(Msg_Send(qid, &ours, kSysMsgSize), 0);

    const uint8_t value[3] = {0xAB, 0xCD, 0xEF};
    EXPECT_EQ(SysConfigRequest(kCmdSetRecordStream, value, sizeof(value)), 42);

    SysMsgBuf request{};
    ASSERT_EQ(Msg_Rsv(qid, 1, &request, kSysMsgSize), 20);
    EXPECT_EQ(request.body.cmd, kCmdSetRecordStream);
    EXPECT_EQ(request.body.src, 5);
    EXPECT_EQ(request.body.reserved, 0);
    EXPECT_EQ(request.body.length, 3);
    EXPECT_EQ(request.body.offset, 36864);
    uint8_t area[3] = {};
    ASSERT_EQ(ShareMemRead(36864, area, sizeof(area)), 0);
    EXPECT_EQ(std::memcmp(area, value, sizeof(value)), 0);
    SysMsgBuf left{};
    EXPECT_EQ(Msg_Rsv(qid, 6, &left, kSysMsgSize), 20);
    EXPECT_EQ(left.body.length, 99);
}

TEST_F(SysRequestTest, FieldSetterMapsFieldsToCommands) {
    struct Case {
        unsigned field;
        int cmd;
    };
    const Case cases[] = {
        {4096, 0}, {4099, 46}, {0x110F, 321}, {0x1111, 323}, {0x1113, 324},
    };
    TestConfigServer server(info_, 5);
    SysWeekScope week{};
    testing::internal::CaptureStdout();
    for (const Case &c : cases) {
        int length = c.field == SFIELD_SET_RECORD_SCHEDULE ? sizeof(week) : 1;
        ControlSystemData(c.field, &week, length);
    }
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), " control systemdata SFIELD_SET_DNS");
    server.Join();
    ASSERT_EQ(server.served().size(), 5u);
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(server.served()[i].request.cmd, cases[i].cmd);
}

// A value larger than the process's transfer area would spill into the
// next process's area: it is refused and nothing is sent.
TEST_F(SysRequestTest, ValueLongerThanTheTransferAreaIsRefused) {
    std::vector<uint8_t> big(kSysTransferAreaSize + 1);
    EXPECT_EQ(SysConfigRequest(kCmdSetRecordSchedule, big.data(), big.size()), -1);
    struct msqid_ds ds {};
    ASSERT_EQ(msgctl(SysGetMsgId(), IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.msg_qnum, 0u);
}

TEST_F(SysRequestTest, ErrorPaths) {
    uint8_t value = 1;
    // Refused by the field setter: nothing is sent.
    EXPECT_EQ(ControlSystemData(0x1110, &value, 1), -1);
    EXPECT_EQ(ControlSystemData(SFIELD_SET_RECORD_ENABLE, nullptr, 1), -1);
    struct msqid_ds ds {};
    ASSERT_EQ(msgctl(SysGetMsgId(), IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.msg_qnum, 0u);
    std::vector<uint8_t> big(2);

    // The server refuses commands it does not serve and wrong lengths.
    {
        TestConfigServer server(info_, 2);
        EXPECT_EQ(SysConfigRequest(kCmdSetDns, &value, 1), -1);
        EXPECT_EQ(SysConfigRequest(kCmdSetRecordStream, big.data(), 2), -1);
    }
    EXPECT_EQ(info_->videoRecord.ucVideoStreamType, 0);
    // Without a set-up channel there is no area to use.
    SysDrvExit();
    EXPECT_EQ(SysConfigRequest(kCmdSetRecordEnable, &value, 1), -1);
}

}  // namespace
