// Frame writer: turns the encoded frames of one camera channel into program
// stream data in the current media file and rewrites the section record,
// the file record and the index header after every frame. One instance per
// process; a single channel is recorded at a time.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "avrecord_lib/index_records.h"
#include "ipc/av_stream.h"

inline constexpr int kFrameKindVideo = 0;
inline constexpr int kFrameKindAudio = 1;
// Descriptor-marked key frames get a key-frame entry from this picture size on.
inline constexpr uint32_t kKeyEntryMinPixels = 345600;
// Frame times follow the wall clock while it stays this close to uptime.
inline constexpr int32_t kWallClockTolerance = 59;
// Largest frame the writer takes (the main stream's ring capacity).
inline constexpr uint32_t kMaxFrameLength = 0x400000;

// What the first NAL unit of a video frame tells the writer.
struct FrameClass {
    uint16_t codec;  // 4096 or 4097
    bool key;        // led by an SPS (H.264) or VPS (H.265)
};
// Classifies a video frame (starting with a four-byte start code) by the
// unit behind its start code; anything unrecognised is a non-key H.264 frame.
FrameClass LS_RecordClassifyFrame(const uint8_t *data, uint32_t length);

// Byte offset of the next write in the media file.
extern uint32_t g_u32Offset;

// The channel's encoding settings as the writer uses them.
struct RecordEncodingInfo {
    uint32_t u32Width;            // encoded picture width
    uint32_t u32Height;           // encoded picture height
    uint32_t u32FrameRate;        // frames per second
    uint32_t u32RotateMode;       // 0..3 in quarter turns; 1 and 3 swap width and height
    uint32_t u32VideoParamA;      // stream map bytes 20-21: the stream's iEncoding
    uint32_t u32VideoParamB;      // stream map byte 22 (low byte): the stream mode byte
    uint32_t u32VideoByte;        // section record byte 0x2A: the stream encoding byte
    uint32_t u32AudioCodeType;    // 0 G.711U, 1 G.711A, 3 AAC, other: unknown
    uint32_t u32AudioSampleRate;  // used for an unknown audio codec type
    uint32_t u32AudioValue;       // used for an unknown audio codec type
};

// Where the settings come from; the default reads the configuration record
// through the camera-access layer. 0 on success.
typedef int (*RecordEncodingSource)(int channel, RecordEncodingInfo *info);
// Installs a source (nullptr restores the default). Tools that record
// without the configuration server use it.
void LS_RecordSetEncodingSource(RecordEncodingSource source);

// Clocks of the writer: wall clock and seconds since boot. Tests replace
// them (nullptr restores the system clocks).
typedef void (*RecordWallClock)(struct timeval *now);
typedef uint32_t (*RecordUptimeClock)();
void LS_RecordSetClocks(RecordWallClock wall, RecordUptimeClock uptime);

// Flush interval in seconds of uptime; 0 (the default) never flushes.
// Otherwise, once the interval has passed since the open or the last
// flush, the frame that finds it so flushes the media file's data and then
// the index (fdatasync) after its own writes, on the writer's thread.
void LS_RecordSetSyncSeconds(uint32_t seconds);

// Points between the writer's steps for one frame, in their order. A test
// holds a frame at one of them to run the record run's end against it.
enum class WriterStep {
    kAdmitted,         // the frame passed the gate; nothing written yet
    kMediaWritten,     // its bytes are in the media file
    kKeyEntryWritten,  // its key-frame entry is in the table (key frames only)
    kRecordsUpdated,   // the records hold it in memory, not yet on the card
};
typedef void (*WriterStepHook)(WriterStep step);
// Installs the hook (nullptr removes it); set while no frame is written.
void LS_RecordSetStepHook(WriterStepHook hook);

// Card directory the writer opens its files in (with a trailing '/');
// nullptr restores the card mount point. Tools writing to a card image use it.
void LS_RecordSetCardDir(const char *dir);

// Opens index000.bin and the file record's media file and arms the writer
// for channel. 0, or -1 for a null record or a failed open.
int LS_RecordInit(const FileInfoHead *file, int channel);

// One frame of kind 0 (video) or 1 (audio). 0 when handled or ignored, -1
// when refused (before the first key frame, bad frame) or when a write or
// flush failed (see LS_RecordCardError).
// A frame is ignored once its file is full: the section could not account
// for it.
int libAVRecordWriteFrame(int channel, int kind, const uint8_t *data, const AVDataInfo *info);

// Stops taking frames: when it returns no frame is being written and none
// will be until the next open. A frame in flight is finished first, so the
// caller waits for at most one frame's writes. The record run calls it
// first thing when a section ends, before it reads the records.
void LS_RecordStop();

// Stops taking frames as LS_RecordStop does, closes both descriptors and
// disarms the writer; 0.
int LS_RecordClose();

// The card refused a write or a flush: the errno, 0 while writes succeed.
// Set by the frame that met the failure (the section then ends at its last
// frame known written: the last good flush, or without flushes the last
// frame whose writes all succeeded); it outlasts the close, and video
// frames of the failed channel are counted lost meanwhile.
int LS_RecordCardError();

// Writes the current section record, file record
// and header to the index and flushes it; clears the card error when all
// of it reached the card. 0, or the errno of the failure.
int LS_RecordIndexRewrite();

// What the writer did since the process started.
struct WriterCounters {
    uint32_t framesWritten;  // video frames the index holds
    uint32_t framesLost;     // video frames a failed write cost
    uint32_t writeErrors;    // failed writes and flushes
    uint32_t bytesWritten;   // PS bytes, modulo 2^32
    uint32_t lastFrameTime;  // card time of the newest frame known written, 0 for none
};
WriterCounters LS_RecordCounters();

// Video frames seen per channel while recording (also those refused).
uint32_t LS_RecordVideoFrameTally(int channel);
