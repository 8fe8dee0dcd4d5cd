// Packets that players can put back together: fragments that rebuild the
// unit byte for byte, markers where depacketizers look for them, and the
// replay extension on each frame's first packet only.
#include "replay/rtp_packetizer.h"

#include <gtest/gtest.h>

#include <vector>

#include "replay/rtp_bytes.h"
#include "replay/rtp_rtcp.h"

namespace {

using Packet = std::vector<uint8_t>;

std::vector<Packet> Packetize(RtpPayload payload, const std::vector<uint8_t> &frame,
                              const RtpFrameMarks &marks) {
    RtpPacketizer packetizer(payload, 96, 0x11223344, 65534);
    std::vector<Packet> packets;
    packetizer.SendFrame(frame.data(), frame.size(), 9000, &marks, [&](const uint8_t *p, size_t n) {
        packets.emplace_back(p, p + n);
        return true;
    });
    return packets;
}

size_t PayloadAt(const Packet &p) { return kRtpHeaderSize + ((p[0] & 0x10) ? kReplayExtensionSize : 0); }
bool Marker(const Packet &p) { return (p[1] & 0x80) != 0; }

std::vector<uint8_t> Nal(uint8_t header, size_t size, uint8_t fill) {
    std::vector<uint8_t> nal(size, fill);
    nal[0] = header;
    return nal;
}

std::vector<uint8_t> AnnexB(const std::vector<std::vector<uint8_t>> &nals) {
    std::vector<uint8_t> unit;
    for (const auto &nal : nals) {
        unit.insert(unit.end(), {0, 0, 0, 1});
        unit.insert(unit.end(), nal.begin(), nal.end());
    }
    return unit;
}

TEST(RtpPacketizerTest, H264UnitsFragmentAndRebuild) {
    auto sps = Nal(0x67, 12, 0x11), pps = Nal(0x68, 4, 0x22), idr = Nal(0x65, 5000, 0x33);
    const uint64_t capture = 1795582878ull * 1000000 + 500000;
    RtpFrameMarks marks = {capture, kReplayFlagClean | kReplayFlagDiscontinuity, 0x2A};
    auto packets = Packetize(RtpPayload::kH264, AnnexB({sps, pps, idr}), marks);
    ASSERT_GE(packets.size(), 6u);
    // Sequence numbers run on across the wrap; the time stamp is the frame's in all.
    for (size_t i = 0; i < packets.size(); ++i) {
        EXPECT_EQ(RtpGet16(&packets[i][2]), (65534 + i) & 0xFFFF);
        EXPECT_EQ(RtpGet32(&packets[i][4]), 9000u);
        EXPECT_EQ(Marker(packets[i]), i + 1 == packets.size());
        EXPECT_EQ((packets[i][0] & 0x10) != 0, i == 0) << "extension on the first packet only";
    }
    const Packet &first = packets[0];
    EXPECT_EQ(RtpGet16(&first[12]), kReplayExtensionProfile);
    EXPECT_EQ(RtpGet16(&first[14]), kReplayExtensionWords);
    EXPECT_EQ(RtpGet32(&first[16]), 1795582878u + kNtpUnixOffset);
    EXPECT_EQ(RtpGet32(&first[20]), 0x80000000u);  // half a second
    EXPECT_EQ(first[24], kReplayFlagClean | kReplayFlagDiscontinuity);
    EXPECT_EQ(first[25], 0x2A);
    EXPECT_EQ(Packet(first.begin() + PayloadAt(first), first.end()), sps);
    EXPECT_EQ(Packet(packets[1].begin() + kRtpHeaderSize, packets[1].end()), pps);
    std::vector<uint8_t> rebuilt;
    for (size_t i = 2; i < packets.size(); ++i) {
        const Packet &p = packets[i];
        ASSERT_LE(p.size(), kRtpMaxPacket);
        ASSERT_EQ(p[kRtpHeaderSize] & 0x1F, 28);  // FU-A
        uint8_t fu = p[kRtpHeaderSize + 1];
        EXPECT_EQ((fu & 0x80) != 0, i == 2);
        EXPECT_EQ((fu & 0x40) != 0, i + 1 == packets.size());
        if (i == 2) rebuilt.push_back(static_cast<uint8_t>((p[kRtpHeaderSize] & 0xE0) | (fu & 0x1F)));
        rebuilt.insert(rebuilt.end(), p.begin() + kRtpHeaderSize + 2, p.end());
    }
    EXPECT_EQ(rebuilt, idr);
}

TEST(RtpPacketizerTest, H265FragmentsKeepTheTwoByteHeader) {
    auto idr = Nal(0x26, 3000, 0x44);  // IDR_W_RADL
    idr[1] = 0x01;
    auto packets = Packetize(RtpPayload::kH265, AnnexB({idr}), RtpFrameMarks{1, 0, 0});
    ASSERT_EQ(packets.size(), 3u);
    std::vector<uint8_t> rebuilt = {idr[0], idr[1]};
    for (const Packet &p : packets) {
        size_t at = PayloadAt(p);
        EXPECT_EQ((p[at] >> 1) & 0x3F, 49);
        EXPECT_EQ(p[at + 1], 0x01);
        EXPECT_EQ(p[at + 2] & 0x3F, 19);
        rebuilt.insert(rebuilt.end(), p.begin() + at + 3, p.end());
    }
    EXPECT_EQ(rebuilt, idr);
    EXPECT_TRUE(Marker(packets.back()));
}

TEST(RtpPacketizerTest, AudioAacWithoutAdtsAndLongG711) {
    std::vector<uint8_t> adts = {0xFF, 0xF1, 0x50, 0x80, 0x04, 0x3F, 0xFC};  // 33-byte frame, 16 kHz mono
    std::vector<uint8_t> frame(33, 0x5A);
    std::copy(adts.begin(), adts.end(), frame.begin());
    auto packets = Packetize(RtpPayload::kAac, frame, RtpFrameMarks{1, kReplayFlagClean, 0});
    ASSERT_EQ(packets.size(), 1u);
    size_t at = PayloadAt(packets[0]);
    EXPECT_EQ(RtpGet16(&packets[0][at]), 16u);           // one 16-bit AU header
    EXPECT_EQ(RtpGet16(&packets[0][at + 2]), 26u << 3);  // 26 bytes of raw AAC, index 0
    EXPECT_EQ(packets[0].size(), at + 4 + 26);
    EXPECT_TRUE(Marker(packets[0]));

    std::vector<uint8_t> g711(3000, 0xD5);
    packets = Packetize(RtpPayload::kG711, g711, RtpFrameMarks{1, 0, 0});
    ASSERT_EQ(packets.size(), 3u);
    size_t firstPayload = packets[0].size() - PayloadAt(packets[0]);
    EXPECT_EQ(RtpGet32(&packets[1][4]), 9000u + firstPayload);  // one sample per byte
}

TEST(RtcpTest, GoodbyeFollowsReportAndDescription) {
    uint8_t packet[kRtcpMaxCompound];
    RtcpSender sender = {0xAABBCCDD, 1795582878ull * 1000000, 1234, 10, 5000};
    size_t size = RtcpCompound(sender, true, packet);
    size_t at = 0;
    std::vector<int> types;
    while (at < size) {
        ASSERT_TRUE(RtcpLooksValid(packet + at, size - at));
        types.push_back(packet[at + 1]);
        EXPECT_EQ(RtpGet32(packet + at + 4), 0xAABBCCDDu);
        at += 4 * (RtpGet16(packet + at + 2) + 1);
    }
    EXPECT_EQ(at, size);
    EXPECT_EQ(types, (std::vector<int>{200, 202, 203}));
    EXPECT_EQ(RtpGet32(packet + 8), 1795582878u + kNtpUnixOffset);
    EXPECT_EQ(RtpGet32(packet + 16), 1234u);
}

}  // namespace
