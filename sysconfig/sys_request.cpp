#include "sysconfig/sys_request.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cstdio>
#include <cstring>

#include "sysconfig/share_mem.h"
#include "sysconfig/sys_drv.h"
#include "sysconfig/sys_info.h"

namespace {

struct FieldRequest {
    unsigned field;
    int cmd;
};

constexpr FieldRequest kFieldRequests[] = {
    {SFIELD_SET_NETIP, kCmdSetNetIp},
    {SFIELD_SET_DNS, kCmdSetDns},
    {SFIELD_SET_RECORD_ENABLE, kCmdSetRecordEnable},
    {SFIELD_SET_RECORD_SCHEDULE, kCmdSetRecordSchedule},
    {SFIELD_SET_RECORD_STREAM, kCmdSetRecordStream},
};

constexpr int kResultOk = 0;
constexpr int kResultRefused = -1;

// Where a command's value lands in SysInfo, and its exact length.
struct FieldTarget {
    uint8_t *address;
    int length;
};

FieldTarget TargetOf(SysInfo *info, int cmd) {
    switch (cmd) {
        case kCmdSetRecordEnable:
            return {&info->videoRecord.ucEnable, 1};
        case kCmdSetRecordSchedule:
            return {reinterpret_cast<uint8_t *>(&info->videoRecord.weekScope), sizeof(SysWeekScope)};
        case kCmdSetRecordStream:
            return {&info->videoRecord.ucVideoStreamType, 1};
        default:
            return {nullptr, 0};
    }
}

int ApplyRequest(const SysConfigServer &server, SysInfo *info, const SysMsgBody &body) {
    if (info == nullptr) return kResultRefused;
    FieldTarget target = TargetOf(info, body.cmd);
    if (target.address == nullptr || body.length != target.length || body.offset < 0 ||
        static_cast<uint32_t>(body.length) > kSysTransferAreaSize) {
        return kResultRefused;
    }
    uint8_t value[kSysTransferAreaSize];
    if (ShareMemReadId(server.shmId, static_cast<uint32_t>(body.offset), value, body.length) != 0) {
        return kResultRefused;
    }
    std::memcpy(target.address, value, body.length);
    return kResultOk;
}

}  // namespace

int32_t SysTransferOffset(int procId) { return static_cast<int32_t>(kSysTransferAreaSize) * (procId - 2); }

int SysConfigRequest(int cmd, const void *value, int length) {
    const int procId = SysGetProcId();
    SemHandl_t sem = SysGetRequestSem();
    // Process number 1 has no area; a longer value would spill into the
    // next process's area.
    if (procId <= kSysServerProcId || sem == nullptr || length < 0 ||
        static_cast<uint32_t>(length) > kSysTransferAreaSize || (value == nullptr && length > 0)) {
        return -1;
    }
    SysMsgBuf msg;
    std::memset(&msg, 0, sizeof(msg));
    msg.Des = kSysServerMsgType;
    msg.body.cmd = cmd;
    msg.body.src = procId;
    msg.body.length = length;
    msg.body.offset = SysTransferOffset(procId);

    SemWait(sem);
    if (length > 0) ShareMemWrite(static_cast<uint32_t>(msg.body.offset), value, length);
    Msg_Send(SysGetMsgId(), &msg, kSysMsgSize);
    Msg_Rsv(SysGetMsgId(), procId, &msg, kSysMsgSize);
    SemRelease(sem);
    return msg.body.length;
}

int ControlSystemData(unsigned field, const void *value, int length) {
    if (value == nullptr) return -1;
    for (const FieldRequest &request : kFieldRequests) {
        if (request.field != field) continue;
        if (field == SFIELD_SET_DNS) printf(" control systemdata SFIELD_SET_DNS");
        return SysConfigRequest(request.cmd, value, length);
    }
    return -1;
}

int SysConfigServerOpen(SysConfigServer *server) {
    if (server == nullptr) return -1;
    server->msgId = Msg_Init(kSysTransferKey);
    server->shmId = ShareMemOpen(kSysTransferKey, kSysTransferSize, kSysTransferShmMode);
    return (server->msgId < 0 || server->shmId < 0) ? -1 : 0;
}

int SysConfigServeOne(const SysConfigServer &server, SysInfo *info, SysConfigServed *served, int msgFlags) {
    SysMsgBuf msg;
    std::memset(&msg, 0, sizeof(msg));
    if (msgrcv(server.msgId, &msg, sizeof(SysMsgBody), kSysServerMsgType, msgFlags) < 0) return -1;
    const SysMsgBody request = msg.body;
    int result = ApplyRequest(server, info, request);
    if (served != nullptr) *served = {request, result};
    // A reply of type 0 or below cannot be sent; such a request is dropped.
    if (request.src <= 0) return 0;
    msg.Des = request.src;
    msg.body.length = result;
    Msg_Send(server.msgId, &msg, kSysMsgSize);
    return 0;
}
