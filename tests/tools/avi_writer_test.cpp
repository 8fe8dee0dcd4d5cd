#include "tools/avi_writer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <variant>
#include <vector>

#include "support/faulty_file_io.h"
#include "support/test_support.h"

namespace {

uint32_t U32At(const std::string &bytes, size_t offset) {
    uint32_t value = 0;
    if (offset + 4 <= bytes.size()) std::memcpy(&value, bytes.data() + offset, 4);
    return value;
}

uint16_t U16At(const std::string &bytes, size_t offset) {
    uint16_t value = 0;
    if (offset + 2 <= bytes.size()) std::memcpy(&value, bytes.data() + offset, 2);
    return value;
}

// One expected field: a four-character tag, a 32-bit or a 16-bit word.
struct Field {
    size_t offset;
    std::variant<const char *, uint32_t, uint16_t> value;
};

void ExpectFields(const std::string &file, const std::vector<Field> &fields) {
    for (const Field &f : fields) {
        if (auto tag = std::get_if<const char *>(&f.value)) {
            EXPECT_EQ(file.substr(f.offset, 4), *tag) << "at " << f.offset;
        } else if (auto word = std::get_if<uint32_t>(&f.value)) {
            EXPECT_EQ(U32At(file, f.offset), *word) << "at " << f.offset;
        } else {
            EXPECT_EQ(U16At(file, f.offset), std::get<uint16_t>(f.value)) << "at " << f.offset;
        }
    }
}

class AviWriterTest : public testing::Test {
protected:
    void TearDown() override { H264ToAviStop(); }
    std::string Path() const { return dir_.File("clip.avi"); }
    TempDir dir_;
};

TEST_F(AviWriterTest, VideoOnlyLayout) {
    ASSERT_EQ(H264ToAviStart(Path().c_str(), kAviCodecH264, 640, 480, 25, 0, 0, 0, 0), 0);
    std::string even(100, 'v'), odd(5, 'o');
    ASSERT_EQ(H264ToAviWriteFrame(even.data(), even.size(), kAviFrameVideo), 0);
    ASSERT_EQ(H264ToAviWriteFrame(odd.data(), odd.size(), kAviFrameVideo), 0);
    ASSERT_EQ(H264ToAviWriteFrame(odd.data(), odd.size(), 7), 0);  // unknown kind: ignored
    ASSERT_EQ(H264ToAviStop(), 0);

    std::string file = ReadWholeFile(Path());
    const uint32_t movi = (100 + 8) + (5 + 8 + 1);  // the odd frame is padded
    const uint32_t index = 2 * 16;
    ASSERT_EQ(file.size(), 532 + movi + index);
    // clang-format off
    ExpectFields(file, {
        {0, "RIFF"}, {4, 512 + movi + index}, {8, "AVI "}, {12, "LIST"}, {16, 492u}, {20, "hdrl"},
        {24, "avih"}, {28, 56u}, {32, 40000u}, {36, 0x0FFFFFFFu}, {40, 0u}, {44, 0x910u},
        {48, 2u}, {52, 0u}, {56, 1u}, {60, 0x100000u}, {64, 640u}, {68, 480u},
        {72, 0u}, {88, "LIST"}, {92, 116u}, {96, "strl"}, {100, "strh"}, {104, 56u},
        {108, "vids"}, {112, "h264"}, {116, 0u}, {124, 0u}, {128, 1000u}, {132, 25000u},
        {136, 0u}, {140, 0u}, {144, 0x100000u}, {148, 0xFFFFFFFFu}, {152, 640u * 480u}, {156, uint16_t{0}},
        {158, uint16_t{0}}, {160, uint16_t{640}}, {162, uint16_t{480}}, {164, "strf"}, {168, 40u}, {172, 40u},
        {176, 640u}, {180, 480u}, {184, uint16_t{1}}, {186, uint16_t{24}}, {188, "h264"}, {192, 640u * 480u},
        {212, "JUNK"}, {216, 292u}, {508, 0u}, {512, "LIST"}, {516, movi + 4}, {520, "movi"},
        {524, "00db"}, {528, 100u}, {632, "00db"}, {636, 5u}, {646, "idx1"}, {650, index},
        {654, "00db"}, {658, 0u}, {662, 524u}, {666, 100u}, {670, "00db"}, {674, 0u},
        {678, 632u}, {682, 5u}});
    // clang-format on
    EXPECT_EQ(file[645], '\0');  // pad byte
    EXPECT_NE(access((Path() + "-index-tmp").c_str(), F_OK), 0);
}

TEST_F(AviWriterTest, AudioStreamLayout) {
    ASSERT_EQ(H264ToAviStart(Path().c_str(), kAviCodecH265, 320, 240, 10, 7, 1, 8000, 8), 0);
    std::string video(10, 'v'), audio(7, 'a');
    ASSERT_EQ(H264ToAviWriteFrame(video.data(), video.size(), kAviFrameVideo), 0);
    ASSERT_EQ(H264ToAviWriteFrame(audio.data(), audio.size(), kAviFrameAudio), 0);
    ASSERT_EQ(H264ToAviWriteFrame(audio.data(), 4, kAviFrameAudio), 0);
    ASSERT_EQ(H264ToAviStop(), 0);

    std::string file = ReadWholeFile(Path());
    const uint32_t movi = 18 + 16 + 12;
    // clang-format off
    ExpectFields(file, {
        {4, 512 + movi + 48}, {32, 100000u}, {48, 1u}, {56, 2u}, {112, "hev1"}, {132, 10000u},
        {188, "hev1"}, {212, "LIST"}, {216, 96u}, {220, "strl"}, {224, "strh"}, {228, 56u},
        {232, "auds"}, {236, 0u}, {240, 0u}, {252, 2u}, {256, 8000u}, {260, 0u},
        {264, 11u}, {268, 0u}, {272, 0xFFFFFFFFu}, {276, 2u}, {280, 0u}, {284, 0u},
        {288, "strf"}, {292, 20u}, {296, uint16_t{7}}, {298, uint16_t{1}}, {300, 8000u}, {304, 22u},
        {308, uint16_t{2}}, {310, uint16_t{16}}, {312, uint16_t{20}}, {314, uint16_t{0}}, {316, "JUNK"}, {320, 188u},
        {512, "LIST"}, {516, movi + 4}, {524, "00db"}, {542, "01wb"}, {546, 7u}, {558, "01wb"},
        {570, "idx1"}, {574, 48u}, {578 + 16, "01wb"}, {578 + 24, 542u}, {578 + 32, "01wb"}, {578 + 40, 558u}});
    // clang-format on
}

TEST_F(AviWriterTest, EmptyExportIsComplete) {
    ASSERT_EQ(H264ToAviStart(Path().c_str(), kAviCodecH264, 1920, 1080, 30, 0, 0, 0, 0), 0);
    ASSERT_EQ(H264ToAviStop(), 0);
    std::string file = ReadWholeFile(Path());
    ASSERT_EQ(file.size(), 532u);
    ExpectFields(file,
                 {{4, 512u}, {32, 33333u}, {48, 0u}, {516, 4u}, {520, "movi"}, {524, "idx1"}, {528, 0u}});
}

// A second start finishes the first export instead of abandoning it.
TEST_F(AviWriterTest, RestartFinishesPreviousExport) {
    std::string first = dir_.File("first.avi");
    ASSERT_EQ(H264ToAviStart(first.c_str(), kAviCodecH264, 16, 16, 25, 0, 0, 0, 0), 0);
    ASSERT_EQ(H264ToAviWriteFrame("abcd", 4, kAviFrameVideo), 0);
    ASSERT_EQ(H264ToAviStart(Path().c_str(), kAviCodecH264, 16, 16, 25, 0, 0, 0, 0), 0);
    std::string file = ReadWholeFile(first);
    EXPECT_EQ(file.size(), 532u + 12 + 16);
    EXPECT_EQ(file.substr(536, 4), "idx1");
}

// Error paths.
TEST_F(AviWriterTest, Refusals) {
    EXPECT_EQ(H264ToAviStart(Path().c_str(), kAviCodecH264, 16, 16, 0, 0, 0, 0, 0), -1);
    EXPECT_NE(access(Path().c_str(), F_OK), 0);
    EXPECT_EQ(H264ToAviWriteFrame("x", 1, kAviFrameVideo), -1);
    EXPECT_EQ(H264ToAviStop(), -1);

    // A file that cannot be created: the start succeeds, frames are refused.
    std::string lost = dir_.File("missing/clip.avi");
    EXPECT_EQ(H264ToAviStart(lost.c_str(), kAviCodecH264, 16, 16, 25, 0, 0, 0, 0), 0);
    EXPECT_EQ(H264ToAviWriteFrame("x", 1, kAviFrameVideo), -1);
    EXPECT_EQ(H264ToAviStop(), 0);
    EXPECT_EQ(H264ToAviStop(), -1);
}

TEST_F(AviWriterTest, WriteFailuresAreReported) {
    ASSERT_EQ(H264ToAviStart(Path().c_str(), kAviCodecH264, 16, 16, 25, 0, 0, 0, 0), 0);
    {
        FaultyFileIo faults;
        faults.ShortWriteNth(1, 8);  // a partial write is completed
        EXPECT_EQ(H264ToAviWriteFrame("abcdef", 6, kAviFrameVideo), 0);
        faults.FailNth(FaultyFileIo::Op::kWrite, 1);  // the index entry
        EXPECT_EQ(H264ToAviWriteFrame("abcdef", 6, kAviFrameVideo), -1);
        faults.FailNth(FaultyFileIo::Op::kWrite, 3);  // the payload
        EXPECT_EQ(H264ToAviWriteFrame("abcdef", 6, kAviFrameVideo), -1);
        faults.NoSpaceAfter(0);
        EXPECT_EQ(H264ToAviStop(), -1);
    }
}

}  // namespace
