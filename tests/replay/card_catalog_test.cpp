#include "replay/card_catalog.h"

#include <gtest/gtest.h>

#include <cstring>

#include "common/file_io.h"
#include "replay_card.h"

namespace {

// A file layer under which the recorder rewrites the section record of
// file 0, slot 1 while it is read: the first reads of it return the record
// half old, half new, then it settles (or, with `restless`, never does).
struct Rewrite {
    static inline int reads = 0;
    static inline int unsettled = 0;
    static inline int64_t position = 0;
    static int64_t Seek(int fd, int64_t offset, int whence) {
        position = PosixFileIo().seek(fd, offset, whence);
        return position;
    }
    static ssize_t Read(int fd, void *buf, size_t length) {
        ssize_t got = PosixFileIo().read(fd, buf, length);
        if (position == SectionInfoHeadPosition(0, 1) && got > 0 && reads++ < unsettled) {
            std::memset(buf, reads, static_cast<size_t>(got) / 2);  // the half already rewritten
        }
        return got;
    }
};

class CardCatalogTest : public ::testing::Test {
protected:
    void SetUp() override {
        rec_ = std::make_unique<ReplayRecorder>(tmp_.path() + "/");
        rec_->Open(kReplayStart);
        rec_->Second(kReplayStart);
        rec_->Close();
        ops_ = PosixFileIo();
        ops_.seek = Rewrite::Seek;
        ops_.read = Rewrite::Read;
    }
    void TearDown() override { SetFileIo(nullptr); }

    TempDir tmp_;
    std::unique_ptr<ReplayRecorder> rec_;
    FileIoOps ops_;
};

TEST_F(CardCatalogTest, ARecordBeingRewrittenIsTakenOnlyOnceSettled) {
    CatalogFile index(CatalogPath(tmp_.path(), kIndexFileName));
    SectionInfoHead settled, read;
    ASSERT_EQ(CatalogReadSection(index.fd(), 0, 1, &settled), 0);

    Rewrite::reads = 0;
    Rewrite::unsettled = 3;
    SetFileIo(&ops_);
    ASSERT_EQ(CatalogReadSection(index.fd(), 0, 1, &read), 0);
    EXPECT_EQ(std::memcmp(&read, &settled, sizeof read), 0);

    // A record that never holds still is not taken at all, and the card's
    // listing goes on without that section rather than with a torn one.
    Rewrite::reads = 0;
    Rewrite::unsettled = 1000;
    EXPECT_EQ(CatalogReadSection(index.fd(), 0, 1, &read), -1);
    CardCatalog catalog;
    ASSERT_EQ(CatalogLoad(tmp_.path(), &catalog), 0);
    EXPECT_TRUE(catalog.sections.empty());
}

}  // namespace
