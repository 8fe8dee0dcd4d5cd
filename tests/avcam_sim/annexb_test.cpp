#include "lib/annexb.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Sequence parameter sets of the generated sample streams.
const Bytes kSps1080p = {0x67, 0x64, 0x00, 0x28, 0xAC, 0xB4, 0x03, 0xC0, 0x11, 0x3F, 0x2E, 0x02, 0x20,
                         0x00, 0x00, 0x03, 0x00, 0x20, 0x00, 0x00, 0x06, 0x41, 0xE3, 0x06, 0x54};
const Bytes kSps360p = {0x67, 0x64, 0x00, 0x1E, 0xAC, 0xB4, 0x05, 0x01, 0x7F, 0xCB, 0x80, 0x88, 0x00,
                        0x00, 0x03, 0x00, 0x08, 0x00, 0x00, 0x03, 0x01, 0x90, 0x78, 0xB1, 0x75};
const Bytes kSps720pH265 = {0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00,
                            0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x5D, 0xA0, 0x02, 0x80, 0x80,
                            0x2D, 0x16, 0x5B, 0xA9, 0x24, 0xCA, 0xF0, 0x16, 0x80, 0x80, 0x00,
                            0x00, 0x03, 0x00, 0x80, 0x00, 0x00, 0x0C, 0x84};

const Bytes kPps = {0x68, 0xEB, 0xE3, 0xCB};
const Bytes kIdr = {0x65, 0x88, 0x84, 0x00, 0x33};    // first_mb_in_slice 0
const Bytes kSlice = {0x41, 0x9A, 0x02, 0x04, 0x10};  // first_mb_in_slice 0
const Bytes kSlice2 = {0x41, 0x1A, 0x02};             // a second slice of the same picture

Bytes Nal(const Bytes &nal, bool shortCode = false) {
    const size_t codeSize = shortCode ? 3 : 4;
    Bytes out(codeSize + nal.size(), 0);
    out[codeSize - 1] = 1;
    std::copy(nal.begin(), nal.end(), out.begin() + codeSize);
    return out;
}

Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Picture sizes of the sample streams (1080 is cropped from 1088).
TEST(AnnexB, PictureSizeFromTheFirstKeyFrame) {
    const Bytes vps = {0x40, 0x01, 0x0C, 0x01, 0xFF};
    const Bytes idr265 = {0x26, 0x01, 0xAF, 0x00};
    const struct {
        Bytes stream;
        VideoCodec codec;
        uint16_t width, height;
    } cases[] = {{Join({Nal(kSps1080p), Nal(kPps), Nal(kIdr)}), VideoCodec::kH264, 1920, 1080},
                 {Join({Nal(kSps360p), Nal(kPps), Nal(kIdr)}), VideoCodec::kH264, 640, 360},
                 {Join({Nal(vps), Nal(kSps720pH265), Nal(idr265)}), VideoCodec::kH265, 1280, 720}};
    for (const auto &c : cases) {
        VideoInput video;
        std::string error;
        ASSERT_TRUE(ParseAnnexB(c.stream, c.codec, &video, &error)) << error;
        EXPECT_EQ(video.width, c.width);
        EXPECT_EQ(video.height, c.height);
    }
}

TEST(AnnexB, AccessUnitsAndKeyFrames) {
    // GOP 1: SPS PPS IDR | P (two slices) | P ; GOP 2: IDR without parameter sets | P
    Bytes data = Join({{0, 0},
                       Nal(kSps360p),
                       Nal(kPps),
                       Nal(kIdr, true),
                       Nal(kSlice, true),
                       Nal(kSlice2, true),
                       Nal(kSlice),
                       {0, 0},
                       Nal(kIdr),
                       Nal(kSlice)});
    VideoInput video;
    std::string error;
    ASSERT_TRUE(ParseAnnexB(data, VideoCodec::kH264, &video, &error)) << error;
    ASSERT_EQ(video.units.size(), 5u);
    Bytes paramSets = Join({Nal(kSps360p), Nal(kPps)});
    EXPECT_EQ(video.paramSets, paramSets);
    // Four-byte start codes everywhere, zero padding gone; the key frames
    // begin with the SPS.
    EXPECT_EQ(video.units[0].bytes, Join({paramSets, Nal(kIdr)}));
    EXPECT_EQ(video.units[1].bytes, Join({Nal(kSlice), Nal(kSlice2)}));
    EXPECT_EQ(video.units[3].bytes, Join({paramSets, Nal(kIdr)}));  // parameter sets added
    std::vector<bool> keys;
    for (const AccessUnit &unit : video.units) keys.push_back(unit.key);
    EXPECT_EQ(keys, (std::vector<bool>{true, false, false, true, false}));
}

TEST(AnnexB, LoadGuessesTheCodec) {
    TempDir dir;
    const Bytes vps = {0x40, 0x01, 0x0C, 0x01, 0xFF};
    const Bytes pps265 = {0x44, 0x01, 0xC1, 0x72};
    const Bytes idr265 = {0x26, 0x01, 0xAF, 0x00};  // IDR_W_RADL, first slice
    const Bytes trail = {0x02, 0x01, 0xD0, 0x00};   // TRAIL_R, first slice
    Bytes h265 = Join({Nal(vps), Nal(kSps720pH265), Nal(pps265), Nal(idr265), Nal(trail)});
    WriteWholeFile(dir.File("a.h265"), std::string(h265.begin(), h265.end()));
    VideoInput video;
    std::string error;
    ASSERT_TRUE(LoadAnnexB(dir.File("a.h265"), &video, &error)) << error;
    EXPECT_EQ(video.codec, VideoCodec::kH265);
    EXPECT_EQ(video.width, 1280);
    ASSERT_EQ(video.units.size(), 2u);
    EXPECT_TRUE(video.units[0].key);
    EXPECT_EQ(video.units[0].bytes[4], 0x40);  // starts with the VPS, as the reader's key-frame search wants
}

// Error paths: what "run" refuses before creating anything.
TEST(AnnexB, RefusedInputs) {
    TempDir dir;
    const struct {
        const char *name;
        Bytes content;
        const char *reason;
    } cases[] = {
        {"audio.alaw", Bytes(400, 0xD5), "is not an Annex-B stream"},
        {"transport.ts", Bytes{0x47, 0x40, 0x00, 0x10, 0x00, 0x00, 0x01, 0x67}, "is not an Annex-B stream"},
        {"empty.h264", Bytes{}, "is not an Annex-B stream"},
        {"nosps.h264", Join({Nal(kPps), Nal(kIdr)}), "no readable sequence parameter set"},
        {"nopicture.h264", Join({Nal(kSps360p), Nal(kPps)}), "no picture"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        WriteWholeFile(dir.File(c.name), std::string(c.content.begin(), c.content.end()));
        VideoInput video;
        std::string error;
        EXPECT_FALSE(LoadAnnexB(dir.File(c.name), &video, &error));
        EXPECT_NE(error.find(c.reason), std::string::npos) << error;
    }
    VideoInput video;
    std::string error;
    EXPECT_FALSE(LoadAnnexB(dir.File("missing.h264"), &video, &error));
    EXPECT_NE(error.find("cannot read"), std::string::npos);
}

}  // namespace
