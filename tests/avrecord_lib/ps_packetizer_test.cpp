#include "avrecord_lib/ps_packetizer.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/es_frames.h"

namespace {

Bytes Slice(const uint8_t *at, size_t n) { return Bytes(at, at + n); }

PSStreamParam Params(uint16_t videoCodec, uint16_t audioCodec) {
    return PSStreamParam{videoCodec, audioCodec, 1920, 1080, 0x1234, 0x5678, 8000, 33000};
}

struct Pes {
    size_t at;
    uint8_t streamId;
    size_t payload;
    uint64_t pts;
};

// Walks the PES packets from `at` to the end of `ps`.
std::vector<Pes> WalkPes(const Bytes &ps, size_t at) {
    std::vector<Pes> packets;
    while (at + kPesHeaderSize <= ps.size()) {
        EXPECT_EQ(Slice(&ps[at], 3), (Bytes{0, 0, 1}));
        size_t length = (ps[at + 4] << 8) | ps[at + 5];
        packets.push_back({at, ps[at + 3], length - kPesLengthExtra, PSDecodePts(&ps[at + 9])});
        at += kPesHeaderSize + length - kPesLengthExtra;
    }
    EXPECT_EQ(at, ps.size());
    return packets;
}

TEST(PsTimeStamp, SinglePrecisionProductOfFixedRate) {
    struct Case {
        uint32_t n;
        uint64_t value;
    } cases[] = {
        {0, 0},
        {1, 3600},
        {74565, 268434000},  // last exact value
        {74567, 268441216},  // rounded to single precision (exact: 268441200)
        {100001, 360003584},
    };
    for (const Case &c : cases) EXPECT_EQ(PSTimeStamp(c.n, kPsTimeStampRate), c.value) << c.n;
}

TEST(PsHeaders, PackHeaderForFirstFrame) {
    uint8_t out[kPackHeaderSize];
    ASSERT_EQ(makePackHeader(out, 1, 0, kPsTimeStampRate, 0x5F5E1000), kPackHeaderSize);
    // SCR 3600; mux rate 10240; stuffing length 4 carrying the time little-endian.
    EXPECT_EQ(Slice(out, 18), (Bytes{0x00, 0x00, 0x01, 0xBA, 0x44, 0x00, 0x04, 0x70, 0x84, 0x01, 0x00, 0xA0,
                                     0x03, 0xFC, 0x00, 0x10, 0x5E, 0x5F}));
    // n = 2^20: 3600 * 2^20 = 0xE1000000 (bit 31 set, bits 32..30 = 011).
    makePackHeader(out, 1u << 20, 0, kPsTimeStampRate, 0);
    EXPECT_EQ(Slice(out + 4, 6), (Bytes{0x5E, 0x10, 0x04, 0x00, 0x04, 0x01}));
}

TEST(PsHeaders, PesHeaderForFirstFrame) {
    uint8_t out[kPesHeaderSize];
    ASSERT_EQ(makePesHeader(out, 1, kPesStreamVideo, kPsTimeStampRate, 1000), kPesHeaderSize);
    EXPECT_EQ(Slice(out, 14),
              (Bytes{0x00, 0x00, 0x01, 0xE0, 0x03, 0xF0, 0x80, 0x80, 0x05, 0x21, 0x00, 0x01, 0x1C, 0x21}));
    EXPECT_EQ(PSDecodePts(out + 9), 3600u);

    makePesHeader(out, 7, kPesStreamAudio, kPsTimeStampRate, 0);
    EXPECT_EQ(out[3], 0xC0);
    EXPECT_EQ(out[4], 0x00);  // empty payload: length 0, not 8
    EXPECT_EQ(out[5], 0x00);
}

TEST(PsHeaders, StreamMapCarriesParametersAndFixedBytes) {
    uint8_t out[kStreamMapSize];
    PSStreamParam param = Params(kVideoCodecH264, kAudioCodecG711U);
    EXPECT_EQ(makeStreamMapHeader(out, &param), 0);
    EXPECT_EQ(Slice(out, 48),
              (Bytes{0x00, 0x00, 0x01, 0xBC, 0x00, 0x2A, 0xE1, 0xFF, 0x00, 0x00, 0x00, 0x20,
                     0x1B, 0xE0, 0x00, 0x0C, 0x80, 0x07, 0x38, 0x04, 0x34, 0x12, 0x78, 0x08,
                     0x1F, 0xFE, 0xF0, 0x87, 0x91, 0xC0, 0x00, 0x0C, 0x40, 0x1F, 0xE8, 0x80,
                     0x01, 0x02, 0x03, 0x04, 0x05, 0x05, 0x07, 0x08, 0x00, 0x00, 0x00, 0x00}));
}

TEST(PsIFrame, SpsPpsSeiIdrGiveThreeParts) {
    Bytes sps = Nal({0x67}, 20, 0x11), pps = Nal({0x68}, 4, 0x22), sei = Nal({0x06}, 9, 0x33);
    Bytes idr = Nal({0x65}, 70000, 0x44);
    Bytes frame = Concat({sps, pps, sei, idr});
    PSStreamParam param = Params(kVideoCodecH264, kAudioCodecG711U);
    Bytes out(PSFrameBufferSize(frame.size()));
    int n = makeIFrameHeader(frame.data(), frame.size(), out.data(), 1, 0, &param, 0x5F5E1000);
    ASSERT_GT(n, 0);
    out.resize(n);

    EXPECT_EQ(out[3], 0xBA);
    EXPECT_EQ(out[kPackHeaderSize + 3], 0xBB);
    EXPECT_EQ(out[kPackHeaderSize + kSystemHeaderSize + 3], 0xBC);
    std::vector<Pes> pes = WalkPes(out, kKeyFrameHeadersSize);
    // SPS, PPS, then SEI and IDR together split at 65470 bytes.
    size_t third = sei.size() + idr.size();
    ASSERT_EQ(pes.size(), 4u);
    EXPECT_EQ(pes[0].payload, sps.size());
    EXPECT_EQ(pes[1].payload, pps.size());
    EXPECT_EQ(pes[2].payload, kPesMaxPayload);
    EXPECT_EQ(pes[3].payload, third - kPesMaxPayload);
    Bytes joined;
    for (const Pes &p : pes) {
        EXPECT_EQ(p.streamId, 0xE0);
        EXPECT_EQ(p.pts, 3600u);
        joined.insert(joined.end(), out.begin() + p.at + kPesHeaderSize,
                      out.begin() + p.at + kPesHeaderSize + p.payload);
    }
    EXPECT_EQ(joined, frame);
    EXPECT_LE(out.size() + kRecordFileHeaderSize, PSFrameBufferSize(frame.size()));
}

TEST(PsIFrame, BytesOutsideFourByteStartCodesAreDroppedOrKept) {
    PSStreamParam param = Params(kVideoCodecH265, kAudioCodecAac);
    Bytes out(4096);
    struct Case {
        const char *name;
        Bytes frame;
        Bytes payload;  // all PES payload bytes joined
    } cases[] = {
        {"start code only", {0, 0, 0, 1}, {}},
        {"no start code", {1, 2, 3, 4, 5, 6, 7, 8}, {}},
        {"three-byte start code not seen", {0, 0, 1, 0x40, 9, 9, 9}, {}},
        {"leading garbage dropped", {7, 7, 0, 0, 0, 1, 0x40, 1}, {0, 0, 0, 1, 0x40, 1}},
        {"start code in the last four bytes ignored",
         {0, 0, 0, 1, 0x26, 0, 0, 0, 1},
         {0, 0, 0, 1, 0x26, 0, 0, 0, 1}},
    };
    for (const Case &c : cases) {
        int n = makeIFrameHeader(c.frame.data(), c.frame.size(), out.data(), 3, 0, &param, 0);
        ASSERT_GE(n, kKeyFrameHeadersSize) << c.name;
        Bytes joined;
        for (const Pes &p : WalkPes(Bytes(out.begin(), out.begin() + n), kKeyFrameHeadersSize)) {
            joined.insert(joined.end(), out.begin() + p.at + kPesHeaderSize,
                          out.begin() + p.at + kPesHeaderSize + p.payload);
        }
        EXPECT_EQ(joined, c.payload) << c.name;
    }
}

TEST(PsPFrame, LargeFrameSplitIntoFullChunks) {
    Bytes frame = Nal({0x41}, 200000 - 5, 0x5A);
    Bytes out(PSFrameBufferSize(frame.size()));
    int n = makePFrameHeader(frame.data(), frame.size(), out.data(), 2, 0, 77);
    ASSERT_GT(n, 0);
    out.resize(n);
    EXPECT_EQ(out[3], 0xBA);
    std::vector<Pes> pes = WalkPes(out, kPackHeaderSize);
    ASSERT_EQ(pes.size(), 4u);
    size_t sizes[] = {65470, 65470, 65470, 3590};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(pes[i].payload, sizes[i]);
        EXPECT_EQ((out[pes[i].at + 4] << 8) | out[pes[i].at + 5], static_cast<int>(sizes[i] + 8));
        EXPECT_EQ(pes[i].pts, 7200u);
    }
    EXPECT_EQ(n, static_cast<int>(kPackHeaderSize + 4 * kPesHeaderSize + frame.size()));
}

TEST(PsAudio, BarePesWithPtsTwoFramesAhead) {
    Bytes audio(320, 0x55);
    Bytes out(400);
    // The writer passes the video counter plus one; the builder adds one more.
    uint32_t videoCounter = 1;
    int n = makeAudioPSFrame(audio.data(), audio.size(), out.data(), videoCounter + 1);
    ASSERT_EQ(n, 334);
    EXPECT_EQ(Slice(out.data(), 6), (Bytes{0, 0, 1, 0xC0, 0x01, 0x48}));
    EXPECT_EQ(PSDecodePts(&out[9]), PSTimeStamp(videoCounter + 2, kPsTimeStampRate));
    EXPECT_EQ(Slice(&out[14], 320), audio);
}

TEST(PsErrors, NullPointersBadSelectorsAndOversizedAudio) {
    uint8_t out[256];
    uint8_t data[8] = {0, 0, 0, 1, 0x65};
    PSStreamParam param = Params(kVideoCodecH264, kAudioCodecG711U);
    EXPECT_EQ(makeIFrameHeader(nullptr, 8, out, 1, 0, &param, 0), -1);
    EXPECT_EQ(makeIFrameHeader(data, 8, nullptr, 1, 0, &param, 0), -1);
    EXPECT_EQ(makePFrameHeader(nullptr, 8, out, 1, 0, 0), -1);
    EXPECT_EQ(makePFrameHeader(data, 8, nullptr, 1, 0, 0), -1);
    EXPECT_EQ(makeAudioPSFrame(nullptr, 8, out, 1), -1);
    EXPECT_EQ(makeAudioPSFrame(data, 8, nullptr, 1), -1);
    EXPECT_EQ(makePesHeader(out, 1, 2, kPsTimeStampRate, 8), -1);
    EXPECT_EQ(makePackPesHeader(out, 1, -1, 8, 0), -1);
    Bytes audio(kAudioMaxPayload + 1);  // too long for one PES packet
    Bytes big(audio.size() + kPesHeaderSize);
    EXPECT_EQ(makeAudioPSFrame(audio.data(), audio.size(), big.data(), 1), -1);
}

}  // namespace
