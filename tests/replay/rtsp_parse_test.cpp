// Requests, times and credentials as clients send them, and what hostile
// input must not get through.
#include <gtest/gtest.h>

#include <string>

#include "replay/base64.h"
#include "replay/md5.h"
#include "replay/replay_auth.h"
#include "replay/rtsp_range.h"
#include "replay/rtsp_request.h"

namespace {

TEST(RtspRequestTest, PipelinedRequestsWithBodyAndBareLineEnds) {
    std::string input =
        "GET_PARAMETER rtsp://cam/replay RTSP/1.0\r\nCSeq: 7\r\ncontent-length: 5\r\n\r\nhello"
        "OPTIONS * RTSP/1.0\nCSeq: 8\n\n";
    RtspRequest request;
    size_t consumed = 0;
    ASSERT_EQ(RtspParseRequest(input.data(), input.size(), &request, &consumed), kRtspParsed);
    EXPECT_EQ(request.method, "GET_PARAMETER");
    EXPECT_EQ(*request.Header("CSEQ"), "7");
    EXPECT_EQ(request.body, "hello");
    input.erase(0, consumed);
    ASSERT_EQ(RtspParseRequest(input.data(), input.size(), &request, &consumed), kRtspParsed);
    EXPECT_EQ(request.uri, "*");
    EXPECT_EQ(consumed, input.size());
    // Cut anywhere before its end, a request is incomplete, never half taken.
    for (size_t cut = 0; cut < input.size(); ++cut)
        EXPECT_EQ(RtspParseRequest(input.data(), cut, &request, &consumed), kRtspIncomplete) << cut;
}

TEST(RtspRequestTest, BoundsAndBrokenLinesAreRefused) {
    RtspRequest request;
    size_t consumed;
    std::string endless = "DESCRIBE rtsp://cam/replay RTSP/1.0\r\nX: " + std::string(kRtspMaxHeadBytes, 'a');
    EXPECT_EQ(RtspParseRequest(endless.data(), endless.size(), &request, &consumed), kRtspMalformed);
    std::string many = "OPTIONS * RTSP/1.0\r\n";
    for (size_t i = 0; i <= kRtspMaxHeaders; ++i)
        many.append("H").append(std::to_string(i)).append(": v\r\n");
    many += "\r\n";
    EXPECT_EQ(RtspParseRequest(many.data(), many.size(), &request, &consumed), kRtspMalformed);
    for (std::string bad :
         {"OPTIONS *\r\n\r\n", "OPTIONS * FTP/1.0\r\n\r\n", "OPTIONS * RTSP/1.0\r\nNoColon\r\n\r\n",
          "OPTIONS * RTSP/1.0\r\nContent-Length: 99999\r\n\r\n",
          "OPTIONS * RTSP/1.0\r\nContent-Length: -1\r\n\r\n"}) {
        EXPECT_EQ(RtspParseRequest(bad.data(), bad.size(), &request, &consumed), kRtspMalformed) << bad;
    }
}

TEST(RtspRangeTest, ClockNptAndUrlTimes) {
    const uint64_t t0 = 1795582878ull * kUsPerSecond;  // 2026-11-25T05:01:18Z
    ReplayRange range;
    ASSERT_TRUE(RtspParseRange("clock=20261125T050118Z-20261125T050200.5Z", 0, 0, &range));
    EXPECT_EQ(range.u64FromUs, t0);
    EXPECT_EQ(range.u64ToUs, t0 + 42 * kUsPerSecond + 500000);
    ASSERT_TRUE(RtspParseRange(" clock=20261125T050118.25Z-", 0, 0, &range));
    EXPECT_EQ(range.u64FromUs, t0 + 250000);
    EXPECT_EQ(range.u64ToUs, 0u);
    ASSERT_TRUE(RtspParseRange("npt=1.5-00:01:00", t0, 0, &range));
    EXPECT_EQ(range.u64FromUs, t0 + 1500000);
    EXPECT_EQ(range.u64ToUs, t0 + 60 * kUsPerSecond);
    ASSERT_TRUE(RtspParseRange("npt=now-", t0, t0 + 9, &range));
    EXPECT_EQ(range.u64FromUs, t0 + 9);
    for (const char *bad : {"clock=20261125T050118Z-20261125T050100Z", "smpte=0:10:00-",
                            "clock=20261325T050118Z-", "npt=-5", "npt=abc-", "clock=20261125T050118-"})
        EXPECT_FALSE(RtspParseRange(bad, t0, 0, &range)) << bad;
    EXPECT_EQ(RtspFormatClockTime(t0 + 250000), "20261125T050118.250Z");

    ASSERT_TRUE(RtspUrlRange("rtsp://cam:8554/replay?start=2026-11-25T05%3A01%3A18Z&end=1795582900", &range));
    EXPECT_EQ(range.u64FromUs, t0);
    EXPECT_EQ(range.u64ToUs, t0 + 22 * kUsPerSecond);
    EXPECT_EQ(RtspUrlPath("rtsp://cam:8554/replay/trackID=1?start=1"), "/replay/trackID=1");
    EXPECT_FALSE(RtspUrlRange("rtsp://cam/replay?start=2026-11-25T05:01:18+01:00", &range));
    EXPECT_FALSE(RtspUrlRange("rtsp://cam/replay?start=20&end=10", &range));
}

TEST(RtspRangeTest, NptSince1900AndAnswersInTheUnitAsked) {
    const uint64_t t0 = 1795582800ull * kUsPerSecond;  // 2026-11-25T05:00:00Z, 4004571600 s after 1900
    const uint64_t base = t0 - 3600 * kUsPerSecond;
    ReplayRange range;
    RtspRangeUnit unit;
    // A player that keeps the description's clock range as npt asks in seconds since 1900.
    ASSERT_TRUE(RtspParseRange("npt=4004571600-4004571620.5", base, 0, &range, &unit));
    EXPECT_EQ(unit, RtspRangeUnit::kNptFrom1900);
    EXPECT_EQ(range.u64FromUs, t0);
    EXPECT_EQ(range.u64ToUs, t0 + 20500000);
    EXPECT_EQ(RtspFormatRange(unit, base, t0 + 40000, range.u64ToUs), "npt=4004571600.040-4004571620.500");
    ASSERT_TRUE(RtspParseRange("npt=2.5-", base, 0, &range, &unit));
    EXPECT_EQ(unit, RtspRangeUnit::kNpt);
    EXPECT_EQ(range.u64FromUs, base + 2500000);
    EXPECT_EQ(RtspFormatRange(unit, base, base + 2040000, 0), "npt=2.040-");
    EXPECT_EQ(RtspFormatRange(unit, base, base - 1, base + 5 * kUsPerSecond), "npt=0.000-5.000");
    ASSERT_TRUE(RtspParseRange("clock=20261125T050000Z-", base, 0, &range, &unit));
    EXPECT_EQ(unit, RtspRangeUnit::kClock);
    EXPECT_EQ(RtspFormatRange(unit, base, t0 + 40000, t0 + 10 * kUsPerSecond),
              "clock=20261125T050000.040Z-20261125T050010Z");
}

TEST(ReplayDigestTest, HashAndBase64KnownValues) {
    EXPECT_EQ(Md5Hex(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(Md5Hex(std::string(56, 'a')),
              "3b0c8ac703f828b04c6c197006d17218");  // padding spills into a block
    EXPECT_EQ(Md5Hex("The quick brown fox jumps over the lazy dog"), "9e107d9d372bb6826bd81d3542a419d6");
    const uint8_t bytes[] = {0x67, 0x42, 0xC0, 0x1F, 0xFF};
    EXPECT_EQ(Base64Encode(bytes, 5), "Z0LAH/8=");
    std::string decoded;
    ASSERT_TRUE(Base64Decode("Z0LAH/8=", &decoded));
    EXPECT_EQ(decoded, std::string(reinterpret_cast<const char *>(bytes), 5));
    EXPECT_FALSE(Base64Decode("Z0L=AH8=", &decoded));
    EXPECT_FALSE(Base64Decode("Z0LAH/8", &decoded));
}

uint32_t g_clock = 1795582878;
uint32_t TestClock() { return g_clock; }

// The Authorization value a player computes from a challenge.
std::string ClientDigest(const std::string &challenge, const std::string &user, const std::string &password,
                         const std::string &method, const std::string &uri, bool qop) {
    std::string realm, nonce;
    DigestParameter(challenge.substr(7), "realm", &realm);
    DigestParameter(challenge.substr(7), "nonce", &nonce);
    std::string ha1 = Md5Hex(user + ":" + realm + ":" + password);
    std::string ha2 = Md5Hex(method + ":" + uri);
    std::string value = "Digest username=\"" + user + "\", realm=\"" + realm + "\", nonce=\"" + nonce +
                        "\", uri=\"" + uri + "\", ";
    if (!qop) return value + "response=\"" + Md5Hex(ha1 + ":" + nonce + ":" + ha2) + "\"";
    std::string response = Md5Hex(ha1 + ":" + nonce + ":00000001:0a4f113b:auth:" + ha2);
    return value + "qop=auth, nc=00000001, cnonce=\"0a4f113b\", response=\"" + response + "\"";
}

TEST(ReplayAuthTest, DigestWithAndWithoutQopBasicWhereAllowedStaleNonces) {
    ReplayAuth auth("admin", "se,cret");
    auth.SetClockForTest(TestClock);
    ASSERT_TRUE(auth.Required());
    std::string challenge = auth.DigestChallenge();
    const std::string uri = "rtsp://cam:8554/replay";
    EXPECT_TRUE(
        auth.Check("DESCRIBE", ClientDigest(challenge, "admin", "se,cret", "DESCRIBE", uri, false), false));
    EXPECT_TRUE(
        auth.Check("DESCRIBE", ClientDigest(challenge, "admin", "se,cret", "DESCRIBE", uri, true), false));
    EXPECT_FALSE(
        auth.Check("PLAY", ClientDigest(challenge, "admin", "se,cret", "DESCRIBE", uri, false), false));
    EXPECT_FALSE(
        auth.Check("DESCRIBE", ClientDigest(challenge, "admin", "wrong", "DESCRIBE", uri, false), false));
    EXPECT_FALSE(
        auth.Check("DESCRIBE", ClientDigest(challenge, "root", "se,cret", "DESCRIBE", uri, false), false));
    // A nonce this process did not issue, or one past its lifetime, is refused.
    ReplayAuth other("admin", "se,cret");
    other.SetClockForTest(TestClock);
    EXPECT_FALSE(auth.Check("DESCRIBE",
                            ClientDigest(other.DigestChallenge(), "admin", "se,cret", "DESCRIBE", uri, false),
                            false));
    g_clock += kReplayNonceLifetime + 1;
    EXPECT_FALSE(
        auth.Check("DESCRIBE", ClientDigest(challenge, "admin", "se,cret", "DESCRIBE", uri, false), false));
    // Basic only where the caller allows it (HTTP).
    std::string basic = "Basic " + Base64Encode(reinterpret_cast<const uint8_t *>("admin:se,cret"), 13);
    EXPECT_TRUE(auth.Check("GET", basic, true));
    EXPECT_FALSE(auth.Check("GET", basic, false));
    EXPECT_FALSE(auth.Check("GET", "Basic YWRtaW46eA==", true));
    EXPECT_TRUE(ReplayAuth("", "").Check("GET", "", false));
}

}  // namespace
