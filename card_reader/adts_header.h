// The fixed part of an ADTS header, which leads every AAC frame the encoder
// hands over: frame length, sample rate and channels.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

inline constexpr uint32_t kAdtsHeaderSize = 7;
inline constexpr uint32_t kAacSamplesPerFrame = 1024;
inline constexpr uint32_t kAdtsRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                          22050, 16000, 12000, 11025, 8000,  7350};

struct AdtsHeader {
    uint32_t frameLength;  // header included
    uint32_t sampleRate;   // samples per second
    uint32_t channels;     // channel configuration (0: given in the stream)
};

// Decodes the header at the start of size bytes; false when there is no
// syncword, the rate index is reserved or the frame would not fit.
inline bool AdtsParse(const uint8_t *h, size_t size, AdtsHeader *header) {
    if (size < kAdtsHeaderSize || h[0] != 0xFF || (h[1] & 0xF0) != 0xF0) return false;
    uint32_t length = ((h[3] & 0x03u) << 11) | (h[4] << 3) | (h[5] >> 5);
    uint32_t rateIndex = (h[2] >> 2) & 0x0F;
    if (length < kAdtsHeaderSize || length > size || rateIndex >= std::size(kAdtsRates)) return false;
    header->frameLength = length;
    header->sampleRate = kAdtsRates[rateIndex];
    header->channels = ((h[2] & 0x01u) << 2) | (h[3] >> 6);
    return true;
}

// The two-byte AudioSpecificConfig an MP4 sample description carries for
// the stream whose ADTS header is h (at least kAdtsHeaderSize bytes): object
// type (the header's profile + 1), sample rate index, channel configuration.
inline constexpr uint32_t kAudioSpecificConfigSize = 2;
inline void AdtsAudioSpecificConfig(const uint8_t *h, uint8_t config[kAudioSpecificConfigSize]) {
    uint8_t objectType = static_cast<uint8_t>((h[2] >> 6) + 1);
    uint8_t rateIndex = (h[2] >> 2) & 0x0F;
    uint8_t channels = static_cast<uint8_t>(((h[2] & 0x01u) << 2) | (h[3] >> 6));
    config[0] = static_cast<uint8_t>((objectType << 3) | (rateIndex >> 1));
    config[1] = static_cast<uint8_t>(((rateIndex & 0x01u) << 7) | (channels << 3));
}
