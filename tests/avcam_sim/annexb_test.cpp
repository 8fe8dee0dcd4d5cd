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
    Bytes out = shortCode ? Bytes{0, 0, 1} : Bytes{0, 0, 0, 1};
    out.insert(out.end(), nal.begin(), nal.end());
    return out;
}

Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

TEST(AnnexB, SpsSizes) {
    const struct {
        const Bytes *sps;
        VideoCodec codec;
        uint16_t width, height;
    } cases[] = {{&kSps1080p, VideoCodec::H264, 1920, 1080},  // cropped from 1088
                 {&kSps360p, VideoCodec::H264, 640, 360},
                 {&kSps720pH265, VideoCodec::H265, 1280, 720}};
    for (const auto &c : cases) {
        uint16_t w = 0, h = 0;
        ASSERT_TRUE(ParseSpsSize(c.sps->data(), c.sps->size(), c.codec, &w, &h));
        EXPECT_EQ(w, c.width);
        EXPECT_EQ(h, c.height);
    }
    uint16_t w = 0, h = 0;
    EXPECT_FALSE(ParseSpsSize(kSps360p.data(), 6, VideoCodec::H264, &w, &h));  // cut short
}

TEST(AnnexB, SplitsOnThreeAndFourByteStartCodes) {
    Bytes data = Join({{0, 0}, Nal(kSps360p), Nal(kPps, true), Nal(kIdr), {0, 0}});
    std::vector<NalSpan> nals = SplitNalUnits(data);
    ASSERT_EQ(nals.size(), 3u);
    EXPECT_EQ(Bytes(data.begin() + nals[1].begin, data.begin() + nals[1].end), kPps);
    EXPECT_EQ(Bytes(data.begin() + nals[2].begin, data.begin() + nals[2].end),
              kIdr);                                                    // trailing zeros dropped
    EXPECT_TRUE(SplitNalUnits(Bytes{0x47, 0x40, 0x00, 0x10}).empty());  // a transport stream
    EXPECT_TRUE(SplitNalUnits(Bytes{}).empty());
}

TEST(AnnexB, AccessUnitsAndKeyFrames) {
    // GOP 1: SPS PPS IDR | P (two slices) | P ; GOP 2: IDR without parameter sets | P
    Bytes data = Join({Nal(kSps360p), Nal(kPps), Nal(kIdr, true), Nal(kSlice, true), Nal(kSlice2, true),
                       Nal(kSlice), Nal(kIdr), Nal(kSlice)});
    VideoInput video;
    std::string error;
    ASSERT_TRUE(ParseAnnexB(data, VideoCodec::H264, &video, &error)) << error;
    EXPECT_EQ(video.width, 640);
    EXPECT_EQ(video.height, 360);
    ASSERT_EQ(video.units.size(), 5u);
    Bytes paramSets = Join({Nal(kSps360p), Nal(kPps)});
    EXPECT_EQ(video.paramSets, paramSets);
    // Four-byte start codes everywhere; the key frames begin with the SPS.
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
    EXPECT_EQ(video.codec, VideoCodec::H265);
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
        {"empty.h264", Bytes{}, "is not an Annex-B stream"},
        {"nosps.h264", Join({Nal(kPps), Nal(kIdr)}), "no sequence parameter set"},
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
