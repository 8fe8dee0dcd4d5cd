#include "mkfs/capacity_probe.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "common/file_io.h"
#include "mkfs/mkfs_vfat.h"
#include "support/card_fixture.h"
#include "support/test_support.h"

namespace {

constexpr uint64_t kGiB = 1ull << 30;
constexpr uint32_t kSector = 512;

// A counterfeit card under the file layer: an image of `claimed` bytes of
// which only the first `real` exist; every offset past them lands on
// offset % real (the card wraps onto its own flash).
uint64_t g_real = 0;
int64_t WrappingSeek(int fd, int64_t offset, int whence) {
    if (whence == SEEK_SET) offset = static_cast<int64_t>(static_cast<uint64_t>(offset) % g_real);
    return PosixFileIo().seek(fd, offset, whence);
}

class CapacityProbeTest : public testing::Test {
protected:
    void TearDown() override { SetFileIo(nullptr); }

    // Probes an image of `claimed` bytes; `real` != 0 makes it wrap there.
    int Probe(uint64_t claimed, uint64_t real, uint64_t *found) {
        MakeSparseFile(image_, claimed);
        static FileIoOps wrapping = PosixFileIo();
        wrapping.seek = WrappingSeek;
        g_real = real;
        if (real != 0) SetFileIo(&wrapping);
        int fd = FileIo().open(image_.c_str(), O_RDWR, 0);
        int result = MkfsProbeCapacity(fd, claimed, kSector, found);
        FileIo().close(fd);
        SetFileIo(nullptr);
        return result;
    }

    TempDir dir_;
    std::string image_ = dir_.path() + "/card.img";
};

// An honest card passes and keeps what it held; the check's markers are
// not left behind.
TEST_F(CapacityProbeTest, HonestCardPassesAndKeepsItsContents) {
    uint64_t found = 0;
    MakeSparseFile(image_, 64 * kGiB);
    WriteFileAt(image_, 64 * kGiB - kSector, std::string(kSector, 'x'));
    EXPECT_EQ(Probe(64 * kGiB, 0, &found), 0);
    EXPECT_EQ(ReadFileAt(image_, 64 * kGiB - kSector, kSector), std::string(kSector, 'x'));
    EXPECT_EQ(ReadFileAt(image_, kGiB, kSector), std::string(kSector, '\0'));
}

// Cards that wrap at a quarter, a half or an eighth of their claim are
// refused with the capacity they really hold.
TEST_F(CapacityProbeTest, WrappedCardsAreRefusedWithTheirRealCapacity) {
    struct {
        uint64_t claimed, real;
    } cases[] = {{4 * kGiB, kGiB}, {64 * kGiB, 32 * kGiB}, {64 * kGiB, 8 * kGiB}};
    for (const auto &c : cases) {
        uint64_t found = 0;
        EXPECT_EQ(Probe(c.claimed, c.real, &found), 1) << c.claimed << " " << c.real;
        EXPECT_LE(found, c.real) << c.claimed << " " << c.real;
        EXPECT_GE(found, c.real - c.claimed / kCapacityProbePoints) << c.claimed << " " << c.real;
    }
}

// The formatter refuses such a card, says what it holds, and writes no
// file system onto it.
TEST_F(CapacityProbeTest, FormatterRefusesACounterfeitCard) {
    MakeSparseFile(image_, 4 * kGiB);
    static FileIoOps wrapping = PosixFileIo();
    wrapping.seek = WrappingSeek;
    g_real = kGiB;
    SetFileIo(&wrapping);
    MkfsCapacityInfo capacity{};
    testing::internal::CaptureStderr();
    int result =
        MkfsVfatFormat(image_.c_str(), &capacity, 100, MkfsOptions{nullptr, nullptr, 1700000000}, nullptr);
    std::string message = testing::internal::GetCapturedStderr();
    SetFileIo(nullptr);
    EXPECT_EQ(result, -1);
    EXPECT_NE(message.find("the card claims 4096 MiB but holds only 1024 MiB"), std::string::npos) << message;
    EXPECT_EQ(ReadFileAt(image_, 0, kSector), std::string(kSector, '\0'));
}

}  // namespace
