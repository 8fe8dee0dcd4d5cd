// Alarm block (0x61788C7C): the current state of up to 16 alarm sources.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

struct ShmBlock;

struct AlarmShmEntry {
    uint32_t Status;       // status: 0 no alarm, 1 alarm active
    uint32_t Time;         // time of the last write (s since 1970)
    uint8_t Reserved[16];  // reserved, zero
};
static_assert(sizeof(AlarmShmEntry) == 24);
static_assert(offsetof(AlarmShmEntry, Time) == 4);

inline constexpr key_t kAlarmShmKey = 0x61788C7C;
inline constexpr size_t kAlarmShmSize = 448;
inline constexpr uint32_t kAlarmSourceCount = 16;
inline constexpr size_t kAlarmImageSize = kAlarmSourceCount * sizeof(AlarmShmEntry);
static_assert(kAlarmImageSize == 384);

int libAlarmProcessInit();
int libAlarmProcessDeinit();
int AlarmDataWrite(uint32_t source, uint32_t status);
// Copies the 384-byte image (16 AlarmShmEntry) into buffer.
int AlarmDataRead(void *buffer);

ShmBlock *AlarmShmBlock();
