// Property records of the camera-access commands: what a caller of a
// Camera* wrapper passes in and gets back. All little-endian, fixed sizes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "sysconfig/sys_info.h"

// Video encoding of one encoder stream, 19 words.
struct VideoEncodingProperty {
    int32_t iEnable;          // 1
    int32_t iFrameRate;       // frames per second
    int32_t iGop;             // key-frame interval (not served)
    int32_t iWidth;           // width in pixels
    int32_t iHeight;          // height in pixels
    int32_t iBitRate;         // rate control (not served)
    int32_t iBitRateMode;     // rate control (not served)
    int32_t iEncoding;        // video encoding (4 = MJPEG)
    int32_t iStreamMode;      // per-stream mode byte
    int32_t iRateControl[7];  // further rate-control settings (not served)
    int32_t iStreamEncoding;  // stream encoding byte
    int32_t iSmartEncEnable;  // smart encoding on/off
    int32_t iReserved;        // reserved
};
static_assert(sizeof(VideoEncodingProperty) == 76);
static_assert(offsetof(VideoEncodingProperty, iEncoding) == 7 * 4);
static_assert(offsetof(VideoEncodingProperty, iStreamEncoding) == 16 * 4);
static_assert(offsetof(VideoEncodingProperty, iSmartEncEnable) == 17 * 4);
// CameraGetVideoEncodingProperty fills one record per stream.
inline constexpr size_t kVideoEncodingPropertySize = kSysStreamCount * sizeof(VideoEncodingProperty);
static_assert(kVideoEncodingPropertySize == 228);

inline constexpr int32_t kFrameRate50Hz = 25;
inline constexpr int32_t kFrameRate60Hz = 30;
inline constexpr int32_t kFrameRateCapped = 15;
inline constexpr uint8_t kStreamModeCapped = 4;  // at stream 0: every stream at 15 fps

struct AudioEncodingEntry {
    int32_t iReserved;    // 0
    int32_t iBitrate;     // 64000
    int32_t iSamplerate;  // 8000
};

// Audio encoding, 28 bytes.
struct AudioEncodingProperty {
    int32_t iEncoding;            // audio codec value
    AudioEncodingEntry entry[2];  // fixed 0, 64000, 8000
};
static_assert(sizeof(AudioEncodingProperty) == 28);
inline constexpr int32_t kAudioBitrate = 64000;
inline constexpr int32_t kAudioSamplerate = 8000;

// Audio, 6 bytes.
struct AudioProperty {
    uint8_t ucCn;            // channel, 0
    uint8_t ucEnable;        // 0 = no audio
    uint8_t ucOutputVolume;  // ucOutputVolume
    uint8_t ucInputVolume;   // ucInputVolume
    uint8_t ucInputModel;    // ucInputModel
    uint8_t ucOutputModel;   // ucOutputModel
};
static_assert(sizeof(AudioProperty) == 6);

// Image (mirror, OSD, infrared): the image settings as the server keeps
// them, with the OSD text always NUL-terminated.
struct ImageProperty {
    uint8_t ucCh;           // channel, 0
    uint8_t ucReserved[3];  // reserved
    SysImageConfig image;   // image settings
};
static_assert(sizeof(ImageProperty) == 44);

// The recording part shared by the regular-record and alarm properties.
struct VideoRecordParam {
    uint8_t ucEnable;           // ucEnable
    uint8_t ucStorageType;      // ucStorageType
    uint8_t ucVideoStreamType;  // ucVideoStreamType
    uint8_t ucReserved;         // reserved
};

// One weekday: the mode, then eight segment slots of which six are used.
inline constexpr int kPropertyDaySegments = 8;
struct DayScopeProperty {
    uint8_t ucSocpeMode;                         // ucSocpeMode (TIME_SCOPE_*)
    uint8_t ucReserved[3];                       // reserved
    ScopeSegment segment[kPropertyDaySegments];  // segments 0..5 used
};
static_assert(sizeof(DayScopeProperty) == 68);

// ucScopeModel: one pattern (the week-pattern segment) for the whole week.
inline constexpr uint8_t kScopeModelWeekPattern = 2;

struct WeekScopeProperty {
    uint8_t ucScopeModel;                     // ucScopeModel
    uint8_t ucReserved[3];                    // reserved
    DayScopeProperty dayScope[kSysWeekDays];  // dayScope
};

// Regular (scheduled) recording, 540 bytes.
struct RegularRecordProperty {
    uint8_t ucCh;                  // channel
    uint8_t ucReserved0[3];        // reserved
    VideoRecordParam videoRecord;  // videoRecord
    uint8_t ucReserved1[4];        // reserved
    ScopeSegment weekPattern;      // segment of every day when ucScopeModel is 2
    uint8_t ucReserved2[8];        // reserved
    WeekScopeProperty weekScop;    // weekScop
    uint8_t ucReserved3[32];       // reserved
};
static_assert(sizeof(RegularRecordProperty) == 540);
static_assert(offsetof(RegularRecordProperty, videoRecord) == 4);
static_assert(offsetof(RegularRecordProperty, weekPattern) == 12);
static_assert(offsetof(RegularRecordProperty, weekScop) == 28);
static_assert(offsetof(RegularRecordProperty, weekScop.dayScope[1]) == 32 + 68);
static_assert(offsetof(RegularRecordProperty, weekScop.dayScope[0].segment[1]) == 36 + 8);

// Storage, 24 bytes.
struct PackingValue {
    uint8_t ucPackingSize;  // ucPackingSize
};
struct StorageProperty {
    uint8_t ucCh;                 // channel
    uint8_t ucStorageType;        // 2
    uint8_t ucPackingModel;       // 0
    PackingValue ucPackingValue;  // ucPackingSize 60
    uint8_t ucLackSpaceModel;     // 0 = keep old recordings, else overwrite
    uint8_t ucReserved0;          // reserved
    uint8_t ucpreRecordTime;      // pre-record table index
    uint8_t ucrecordDelay;        // record-delay table index
    uint8_t ucReserved1[16];      // reserved
};
static_assert(sizeof(StorageProperty) == 24);
static_assert(offsetof(StorageProperty, ucrecordDelay) == 7);
inline constexpr uint8_t kStoragePropertyType = 2;
inline constexpr uint8_t kStoragePackingSize = 60;

// Alarm-triggered recording.
struct AlarmProperty {
    uint8_t ucCh;                  // channel
    uint8_t ucReserved0[3];        // reserved
    VideoRecordParam videoRecord;  // videoRecord (stream: the motion-record stream)
    uint8_t ucpreRecordTime;       // pre-record table index
    uint8_t ucrecordDelay;         // record-delay table index
    uint8_t ucReserved1[2];        // reserved
};
static_assert(sizeof(AlarmProperty) == 12);

// Storage query: what the caller asks about ...
struct StorageInfoIn {
    uint8_t ucCh;           // channel
    uint8_t ucStorageType;  // bit 0: the card
};
// ... and the answer, 12 bytes.
struct StorageInfo {
    uint8_t ucCh;           // channel
    uint8_t ucStorageType;  // 1: the card
    uint8_t ucStatus;       // 1: present
    uint8_t ucReserved;     // 0
    uint32_t u32TotalSize;  // 0
    uint32_t u32FreeSize;   // 0
};
static_assert(sizeof(StorageInfo) == 12);
inline constexpr uint8_t kStorageTypeCard = 1;

// Storage operation request.
struct StorageOption {
    uint8_t ucCh;           // channel
    uint8_t ucStorageType;  // 1: the card
    uint8_t ucOptType;      // 0: format
};
static_assert(sizeof(StorageOption) == 3);
inline constexpr uint8_t kStorageOptFormat = 0;

// Playback file query; the search itself is done by the recording search.
struct PlayBackQuery {
    uint8_t ucCh;           // channel
    uint8_t ucReserved[3];  // reserved
    uint32_t u32StartTime;  // seconds since 1970, UTC
    uint32_t u32EndTime;    // seconds since 1970, UTC
};
