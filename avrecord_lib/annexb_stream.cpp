#include "avrecord_lib/annexb_stream.h"

#include <cstring>

#include "common/nal_unit.h"

namespace {

constexpr size_t kStartCodeShort = 3;
constexpr size_t kMaxSpsBytes = 512;  // more than any parameter set we read needs

// Header bytes of a NAL unit behind a start code ending at `at`.
struct NalView {
    int type;         // nal_unit_type
    bool vcl;         // carries a slice
    bool firstSlice;  // the slice starts a picture
    bool startsUnit;  // a non-slice unit that opens an access unit
};

NalView ViewNal(const uint8_t *data, size_t size, size_t at, VideoCodec codec) {
    NalView nal{-1, false, false, false};
    size_t headerSize = codec == VideoCodec::kH264 ? 1 : 2;
    if (at + headerSize >= size) return nal;
    if (codec == VideoCodec::kH264) {
        nal.type = H264NalType(data[at]);
        nal.vcl = nal.type >= kH264NalSlice && nal.type <= kH264NalIdr;
        nal.startsUnit = (nal.type >= kH264NalSei && nal.type <= kH264NalAud) ||
                         (nal.type >= kH264NalPrefixFirst && nal.type <= kH264NalPrefixLast);
    } else {
        nal.type = H265NalType(data[at]);
        nal.vcl = nal.type <= kH265NalVclLast;
        nal.startsUnit = (nal.type >= kH265NalVps && nal.type <= kH265NalAud) ||
                         nal.type == kH265NalPrefixSei ||
                         (nal.type >= kH265NalReservedFirst && nal.type <= kH265NalReservedLast) ||
                         (nal.type >= kH265NalUnspecFirst && nal.type <= kH265NalUnspecLast);
    }
    // first_mb_in_slice == 0 / first_slice_segment_in_pic_flag: top bit set.
    nal.firstSlice = nal.vcl && (data[at + headerSize] & 0x80) != 0;
    return nal;
}

// Start code at `start`: where its NAL header begins.
size_t NalHeaderAt(const uint8_t *data, size_t start) { return start + (data[start + 2] == 0x01 ? 3 : 4); }

// Reads bits from an RBSP (emulation prevention removed).
class BitReader {
public:
    BitReader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    uint32_t Bits(int n) {
        uint32_t value = 0;
        for (int i = 0; i < n; ++i) value = (value << 1) | Bit();
        return value;
    }
    uint32_t Ue() {
        int zeros = 0;
        while (Bit() == 0 && zeros < 32) ++zeros;
        if (zeros >= 32) {
            failed_ = true;
            return 0;
        }
        return (uint32_t{1} << zeros) - 1 + Bits(zeros);
    }
    int32_t Se() {
        uint32_t v = Ue();
        return (v & 1) ? static_cast<int32_t>((v + 1) / 2) : -static_cast<int32_t>(v / 2);
    }
    void Skip(int n) {
        for (int i = 0; i < n; ++i) Bit();
    }
    bool failed() const { return failed_; }

private:
    uint32_t Bit() {
        if (pos_ >= size_ * 8) {
            failed_ = true;
            return 0;
        }
        uint32_t bit = (data_[pos_ / 8] >> (7 - pos_ % 8)) & 1;
        ++pos_;
        return bit;
    }
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
    bool failed_ = false;
};

// Copies the NAL payload behind its header without emulation prevention bytes.
size_t Unescape(const uint8_t *nal, size_t size, uint8_t *out, size_t capacity) {
    size_t n = 0;
    int zeros = 0;
    for (size_t i = 0; i < size && n < capacity; ++i) {
        if (zeros >= 2 && nal[i] == 0x03) {
            zeros = 0;
            continue;
        }
        zeros = nal[i] == 0 ? zeros + 1 : 0;
        out[n++] = nal[i];
    }
    return n;
}

void SkipScalingList(BitReader &bits, int size) {
    int last = 8, next = 8;
    for (int j = 0; j < size && next != 0; ++j) {
        next = (last + bits.Se() + 256) % 256;
        last = next == 0 ? last : next;
    }
}

bool HasChromaFormat(uint32_t profile) {
    static const uint32_t kProfiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    for (uint32_t p : kProfiles) {
        if (p == profile) return true;
    }
    return false;
}

int AvcSpsSize(BitReader &bits, PictureSize *picture) {
    uint32_t profile = bits.Bits(8);
    bits.Skip(16);  // constraint flags, level
    bits.Ue();      // seq_parameter_set_id
    uint32_t chroma = 1;
    if (HasChromaFormat(profile)) {
        chroma = bits.Ue();
        if (chroma == 3) bits.Skip(1);
        bits.Ue();  // bit depths
        bits.Ue();
        bits.Skip(1);
        if (bits.Bits(1)) {
            for (int i = 0; i < (chroma == 3 ? 12 : 8); ++i) {
                if (bits.Bits(1)) SkipScalingList(bits, i < 6 ? 16 : 64);
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
        for (uint32_t i = 0; i < cycle && !bits.failed(); ++i) bits.Se();
    }
    bits.Ue();  // max_num_ref_frames
    bits.Skip(1);
    uint32_t widthMbs = bits.Ue() + 1;
    uint32_t heightUnits = bits.Ue() + 1;
    uint32_t frameMbsOnly = bits.Bits(1);
    if (!frameMbsOnly) bits.Skip(1);
    bits.Skip(1);  // direct_8x8_inference_flag
    uint32_t crop[4] = {0, 0, 0, 0};
    if (bits.Bits(1)) {
        for (uint32_t &c : crop) c = bits.Ue();
    }
    if (bits.failed()) return -1;
    uint32_t cropX = (chroma == 1 || chroma == 2) ? 2 : 1;
    uint32_t cropY = (chroma == 1 ? 2 : 1) * (2 - frameMbsOnly);
    picture->width = widthMbs * 16 - cropX * (crop[0] + crop[1]);
    picture->height = (2 - frameMbsOnly) * heightUnits * 16 - cropY * (crop[2] + crop[3]);
    return 0;
}

int HevcSpsSize(BitReader &bits, PictureSize *picture) {
    bits.Skip(4);  // sps_video_parameter_set_id
    uint32_t subLayers = bits.Bits(3);
    bits.Skip(1);
    bits.Skip(96);  // general profile, tier and level
    bool profilePresent[8] = {}, levelPresent[8] = {};
    for (uint32_t i = 0; i < subLayers; ++i) {
        profilePresent[i] = bits.Bits(1);
        levelPresent[i] = bits.Bits(1);
    }
    if (subLayers > 0) bits.Skip(2 * (8 - subLayers));
    for (uint32_t i = 0; i < subLayers; ++i) {
        if (profilePresent[i]) bits.Skip(88);
        if (levelPresent[i]) bits.Skip(8);
    }
    bits.Ue();  // sps_seq_parameter_set_id
    uint32_t chroma = bits.Ue();
    if (chroma == 3) bits.Skip(1);
    uint32_t width = bits.Ue();
    uint32_t height = bits.Ue();
    uint32_t crop[4] = {0, 0, 0, 0};
    if (bits.Bits(1)) {
        for (uint32_t &c : crop) c = bits.Ue();
    }
    if (bits.failed()) return -1;
    uint32_t cropX = (chroma == 1 || chroma == 2) ? 2 : 1;
    uint32_t cropY = chroma == 1 ? 2 : 1;
    picture->width = width - cropX * (crop[0] + crop[1]);
    picture->height = height - cropY * (crop[2] + crop[3]);
    return 0;
}

}  // namespace

size_t AnnexBNextStartCode(const uint8_t *data, size_t size, size_t from) {
    constexpr uint64_t kOnes = 0x0101010101010101;
    constexpr uint64_t kHighBits = 0x8080808080808080;
    size_t pos = from;
    while (pos + kStartCodeShort <= size) {
        // Eight bytes without a zero byte hold no start of a start code.
        uint64_t word;
        if (pos + sizeof word <= size) {
            memcpy(&word, data + pos, sizeof word);
            if (((word - kOnes) & ~word & kHighBits) == 0) {
                pos += sizeof word;
                continue;
            }
        }
        if (data[pos] == 0x00 && data[pos + 1] == 0x00 && data[pos + 2] == 0x01) {
            return pos > from && data[pos - 1] == 0x00 ? pos - 1 : pos;
        }
        ++pos;
    }
    return size;
}

size_t AnnexBAccessUnitEnd(const uint8_t *data, size_t size, size_t start, VideoCodec codec) {
    bool seenVcl = false;
    for (size_t at = start; at < size; at = AnnexBNextStartCode(data, size, at + kStartCodeShort)) {
        NalView nal = ViewNal(data, size, NalHeaderAt(data, at), codec);
        if (seenVcl && (nal.startsUnit || nal.firstSlice)) return at;
        seenVcl = seenVcl || nal.vcl;
    }
    return size;
}

int AnnexBPictureSize(const uint8_t *data, size_t size, VideoCodec codec, PictureSize *picture) {
    int spsType = codec == VideoCodec::kH264 ? kH264NalSps : kH265NalSps;
    size_t headerSize = codec == VideoCodec::kH264 ? 1 : 2;
    for (size_t at = AnnexBNextStartCode(data, size, 0); at < size;) {
        size_t next = AnnexBNextStartCode(data, size, at + kStartCodeShort);
        size_t header = NalHeaderAt(data, at);
        if (ViewNal(data, size, header, codec).type == spsType && header + headerSize < next) {
            uint8_t rbsp[kMaxSpsBytes];
            size_t n = Unescape(data + header + headerSize, next - header - headerSize, rbsp, sizeof rbsp);
            BitReader bits(rbsp, n);
            return codec == VideoCodec::kH264 ? AvcSpsSize(bits, picture) : HevcSpsSize(bits, picture);
        }
        at = next;
    }
    return -1;
}
