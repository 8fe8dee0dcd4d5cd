#include "replay/sdp_builder.h"

#include <iterator>

#include "avrecord_lib/ps_packetizer.h"
#include "card_reader/adts_header.h"
#include "replay/base64.h"
#include "replay/rtsp_range.h"

namespace {

constexpr uint8_t kPcmuPayloadType = 0;
constexpr uint8_t kPcmaPayloadType = 8;
constexpr uint32_t kG711StaticRate = 8000;
constexpr uint32_t kAacLowComplexity = 2;
constexpr size_t kProfileLevelBytes = 3;  // profile_idc, constraint flags, level_idc behind the SPS header

std::string Base64(const std::vector<uint8_t> &bytes) { return Base64Encode(bytes.data(), bytes.size()); }

void AppendHexByte(std::string *hex, uint8_t byte) {
    static constexpr char kHexDigits[] = "0123456789ABCDEF";
    *hex += kHexDigits[byte >> 4];
    *hex += kHexDigits[byte & 0x0F];
}

// The stream's AudioSpecificConfig in hex; AAC-LC of the rate and channels when the source gave none.
std::string AacConfig(const std::vector<uint8_t> &given, uint32_t rate, uint32_t channels) {
    std::string hex;
    for (uint8_t byte : given) AppendHexByte(&hex, byte);
    if (!hex.empty()) return hex;
    uint32_t index = 0;
    while (index < std::size(kAdtsRates) && kAdtsRates[index] != rate) ++index;
    if (index == std::size(kAdtsRates)) index = 3;  // an unknown rate is announced as 48 kHz
    uint32_t config = kAacLowComplexity << 11 | index << 7 | (channels & 0x0F) << 3;
    AppendHexByte(&hex, static_cast<uint8_t>(config >> 8));
    AppendHexByte(&hex, static_cast<uint8_t>(config & 0xFF));
    return hex;
}

std::string VideoLines(const ReplayTracks &tracks) {
    std::string sdp = "m=video 0 RTP/AVP 96\r\n";
    if (tracks.iVideoCodec == kVideoCodecH265) {
        sdp += "a=rtpmap:96 H265/90000\r\na=fmtp:96";
        if (!tracks.vps.empty()) sdp += " sprop-vps=" + Base64(tracks.vps) + ";";
        if (!tracks.sps.empty()) sdp += " sprop-sps=" + Base64(tracks.sps) + ";";
        if (!tracks.pps.empty()) sdp += " sprop-pps=" + Base64(tracks.pps) + ";";
        if (sdp.back() == ';') sdp.pop_back();
    } else {
        sdp += "a=rtpmap:96 H264/90000\r\na=fmtp:96 packetization-mode=1";
        if (tracks.sps.size() > kProfileLevelBytes) {
            sdp += "; profile-level-id=";
            for (size_t i = 1; i <= kProfileLevelBytes; ++i) AppendHexByte(&sdp, tracks.sps[i]);
        }
        if (!tracks.sps.empty() && !tracks.pps.empty())
            sdp += "; sprop-parameter-sets=" + Base64(tracks.sps) + "," + Base64(tracks.pps);
    }
    sdp += "\r\na=control:";
    sdp += kSdpVideoControl;
    return sdp + "\r\n";
}

std::string AudioLines(const ReplayTracks &tracks, const SdpTrack &track) {
    std::string type = std::to_string(track.u8PayloadType);
    std::string sdp = "m=audio 0 RTP/AVP " + type + "\r\n";
    std::string rate = std::to_string(track.u32ClockRate);
    std::string channels;
    if (tracks.u32AudioChannels > 1)
        channels = std::string("/").append(std::to_string(tracks.u32AudioChannels));
    if (track.payload == RtpPayload::kAac) {
        sdp += "a=rtpmap:" + type + " MPEG4-GENERIC/" + rate + channels + "\r\n";
        sdp += "a=fmtp:" + type +
               " streamtype=5; profile-level-id=1; mode=AAC-hbr; sizelength=13;"
               " indexlength=3; indexdeltalength=3; config=" +
               AacConfig(tracks.audioConfig, track.u32ClockRate, tracks.u32AudioChannels) + "\r\n";
    } else {
        const char *name = tracks.iAudioCodec == kAudioCodecG711A ? "PCMA" : "PCMU";
        sdp += "a=rtpmap:" + type + " " + name + "/" + rate + channels + "\r\n";
    }
    return sdp + "a=control:" + kSdpAudioControl + "\r\n";
}

}  // namespace

SdpTrack SdpVideoTrack(const ReplayTracks &tracks) {
    RtpPayload payload = tracks.iVideoCodec == kVideoCodecH265 ? RtpPayload::kH265 : RtpPayload::kH264;
    return SdpTrack{payload, kSdpVideoPayloadType, kVideoClockRate};
}

bool SdpAudioTrack(const ReplayTracks &tracks, SdpTrack *track) {
    if (!tracks.bHasAudio) return false;
    uint32_t rate = tracks.u32AudioRate != 0 ? tracks.u32AudioRate : kG711StaticRate;
    bool staticRate = rate == kG711StaticRate && tracks.u32AudioChannels <= 1;
    switch (tracks.iAudioCodec) {
        case kAudioCodecG711U:
            *track = {RtpPayload::kG711, staticRate ? kPcmuPayloadType : kSdpAudioDynamicType, rate};
            return true;
        case kAudioCodecG711A:
            *track = {RtpPayload::kG711, staticRate ? kPcmaPayloadType : kSdpAudioDynamicType, rate};
            return true;
        case kAudioCodecAac:
            *track = {RtpPayload::kAac, kSdpAudioDynamicType, rate};
            return true;
        default:
            return false;
    }
}

std::string SdpDescribe(const ReplayTracks &tracks, const std::string &serverAddress, uint64_t rangeFromUs,
                        uint64_t rangeToUs) {
    std::string sdp = "v=0\r\no=- 1 1 IN IP4 " + serverAddress + "\r\ns=AVRecord replay\r\n";
    sdp += "c=IN IP4 0.0.0.0\r\nt=0 0\r\na=control:*\r\n";
    sdp += "a=range:clock=" + RtspFormatClockTime(rangeFromUs) + "-";
    if (rangeToUs != 0) sdp += RtspFormatClockTime(rangeToUs);
    sdp += "\r\n" + VideoLines(tracks);
    SdpTrack audio;
    if (SdpAudioTrack(tracks, &audio)) sdp += AudioLines(tracks, audio);
    return sdp;
}
