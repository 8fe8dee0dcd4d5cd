// Playback reader: walks the program stream of a media file one frame at a
// time and hands back each frame's elementary-stream bytes. It knows exactly
// the three packet shapes the packetizer writes: a key frame (pack header,
// system header, stream map, video PES packets), another video frame (pack
// header, video PES packets) and an audio frame (one bare audio PES). The
// caller positions it at a pack header or audio PES (a section's first pack
// sits behind the 40-byte record file header).
#pragma once

#include <cstdint>

inline constexpr int kPSFrameVideo = 0;
inline constexpr int kPSFrameAudio = 1;
// Key frames gather at most this much before another PES packet is refused.
inline constexpr uint32_t kPSKeyFrameReadLimit = 0x200000;

// Reads the frame at *offset into buf (payloads joined, headers removed).
// On success: 0, *type video or audio, *length the bytes in buf, *wallTime
// the pack header's wall-clock time (video only), *pts the low 32 bits of
// the last PES time stamp, and *offset moved to the next packet. -1 with one
// log line for a malformed packet (offset unchanged) or a null argument.
// buf must hold the largest frame: a key frame may take 2 MiB plus one PES
// payload, other video frames are not limited at all.
int libAVRecordPlayBackGetPSFrame(int fd, uint32_t *offset, int *type, uint8_t *buf, uint32_t *length,
                                  uint32_t *wallTime, uint32_t *pts);

// The same, safe for any card content: a frame that would not fit the
// bufSize bytes of buf fails with -1, every read is checked, and no PES
// packet is taken from at or beyond dataEnd (the end of the section's data
// as the index gives it; 0 for no such limit).
int libAVRecordPlayBackGetPSFrameBounded(int fd, uint32_t *offset, uint32_t dataEnd, int *type, uint8_t *buf,
                                         uint32_t bufSize, uint32_t *length, uint32_t *wallTime,
                                         uint32_t *pts);

// 1 when the video frame whose pack header is at offset is a key frame
// (a system header follows the pack header), 0 when not, -1 when unreadable.
int libAVRecordPlayBackIsKeyFrame(int fd, uint32_t offset);

// The video codec the stream map in front of the frame at offset names
// (kVideoCodecH264 or kVideoCodecH265): what the writer took the section's
// first key frame for. 0 when the frame is no key frame or is unreadable.
// The card's one answer to "which codec": readers ask it, not the bytes.
uint16_t PlayBackKeyFrameCodec(int fd, uint32_t offset);
