#include "sysconfig/msg_util.h"

#include <cstdint>

#include "sysconfig_fixture.h"

namespace {

using MsgUtilTest = SysconfigTest;

// A request-shaped message: long type, 20-byte body.
struct TestMsg {
    long type;
    int32_t word[5];
};
constexpr int kTestMsgSize = kMsgTypeSize + 20;

TEST_F(MsgUtilTest, LengthCountsFourByteTypeAndReceiveGoesByType) {
    testing::internal::CaptureStderr();
    int qid = Msg_Init(kSysTransferKey);
    EXPECT_EQ(Msg_Init(kSysTransferKey), qid);
    std::string id = std::to_string(qid);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Creat queue id:" + id + "\nqueue id:" + id + "\nqueue id:" + id + "\n");

    TestMsg first{7, {1, 2, 3, 4, 5}}, second{5, {6, 7, 8, 9, 10}};
    ASSERT_EQ(Msg_Send(qid, &first, kTestMsgSize), 0);
    ASSERT_EQ(Msg_Send(qid, &second, kTestMsgSize), 0);
    struct msqid_ds ds {};
    ASSERT_EQ(msgctl(qid, IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.__msg_cbytes, 40u);  // 20 body bytes each

    TestMsg ask{3, {11, 0, 0, 0, 0}};
    ASSERT_EQ(Msg_Send_Rsv(qid, 7, &ask, kTestMsgSize), 20);
    EXPECT_EQ(ask.type, 7);
    EXPECT_EQ(ask.word[4], 5);
    EXPECT_EQ(Msg_Kill(qid), 0);
}

TEST_F(MsgUtilTest, ErrorPaths) {
    TestMsg msg{1, {}};
    // A failed send never reaches the (blocking) receive.
    EXPECT_EQ(Msg_Send_Rsv(-1, 1, &msg, kTestMsgSize), -1);
    EXPECT_EQ(Msg_Send(0, nullptr, kTestMsgSize), -1);
    EXPECT_EQ(Msg_Rsv(0, 1, &msg, 2), -1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Msg_Kill(-1), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Kill queue id:-1\n");
}

}  // namespace
