#include "lib/annexb.h"

#include "lib/sim_io.h"

namespace {

constexpr uint8_t kStartCode[] = {0, 0, 0, 1};

// H.264 NAL unit types.
constexpr int kH264Slice = 1;
constexpr int kH264Idr = 5;
constexpr int kH264Sei = 6;
constexpr int kH264Sps = 7;
constexpr int kH264Pps = 8;
constexpr int kH264Aud = 9;
// H.265 NAL unit types.
constexpr int kH265VclLast = 31;
constexpr int kH265IrapFirst = 16;
constexpr int kH265IrapLast = 23;
constexpr int kH265Vps = 32;
constexpr int kH265Sps = 33;
constexpr int kH265Pps = 34;
constexpr int kH265Aud = 35;
constexpr int kH265PrefixSei = 39;
constexpr int kUeMaxZeros = 31;

int NalType(const uint8_t *nal, VideoCodec codec) {
    return codec == VideoCodec::H264 ? nal[0] & 0x1F : (nal[0] >> 1) & 0x3F;
}

bool IsVcl(int type, VideoCodec codec) {
    return codec == VideoCodec::H264 ? type >= kH264Slice && type <= kH264Idr : type <= kH265VclLast;
}

bool IsKeyPicture(int type, VideoCodec codec) {
    return codec == VideoCodec::H264 ? type == kH264Idr : type >= kH265IrapFirst && type <= kH265IrapLast;
}

bool IsParamSet(int type, VideoCodec codec) {
    return codec == VideoCodec::H264 ? type == kH264Sps || type == kH264Pps
                                     : type == kH265Vps || type == kH265Sps || type == kH265Pps;
}

bool IsSps(int type, VideoCodec codec) { return type == (codec == VideoCodec::H264 ? kH264Sps : kH265Sps); }

// A non-picture NAL unit that opens a new access unit after a picture.
bool OpensAccessUnit(int type, VideoCodec codec) {
    if (codec == VideoCodec::H264)
        return type == kH264Sei || type == kH264Sps || type == kH264Pps || type == kH264Aud;
    return type == kH265Vps || type == kH265Sps || type == kH265Pps || type == kH265Aud ||
           type == kH265PrefixSei;
}

// First slice of a picture: first_mb_in_slice == 0 (H.264) or
// first_slice_segment_in_pic_flag (H.265).
bool FirstSliceOfPicture(const uint8_t *nal, size_t size, VideoCodec codec) {
    size_t at = codec == VideoCodec::H264 ? 1 : 2;
    return size > at && (nal[at] & 0x80) != 0;
}

// Bit reader over RBSP (emulation-prevention bytes removed).
class BitReader {
public:
    BitReader(const uint8_t *nal, size_t size) {
        for (size_t i = 0; i < size; ++i) {
            if (i >= 2 && nal[i] == 3 && nal[i - 1] == 0 && nal[i - 2] == 0) continue;
            rbsp_.push_back(nal[i]);
        }
    }
    uint32_t Bits(int n) {
        uint32_t value = 0;
        for (int i = 0; i < n; ++i) value = (value << 1) | Bit();
        return value;
    }
    void Skip(int n) {
        for (int i = 0; i < n; ++i) Bit();
    }
    uint32_t Ue() {
        int zeros = 0;
        while (Bit() == 0 && zeros < kUeMaxZeros) ++zeros;
        if (zeros >= kUeMaxZeros) {
            overrun_ = true;  // no value fits: a broken or cut parameter set
            return 0;
        }
        return zeros == 0 ? 0 : ((1u << zeros) - 1) + Bits(zeros);
    }
    int32_t Se() {
        uint32_t k = Ue();
        return (k & 1) ? static_cast<int32_t>((k + 1) / 2) : -static_cast<int32_t>(k / 2);
    }
    bool Overrun() const { return overrun_; }

private:
    uint32_t Bit() {
        if (pos_ >= rbsp_.size() * 8) {
            overrun_ = true;
            return 0;
        }
        uint32_t bit = (rbsp_[pos_ / 8] >> (7 - pos_ % 8)) & 1;
        ++pos_;
        return bit;
    }
    std::vector<uint8_t> rbsp_;
    size_t pos_ = 0;
    bool overrun_ = false;
};

void SkipScalingList(BitReader &bits, int size) {
    int last = 8;
    int next = 8;
    for (int j = 0; j < size; ++j) {
        if (next != 0) next = (last + bits.Se() + 256) % 256;
        last = next == 0 ? last : next;
    }
}

bool H264SpsSize(BitReader &bits, uint16_t *width, uint16_t *height) {
    bits.Skip(8);  // NAL header
    uint32_t profile = bits.Bits(8);
    bits.Skip(16);  // constraint flags, level
    bits.Ue();      // seq_parameter_set_id
    uint32_t chroma = 1;
    static const uint32_t kHighProfiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    for (uint32_t p : kHighProfiles) {
        if (p != profile) continue;
        chroma = bits.Ue();
        if (chroma == 3) bits.Skip(1);
        bits.Ue();
        bits.Ue();
        bits.Skip(1);
        if (bits.Bits(1) != 0) {
            for (int i = 0; i < (chroma == 3 ? 12 : 8); ++i) {
                if (bits.Bits(1) != 0) SkipScalingList(bits, i < 6 ? 16 : 64);
            }
        }
    }
    bits.Ue();  // log2_max_frame_num_minus4
    uint32_t pocType = bits.Ue();
    if (pocType == 0) {
        bits.Ue();
    } else if (pocType == 1) {
        bits.Skip(1);
        bits.Se();
        bits.Se();
        uint32_t cycle = bits.Ue();
        for (uint32_t i = 0; i < cycle && !bits.Overrun(); ++i) bits.Se();
    }
    bits.Ue();     // max_num_ref_frames
    bits.Skip(1);  // gaps_in_frame_num_value_allowed_flag
    uint32_t widthMbs = bits.Ue() + 1;
    uint32_t heightMaps = bits.Ue() + 1;
    uint32_t frameMbsOnly = bits.Bits(1);
    if (frameMbsOnly == 0) bits.Skip(1);
    bits.Skip(1);  // direct_8x8_inference_flag
    uint32_t cropL = 0, cropR = 0, cropT = 0, cropB = 0;
    if (bits.Bits(1) != 0) {
        cropL = bits.Ue();
        cropR = bits.Ue();
        cropT = bits.Ue();
        cropB = bits.Ue();
    }
    uint32_t unitX = chroma == 1 || chroma == 2 ? 2 : 1;
    uint32_t unitY = (chroma == 1 ? 2 : 1) * (2 - frameMbsOnly);
    *width = static_cast<uint16_t>(widthMbs * 16 - unitX * (cropL + cropR));
    *height = static_cast<uint16_t>((2 - frameMbsOnly) * heightMaps * 16 - unitY * (cropT + cropB));
    return !bits.Overrun();
}

bool H265SpsSize(BitReader &bits, uint16_t *width, uint16_t *height) {
    bits.Skip(16);  // NAL header
    bits.Skip(4);   // sps_video_parameter_set_id
    uint32_t subLayers = bits.Bits(3);
    bits.Skip(1);
    bits.Skip(96);  // general profile, tier and level
    bool profilePresent[8] = {};
    bool levelPresent[8] = {};
    for (uint32_t i = 0; i < subLayers; ++i) {
        profilePresent[i] = bits.Bits(1) != 0;
        levelPresent[i] = bits.Bits(1) != 0;
    }
    if (subLayers > 0) bits.Skip(2 * (8 - static_cast<int>(subLayers)));
    for (uint32_t i = 0; i < subLayers; ++i) {
        if (profilePresent[i]) bits.Skip(88);
        if (levelPresent[i]) bits.Skip(8);
    }
    bits.Ue();  // sps_seq_parameter_set_id
    uint32_t chroma = bits.Ue();
    if (chroma == 3) bits.Skip(1);
    uint32_t w = bits.Ue();
    uint32_t h = bits.Ue();
    if (bits.Bits(1) != 0) {
        uint32_t subW = chroma == 1 || chroma == 2 ? 2 : 1;
        uint32_t subH = chroma == 1 ? 2 : 1;
        uint32_t l = bits.Ue(), r = bits.Ue(), t = bits.Ue(), b = bits.Ue();
        w -= subW * (l + r);
        h -= subH * (t + b);
    }
    *width = static_cast<uint16_t>(w);
    *height = static_cast<uint16_t>(h);
    return !bits.Overrun();
}

void Append(std::vector<uint8_t> &to, const uint8_t *nal, size_t size) {
    to.insert(to.end(), kStartCode, kStartCode + sizeof kStartCode);
    to.insert(to.end(), nal, nal + size);
}

// The access unit being collected.
struct Pending {
    std::vector<uint8_t> bytes;
    bool hasPicture = false;
    bool key = false;
    bool hasParamSets = false;
};

}  // namespace

std::vector<NalSpan> SplitNalUnits(const std::vector<uint8_t> &data) {
    std::vector<NalSpan> nals;
    size_t i = 0;
    while (i < data.size() && data[i] == 0) ++i;
    if (i < 2 || i >= data.size() || data[i] != 1) return nals;
    size_t begin = i + 1;
    for (size_t j = begin; j + 2 < data.size(); ++j) {
        if (data[j] != 0 || data[j + 1] != 0 || data[j + 2] != 1) continue;
        size_t end = j;
        while (end > begin && data[end - 1] == 0) --end;
        nals.push_back({begin, end});
        begin = j + 3;
        j = begin - 1;
    }
    size_t end = data.size();
    while (end > begin && data[end - 1] == 0) --end;
    nals.push_back({begin, end});
    return nals;
}

bool ParseSpsSize(const uint8_t *nal, size_t size, VideoCodec codec, uint16_t *width, uint16_t *height) {
    BitReader bits(nal, size);
    return codec == VideoCodec::H264 ? H264SpsSize(bits, width, height) : H265SpsSize(bits, width, height);
}

bool ParseAnnexB(const std::vector<uint8_t> &data, VideoCodec codec, VideoInput *out, std::string *error) {
    std::vector<NalSpan> nals = SplitNalUnits(data);
    if (nals.empty()) {
        *error = "not Annex-B (no start code at the beginning)";
        return false;
    }
    *out = VideoInput{codec, 0, 0, {}, {}};
    std::vector<uint8_t> paramSets;  // of the access unit being collected
    bool spsSeen = false;
    Pending au;
    auto flush = [&] {
        if (!au.hasPicture) return;
        if (au.key && !au.hasParamSets && !out->paramSets.empty()) {
            au.bytes.insert(au.bytes.begin(), out->paramSets.begin(), out->paramSets.end());
        }
        out->units.push_back({std::move(au.bytes), au.key});
        au = Pending{};
    };
    for (const NalSpan &span : nals) {
        const uint8_t *nal = data.data() + span.begin;
        size_t size = span.end - span.begin;
        if (size == 0) continue;
        int type = NalType(nal, codec);
        bool vcl = IsVcl(type, codec);
        if (au.hasPicture && ((vcl && FirstSliceOfPicture(nal, size, codec)) || OpensAccessUnit(type, codec)))
            flush();
        if (IsParamSet(type, codec)) {
            if (!au.hasParamSets) paramSets.clear();
            Append(paramSets, nal, size);
            au.hasParamSets = true;
            out->paramSets = paramSets;
        }
        if (IsSps(type, codec) && !spsSeen) {
            spsSeen = ParseSpsSize(nal, size, codec, &out->width, &out->height);
        }
        Append(au.bytes, nal, size);
        if (vcl) au.hasPicture = true;
        if (IsKeyPicture(type, codec)) au.key = true;
    }
    flush();
    if (!spsSeen) {
        *error = "no sequence parameter set";
        return false;
    }
    if (out->units.empty()) {
        *error = "no picture";
        return false;
    }
    return true;
}

bool LoadAnnexB(const std::string &path, VideoInput *out, std::string *error) {
    std::vector<uint8_t> data;
    if (!ReadFileBytes(path, &data)) {
        *error = "cannot read " + path;
        return false;
    }
    std::vector<NalSpan> nals = SplitNalUnits(data);
    if (nals.empty() || nals[0].end == nals[0].begin) {
        *error = path + " is not an Annex-B stream";
        return false;
    }
    // An H.265 NAL header has a zero forbidden bit, type in bits 1..6 and a
    // non-zero temporal id in its second byte; H.264 headers of the first
    // unit (SPS, AUD, SEI) have nal_ref_idc bits that H.265 types do not match.
    const uint8_t *first = data.data() + nals[0].begin;
    size_t firstSize = nals[0].end - nals[0].begin;
    int h265Type = (first[0] >> 1) & 0x3F;
    bool h265 =
        firstSize >= 2 && (first[0] & 0x81) == 0 && (first[1] & 0x07) != 0 &&
        (h265Type == kH265Vps || h265Type == kH265Aud || h265Type == kH265PrefixSei || h265Type == kH265Sps);
    if (!ParseAnnexB(data, h265 ? VideoCodec::H265 : VideoCodec::H264, out, error)) {
        *error = path + ": " + *error;
        return false;
    }
    return true;
}
