#include "card_reader/card_image_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "avrecord_lib/index_records.h"
#include "common/file_io.h"
#include "support/formatted_card.h"
#include "support/test_support.h"

namespace {

class CardImageIoTest : public testing::Test {
protected:
    void SetUp() override { layout_ = FormatTestCard(image_); }
    void TearDown() override { CardImageDetach(); }

    // The image's metadata: boot sectors, FATs and root directory.
    std::string Metadata() const {
        return ReadFileAt(image_, 0, Fat32ClusterOffset(layout_, Fat32FileFirstCluster(layout_, 0)));
    }
    std::string ReadThrough(const std::string &path, int64_t offset, size_t length) {
        const FileIoOps &io = FileIo();
        int fd = io.open(path.c_str(), O_RDONLY, 0);
        if (fd < 0) return "open failed";
        std::string bytes(length, '\0');
        ssize_t got = io.seek(fd, offset, offset < 0 ? SEEK_END : SEEK_SET) >= 0
                          ? io.read(fd, bytes.data(), length)
                          : -1;
        io.close(fd);
        bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return bytes;
    }

    TempDir dir_;
    std::string image_ = dir_.File("card.img");
    Fat32Layout layout_{};
};

// Card files read as if mounted, other paths reach the file system, and
// nothing reaches the image.
TEST_F(CardImageIoTest, ReadsTheCardFilesAndWritesNothing) {
    ASSERT_EQ(CardImageWriteFile(image_.c_str(), layout_, kIndexFileName, 0, "head", 4), 0);
    ASSERT_EQ(CardImageWriteFile(image_.c_str(), layout_, kIndexFileName, kIndexFileSize - 4, "tail", 4), 0);
    ASSERT_EQ(CardImageWriteFile(image_.c_str(), layout_, "hi000001.mp4", 1000, "media", 5), 0);
    const std::string before = Metadata();
    std::string card, why;
    ASSERT_EQ(CardImageAttach(image_, &card, &why), 0) << why;
    EXPECT_EQ(card, image_ + "/");

    EXPECT_EQ(ReadThrough(card + kIndexFileName, 0, 4), "head");
    EXPECT_EQ(ReadThrough(card + "INDEX000.BIN", -4, 100), "tail");  // names as FAT has them: any case
    EXPECT_EQ(ReadThrough(card + "hi000001.mp4", 1000, 5), "media");
    EXPECT_EQ(ReadThrough(card + kIndexFileName, kIndexFileSize, 4), "");
    int fd = FileIo().open((card + kEventFileName).c_str(), O_RDONLY, 0);
    EXPECT_EQ(FileIo().seek(fd, 0, SEEK_END), kEventFileSize);
    EXPECT_EQ(FileIo().write(fd, "x", 1), -1);
    FileIo().close(fd);

    for (int flags : {O_WRONLY, O_RDWR, O_RDONLY | O_CREAT, O_RDONLY | O_TRUNC}) {
        errno = 0;
        EXPECT_EQ(FileIo().open((card + kIndexFileName).c_str(), flags, 0644), -1);
        EXPECT_EQ(errno, EROFS);
    }
    EXPECT_EQ(FileIo().open((card + "index002.bin").c_str(), O_RDONLY, 0), -1);
    EXPECT_EQ(errno, ENOENT);

    const std::string out = dir_.File("out.bin");
    fd = FileIo().open(out.c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(FileIo().write(fd, "out", 3), 3);
    FileIo().close(fd);
    EXPECT_EQ(ReadWholeFile(out), "out");

    CardImageDetach();
    EXPECT_EQ(&FileIo(), &PosixFileIo());
    EXPECT_EQ(Metadata(), before);
}

// Attached writable: a card file's bytes are overwritten in place, never
// past its end, and the file system's metadata stays as it was.
TEST_F(CardImageIoTest, WritableAttachOverwritesInsideFilesOnly) {
    const std::string before = Metadata();
    std::string card, why;
    ASSERT_EQ(CardImageAttach(image_, &card, &why, true), 0) << why;
    int fd = FileIo().open((card + kIndexFileName).c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(FileIo().seek(fd, kIndexFileSize - 4, SEEK_SET), kIndexFileSize - 4);
    EXPECT_EQ(FileIo().write(fd, "tail", 4), 4);
    errno = 0;
    EXPECT_EQ(FileIo().write(fd, "x", 1), -1) << "wrote past the end of the file";
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(FileIo().fsync(fd), 0);
    FileIo().close(fd);
    for (int flags : {O_RDWR | O_TRUNC, O_WRONLY | O_APPEND}) {
        EXPECT_EQ(FileIo().open((card + kIndexFileName).c_str(), flags, 0644), -1);
        EXPECT_EQ(errno, EROFS);
    }
    EXPECT_EQ(FileIo().open((card + "index002.bin").c_str(), O_RDWR | O_CREAT, 0644), -1);
    EXPECT_EQ(ReadThrough(card + kIndexFileName, -4, 4), "tail");
    CardImageDetach();
    EXPECT_EQ(Metadata(), before);
}

// Not a card of this recorder, or files not in one run: refused, and the
// POSIX layer stays in force.
TEST_F(CardImageIoTest, RefusesImagesItCannotReadByArithmetic) {
    std::string card, why;
    const uint32_t media = Fat32FileFirstCluster(layout_, layout_.pictureFiles);
    WriteFileAt(image_, FatEntryOffset(layout_, media + 1), Le32(media + 3));
    EXPECT_EQ(CardImageAttach(image_, &card, &why), -1);
    EXPECT_EQ(why,
              image_ +
                  ": its files are not laid out as the card formatter does: hi000000.mp4: not contiguous, "
                  "cluster " +
                  std::to_string(media + 1) + " is followed by " + std::to_string(media + 3));
    EXPECT_EQ(&FileIo(), &PosixFileIo());

    WriteFileAt(image_, ShortEntryOffset(layout_, kIndexFileName), "INDEX009BIN");
    EXPECT_EQ(CardImageAttach(image_, &card, &why), -1);
    EXPECT_EQ(why, image_ + ": not a card of this recorder: no index000.bin in its root directory");
    EXPECT_EQ(CardImageAttach(dir_.File("none.img"), &card, &why), -1);
    EXPECT_EQ(why, dir_.File("none.img") + ": No such file or directory");
    EXPECT_EQ(&FileIo(), &PosixFileIo());
}

}  // namespace
