#include "avrecord_lib/annexb_stream.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/es_frames.h"

namespace {

Bytes Hex(const std::string &hex) {
    Bytes bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) bytes.push_back(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

// Sizes of the access units the splitter finds.
std::vector<size_t> UnitSizes(const Bytes &stream, VideoCodec codec) {
    std::vector<size_t> sizes;
    size_t at = AnnexBNextStartCode(stream.data(), stream.size(), 0);
    while (at < stream.size()) {
        size_t end = AnnexBAccessUnitEnd(stream.data(), stream.size(), at, codec);
        sizes.push_back(end - at);
        at = end;
    }
    return sizes;
}

TEST(AnnexBStream, StartCodesKeepOneLeadingZero) {
    Bytes stream = {9, 9, 0, 0, 0, 0, 1, 0x67, 0, 0, 1, 0x68};
    EXPECT_EQ(AnnexBNextStartCode(stream.data(), stream.size(), 0), 3u);
    EXPECT_EQ(AnnexBNextStartCode(stream.data(), stream.size(), 6), 8u);
    EXPECT_EQ(AnnexBNextStartCode(stream.data(), stream.size(), 9), stream.size());
}

TEST(AnnexBStream, H264AccessUnits) {
    Bytes idr = Concat({Nal({0x67}, 10), Nal({0x68}, 4), Nal({0x06}, 8), Nal({0x65, 0x88}, 300)});
    Bytes p1 = Nal({0x41, 0x9a}, 100);
    Bytes twoSlices =
        Concat({Nal({0x41, 0x9a}, 50), Nal({0x41, 0x1a}, 50, 0x5A, false)});  // second slice: first_mb != 0
    Bytes withAud = Concat({Nal({0x09, 0xf0}, 0), Nal({0x41, 0x9a}, 20)});
    Bytes stream = Concat({{0x00}, idr, p1, twoSlices, withAud, p1});
    EXPECT_EQ(UnitSizes(stream, VideoCodec::kH264),
              (std::vector<size_t>{idr.size(), p1.size(), twoSlices.size(), withAud.size(), p1.size()}));
}

TEST(AnnexBStream, H265AccessUnits) {
    Bytes idr = Concat({Nal({0x40, 0x01}, 10), Nal({0x42, 0x01}, 20), Nal({0x44, 0x01}, 4),
                        Nal({0x4e, 0x01}, 6), Nal({0x26, 0x01, 0xaf}, 400)});
    Bytes trail = Nal({0x02, 0x01, 0xd0}, 90);
    Bytes twoSegments = Concat({Nal({0x02, 0x01, 0xd0}, 40), Nal({0x02, 0x01, 0x40}, 40)});
    Bytes stream = Concat({idr, trail, twoSegments, trail});
    EXPECT_EQ(UnitSizes(stream, VideoCodec::kH265),
              (std::vector<size_t>{idr.size(), trail.size(), twoSegments.size(), trail.size()}));
}

TEST(AnnexBStream, PictureSizeFromSequenceParameterSets) {
    struct Case {
        const char *name;
        VideoCodec codec;
        std::string sps;  // NAL unit with header, as encoders write it
        uint32_t width, height;
    } cases[] = {
        {"H.264 4:4:4, cropped", VideoCodec::kH264, "67f4001e919b281405ff1380880000030008000003019078b16cb0",
         640, 360},
        {"H.264 high, emulation bytes", VideoCodec::kH264,
         "6764001eacd940b43db011000003000100000300320f162d96", 720, 480},
        {"H.265 main, cropped", VideoCodec::kH265,
         "420101016000000300900000030000030078a003c08010e596566924caf0168080000003008000000c84", 1920, 1080},
        {"H.265 4:4:4", VideoCodec::kH265,
         "4201010408000003009e0800000300003f9000a0402d2cb2b349265780b7020200040000030004000003006420", 640,
         360},
    };
    for (const Case &c : cases) {
        bool avc = c.codec == VideoCodec::kH264;
        Bytes aud = avc ? Nal({0x09, 0xf0}, 0) : Nal({0x46, 0x01, 0x50}, 0);
        Bytes slice = avc ? Nal({0x65, 0x88}, 20) : Nal({0x26, 0x01, 0xaf}, 20);
        Bytes unit = Concat({aud, {0, 0, 0, 1}, Hex(c.sps), slice});
        PictureSize size{};
        ASSERT_EQ(AnnexBPictureSize(unit.data(), unit.size(), c.codec, &size), 0) << c.name;
        EXPECT_EQ(size.width, c.width) << c.name;
        EXPECT_EQ(size.height, c.height) << c.name;
    }
}

TEST(AnnexBStreamErrors, NoOrBrokenParameterSet) {
    PictureSize size{};
    Bytes noSps = Nal({0x41, 0x9a}, 50);
    EXPECT_EQ(AnnexBPictureSize(noSps.data(), noSps.size(), VideoCodec::kH264, &size), -1);
    Bytes cut = Nal({0x67, 0x64}, 0);  // header and profile only
    EXPECT_EQ(AnnexBPictureSize(cut.data(), cut.size(), VideoCodec::kH264, &size), -1);
    Bytes empty;
    EXPECT_EQ(UnitSizes(empty, VideoCodec::kH265).size(), 0u);
    Bytes garbage(100, 0xAB);
    EXPECT_EQ(UnitSizes(garbage, VideoCodec::kH264).size(), 0u);
}

}  // namespace
