// The moving pictures of "avrecord-card serve": a section played from a
// moment as a fragmented MP4 that the browser starts on before it is
// complete, and clips between two moments written as MP4 files.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

struct ClipProgress {
    uint64_t frames;  // video frames written
    uint64_t bytes;   // MP4 bytes written
    double done;      // 0 .. 1 of the clip's time span
};

// Writes the recordings between from and to as an MP4 file at path;
// progress is called now and then and stops the work by returning false.
// 0, or -1 with a reason.
int MakeClip(const std::string &cardDir, uint32_t from, uint32_t to, const std::string &path,
             const std::function<bool(const ClipProgress &)> &progress, std::string *reason);

// Plays the section holding moment at: from the key frame at or before it
// to the section's end, as fragmented MP4 handed to sink piece by piece
// (sink returns false when the viewer went away). keyTime gets the time of
// the key frame the stream starts on, before the first piece. 0, or -1 with
// a reason.
int StreamFromMoment(const std::string &cardDir, uint32_t at,
                     const std::function<bool(const uint8_t *data, size_t size)> &sink, std::string *reason);
