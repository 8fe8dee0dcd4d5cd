#include "sysconfig/sys_drv.h"

#include <cstdio>

#include "common/log.h"
#include "sysconfig/msg_util.h"
#include "sysconfig/share_mem.h"
#include "sysconfig/sys_info.h"

namespace {

int gSysProcId = kSysServerProcId;
int g_sysMsgId = -1;
SemHandl_t g_requestSem = nullptr;

struct ProcessEntry {
    int arg;           // argument of the configuration initialisation
    const char *word;  // logged name
    int procId;        // process number
};

constexpr ProcessEntry kProcessTable[] = {
    {1, "PROCESS_BOA", 2},       {2, "PROCESS_DEVICESEARCH", 4}, {3, "PROCESS_FREEIP", 3},
    {4, "PROCESS_SDKSERVER", 6}, {5, "PROCESS_P2PSERVER", 7},    {6, "PROCESS_AVRECORD", 5},
};
constexpr int kUnknownProcId = 12;

int FailInit(const char *message) {
    gSysProcId = kSysServerProcId;
    fprintf(stderr, "%s", message);
    return -1;
}

}  // namespace

int SysProcIdFromArg(int processArg, const char **word) {
    for (const ProcessEntry &entry : kProcessTable) {
        if (entry.arg != processArg) continue;
        if (word != nullptr) *word = entry.word;
        return entry.procId;
    }
    if (word != nullptr) *word = nullptr;
    return kUnknownProcId;
}

int SysDrvInit(int procId) {
    if (procId < kSysServerProcId || procId > kSysMaxProcId) return FailInit("Error:Invalid Parameter\n");
    gSysProcId = procId;
    if (ShareMemInit(kSysTransferKey) < 0) return FailInit("Error:Share Memory init fail\n");
    if (g_requestSem == nullptr) g_requestSem = MakeSem();
    if (g_requestSem == nullptr) return FailInit("Error:No more memory to create semaphore\n");
    g_sysMsgId = Msg_Init(kSysTransferKey);
    if (g_sysMsgId < 0) {
        DestroySem(g_requestSem);
        g_requestSem = nullptr;
        return FailInit("Error:Msg_Init fail\n");
    }
    fprintf(stderr, "%s %d gSysProcId %d\n", __func__, __LINE__, gSysProcId);
    return 0;
}

int SysDrvExit() {
    gSysProcId = kSysServerProcId;
    if (g_requestSem != nullptr) DestroySem(g_requestSem);
    g_requestSem = nullptr;
    return 0;
}

int SysConfigInit(int processArg) {
    LogTrace("value %d", processArg);
    const char *word = nullptr;
    int procId = SysProcIdFromArg(processArg, &word);
    if (word != nullptr) LogTrace("%s", word);
    if (SysDrvInit(procId) != 0) {
        SysDrvExit();
        return -1;
    }
    if (SysInfoAttach() != 0) {
        SysInfoDetach();
        return -1;
    }
    if (ConfigSemId() < 0) ConfigSemCreate(kConfigSemKey);
    return 0;
}

int SysGetProcId() { return gSysProcId; }

int SysGetMsgId() { return g_sysMsgId; }

SemHandl_t SysGetRequestSem() { return g_requestSem; }
