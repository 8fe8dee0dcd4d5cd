// Configuration requests: a process asks the configuration server to change
// a field by placing the new value in its own area of the transfer segment
// and sending a request message; the server answers with a message of the
// requester's process number carrying the result. One request at a time per
// process (they share one area and one reply type).
#pragma once

#include <cstdint>

#include "sysconfig/msg_util.h"

struct SysInfo;

// Request body, 20 bytes after the message type.
struct SysMsgBody {
    int32_t cmd;       // command number (0..372)
    int32_t src;       // requester's process number
    int32_t reserved;  // 0
    int32_t length;    // request: value length in bytes; reply: result
    int32_t offset;    // request: transfer offset of the value
};
static_assert(sizeof(SysMsgBody) == 20);

struct SysMsgBuf {
    long Des;         // message type: 1 to the server, the process number back
    SysMsgBody body;  // body
};
inline constexpr int kSysMsgSize = kMsgTypeSize + static_cast<int>(sizeof(SysMsgBody));
inline constexpr long kSysServerMsgType = 1;

// Configuration field identifiers this system sends, and their commands.
inline constexpr unsigned SFIELD_SET_NETIP = 4096;
inline constexpr unsigned SFIELD_SET_DNS = 4099;
inline constexpr unsigned SFIELD_SET_RECORD_ENABLE = 0x110F;    // 1 byte
inline constexpr unsigned SFIELD_SET_RECORD_SCHEDULE = 0x1111;  // SysWeekScope, 364 bytes
inline constexpr unsigned SFIELD_SET_RECORD_STREAM = 0x1113;    // 1 byte
inline constexpr int kCmdSetNetIp = 0;
inline constexpr int kCmdSetDns = 46;
inline constexpr int kCmdSetRecordEnable = 321;
inline constexpr int kCmdSetRecordSchedule = 323;
inline constexpr int kCmdSetRecordStream = 324;

// Sends one configuration request and waits (without time limit) for its
// reply. Returns the reply's result word, or -1 when this process has not
// set up its channel or the value does not fit its transfer area.
int SysConfigRequest(int cmd, const void *value, int length);

// The transfer offset of process number procId: 12288 * (procId - 2).
int32_t SysTransferOffset(int procId);

// Field setter: the request of a configuration field. -1 for a null value
// or a field it does not know; else the request's result.
int ControlSystemData(unsigned field, const void *value, int length);

// Server side, shared by the simulator and the tests.
struct SysConfigServer {
    int msgId;  // request queue
    int shmId;  // transfer segment
};

// Opens (creating when needed) the request queue and the transfer segment.
int SysConfigServerOpen(SysConfigServer *server);

// One answered request: what came in and the result sent back (0 applied,
// -1 refused: unknown command, wrong length or no record).
struct SysConfigServed {
    SysMsgBody request;  // request body as received
    int result;          // result word of the reply
};

// Answers one request: receives a message of type 1 (msgFlags as for
// msgrcv, e.g. IPC_NOWAIT), applies its value to info, replies to the
// requester. 0 with *served filled (when given), or -1 when nothing was
// received.
int SysConfigServeOne(const SysConfigServer &server, SysInfo *info, SysConfigServed *served, int msgFlags);
