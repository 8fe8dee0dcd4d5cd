#include "ipc/alarm_shm.h"

#include <ctime>

#include "common/card_time.h"
#include "common/log.h"
#include "ipc/shm_block.h"

namespace {
constexpr uint32_t kAlarmStatusMax = 1;

AlarmShmEntry g_alarmImage[kAlarmSourceCount];
ShmBlock g_alarmBlock = {
    kAlarmShmKey, kAlarmShmSize, kAlarmImageSize, reinterpret_cast<uint8_t *>(g_alarmImage), 0, -1};
}  // namespace

ShmBlock *AlarmShmBlock() { return &g_alarmBlock; }

int libAlarmProcessInit() {
    if (ShmBlockAlreadyInit(&g_alarmBlock, __func__, __LINE__)) return 0;
    return ShmBlockOpen(&g_alarmBlock);
}

int libAlarmProcessDeinit() {
    ShmBlockDeinit(&g_alarmBlock);
    return 0;
}

int AlarmDataWrite(uint32_t source, uint32_t status) {
    if (source >= kAlarmSourceCount) {
        LogTrace("%s %d: source  %d is wrong!\n", __func__, __LINE__, source);
        return -1;
    }
    if (status > kAlarmStatusMax) {
        LogTrace("%s %d: status  %d is wrong!\n", __func__, __LINE__, status);
        return -1;
    }
    if (!ShmBlockIdValid(&g_alarmBlock, __func__, __LINE__)) return -1;
    g_alarmImage[source].Status = status;
    g_alarmImage[source].Time = CardTimeNowOrZero();
    ShmBlockWriteImage(&g_alarmBlock, 0, kAlarmImageSize);
    return 0;
}

int AlarmDataRead(void *buffer) {
    if (buffer == nullptr) return -1;
    if (!ShmBlockIdValid(&g_alarmBlock, __func__, __LINE__)) return -1;
    ShmBlockReadImage(&g_alarmBlock, buffer);
    return 0;
}
