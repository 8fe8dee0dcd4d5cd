// SysInfo: the camera's configuration record, one System V shared-memory
// segment owned by the configuration server. Only the fields this system
// reads are laid out by name; the rest of the record is reserved space at
// fixed offsets. Readers go through GetSysInfo() every time; the
// configuration server (and the simulator and tests standing in for it)
// fills the record through GetSysInfoForWriting().
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "common/byte_order.h"

inline constexpr key_t kSysInfoShmKey = 12930021;  // 0xC54BE5
inline constexpr uint32_t kSysInfoSize = 0x24000;  // 147456 bytes
inline constexpr int kSysInfoShmMode = 0660;

inline constexpr int kSysStreamCount = 3;  // encoder streams 0, 1, 2
inline constexpr int kSysWeekDays = 7;     // 0 = Sunday ... 6 = Saturday
inline constexpr int kSysDaySegments = 6;  // time segments per day

// Video standard byte: 1 = 50 Hz, anything else = 60 Hz.
inline constexpr uint8_t kVideoStandard50Hz = 1;

// Day record modes (ucSocpeMode).
inline constexpr uint8_t TIME_SCOPE_NULL = 0;
inline constexpr uint8_t TIME_SCOPE_ALL = 1;
inline constexpr uint8_t TIME_SCOPE_SAME = 2;
inline constexpr uint8_t TIME_SCOPE_DIFF = 3;

// One time of day inside a schedule segment.
struct ScopeTime {
    uint8_t ucHour;    // ucHour
    uint8_t ucMinute;  // ucMinute
    uint8_t ucSecond;  // ucSecond
    uint8_t ucType;    // end time: record type of the segment; begin time: reserved
};
static_assert(sizeof(ScopeTime) == 4);

// One schedule segment, 8 bytes: begin and end time of day.
struct ScopeSegment {
    ScopeTime beginHour;  // beginHour
    ScopeTime endHour;    // endHour (endHour.ucType: record type)
};
static_assert(sizeof(ScopeSegment) == 8);

// One weekday of the regular-record schedule, 52 bytes.
struct SysDayScope {
    uint8_t ucSocpeMode;                    // ucSocpeMode (TIME_SCOPE_*)
    uint8_t ucReserved[3];                  // reserved
    ScopeSegment segment[kSysDaySegments];  // time segments 0..5
};
static_assert(sizeof(SysDayScope) == 52);

// The whole week as the configuration server stores it: 364 bytes.
struct SysWeekScope {
    SysDayScope dayScope[kSysWeekDays];  // dayScope
};
static_assert(sizeof(SysWeekScope) == 364);

// Per-stream encoder settings, 158 bytes each.
struct SysStreamConfig {
    uint16_t usWidth;          // usWidth
    uint16_t usHeight;         // usHeight
    uint8_t ucReserved0[152];  // rate control and other encoder settings
    uint8_t ucEncoding;        // ucEncoding (copied into the video encoding property)
    uint8_t ucReserved1;       // reserved
};
static_assert(sizeof(SysStreamConfig) == 158);

// Audio settings.
struct SysAudioConfig {
    uint8_t ucEnable;        // ucEnable: 0 = no audio
    uint8_t ucEncoding;      // ucEncoding: audio codec value
    uint8_t ucReserved[6];   // reserved
    uint8_t ucInputVolume;   // ucInputVolume
    uint8_t ucOutputVolume;  // ucOutputVolume
    uint8_t ucInputModel;    // ucInputModel
    uint8_t ucOutputModel;   // ucOutputModel
};
static_assert(sizeof(SysAudioConfig) == 12);

// Image settings (mirror, OSD, infrared) served by the image property.
inline constexpr int kSysOsdTextSize = 32;
struct SysImageConfig {
    uint8_t ucMirror;                 // ucMirror
    uint8_t ucFlip;                   // ucFlip
    uint8_t ucOsdTimeEnable;          // ucOsdTimeEnable
    uint8_t ucOsdTimeFormat;          // ucOsdTimeFormat
    uint8_t ucOsdTextEnable;          // ucOsdTextEnable
    uint8_t ucIrCutMode;              // ucIrCutMode
    uint8_t ucIrLedMode;              // ucIrLedMode
    uint8_t ucIrSensitivity;          // ucIrSensitivity
    char szOsdText[kSysOsdTextSize];  // szOsdText, NUL-padded
};
static_assert(sizeof(SysImageConfig) == 40);

// Regular (scheduled) recording settings.
struct SysRecordConfig {
    uint8_t ucEnable;           // ucEnable: 0 = scheduled recording off
    uint8_t ucReserved0[4];     // reserved
    uint8_t ucLackSpaceModel;   // ucLackSpaceModel: 0 = keep old recordings, else overwrite
    uint8_t ucVideoStreamType;  // ucVideoStreamType: recorded encoder stream 0..2
    uint8_t ucRecStreamType;    // ucRecStreamType: stream of motion-triggered recording
    uint8_t ucpreRecordTime;    // ucpreRecordTime: index into the pre-record table
    uint8_t ucrecordDelay;      // ucrecordDelay: index into the record-delay table
    uint8_t ucReserved1[6];     // reserved
    SysWeekScope weekScope;     // dayScope[7]
};
static_assert(sizeof(SysRecordConfig) == 380);

struct SysInfo {
    uint8_t ucReserved0[1313];                 // network and device settings
    uint8_t ucVideoStandard;                   // ucVideoStandard: 1 = 50 Hz
    uint8_t ucReserved1[16];                   // reserved
    uint8_t ucVideoRotateMode;                 // ucVideoRotateMode
    uint8_t ucReserved2[3];                    // reserved
    uint8_t nVideocodecmode;                   // nVideocodecmode
    uint8_t ucStreamMode[kSysStreamCount];     // ucStreamMode: 4 at stream 0 caps 15 fps
    uint8_t ucReserved3[31];                   // reserved
    uint8_t iEncoding[kSysStreamCount];        // iEncoding per stream
    uint8_t iSmartEncEnable[kSysStreamCount];  // iSmartEncEnable per stream
    uint8_t ucReserved4[25];                   // reserved
    uint8_t preRotate;                         // preRotate: rotation before the last change
    uint8_t ucReserved5;                       // reserved
    uint8_t ucRecordFileOption;                // ucRecordFileOption: new section's record type
    uint8_t ucReserved6[1037];                 // reserved
    SysAudioConfig audio;                      // audio
    uint8_t ucReserved7[1020];                 // reserved
    SysStreamConfig stream[kSysStreamCount];   // stream[3]
    uint8_t ucReserved8[150];                  // reserved
    SysImageConfig image;                      // image
    uint8_t ucReserved9[2932];                 // OSD, PTZ, motion detection ...
    SysRecordConfig videoRecord;               // videoRecord (regular recording)
    uint8_t ucReserved10[140008];              // alarms, lens, device description ...
};

static_assert(sizeof(SysInfo) == kSysInfoSize);
static_assert(offsetof(SysInfo, ucVideoStandard) == 1313);
static_assert(offsetof(SysInfo, ucVideoRotateMode) == 1330);
static_assert(offsetof(SysInfo, nVideocodecmode) == 1334);
static_assert(offsetof(SysInfo, ucStreamMode) == 1335);
static_assert(offsetof(SysInfo, iEncoding) == 1369);
static_assert(offsetof(SysInfo, iSmartEncEnable) == 1372);
static_assert(offsetof(SysInfo, preRotate) == 1400);
static_assert(offsetof(SysInfo, ucRecordFileOption) == 1402);
static_assert(offsetof(SysInfo, audio) + offsetof(SysAudioConfig, ucEnable) == 2440);
static_assert(offsetof(SysInfo, audio) + offsetof(SysAudioConfig, ucEncoding) == 2441);
static_assert(offsetof(SysInfo, audio) + offsetof(SysAudioConfig, ucInputVolume) == 2448);
static_assert(offsetof(SysInfo, audio) + offsetof(SysAudioConfig, ucOutputVolume) == 2449);
static_assert(offsetof(SysInfo, audio) + offsetof(SysAudioConfig, ucInputModel) == 2450);
static_assert(offsetof(SysInfo, audio) + offsetof(SysAudioConfig, ucOutputModel) == 2451);
static_assert(offsetof(SysInfo, stream) + offsetof(SysStreamConfig, usWidth) == 3472);
static_assert(offsetof(SysInfo, stream) + offsetof(SysStreamConfig, usHeight) == 3474);
static_assert(offsetof(SysInfo, stream) + offsetof(SysStreamConfig, ucEncoding) == 3628);
static_assert(offsetof(SysInfo, image) == 4096);
static_assert(offsetof(SysInfo, videoRecord) + offsetof(SysRecordConfig, ucEnable) == 7068);
static_assert(offsetof(SysInfo, videoRecord) + offsetof(SysRecordConfig, ucLackSpaceModel) == 7073);
static_assert(offsetof(SysInfo, videoRecord) + offsetof(SysRecordConfig, ucVideoStreamType) == 7074);
static_assert(offsetof(SysInfo, videoRecord) + offsetof(SysRecordConfig, ucRecStreamType) == 7075);
static_assert(offsetof(SysInfo, videoRecord) + offsetof(SysRecordConfig, ucpreRecordTime) == 7076);
static_assert(offsetof(SysInfo, videoRecord) + offsetof(SysRecordConfig, ucrecordDelay) == 7077);
static_assert(offsetof(SysInfo, videoRecord) + offsetof(SysRecordConfig, weekScope) == 7084);

// Byte offsets of the indexed fields, for tools that patch the record by
// offset (the simulator's "set") and for readers of raw dumps.
constexpr uint32_t SysStreamWidthOffset(int s) { return 3472 + 158 * s; }
constexpr uint32_t SysStreamHeightOffset(int s) { return 3474 + 158 * s; }
constexpr uint32_t SysStreamEncodingOffset(int s) { return 3628 + 158 * s; }
constexpr uint32_t SysDayModeOffset(int d) { return 7084 + 52 * d; }
constexpr uint32_t SysDaySegmentOffset(int d, int k) { return 7088 + 52 * d + 8 * k; }
static_assert(offsetof(SysInfo, stream[2].usWidth) == SysStreamWidthOffset(2));
static_assert(offsetof(SysInfo, stream[1].ucEncoding) == SysStreamEncodingOffset(1));
static_assert(offsetof(SysInfo, videoRecord.weekScope.dayScope[6].ucSocpeMode) == SysDayModeOffset(6));
static_assert(offsetof(SysInfo, videoRecord.weekScope.dayScope[6].segment[5]) == SysDaySegmentOffset(6, 5));
static_assert(SysDaySegmentOffset(6, 5) + sizeof(ScopeSegment) - 1 == 7447);

// Attaches the SysInfo segment (creating it when it does not exist yet, or
// looking up an existing one of any size). 0 or -1.
int SysInfoAttach();

// Detaches the segment; GetSysInfo() returns null afterwards.
int SysInfoDetach();

// The attached record, or null when it is not attached. Read it anew at
// every use; this system never writes it.
const SysInfo *GetSysInfo();

// The same address, writable: for the configuration server side only.
SysInfo *GetSysInfoForWriting();
