#include "sysconfig/av_server_request.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cstring>

#include "sysconfig/msg_util.h"

namespace {

uint32_t g_avServerOpened = 0;
int g_avServerMsgId = -1;

constexpr int kAVServerMsgSize = kMsgTypeSize + static_cast<int>(sizeof(AVServerMsgBody));

}  // namespace

int AVServerMsgOpen() {
    if (g_avServerOpened != 0) return 0;
    g_avServerMsgId = Msg_Init(kAVServerMsgKey);
    if (g_avServerMsgId < 0) return kAVServerQueueFail;
    g_avServerOpened = 1;
    return 0;
}

void AVServerMsgClose() {
    g_avServerOpened = 0;
    g_avServerMsgId = -1;
}

int AVServerMsgId() { return g_avServerMsgId; }

int AVServerRequest(uint32_t cmd, uint32_t arg) {
    if (g_avServerMsgId < 0) {
        AVServerMsgClose();
        AVServerMsgOpen();
        if (g_avServerMsgId < 0) return kAVServerQueueFail;
    }
    AVServerMsgBuf msg;
    std::memset(&msg, 0, sizeof(msg));
    msg.msgType = kAVServerRequestType;
    msg.body.replyType = kAVServerReplyType;
    msg.body.cmd = cmd;
    msg.body.arg = arg;
    msg.body.result = 0;
    Msg_Send(g_avServerMsgId, &msg, kAVServerMsgSize);
    Msg_Rsv(g_avServerMsgId, kAVServerReplyType, &msg, kAVServerMsgSize);
    return msg.body.result;
}
