#include "record/record_flags.h"

#include "common/log.h"

std::atomic<uint32_t> g_bSignalHandled{0};
std::atomic<uint32_t> g_bRecordStop{0};
std::atomic<uint32_t> g_u32RecordScopeIndex{0};
std::atomic<uint32_t> g_bDayEnd{0};
std::atomic<uint32_t> g_bIndexLoaded{0};
std::atomic<uint32_t> g_bRecording{0};
std::atomic<uint32_t> g_bNewFileInfo{0};

int StopRecord() {
    LogTrace("%s %d \n", __func__, __LINE__);
    FlagSet(g_bRecordStop, 1);
    return 0;
}

int StartRecordSet() {
    LogTrace("%s %d \n", __func__, __LINE__);
    FlagSet(g_bRecordStop, 0);
    return 0;
}

int GetRecordStopFlag() { return static_cast<int>(FlagGet(g_bRecordStop)); }
