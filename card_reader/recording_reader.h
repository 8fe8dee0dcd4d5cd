// One recording of the card, named as the search lists it: a section
// "hi%06d_%06d.mp4" (media file, section number) or an alarm event
// "he%06d_%06d.mp4" (media file, event index). The index records locate its
// program-stream bytes in the media file; the playback reader returns its
// frames one by one.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "avrecord_lib/index_records.h"

struct RecordingSpan {
    bool bEvent;                // an alarm event (he name)
    uint32_t u32FileNo;         // media file number
    uint32_t u32Number;         // section number, or event index
    SectionInfoHead stSection;  // the section holding the recording
    uint32_t u32DataBegin;      // first frame's offset in the media file
    uint32_t u32DataEnd;        // end of the section's program stream
    uint32_t u32FromTime;       // event start (0 for a section)
    uint32_t u32ToTime;         // event end (0 for a section)
    uint32_t u32KeyTime;        // time of the key frame reading starts on (RecordingSeekStart)
};

struct RecordingFrame {
    uint32_t u32Offset;      // pack header or audio packet in the media file
    int iType;               // kPSFrameVideo or kPSFrameAudio
    const uint8_t *pData;    // elementary-stream bytes
    uint32_t u32Length;      // bytes at pData
    uint32_t u32Time;        // wall clock of the latest video frame
    uint32_t u32Pts;         // presentation time stamp, low 32 bits
    uint16_t u16VideoCodec;  // a key frame's codec, as its stream map names it; 0 for other frames

    bool Key() const { return u16VideoCodec != 0; }  // a key frame
};

// True when the recording is H.265, as the stream map of its key frame
// `key` says: the writer's own judgement of the section's first key frame,
// so every reader names the codec the recorder did.
bool RecordingIsH265(const RecordingFrame &key);

// Takes a name apart. 0, or -1 when it is no recording name.
int RecordingParseName(const char *name, RecordingSpan *span);

// Reads the index records of the recording from the card at cardDir. 0, or
// -1 with the reason.
int RecordingLocate(const char *cardDir, RecordingSpan *span, std::string *reason);

// The offset of the section's last key frame whose key-frame table entry
// (entries firstEntry on) is stamped before `from`, 0 when there is none: a
// place to start looking for where reading from `from` begins, without
// walking a long section from its start.
uint32_t RecordingKeyEntryBefore(int mediaFd, const SectionInfoHead &s, uint32_t firstEntry, uint32_t from);

// Moves u32DataBegin to the key frame reading from `from` starts on, the
// last key frame at or before the span's first video frame stamped `from`
// or later (a key frame later in that second would leave the frames before
// it out), and sets u32KeyTime to its time. The search starts at
// u32DataBegin. 0, or -1 with the reason.
int RecordingSeekStart(const char *cardDir, RecordingSpan *span, uint32_t from, std::string *reason);

// Hands the recording's frames to visit, which returns false to stop: a
// section from its first frame to its end, an event from the key frame
// RecordingSeekStart finds for its start time to its last frame stamped
// with its end time. 0, or -1 with the reason.
int RecordingReadFrames(const char *cardDir, const RecordingSpan &span,
                        const std::function<bool(const RecordingFrame &)> &visit, std::string *reason);
