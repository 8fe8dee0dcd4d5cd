#include "ipc/av_server_request.h"

#include <atomic>
#include <cstring>

#include "common/log.h"
#include "ipc/sysv_ipc.h"

namespace {
std::atomic<int> g_AVServerMsgId{-1};
std::atomic<uint32_t> g_AVServerMsgOpened{0};

// Re-opens a forgotten queue; false when it still cannot be had.
bool EnsureQueue() {
    if (g_AVServerMsgId.load(std::memory_order_relaxed) >= 0) return true;
    AVServerCtrlQueueForget();
    AVServerCtrlQueueOpen();
    return g_AVServerMsgId.load(std::memory_order_relaxed) >= 0;
}

void FillRequest(AVServerMsg *msg, uint32_t command) {
    memset(msg, 0, sizeof *msg);
    msg->MsgType = kAVServerMsgTypeRequest;
    msg->ReplyType = kAVServerMsgTypeReply;
    msg->Command = command;
}

int Exchange(AVServerMsg *msg) {
    int msgId = g_AVServerMsgId.load(std::memory_order_relaxed);
    IpcMsgSend(msgId, msg, kAVServerMsgBodySize);
    IpcMsgRecv(msgId, msg, kAVServerMsgBodySize, kAVServerMsgTypeReply);
    return msg->Result;
}
}  // namespace

int AVServerCtrlQueueOpen() {
    if (g_AVServerMsgOpened.load(std::memory_order_relaxed) == 1) return 0;
    int msgId = IpcMsgQueueOpen(kAVServerCtrlQueueKey);
    g_AVServerMsgId.store(msgId, std::memory_order_relaxed);
    if (msgId < 0) return kAVServerQueueOpenFail;
    g_AVServerMsgOpened.store(1, std::memory_order_relaxed);
    return 0;
}

int AVServerCtrlQueueForget() {
    g_AVServerMsgOpened.store(0, std::memory_order_relaxed);
    g_AVServerMsgId.store(-1, std::memory_order_relaxed);
    return 0;
}

int AVServerCtrlQueueId() { return g_AVServerMsgId.load(std::memory_order_relaxed); }

int AVServerRequest(uint32_t command, uint32_t argument) {
    if (!EnsureQueue()) return kAVServerQueueOpenFail;
    AVServerMsg msg;
    FillRequest(&msg, command);
    msg.Argument = argument;
    msg.Result = 0;
    return Exchange(&msg);
}

int AVServerVideoForceIFrame(int VideoType) {
    if (!EnsureQueue()) return kAVServerQueueOpenFail;
    AVServerMsg msg;
    FillRequest(&msg, kAVServerCmdForceIFrame);
    LogTrace("%s %d: AVServerVideoForceIFrame VideoType=%d\n", __func__, __LINE__, VideoType);
    msg.Argument = static_cast<uint32_t>(VideoType);
    msg.Result = 0;
    return Exchange(&msg);
}
