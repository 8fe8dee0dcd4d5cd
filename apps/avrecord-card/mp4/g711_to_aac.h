// G.711 (A-law or u-law, 8 kHz mono) to AAC for the MP4 clips: decoded with
// FFmpeg's G.711 decoder, converted to the encoder's sample format with
// libswresample and encoded with FFmpeg's AAC encoder in frames of its own
// size. Time stamps count samples from the first one pushed.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

struct AVAudioFifo;
struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct SwrContext;

inline constexpr int kG711SampleRate = 8000;

class G711ToAac {
public:
    // Receives every encoded packet (time stamps in samples).
    using Emit = std::function<bool(AVPacket *packet)>;

    G711ToAac() = default;
    ~G711ToAac();
    G711ToAac(const G711ToAac &) = delete;
    G711ToAac &operator=(const G711ToAac &) = delete;

    // globalHeader: the muxer wants the decoder configuration out of band.
    bool Open(bool alaw, bool globalHeader, std::string *reason);
    // The encoder, for the track's parameters.
    const AVCodecContext *Encoder() const { return encoder_; }

    // One recorded frame of G.711 bytes (one byte per sample).
    bool Push(const uint8_t *data, uint32_t length, const Emit &emit);
    // Silence of that many samples.
    bool PushSilence(int64_t samples, const Emit &emit);
    // Encodes what is left and drains the encoder.
    bool Flush(const Emit &emit);
    // Samples pushed so far (the position of the next one).
    int64_t Position() const { return position_; }
    const std::string &Error() const { return error_; }

private:
    bool Convert(const AVFrame *decoded, const Emit &emit);
    bool EncodeFull(bool last, const Emit &emit);
    bool Encode(AVFrame *frame, const Emit &emit);
    bool Fail(const char *what, int error);

    AVCodecContext *decoder_ = nullptr;
    AVCodecContext *encoder_ = nullptr;
    SwrContext *convert_ = nullptr;
    AVAudioFifo *fifo_ = nullptr;
    AVFrame *decoded_ = nullptr;
    AVPacket *packet_ = nullptr;
    int64_t position_ = 0;  // samples pushed
    int64_t encoded_ = 0;   // samples handed to the encoder
    std::string error_;
};
