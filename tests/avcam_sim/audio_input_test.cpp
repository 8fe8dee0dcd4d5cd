#include "lib/audio_input.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

// An ADTS frame of the given total length at 16 kHz (rate index 8).
Bytes Adts(size_t length) {
    Bytes frame(length, 0x21);
    frame[0] = 0xFF;
    frame[1] = 0xF1;
    frame[2] = 0x60;  // AAC LC, rate index 8
    frame[3] = static_cast<uint8_t>(0x40 | ((length >> 11) & 0x03));
    frame[4] = static_cast<uint8_t>((length >> 3) & 0xFF);
    frame[5] = static_cast<uint8_t>(((length & 0x07) << 5) | 0x1F);
    frame[6] = 0xFC;
    return frame;
}

TEST(AudioInput, Frames) {
    AudioInput g711;
    std::string error;
    ASSERT_TRUE(ParseAudio(Bytes(1000, 0x55), AudioCodec::G711U, &g711, &error));
    ASSERT_EQ(g711.frames.size(), 4u);  // 40 ms each, the last one short
    EXPECT_EQ(g711.frames[3].size(), 40u);
    EXPECT_EQ(g711.frameDurationUs, 40000u);

    Bytes data = Adts(100);
    Bytes second = Adts(57);
    data.insert(data.end(), second.begin(), second.end());
    AudioInput aac;
    ASSERT_TRUE(ParseAudio(data, AudioCodec::Aac, &aac, &error)) << error;
    ASSERT_EQ(aac.frames.size(), 2u);
    EXPECT_EQ(aac.frames[1], second);
    EXPECT_EQ(aac.frameDurationUs, 64000u);  // 1024 samples at 16 kHz
}

TEST(AudioInput, CodecNames) {
    const struct {
        const char *name;
        bool ok;
        uint8_t value;
    } cases[] = {{"g711a", true, 1}, {"g711u", true, 0}, {"aac", true, 3}, {"mp3", false, 0}, {"", false, 0}};
    for (const auto &c : cases) {
        AudioCodec codec = AudioCodec::G711A;
        EXPECT_EQ(ParseAudioCodec(c.name, &codec), c.ok) << c.name;
        if (c.ok) {
            EXPECT_EQ(AudioEncodingValue(codec), c.value) << c.name;
        }
    }
}

// Error paths.
TEST(AudioInput, RefusedInputs) {
    Bytes truncated = Adts(100);
    truncated.resize(60);
    const struct {
        Bytes data;
        AudioCodec codec;
        const char *reason;
    } cases[] = {
        {Bytes{}, AudioCodec::G711A, "empty"},
        {Bytes(300, 0xD5), AudioCodec::Aac, "not an ADTS stream"},
        {truncated, AudioCodec::Aac, "broken ADTS frame"},
    };
    for (const auto &c : cases) {
        AudioInput audio;
        std::string error;
        EXPECT_FALSE(ParseAudio(c.data, c.codec, &audio, &error));
        EXPECT_NE(error.find(c.reason), std::string::npos) << error;
    }
}

}  // namespace
