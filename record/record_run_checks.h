// The end conditions of a record run, checked every 20 ms against what was
// in force when the run started. Pure: the run gathers the values, this
// unit says which condition, if any, ends the section (the first one in
// order wins).
#pragma once

#include <cstdint>

#include "sysconfig/sys_info.h"

inline constexpr int32_t kEncodingMjpeg = 4;     // never recorded
inline constexpr int32_t kAudioEncodingOff = 2;  // snapshot value while audio is off
inline constexpr uint32_t kClockJumpLimit = 5;   // seconds of wall clock vs uptime drift

// Stream parameters that must stay as they were for the section to go on.
struct RunParams {
    int32_t encoding;        // iEncoding of the recorded stream
    int32_t frameRate;       // frame rate of the recorded stream
    int32_t smartEncEnable;  // iSmartEncEnable (logged only)
    uint8_t audioEnable;     // audio ucEnable
    int32_t audioEncoding;   // audio encoding (kAudioEncodingOff while audio is off)
    uint8_t codecMode;       // nVideocodecmode
    uint16_t width;          // stream width
    uint16_t height;         // stream height
    uint8_t rotate;          // video rotate mode
};

// One turn's observations.
struct RunTurn {
    RunParams now;               // as read this turn
    uint8_t recordStreamType;    // ucVideoStreamType
    uint8_t recordEnable;        // regular-record ucEnable
    uint8_t dayMode;             // ucSocpeMode of today
    int segmentStartSec;         // running segment of today, seconds of the day
    int segmentEndSec;           // its end (exclusive)
    int hour;                    // local time
    int minute;                  // local time
    int second;                  // local time
    uint32_t sectionStartTime;   // section m_u32StartTime
    uint32_t sectionEndTime;     // section m_u32EndTime
    uint32_t sinceBootDuration;  // uptime now - uptime at start
    int32_t currentDuration;     // wall clock now - wall clock at start
    uint32_t fileDataSize;       // current file record m_u32DataSize
    uint32_t stopRequested;      // g_bRecordStop
    bool clockInCardRange;       // the wall clock reads a time the card can hold
    int cardError;               // errno of a write the card refused, 0 for none
};

enum class RunEnd {
    kNone,
    kClockOutOfRange,
    kMjpeg,
    kAudioEnable,
    kAudioEncoding,
    kVideoEncoding,
    kFrameRate,
    kStreamType,
    kResolution,
    kRecordDisabled,
    kCodecMode,
    kRotate,
    kScheduleOver,
    kDayEnd,
    kClockJump,
    kFileFull,
    kStop,
    kCardFailing,
};

// The first end condition that holds for the stream recorded since start.
RunEnd RecordRunCheck(const RunParams &start, uint32_t stream, const RunTurn &turn);

// True when a TIME_SCOPE_DIFF day's running segment no longer holds the
// time of day.
bool ScheduleSegmentOver(uint8_t dayMode, int nowSec, int startSec, int endSec);

// 23:59:59, the second in which a run is split at the day end.
bool IsLastSecondOfDay(int hour, int minute, int second);

// |since boot - wall clock| over the limit.
bool ClockJumped(uint32_t sinceBootDuration, int32_t currentDuration);
