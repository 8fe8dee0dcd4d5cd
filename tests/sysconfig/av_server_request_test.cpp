#include "sysconfig/av_server_request.h"

#include <sys/msg.h>

#include <cstring>
#include <fstream>
#include <thread>

#include "sysconfig_fixture.h"

namespace {

class AVServerRequestTest : public SysconfigTest {
protected:
    void TearDown() override {
        AVServerMsgClose();
        int qid = msgget(kAVServerMsgKey, 0);
        if (qid >= 0) msgctl(qid, IPC_RMID, nullptr);
        SysconfigTest::TearDown();
    }
    // The encoder: answers one request with cmd + arg, after checking its shape.
    static void AnswerOne() {
        int qid = msgget(kAVServerMsgKey, 0);
        AVServerMsgBuf msg{};
        if (msgrcv(qid, &msg, 32, kAVServerRequestType, 0) != 32) return;
        const AVServerMsgBody expected{2, msg.body.cmd, msg.body.arg, 0, {}};
        msg.msgType = kAVServerReplyType;
        msg.body.result =
            std::memcmp(&msg.body, &expected, 32) == 0 ? int32_t(msg.body.cmd + msg.body.arg) : -1;
        msgsnd(qid, &msg, 32, 0);
    }
};

TEST_F(AVServerRequestTest, RequestReopensClosedChannel) {
    testing::internal::CaptureStderr();
    ASSERT_EQ(AVServerMsgOpen(), 0);
    EXPECT_EQ(AVServerMsgOpen(), 0);
    testing::internal::GetCapturedStderr();
    int qid = AVServerMsgId();
    EXPECT_EQ(qid, msgget(kAVServerMsgKey, 0));

    for (uint32_t stream : {0u, 2u}) {
        AVServerMsgClose();
        EXPECT_EQ(AVServerMsgId(), -1);
        std::thread encoder(AnswerOne);
        testing::internal::CaptureStderr();
        EXPECT_EQ(AVServerRequest(0x2010, stream), int(0x2010 + stream));
        testing::internal::GetCapturedStderr();
        encoder.join();
        EXPECT_EQ(AVServerMsgId(), qid);
    }
}

TEST_F(AVServerRequestTest, ErrorPaths) {
    // No queue can be made in this namespace: 104, and nothing is sent.
    const char *limit = "/proc/sys/kernel/msgmni";
    std::string saved;
    std::ifstream(limit) >> saved;
    if (!(std::ofstream(limit) << "0")) GTEST_SKIP() << "cannot limit queues";
    testing::internal::CaptureStderr();
    EXPECT_EQ(AVServerMsgOpen(), kAVServerQueueFail);
    EXPECT_EQ(AVServerRequest(0x2010, 0), kAVServerQueueFail);
    testing::internal::GetCapturedStderr();
    std::ofstream(limit) << saved;
    EXPECT_EQ(AVServerMsgId(), -1);
    EXPECT_LT(msgget(kAVServerMsgKey, 0), 0);
}

}  // namespace
