#include "lib/audio_input.h"

#include "lib/sim_io.h"

namespace {
constexpr size_t kG711FrameBytes = 320;  // 40 ms at 8000 samples/s
constexpr uint32_t kG711FrameUs = 40000;
constexpr uint32_t kAacSamplesPerFrame = 1024;
constexpr size_t kAdtsHeaderSize = 7;
constexpr uint32_t kAdtsRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                   22050, 16000, 12000, 11025, 8000,  7350};

bool ParseAdts(const std::vector<uint8_t> &data, AudioInput *out, std::string *error) {
    size_t at = 0;
    uint32_t rate = 0;
    while (at < data.size()) {
        if (at + kAdtsHeaderSize > data.size() || data[at] != 0xFF || (data[at + 1] & 0xF6) != 0xF0) {
            *error = "not an ADTS stream at byte " + std::to_string(at);
            return false;
        }
        uint32_t rateIndex = (data[at + 2] >> 2) & 0x0F;
        size_t length = (static_cast<size_t>(data[at + 3] & 0x03) << 11) |
                        (static_cast<size_t>(data[at + 4]) << 3) | (data[at + 5] >> 5);
        if (rateIndex >= sizeof kAdtsRates / sizeof kAdtsRates[0] || length < kAdtsHeaderSize ||
            at + length > data.size()) {
            *error = "broken ADTS frame at byte " + std::to_string(at);
            return false;
        }
        rate = kAdtsRates[rateIndex];
        out->frames.emplace_back(data.begin() + static_cast<long>(at),
                                 data.begin() + static_cast<long>(at + length));
        at += length;
    }
    out->frameDurationUs = static_cast<uint32_t>(uint64_t{kAacSamplesPerFrame} * 1000000 / rate);
    return true;
}
}  // namespace

bool ParseAudioCodec(const std::string &name, AudioCodec *codec) {
    if (name == "g711a")
        *codec = AudioCodec::G711A;
    else if (name == "g711u")
        *codec = AudioCodec::G711U;
    else if (name == "aac")
        *codec = AudioCodec::Aac;
    else
        return false;
    return true;
}

// The encoder's audio codec types: 0 G.711 u-law, 1 G.711 A-law, 3 AAC.
uint8_t AudioEncodingValue(AudioCodec codec) {
    switch (codec) {
        case AudioCodec::G711U:
            return 0;
        case AudioCodec::G711A:
            return 1;
        default:
            return 3;
    }
}

bool ParseAudio(const std::vector<uint8_t> &data, AudioCodec codec, AudioInput *out, std::string *error) {
    *out = AudioInput{codec, kG711FrameUs, {}};
    if (data.empty()) {
        *error = "empty audio input";
        return false;
    }
    if (codec == AudioCodec::Aac) return ParseAdts(data, out, error);
    for (size_t at = 0; at < data.size(); at += kG711FrameBytes) {
        size_t end = std::min(data.size(), at + kG711FrameBytes);
        out->frames.emplace_back(data.begin() + static_cast<long>(at), data.begin() + static_cast<long>(end));
    }
    return true;
}

bool LoadAudio(const std::string &path, AudioCodec codec, AudioInput *out, std::string *error) {
    std::vector<uint8_t> data;
    if (!ReadFileBytes(path, &data)) {
        *error = "cannot read " + path;
        return false;
    }
    if (!ParseAudio(data, codec, out, error)) {
        *error = path + ": " + *error;
        return false;
    }
    return true;
}
