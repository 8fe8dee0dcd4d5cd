// A stand-in for the frame writer in tests of the index readers.
#pragma once

#include <cstdint>
#include <string>

// Writes recordings onto a card the way the frame writer does, through the
// record-storage operations: each frame is a pack header and filler bytes
// at the file's data size, key frames get a key-frame entry, and after every
// frame the section record, the file record and the header are rewritten.
// The card needs a valid header (AV_RecordFileConfigSet) first.
class CardRecorder {
public:
    explicit CardRecorder(const std::string &cardDir) : dir_(cardDir) {}
    // Loads the header and the current file record and opens a section.
    bool StartSection(uint32_t startTime);
    // One video frame of `size` (>= 4) bytes.
    bool WriteFrame(uint32_t time, uint32_t size, bool keyFrame);
    // Ends the section; moves to the next media file when this one is full.
    void EndSection();

private:
    std::string dir_;
    int indexFd_ = -1;
    int mediaFd_ = -1;
};
