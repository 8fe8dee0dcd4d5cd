// Cards recorded through the frame writer for the replay tests, second by
// second, so a test can read between the recorder's writes as a replay
// client does on the camera.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "avrecord_lib/record_section.h"
#include "common/card_layout.h"
#include "support/card_fixture.h"
#include "support/es_frames.h"
#include "support/test_support.h"
#include "support/writer_fakes.h"

inline constexpr uint32_t kReplayFps = 5;
inline constexpr uint32_t kReplayStart = 1750000000;

// What was written, in order, for comparing with what a replay hands out.
struct WrittenUnit {
    bool video, key;
    uint32_t second;
    Bytes data;
};

class ReplayRecorder {
public:
    explicit ReplayRecorder(const std::string &card, uint32_t files = 2) : card_(card) {
        g_encoding = RecordEncodingInfo{1280, 720, kReplayFps, 0, 7, 0x12, 0, 1, 0, 0};
        g_uptime = 1000;
        LS_RecordSetEncodingSource(TestEncoding);
        LS_RecordSetClocks(TestWall, TestUptime);
        SetRecordClockForTest(TestRecordClock);
        MakeSparseCard(card, files);
        RecordConfigInfo header;
        AV_RecordConfigInfoInit(&header, 0, files);
        WriteFileAt(card + kIndexFileName, 0, RecordBytes(header));
    }
    ~ReplayRecorder() {
        LS_RecordClose();
        LS_RecordSetCardDir(nullptr);
        LS_RecordSetEncodingSource(nullptr);
        LS_RecordSetClocks(nullptr, nullptr);
        SetRecordClockForTest(nullptr);
    }

    // Opens a section at `start`; `lap` starts the current media file over,
    // as the record run does when it moves on to the oldest file.
    void Open(uint32_t start, bool lap = false) {
        LS_RecordSetCardDir(card_.c_str());
        RecordConfigInfo *info = GetRecordConfigInfo();
        FileInfoHead *file = GetFileInfoHead();
        int fd = AVFileOpen((card_ + kIndexFileName).c_str(), kAVFileModeReadWrite);
        AV_RecordConfigInfoRead(fd, info);
        AV_RecordFileInfoHeadRead(fd, info, file);
        AVFileClose(fd);
        if (lap) std::memset(file, 0, sizeof *file);
        g_wall = {static_cast<time_t>(start), 0};
        ASSERT_EQ(AV_RecordFileConfigParamGet(info, file, GetSectionInfoHead(), 0), 0);
        ASSERT_EQ(LS_RecordInit(file, 0), 0);
    }

    // One second of frames at `second`: a key frame, then the others, each
    // with its own bytes (`tag` tells recordings apart), audio behind each
    // video frame when asked.
    void Second(uint32_t second, bool audio = false, uint8_t tag = 0x10, bool h265 = false) {
        for (uint32_t f = 0; f < kReplayFps; ++f) {
            g_wall = {static_cast<time_t>(second), static_cast<suseconds_t>(f * 1000000 / kReplayFps)};
            uint8_t fill = static_cast<uint8_t>(tag + (counter_++ % 64));
            Bytes frame = f != 0 ? (h265 ? Nal({0x02, 0x01}, 900, fill) : Nal({0x41, 0x9A}, 800, fill))
                          : h265 ? Concat({Nal({0x40, 0x01}, 20, 0x0B), Nal({0x42, 0x01}, 30, 0x0C),
                                           Nal({0x44, 0x01}, 5, 0x0D), Nal({0x26, 0x01}, 4000, fill)})
                                 : Concat({Nal({0x67, 0x42}, 10, 0x0B), Nal({0x68, 0xCE}, 2, 0x0C),
                                           Nal({0x65, 0x88}, 3000, fill)});
            Write(frame, kFrameKindVideo, f == 0);
            written.push_back({true, f == 0, second, frame});
            if (audio) {
                Bytes sound(320, fill);
                Write(sound, kFrameKindAudio, 0);
                written.push_back({false, false, second, sound});
            }
        }
        ++g_uptime;
    }

    void Close() {
        LS_RecordClose();
        g_uptime += 100;
    }

    std::vector<WrittenUnit> written;

private:
    static void Write(const Bytes &frame, int kind, uint8_t mark) {
        AVDataInfo info{};
        info.AVDataLen = static_cast<int32_t>(frame.size());
        info.AVSource = kind;
        info.KeyFrameFlag = mark;
        ASSERT_EQ(libAVRecordWriteFrame(0, kind, frame.data(), &info), 0);
    }

    std::string card_;
    uint32_t counter_ = 0;
};
