// The frames of one recording section, read while the recorder may still
// extend the section or start its media file over.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "replay/card_catalog.h"
#include "replay/frame_clock.h"

struct SectionFrame {
    bool bVideo;
    uint32_t u32Offset;     // pack header or audio packet in the media file
    uint32_t u32Pts;        // 90 kHz stamp as recorded (low 32 bits)
    uint64_t u64CaptureUs;  // capture time
    const uint8_t *pData;   // elementary-stream bytes, valid until the next read
    uint32_t u32Length;
    uint16_t u16VideoCodec;  // a key frame's codec, as its stream map names it; 0 for other frames

    bool Key() const { return u16VideoCodec != 0; }  // a key frame
};

enum class SectionRead {
    kFrame,  // a frame was read
    kEnd,    // the section's known end: nothing further written yet, or it is finished
    kEnded,  // the older footage ended: the recorder starts the file over, or the data is unreadable
    kError,  // the index could not be read
};

class SectionReader {
public:
    SectionReader() = default;
    ~SectionReader();
    SectionReader(const SectionReader &) = delete;
    SectionReader &operator=(const SectionReader &) = delete;

    // Opens the section's media file at its first frame. indexFd stays the
    // caller's. 0 or -1.
    int Open(const std::string &cardDir, int indexFd, const CatalogSection &section);

    // Moves to the key frame at or before startUs (the first frame when
    // the section starts later). kFrame when positioned.
    SectionRead Seek(uint64_t startUs);

    SectionRead Read(SectionFrame *frame);

    // Takes in what the recorder added to the section since it was read:
    // 1 when it grew, 0 when not, -1 when its slot now holds another section.
    int Refresh();

    // With recorded, frames come as the program-stream bytes the recorder
    // wrote (pack and PES headers kept) instead of their payload.
    void SetRecordedBytes(bool recorded) { recorded_ = recorded; }

    const CatalogSection &Section() const { return section_; }
    // Audio sample rate and channels of an audio frame of this section.
    void AudioFormat(const uint8_t *data, uint32_t length, uint32_t *rate, uint32_t *channels) const;

private:
    struct Place {
        uint32_t offset;
        FrameClock clock;
    };
    int ReadFrameBytes(uint32_t *next, int *type, uint32_t *length, uint32_t *wall, uint32_t *pts);
    uint32_t SeekStart(uint32_t startSecond);
    uint64_t CaptureTime(bool video, uint32_t length, uint32_t pts);

    int indexFd_ = -1;
    int mediaFd_ = -1;
    CatalogSection section_{};
    uint32_t begin_ = 0;  // first frame
    uint32_t pos_ = 0;    // next frame
    uint32_t end_ = 0;    // end of the data the index accounts for
    uint32_t wall_ = 0;   // second of the latest video frame
    FrameClock clock_;
    bool recorded_ = false;
    std::vector<uint8_t> buffer_;         // the frame's payload
    std::vector<uint8_t> recordedBytes_;  // the frame as written, when asked for
};
