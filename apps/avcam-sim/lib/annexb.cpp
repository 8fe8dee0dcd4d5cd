#include "lib/annexb.h"

#include "common/nal_unit.h"
#include "lib/sim_io.h"

namespace {

constexpr size_t kShortStartCode = 3;

int NalType(const uint8_t *nal, VideoCodec codec) {
    return codec == VideoCodec::kH264 ? H264NalType(nal[0]) : H265NalType(nal[0]);
}

bool IsVcl(int type, VideoCodec codec) {
    return codec == VideoCodec::kH264 ? type >= kH264NalSlice && type <= kH264NalIdr
                                      : type <= kH265NalVclLast;
}

bool IsKeyPicture(int type, VideoCodec codec) {
    return codec == VideoCodec::kH264 ? type == kH264NalIdr
                                      : type >= kH265NalIrapFirst && type <= kH265NalIrapLast;
}

bool IsParamSet(int type, VideoCodec codec) {
    return codec == VideoCodec::kH264 ? type == kH264NalSps || type == kH264NalPps
                                      : type == kH265NalVps || type == kH265NalSps || type == kH265NalPps;
}

// Zero bytes, then 00 00 01: the buffer begins with a start code.
bool BeginsWithStartCode(const std::vector<uint8_t> &data) {
    size_t i = 0;
    while (i < data.size() && data[i] == 0) ++i;
    return i >= 2 && i < data.size() && data[i] == 1;
}

// One access unit [begin, end) of data, normalised.
struct UnitView {
    std::vector<uint8_t> bytes;      // four-byte start codes
    std::vector<uint8_t> paramSets;  // its parameter sets, normalised
    bool picture = false;            // has a slice
    bool key = false;                // has a key picture
};

UnitView ViewUnit(const uint8_t *data, size_t begin, size_t end, VideoCodec codec) {
    UnitView unit;
    for (size_t at = AnnexBNextStartCode(data, end, begin); at < end;) {
        size_t next = AnnexBNextStartCode(data, end, at + kShortStartCode);
        size_t nal = at + (data[at + 2] == 1 ? 3 : 4);
        size_t nalEnd = next;
        while (nalEnd > nal && data[nalEnd - 1] == 0) --nalEnd;
        at = next;
        if (nalEnd == nal) continue;
        int type = NalType(data + nal, codec);
        std::vector<uint8_t> &to = IsParamSet(type, codec) ? unit.paramSets : unit.bytes;
        to.insert(to.end(), kNalStartCode, kNalStartCode + sizeof kNalStartCode);
        to.insert(to.end(), data + nal, data + nalEnd);
        unit.picture = unit.picture || IsVcl(type, codec);
        unit.key = unit.key || IsKeyPicture(type, codec);
    }
    return unit;
}

}  // namespace

bool ParseAnnexB(const std::vector<uint8_t> &data, VideoCodec codec, VideoInput *out, std::string *error) {
    if (!BeginsWithStartCode(data)) {
        *error = "not an Annex-B stream (no start code at the beginning)";
        return false;
    }
    *out = VideoInput{codec, 0, 0, {}, {}};
    bool sized = false;
    const uint8_t *bytes = data.data();
    for (size_t at = AnnexBNextStartCode(bytes, data.size(), 0); at < data.size();) {
        size_t end = AnnexBAccessUnitEnd(bytes, data.size(), at, codec);
        UnitView unit = ViewUnit(bytes, at, end, codec);
        if (!sized) {
            PictureSize size{};
            sized = AnnexBPictureSize(bytes + at, end - at, codec, &size) == 0;
            out->width = static_cast<uint16_t>(size.width);
            out->height = static_cast<uint16_t>(size.height);
        }
        at = end;
        // Parameter sets lead the unit they came with; a key picture that came
        // without any gets the last ones seen.
        if (!unit.paramSets.empty()) out->paramSets = unit.paramSets;
        if (!unit.picture) continue;
        std::vector<uint8_t> head = unit.paramSets.empty() && unit.key ? out->paramSets : unit.paramSets;
        unit.bytes.insert(unit.bytes.begin(), head.begin(), head.end());
        out->units.push_back({std::move(unit.bytes), unit.key});
    }
    if (!sized) {
        *error = "no readable sequence parameter set";
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
    size_t first = AnnexBNextStartCode(data.data(), data.size(), 0);
    if (!BeginsWithStartCode(data) || first + 5 >= data.size()) {
        *error = path + " is not an Annex-B stream";
        return false;
    }
    // An H.265 NAL header has a zero forbidden bit, its type in bits 1..6 and
    // a non-zero temporal id in the second byte; the units an H.264 stream
    // begins with (SPS, AUD, SEI) do not read that way.
    const uint8_t *nal = data.data() + first + (data[first + 2] == 1 ? 3 : 4);
    int h265Type = H265NalType(nal[0]);
    bool h265 = (nal[0] & 0x81) == 0 && (nal[1] & 0x07) != 0 &&
                (h265Type == kH265NalVps || h265Type == kH265NalAud || h265Type == kH265NalPrefixSei ||
                 h265Type == kH265NalSps);
    if (!ParseAnnexB(data, h265 ? VideoCodec::kH265 : VideoCodec::kH264, out, error)) {
        *error = path + ": " + *error;
        return false;
    }
    return true;
}
