#include "avrecord_lib/ps_format.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/es_frames.h"

namespace {

const Bytes kKey = Concat({Nal({0x67, 0x42}, 10, 1), Nal({0x68, 0xCE}, 2, 2), Nal({0x65, 0x88}, 300, 3)});

Bytes KeyFrame(uint16_t videoCodec, uint16_t audioCodec) {
    PSStreamParam param{videoCodec, audioCodec, 1920, 1080, 7, 0x12, 8000, 64000};
    Bytes out(PSFrameBufferSize(static_cast<uint32_t>(kKey.size())));
    int n = makeVideoPSFrame(1, kKey.data(), static_cast<uint32_t>(kKey.size()), out.data(), 0, &param, 1);
    out.resize(n > 0 ? n : 0);
    return out;
}

// What the packetizer writes into a key frame's stream map is what the
// readers decode from it, for every codec and audio type it knows.
TEST(PsFormatTest, KeyFrameHeadersDecodeAsWritten) {
    for (uint16_t video : {kVideoCodecH264, kVideoCodecH265}) {
        for (const PsAudioType &audio : kPsAudioTypes) {
            SCOPED_TRACE(video);
            SCOPED_TRACE(audio.codec);
            Bytes frame = KeyFrame(video, audio.codec);
            ASSERT_GE(frame.size(), size_t{kKeyFrameHeadersSize});
            PsStreamMap map{};
            ASSERT_TRUE(PsDecodeKeyFrameHeaders(frame.data(), &map));
            EXPECT_EQ(map.videoCodec, video);
            EXPECT_EQ(map.width, 1920);
            EXPECT_EQ(map.height, 1080);
            EXPECT_EQ(map.audio, &audio);
            EXPECT_EQ(PsAudioTypeOfStream(audio.streamType), &audio);
            EXPECT_EQ(PsAudioTypeOfSection(audio.sectionType), &audio);
        }
    }
}

TEST(PsFormatTest, OnlyAKeyFramesHeadersDecode) {
    Bytes other(PSFrameBufferSize(100));
    Bytes data = Nal({0x41, 0x9A}, 96, 4);
    ASSERT_GT(makeVideoPSFrame(0, data.data(), 100, other.data(), 1, nullptr, 1), 0);
    PsStreamMap map{};
    EXPECT_FALSE(PsDecodeKeyFrameHeaders(other.data(), &map));
    EXPECT_TRUE(PsIsStartCode(other.data(), kPsPackId));
    Bytes key = KeyFrame(kVideoCodecH264, 0);  // an audio code no recorder writes
    ASSERT_TRUE(PsDecodeKeyFrameHeaders(key.data(), &map));
    EXPECT_EQ(map.audio, nullptr);
    EXPECT_EQ(PsAudioTypeOfCodec(0), nullptr);
}

}  // namespace
