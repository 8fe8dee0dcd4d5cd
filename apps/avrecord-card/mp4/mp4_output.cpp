#include "mp4_output.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "card_reader/adts_header.h"
#include "g711_to_aac.h"
#include "mp4_error.h"

namespace {

constexpr int kStreamBufferSize = 1 << 16;
constexpr char kFileFlags[] = "+faststart";
constexpr char kStreamFlags[] = "+frag_keyframe+empty_moov+delay_moov+default_base_moof";
constexpr AVRational kVideoTimeBase = {1, kMp4VideoClock};

// The write callback's buffer became const in later FFmpeg versions.
#if LIBAVFORMAT_VERSION_MAJOR >= 61
using AvioWriteBuffer = const uint8_t *;
#else
using AvioWriteBuffer = uint8_t *;
#endif

// Runs one packet through a bitstream filter; the filtered packet replaces
// it. Every filter here gives exactly one packet for one packet.
bool FilterPacket(AVBSFContext *filter, AVPacket *packet, int *error) {
    *error = av_bsf_send_packet(filter, packet);
    if (*error >= 0) *error = av_bsf_receive_packet(filter, packet);
    return *error >= 0;
}

AVPacket *PacketOf(const uint8_t *data, uint32_t length) {
    AVPacket *packet = av_packet_alloc();
    if (packet == nullptr) return nullptr;
    if (av_new_packet(packet, static_cast<int>(length)) < 0) {
        av_packet_free(&packet);
        return nullptr;
    }
    memcpy(packet->data, data, length);
    return packet;
}

// The parameter sets of a key frame, as the track's decoder configuration
// (Annex B; the muxer turns it into its own form).
bool ExtractParameterSets(AVCodecID codec, const uint8_t *key, uint32_t length, AVCodecParameters *par,
                          std::string *reason) {
    const AVBitStreamFilter *extract = av_bsf_get_by_name("extract_extradata");
    AVBSFContext *filter = nullptr;
    AVPacket *packet = PacketOf(key, length);
    int error = extract == nullptr || packet == nullptr ? AVERROR(ENOSYS) : av_bsf_alloc(extract, &filter);
    if (error >= 0) {
        filter->par_in->codec_id = codec;
        error = av_bsf_init(filter);
    }
    size_t size = 0;
    const uint8_t *sets = nullptr;
    if (error >= 0 && FilterPacket(filter, packet, &error))
        sets = av_packet_get_side_data(packet, AV_PKT_DATA_NEW_EXTRADATA, &size);
    bool found = sets != nullptr && size > 0;
    if (found) {
        par->extradata = static_cast<uint8_t *>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
        found = par->extradata != nullptr;
        if (found) {
            memcpy(par->extradata, sets, size);
            par->extradata_size = static_cast<int>(size);
        }
    }
    av_packet_free(&packet);
    av_bsf_free(&filter);
    if (!found) *reason = "the first key frame carries no parameter sets";
    return found;
}

}  // namespace

// ADTS headers off, decoder configuration out of band.
struct Mp4Output::AdtsFilter {
    AVBSFContext *filter = nullptr;
    ~AdtsFilter() { av_bsf_free(&filter); }
};

// FFmpeg's own messages stay quiet unless something fails.
Mp4Output::Mp4Output() { av_log_set_level(AV_LOG_ERROR); }

Mp4Output::~Mp4Output() {
    if (format_ == nullptr) return;
    if (ownsIo_) {
        avio_closep(&format_->pb);
    } else if (format_->pb != nullptr) {
        av_freep(&format_->pb->buffer);
        avio_context_free(&format_->pb);
    }
    avformat_free_context(format_);
}

bool Mp4Output::Fail(const char *what, int error) {
    error_ = std::string(what) + (error < 0 ? ": " + Mp4ErrorText(error) : "");
    return false;
}

bool Mp4Output::OpenFile(const std::string &path, const Mp4Tracks &tracks, std::string *reason) {
    path_ = path;
    if (avformat_alloc_output_context2(&format_, nullptr, "mp4", path.c_str()) < 0) {
        *reason = "this FFmpeg has no MP4 muxer";
        return false;
    }
    int error = avio_open(&format_->pb, path.c_str(), AVIO_FLAG_WRITE);
    if (error < 0) {
        *reason = "cannot create " + path + ": " + Mp4ErrorText(error);
        return false;
    }
    ownsIo_ = true;
    return Open(tracks, kFileFlags, reason);
}

bool Mp4Output::OpenStream(const Sink &sink, const Mp4Tracks &tracks, std::string *reason) {
    sink_ = sink;
    firstFragmentDue_ = true;
    if (avformat_alloc_output_context2(&format_, nullptr, "mp4", nullptr) < 0) {
        *reason = "this FFmpeg has no MP4 muxer";
        return false;
    }
    auto *buffer = static_cast<unsigned char *>(av_malloc(kStreamBufferSize));
    auto write = [](void *opaque, AvioWriteBuffer data, int length) -> int {
        auto *self = static_cast<Mp4Output *>(opaque);
        if (!self->sink_(data, static_cast<size_t>(length))) {
            self->sinkStopped_ = true;
            return AVERROR_EXIT;
        }
        self->bytes_ += static_cast<uint64_t>(length);
        return length;
    };
    format_->pb = buffer == nullptr
                      ? nullptr
                      : avio_alloc_context(buffer, kStreamBufferSize, 1, this, nullptr, write, nullptr);
    if (format_->pb == nullptr) {
        av_free(buffer);
        *reason = "out of memory";
        return false;
    }
    return Open(tracks, kStreamFlags, reason);
}

bool Mp4Output::Open(const Mp4Tracks &tracks, const char *movFlags, std::string *reason) {
    if (!AddVideo(tracks, reason) || !AddAudio(tracks, reason)) return false;
    AVDictionary *options = nullptr;
    av_dict_set(&options, "movflags", movFlags, 0);
    int error = avformat_write_header(format_, &options);
    av_dict_free(&options);
    if (error < 0) {
        *reason = "cannot start the MP4: " + Mp4ErrorText(error);
        return false;
    }
    headerWritten_ = true;
    return true;
}

bool Mp4Output::AddVideo(const Mp4Tracks &tracks, std::string *reason) {
    video_ = avformat_new_stream(format_, nullptr);
    if (video_ == nullptr) {
        *reason = "out of memory";
        return false;
    }
    AVCodecParameters *par = video_->codecpar;
    par->codec_type = AVMEDIA_TYPE_VIDEO;
    par->codec_id = tracks.h265 ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
    // "hvc1" rather than "hev1": the sample entry browsers and QuickTime-style players accept.
    if (tracks.h265) par->codec_tag = MKTAG('h', 'v', 'c', '1');
    par->width = static_cast<int>(tracks.width);
    par->height = static_cast<int>(tracks.height);
    video_->time_base = kVideoTimeBase;
    video_->avg_frame_rate = AVRational{static_cast<int>(tracks.frameRate), 1};
    return ExtractParameterSets(par->codec_id, tracks.keyFrame, tracks.keyFrameLength, par, reason);
}

bool Mp4Output::AddAudio(const Mp4Tracks &tracks, std::string *reason) {
    if (tracks.audio == Mp4AudioKind::kNone) return true;
    audio_ = avformat_new_stream(format_, nullptr);
    if (audio_ == nullptr) {
        *reason = "out of memory";
        return false;
    }
    if (tracks.audio != Mp4AudioKind::kAac) {
        encoder_ = std::make_unique<G711ToAac>();
        bool globalHeader = (format_->oformat->flags & AVFMT_GLOBALHEADER) != 0;
        if (!encoder_->Open(tracks.audio == Mp4AudioKind::kG711A, globalHeader, reason)) return false;
        audioRate_ = kG711SampleRate;
        audio_->time_base = AVRational{1, audioRate_};
        return avcodec_parameters_from_context(audio_->codecpar, encoder_->Encoder()) >= 0;
    }
    AdtsHeader header;
    if (!AdtsParse(tracks.audioFrame, tracks.audioFrameLength, &header) || header.channels == 0) {
        *reason = "the first AAC frame has no usable ADTS header";
        return false;
    }
    audioRate_ = static_cast<int>(header.sampleRate);
    audio_->time_base = AVRational{1, audioRate_};
    adts_ = std::make_unique<AdtsFilter>();
    const AVBitStreamFilter *strip = av_bsf_get_by_name("aac_adtstoasc");
    AVPacket *first = PacketOf(tracks.audioFrame, header.frameLength);
    int error = strip == nullptr || first == nullptr ? AVERROR(ENOSYS) : av_bsf_alloc(strip, &adts_->filter);
    if (error >= 0) {
        adts_->filter->par_in->codec_type = AVMEDIA_TYPE_AUDIO;
        adts_->filter->par_in->codec_id = AV_CODEC_ID_AAC;
        adts_->filter->par_in->sample_rate = audioRate_;
        av_channel_layout_default(&adts_->filter->par_in->ch_layout, static_cast<int>(header.channels));
        error = av_bsf_init(adts_->filter);
    }
    // The filter learns the decoder configuration from the first frame.
    if (error >= 0) FilterPacket(adts_->filter, first, &error);
    av_packet_free(&first);
    if (error >= 0) error = avcodec_parameters_copy(audio_->codecpar, adts_->filter->par_out);
    if (error < 0) {
        *reason = "cannot take the AAC audio: " + Mp4ErrorText(error);
        return false;
    }
    audio_->codecpar->frame_size = kAacSamplesPerFrame;
    // The filter hands its configuration on with the first packet, after a
    // fragmented MP4's header is out: the sample description gets it here.
    if (audio_->codecpar->extradata_size == 0) {
        uint8_t *config =
            static_cast<uint8_t *>(av_mallocz(kAudioSpecificConfigSize + AV_INPUT_BUFFER_PADDING_SIZE));
        if (config == nullptr) {
            *reason = "out of memory";
            return false;
        }
        AdtsAudioSpecificConfig(tracks.audioFrame, config);
        audio_->codecpar->extradata = config;
        audio_->codecpar->extradata_size = kAudioSpecificConfigSize;
    }
    return true;
}

bool Mp4Output::WritePacket(AVPacket *packet, AVStream *stream, int64_t pts, int64_t duration, bool key) {
    AVRational from = stream == video_ ? kVideoTimeBase : AVRational{1, audioRate_};
    packet->stream_index = stream->index;
    packet->pts = pts;
    packet->dts = pts;
    packet->duration = duration;
    if (key) packet->flags |= AV_PKT_FLAG_KEY;
    av_packet_rescale_ts(packet, from, stream->time_base);
    int error = av_interleaved_write_frame(format_, packet);
    if (error < 0) return Fail("writing the MP4", error);
    (stream == video_ ? videoStarted_ : audioStarted_) = true;
    if (firstFragmentDue_ && videoStarted_ && (audio_ == nullptr || audioStarted_))
        return FlushFirstFragment();
    return true;
}

// A stream's first fragment ends after the first sample of each track
// rather than at the next key frame, so the key frame a stream starts on
// reaches the viewer before the rest of its group is read and remuxed.
// Waiting for the audio's first sample keeps the header's edit lists whole.
// The muxer's first flush writes only the delayed header, the second the
// fragment.
bool Mp4Output::FlushFirstFragment() {
    firstFragmentDue_ = false;
    int error = av_interleaved_write_frame(format_, nullptr);
    for (int flush = 0; flush < 2 && error >= 0; ++flush) error = av_write_frame(format_, nullptr);
    if (error < 0) return Fail("writing the MP4", error);
    avio_flush(format_->pb);
    return true;
}

bool Mp4Output::WriteVideo(const uint8_t *data, uint32_t length, bool key, int64_t pts, int64_t duration) {
    AVPacket *packet = PacketOf(data, length);
    if (packet == nullptr) return Fail("out of memory", 0);
    bool written = WritePacket(packet, video_, pts, duration, key);
    av_packet_free(&packet);
    return written;
}

bool Mp4Output::WriteAacPacket(AVPacket *packet) {
    return WritePacket(packet, audio_, packet->pts, packet->duration, true);
}

bool Mp4Output::WriteAudio(const uint8_t *data, uint32_t length, int64_t at) {
    if (audio_ == nullptr) return true;
    if (encoder_ != nullptr) {
        auto emit = [this](AVPacket *packet) { return WriteAacPacket(packet); };
        int64_t gap = at - encoder_->Position();
        bool ok = (gap <= 0 || encoder_->PushSilence(gap, emit)) && encoder_->Push(data, length, emit);
        if (!ok && error_.empty()) error_ = encoder_->Error();
        return ok;
    }
    AdtsHeader header;
    if (!AdtsParse(data, length, &header)) return true;  // not an AAC frame: left out
    if (at > audioNext_) audioNext_ = at;
    AVPacket *packet = PacketOf(data, header.frameLength);
    int error = 0;
    if (packet == nullptr || !FilterPacket(adts_->filter, packet, &error)) {
        av_packet_free(&packet);
        return Fail("AAC frame", error);
    }
    bool written = WritePacket(packet, audio_, audioNext_, kAacSamplesPerFrame, true);
    audioNext_ += kAacSamplesPerFrame;
    av_packet_free(&packet);
    return written;
}

bool Mp4Output::Finish(std::string *reason) {
    bool ok = headerWritten_;
    if (ok && encoder_ != nullptr) {
        ok = encoder_->Flush([this](AVPacket *packet) { return WriteAacPacket(packet); });
        if (!ok && error_.empty()) error_ = encoder_->Error();
    }
    // A sink that asked to stop is not called again.
    int error = ok && !sinkStopped_ ? av_write_trailer(format_) : 0;
    if (error < 0) ok = Fail("finishing the MP4", error);
    if (ownsIo_) {
        // The index moved to the front on closing: the size is the file's.
        avio_closep(&format_->pb);
        struct stat st;
        if (stat(path_.c_str(), &st) == 0) bytes_ = static_cast<uint64_t>(st.st_size);
    } else if (format_->pb != nullptr) {
        avio_flush(format_->pb);
        av_freep(&format_->pb->buffer);
        avio_context_free(&format_->pb);
    }
    if (!ok) *reason = error_.empty() ? "the MP4 was not started" : error_;
    return ok;
}

uint64_t Mp4Output::BytesWritten() const {
    if (!ownsIo_ || format_ == nullptr || format_->pb == nullptr) return bytes_;
    int64_t at = avio_tell(format_->pb);
    return at > 0 ? static_cast<uint64_t>(at) : 0;
}
