#include "g711_to_aac.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <vector>

#include "mp4_error.h"

namespace {

constexpr int64_t kAacBitRate = 32000;
constexpr int kSilenceChunk = 1024;

}  // namespace

G711ToAac::~G711ToAac() {
    avcodec_free_context(&decoder_);
    avcodec_free_context(&encoder_);
    swr_free(&convert_);
    if (fifo_ != nullptr) av_audio_fifo_free(fifo_);
    av_frame_free(&decoded_);
    av_packet_free(&packet_);
}

bool G711ToAac::Fail(const char *what, int error) {
    error_ = std::string(what) + (error < 0 ? ": " + Mp4ErrorText(error) : "");
    return false;
}

bool G711ToAac::Open(bool alaw, bool globalHeader, std::string *reason) {
    const AVCodec *decoder = avcodec_find_decoder(alaw ? AV_CODEC_ID_PCM_ALAW : AV_CODEC_ID_PCM_MULAW);
    const AVCodec *encoder = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (decoder == nullptr || encoder == nullptr) {
        *reason = "this FFmpeg has no G.711 decoder or AAC encoder";
        return false;
    }
    decoder_ = avcodec_alloc_context3(decoder);
    encoder_ = avcodec_alloc_context3(encoder);
    decoded_ = av_frame_alloc();
    packet_ = av_packet_alloc();
    if (decoder_ == nullptr || encoder_ == nullptr || decoded_ == nullptr || packet_ == nullptr) {
        *reason = "out of memory";
        return false;
    }
    AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
    decoder_->sample_rate = kG711SampleRate;
    av_channel_layout_copy(&decoder_->ch_layout, &mono);
    encoder_->sample_rate = kG711SampleRate;
    encoder_->sample_fmt = AV_SAMPLE_FMT_FLTP;
    encoder_->bit_rate = kAacBitRate;
    encoder_->time_base = AVRational{1, kG711SampleRate};
    av_channel_layout_copy(&encoder_->ch_layout, &mono);
    if (globalHeader) encoder_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    int error = avcodec_open2(decoder_, decoder, nullptr);
    if (error >= 0) error = avcodec_open2(encoder_, encoder, nullptr);
    if (error >= 0) {
        error = swr_alloc_set_opts2(&convert_, &encoder_->ch_layout, encoder_->sample_fmt, kG711SampleRate,
                                    &decoder_->ch_layout, AV_SAMPLE_FMT_S16, kG711SampleRate, 0, nullptr);
    }
    if (error >= 0) error = swr_init(convert_);
    if (error >= 0) {
        fifo_ = av_audio_fifo_alloc(encoder_->sample_fmt, 1, encoder_->frame_size);
        if (fifo_ == nullptr) error = AVERROR(ENOMEM);
    }
    if (error < 0) {
        *reason = "cannot set up the G.711 to AAC conversion: " + Mp4ErrorText(error);
        return false;
    }
    return true;
}

bool G711ToAac::Push(const uint8_t *data, uint32_t length, const Emit &emit) {
    if (av_new_packet(packet_, static_cast<int>(length)) < 0) return Fail("out of memory", 0);
    std::copy(data, data + length, packet_->data);
    int error = avcodec_send_packet(decoder_, packet_);
    av_packet_unref(packet_);
    if (error < 0) return Fail("G.711 decoder", error);
    while ((error = avcodec_receive_frame(decoder_, decoded_)) >= 0) {
        bool converted = Convert(decoded_, emit);
        av_frame_unref(decoded_);
        if (!converted) return false;
    }
    return error == AVERROR(EAGAIN) || Fail("G.711 decoder", error);
}

// Converts decoded samples into the FIFO and encodes every full frame.
bool G711ToAac::Convert(const AVFrame *decoded, const Emit &emit) {
    int room = swr_get_out_samples(convert_, decoded->nb_samples);
    std::vector<float> out(static_cast<size_t>(room > 0 ? room : 0));
    uint8_t *planes[1] = {reinterpret_cast<uint8_t *>(out.data())};
    int got = swr_convert(convert_, planes, room, const_cast<const uint8_t **>(decoded->extended_data),
                          decoded->nb_samples);
    if (got < 0) return Fail("sample conversion", got);
    if (av_audio_fifo_write(fifo_, reinterpret_cast<void **>(planes), got) < got)
        return Fail("out of memory", 0);
    position_ += got;
    return EncodeFull(false, emit);
}

bool G711ToAac::PushSilence(int64_t samples, const Emit &emit) {
    std::vector<float> zeros(kSilenceChunk, 0.0f);
    void *planes[1] = {zeros.data()};
    while (samples > 0) {
        int n = static_cast<int>(std::min<int64_t>(samples, kSilenceChunk));
        if (av_audio_fifo_write(fifo_, planes, n) < n) return Fail("out of memory", 0);
        position_ += n;
        samples -= n;
        if (!EncodeFull(false, emit)) return false;
    }
    return true;
}

// Encodes frames of the encoder's size while the FIFO holds one (at the
// end: also the last, shorter one).
bool G711ToAac::EncodeFull(bool last, const Emit &emit) {
    const int frameSize = encoder_->frame_size;
    while (av_audio_fifo_size(fifo_) >= frameSize || (last && av_audio_fifo_size(fifo_) > 0)) {
        AVFrame *frame = av_frame_alloc();
        if (frame == nullptr) return Fail("out of memory", 0);
        frame->nb_samples = std::min(frameSize, av_audio_fifo_size(fifo_));
        frame->format = encoder_->sample_fmt;
        frame->sample_rate = encoder_->sample_rate;
        av_channel_layout_copy(&frame->ch_layout, &encoder_->ch_layout);
        int error = av_frame_get_buffer(frame, 0);
        if (error >= 0 && av_audio_fifo_read(fifo_, reinterpret_cast<void **>(frame->data),
                                             frame->nb_samples) < frame->nb_samples)
            error = AVERROR(EIO);
        frame->pts = encoded_;
        encoded_ += frame->nb_samples;
        bool ok = error >= 0 ? Encode(frame, emit) : Fail("audio buffer", error);
        av_frame_free(&frame);
        if (!ok) return false;
    }
    return true;
}

bool G711ToAac::Encode(AVFrame *frame, const Emit &emit) {
    int error = avcodec_send_frame(encoder_, frame);
    if (error < 0) return Fail("AAC encoder", error);
    while ((error = avcodec_receive_packet(encoder_, packet_)) >= 0) {
        bool emitted = emit(packet_);
        av_packet_unref(packet_);
        if (!emitted) return false;
    }
    return error == AVERROR(EAGAIN) || error == AVERROR_EOF || Fail("AAC encoder", error);
}

bool G711ToAac::Flush(const Emit &emit) { return EncodeFull(true, emit) && Encode(nullptr, emit); }
