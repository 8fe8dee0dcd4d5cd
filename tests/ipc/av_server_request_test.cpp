#include "ipc/av_server_request.h"

#include <gtest/gtest.h>
#include <sys/msg.h>

#include <thread>

#include "ipc/sysv_ipc.h"
#include "support/test_support.h"

namespace {

// An encoder answering one request on the encoder-control queue.
AVServerMsg AnswerOne(int32_t result) {
    int msgId = IpcMsgQueueOpen(kAVServerCtrlQueueKey);
    AVServerMsg msg{};
    IpcMsgRecv(msgId, &msg, kAVServerMsgBodySize, kAVServerMsgTypeRequest);
    AVServerMsg reply = msg;
    reply.MsgType = kAVServerMsgTypeReply;
    reply.Result = result;
    IpcMsgSend(msgId, &reply, kAVServerMsgBodySize);
    return msg;
}

TEST(AVServerRequest, ForceIFrameRequestAndReply) {
    REQUIRE_PRIVATE_IPC();
    AVServerCtrlQueueForget();
    AVServerMsg seen{};
    // No queue yet: the request creates it and then waits for the encoder.
    std::thread encoder([&] {
        while (msgget(kAVServerCtrlQueueKey, 0) < 0) std::this_thread::yield();
        seen = AnswerOne(-3);
    });
    EXPECT_EQ(AVServerVideoForceIFrame(2), -3);
    encoder.join();
    EXPECT_EQ(seen.MsgType, kAVServerMsgTypeRequest);
    EXPECT_EQ(seen.ReplyType, 2u);
    EXPECT_EQ(seen.Command, 0x2010u);
    EXPECT_EQ(seen.Argument, 2u);
    EXPECT_EQ(seen.Result, 0);
    for (uint8_t b : seen.Reserved) EXPECT_EQ(b, 0);

    struct msqid_ds ds {};
    msgctl(AVServerCtrlQueueId(), IPC_STAT, &ds);
    EXPECT_EQ(ds.msg_perm.mode & 0777, 0666u);
}

TEST(AVServerRequest, ReopensAfterForget) {
    REQUIRE_PRIVATE_IPC();
    ASSERT_EQ(AVServerCtrlQueueOpen(), 0);
    int first = AVServerCtrlQueueId();
    IpcMsgQueueRemove(first);
    AVServerCtrlQueueForget();
    EXPECT_EQ(AVServerCtrlQueueId(), -1);
    std::thread encoder([] {
        while (msgget(kAVServerCtrlQueueKey, 0) < 0) std::this_thread::yield();
        AnswerOne(0);
    });
    EXPECT_EQ(AVServerRequest(0x1001, 4), 0);
    encoder.join();
    EXPECT_GE(AVServerCtrlQueueId(), 0);
    IpcMsgQueueRemove(AVServerCtrlQueueId());
    AVServerCtrlQueueForget();
}

}  // namespace
