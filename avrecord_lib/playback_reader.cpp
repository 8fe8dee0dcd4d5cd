#include "avrecord_lib/playback_reader.h"

#include <cstdint>
#include <cstring>

#include "avrecord_lib/ps_format.h"
#include "avrecord_lib/ps_packetizer.h"
#include "avrecord_lib/record_file.h"
#include "common/log.h"

namespace {

constexpr int kPesPtsAt = 9;
constexpr int kPackTimeAt = 14;
// Every log line of the reader names the reader's own function, its
// helpers included: field logs are searched by it.
constexpr const char kReaderFunction[] = "libAVRecordPlayBackGetPSFrame";

// One call's target and limits.
struct FrameTarget {
    int fd;             // media descriptor
    uint8_t *buf;       // caller's frame buffer
    uint32_t capacity;  // bytes buf holds (bounded reads only)
    uint32_t dataEnd;   // no packet taken from here on (bounded reads, 0: none)
    bool bounded;       // check sizes and every read
    uint32_t length;    // bytes gathered
    uint32_t pts;       // PTS of the last PES header taken
};

bool IsStartCode(const uint8_t *b) { return memcmp(b, kPsStartCodePrefix, sizeof kPsStartCodePrefix) == 0; }

int PesPayloadLength(const uint8_t *header) {
    return ((header[4] << 8) | header[5]) - static_cast<int>(kPesLengthExtra);
}

uint32_t PesPts(const uint8_t *header) { return static_cast<uint32_t>(PSDecodePts(header + kPesPtsAt)); }

uint32_t Le32(const uint8_t *b) {
    return b[0] | (b[1] << 8) | (b[2] << 16) | (static_cast<uint32_t>(b[3]) << 24);
}

bool Fits(const FrameTarget &t, int payload) {
    return !t.bounded || static_cast<uint32_t>(payload) <= t.capacity - t.length;
}

bool InData(const FrameTarget &t, uint32_t at) { return !t.bounded || t.dataEnd == 0 || at < t.dataEnd; }

void LogReadError(const char *func, int line, uint32_t offset) {
    LogTrace("%s %d Read Data Error FileOffset = %d \n", func, line, static_cast<int>(offset));
}

// Gathers the video PES packets from `at` on; the first header that is not
// a video PES ends the frame and gives *next. 0, or -1 after its log lines.
int GatherVideoPes(FrameTarget &t, uint32_t at, bool keyFrame, uint32_t *next) {
    uint8_t header[kPesHeaderSize];
    for (;;) {
        if (!InData(t, at)) break;
        int pos = AV_RecordStreamInfoRead(t.fd, at, header, sizeof header);
        if (pos < 0 || !PsIsStartCode(header, kPsVideoStreamId)) break;
        int payload = PesPayloadLength(header);
        if (payload < 0) {
            LogReadError(kReaderFunction, __LINE__, at);
            return -1;
        }
        if ((keyFrame && t.length > kPSKeyFrameReadLimit) || !Fits(t, payload)) {
            LogTrace("%s %d : lenth %d error!\n", kReaderFunction, __LINE__, static_cast<int>(t.length));
            LogReadError(kReaderFunction, __LINE__, at);
            return -1;
        }
        uint32_t payloadAt = static_cast<uint32_t>(pos) + kPesHeaderSize;
        if (payload > 0 && AV_RecordStreamInfoRead(t.fd, payloadAt, t.buf + t.length, payload) < 0 &&
            (keyFrame || t.bounded)) {
            LogTrace("%s %d : FileOffset %d error!\n", kReaderFunction, __LINE__,
                     static_cast<int>(payloadAt));
            LogReadError(kReaderFunction, __LINE__, at);
            return -1;
        }
        t.length += static_cast<uint32_t>(payload);
        t.pts = PesPts(header);
        at = payloadAt + static_cast<uint32_t>(payload);
    }
    *next = at;
    return 0;
}

int ReadAudio(FrameTarget &t, uint32_t pos, const uint8_t *header, uint32_t *offset, int *type) {
    uint32_t next = pos;
    if (PsIsStartCode(header, kPsAudioStreamId)) {
        int payload = PesPayloadLength(header);
        if (payload < 0 || !Fits(t, payload) ||
            (payload > 0 && AV_RecordStreamInfoRead(t.fd, pos + kPesHeaderSize, t.buf, payload) < 0)) {
            LogReadError(kReaderFunction, __LINE__, pos);
            return -1;
        }
        t.length = static_cast<uint32_t>(payload);
        t.pts = PesPts(header);
        next = pos + kPesHeaderSize + t.length;
    }
    if (next == 0) {
        LogTrace("%s %d Audio FileOffset Error Error!!!!\n", kReaderFunction, __LINE__);
        return -1;
    }
    *type = kPSFrameAudio;
    *offset = next;
    return 0;
}

int ReadVideo(FrameTarget &t, uint32_t pos, uint32_t *offset) {
    uint8_t next4[kPsStartCodeSize];
    uint32_t behindPack = pos + kPackHeaderSize;
    if (AV_RecordStreamInfoRead(t.fd, behindPack, next4, sizeof next4) < 0 || !IsStartCode(next4)) {
        LogTrace("%s %d AV_RecordStreamInfoRead System Head Fail \n", kReaderFunction, __LINE__);
        return -1;
    }
    uint32_t next = 0;
    if (next4[3] == kPsSystemHeaderId) {
        // The system header and stream map are fixed; the PES packets follow.
        if (GatherVideoPes(t, pos + kKeyFrameHeadersSize, true, &next) < 0) return -1;
        if (next == 0) {
            LogTrace("%s %d FileOffset Error!!!!\n", kReaderFunction, __LINE__);
            return -1;
        }
    } else if (next4[3] == kPsVideoStreamId) {
        if (GatherVideoPes(t, behindPack, false, &next) < 0) return -1;
        if (next == 0) {
            LogTrace("%s %d FileOffset Error FileOffset = %d \n", kReaderFunction, __LINE__,
                     static_cast<int>(next));
            return -1;
        }
    } else {
        LogTrace("%s %d Read Data Error databuf = %#x %#x %#x %#x !!!!\n", kReaderFunction, __LINE__, 0, 0, 1,
                 next4[3]);
        return -1;
    }
    *offset = next;
    return 0;
}

int GetPSFrame(FrameTarget &t, uint32_t *offset, int *type, uint32_t *length, uint32_t *wallTime,
               uint32_t *pts) {
    uint8_t head[kPackHeaderSize];
    int pos = AV_RecordStreamInfoRead(t.fd, *offset, head, sizeof head);
    if (pos < 0) {
        LogReadError(kReaderFunction, __LINE__, *offset);
        return -1;
    }
    if (!IsStartCode(head)) {
        LogTrace("%s %d :pack_start_code Error FileOffset = %d \n", kReaderFunction, __LINE__,
                 static_cast<int>(*offset));
        return -1;
    }
    int result;
    if (head[3] == kPsAudioStreamId) {
        result = ReadAudio(t, static_cast<uint32_t>(pos), head, offset, type);
    } else if (head[3] == kPsPackId) {
        result = ReadVideo(t, static_cast<uint32_t>(pos), offset);
        if (result == 0) {
            *type = kPSFrameVideo;
            if (wallTime != nullptr) *wallTime = Le32(head + kPackTimeAt);
        }
    } else {
        LogTrace("%s %d : data error \n", kReaderFunction, __LINE__);
        return -1;
    }
    if (result < 0) return -1;
    *length = t.length;
    if (pts != nullptr) *pts = t.pts;
    return 0;
}

bool ArgumentsValid(int fd, const uint32_t *offset, const int *type, const uint8_t *buf,
                    const uint32_t *length) {
    return offset != nullptr && fd >= 0 && type != nullptr && buf != nullptr && length != nullptr;
}

}  // namespace

int libAVRecordPlayBackGetPSFrame(int fd, uint32_t *offset, int *type, uint8_t *buf, uint32_t *length,
                                  uint32_t *wallTime, uint32_t *pts) {
    if (!ArgumentsValid(fd, offset, type, buf, length)) return -1;
    FrameTarget target{fd, buf, 0, 0, false, 0, 0};
    return GetPSFrame(target, offset, type, length, wallTime, pts);
}

int libAVRecordPlayBackGetPSFrameBounded(int fd, uint32_t *offset, uint32_t dataEnd, int *type, uint8_t *buf,
                                         uint32_t bufSize, uint32_t *length, uint32_t *wallTime,
                                         uint32_t *pts) {
    if (!ArgumentsValid(fd, offset, type, buf, length)) return -1;
    FrameTarget target{fd, buf, bufSize, dataEnd, true, 0, 0};
    return GetPSFrame(target, offset, type, length, wallTime, pts);
}

int libAVRecordPlayBackIsKeyFrame(int fd, uint32_t offset) {
    uint8_t next4[kPsStartCodeSize];
    if (AV_RecordStreamInfoRead(fd, offset + kPackHeaderSize, next4, sizeof next4) < 0) return -1;
    return PsIsStartCode(next4, kPsSystemHeaderId) ? 1 : 0;
}

uint16_t PlayBackKeyFrameCodec(int fd, uint32_t offset) {
    uint8_t headers[kKeyFrameHeadersSize];
    PsStreamMap map;
    if (AV_RecordStreamInfoRead(fd, offset, headers, sizeof headers) < 0) return 0;
    return PsDecodeKeyFrameHeaders(headers, &map) ? map.videoCodec : 0;
}
