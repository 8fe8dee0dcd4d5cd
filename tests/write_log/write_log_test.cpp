#include "lib/write_log.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/test_support.h"

namespace {

constexpr uint32_t kSector = 512;

// A log as the kernel writes it: super block, then header sector and data
// sectors per entry. Entries after StopCounting() stay out of the super
// block's count, as after a cut in the middle of logging.
class LogBuilder {
public:
    void Write(uint64_t sector, uint64_t count, char fill, uint64_t flags = 0) {
        Header(sector, count, flags, "");
        body_.append(count * kSector, fill);
    }
    void Flush() { Header(0, 0, kWriteLogFlush, ""); }
    void Mark(const std::string &name) { Header(0, 0, kWriteLogMark, name); }
    void Discard(uint64_t sector, uint64_t count) { Header(sector, count, kWriteLogDiscard, ""); }
    void StopCounting() { counting_ = false; }

    std::string Bytes(uint64_t magic = kWriteLogMagic, uint64_t version = kWriteLogVersion) const {
        WriteLogSuper super{magic, version, counted_, kSector};
        std::string out(kSector, '\0');
        memcpy(out.data(), &super, sizeof super);
        return out + body_;
    }

private:
    void Header(uint64_t sector, uint64_t count, uint64_t flags, const std::string &mark) {
        WriteLogEntry entry{sector, count, flags, mark.size()};
        std::string header(kSector, '\0');
        memcpy(header.data(), &entry, sizeof entry);
        memcpy(header.data() + sizeof entry, mark.data(), mark.size());
        body_ += header;
        ++entries_;
        if (counting_) counted_ = entries_;
    }

    std::string body_;
    uint64_t entries_ = 0;
    uint64_t counted_ = 0;
    bool counting_ = true;
};

class WriteLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        options_.logPath = dir_.File("log");
        options_.imagePath = dir_.File("image");
        WriteWholeFile(options_.imagePath, std::string(8 * kSector, 'z'));
    }

    // Replays and returns the image's sectors (one letter each) at every state.
    std::vector<std::string> Replay(const LogBuilder &log) {
        WriteWholeFile(options_.logPath, log.Bytes());
        std::vector<std::string> states;
        auto check = [&](const WriteLogState &) {
            std::string image = ReadWholeFile(options_.imagePath), sectors;
            for (size_t at = 0; at < image.size(); at += kSector) sectors += image[at] ? image[at] : '0';
            states.push_back(sectors);
            return sectors.find('x') == std::string::npos;  // an 'x' sector fails the state
        };
        EXPECT_EQ(ReplayWriteLog(options_, check, &result_, &error_), 0) << error_;
        return states;
    }

    TempDir dir_;
    WriteLogReplayOptions options_;
    WriteLogReplayResult result_;
    std::string error_;
};

// Flushes and marks change nothing and make no state; a discard zeroes its
// range; entries past the super block's count (half written) are not read.
TEST_F(WriteLogTest, RebuildsTheDeviceAfterEveryWrite) {
    LogBuilder log;
    log.Write(2, 2, 'a');
    log.Flush();
    log.Mark("recording");
    log.Discard(3, 1);
    log.Write(0, 1, 'b', kWriteLogFua);
    log.Write(7, 1, 'x');
    log.StopCounting();
    log.Write(5, 1, 'c');
    std::vector<std::string> states = Replay(log);
    EXPECT_EQ(states, (std::vector<std::string>{"zzaazzzz", "zza0zzzz", "bza0zzzz", "bza0zzzx"}));
    EXPECT_EQ(result_.entries, 6u);
    EXPECT_EQ(result_.writes, 4u);
    EXPECT_EQ(result_.failedStates, 1u);
}

// --every N: the Nth, 2Nth, ... write, and the last one.
TEST_F(WriteLogTest, EveryNthStateAndTheLast) {
    LogBuilder log;
    for (char fill = 'a'; fill <= 'e'; ++fill) log.Write(static_cast<uint64_t>(fill - 'a'), 1, fill);
    options_.every = 2;
    EXPECT_EQ(Replay(log), (std::vector<std::string>{"abzzzzzz", "abcdzzzz", "abcdezzz"}));
}

// The mirror copies follow writes that straddle file boundaries.
TEST_F(WriteLogTest, MirrorFilesFollowTheImage) {
    WriteWholeFile(dir_.File("extents"), "one 512 1024\ntwo 1536 512\n");
    MakeDirectories(dir_.File("card"));
    options_.mirrorExtents = dir_.File("extents");
    options_.mirrorFolder = dir_.File("card");
    LogBuilder log;
    log.Write(2, 2, 'a');
    log.Discard(1, 1);
    Replay(log);
    EXPECT_EQ(ReadWholeFile(dir_.File("card/one")), std::string(512, '\0') + std::string(512, 'a'));
    EXPECT_EQ(ReadWholeFile(dir_.File("card/two")), std::string(512, 'a'));
}

// Error paths.
TEST_F(WriteLogTest, UnreadableLogsAreRefused) {
    LogBuilder log;
    log.Write(0, 4, 'a');
    struct Case {
        std::string bytes;
        const char *says;
    } cases[] = {
        {log.Bytes(1), "not a write log"},
        {log.Bytes(kWriteLogMagic, 2), "log version 2"},
        {log.Bytes().substr(0, 3 * kSector), "entry 0: log ends inside its data"},
        {log.Bytes().substr(0, 20), "no super block"},
    };
    for (const Case &c : cases) {
        WriteWholeFile(options_.logPath, c.bytes);
        error_.clear();
        EXPECT_EQ(ReplayWriteLog(
                      options_, [](const WriteLogState &) { return true; }, &result_, &error_),
                  -1);
        EXPECT_NE(error_.find(c.says), std::string::npos) << error_;
    }
}

}  // namespace
