// Audio inputs of the simulated encoder: raw G.711 (A-law or u-law, 8 kHz,
// cut into 40 ms frames) or AAC in ADTS frames.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class AudioCodec { G711A, G711U, Aac };

struct AudioInput {
    AudioCodec codec;                          // codec
    uint32_t frameDurationUs;                  // playing time of one frame
    std::vector<std::vector<uint8_t>> frames;  // frames in file order
};

// "g711a" | "g711u" | "aac"; false for anything else.
bool ParseAudioCodec(const std::string &name, AudioCodec *codec);

// The audio encoding value of SysInfo for a codec (0 G.711 A-law, 1 u-law, 3 AAC).
uint8_t AudioEncodingValue(AudioCodec codec);

// Cuts a buffer into frames. false with a reason when it is empty or, for
// AAC, not a sequence of ADTS frames.
bool ParseAudio(const std::vector<uint8_t> &data, AudioCodec codec, AudioInput *out, std::string *error);

bool LoadAudio(const std::string &path, AudioCodec codec, AudioInput *out, std::string *error);
