// Every kept fuzz input (seeds from real recordings and the crashers found
// so far) through the same entry the fuzzers run, in the regular builds:
// none may crash, trip a sanitizer or hang.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/avi_entry.h"
#include "fuzz/card_image_entry.h"
#include "fuzz/http_entry.h"
#include "fuzz/ini_entry.h"
#include "fuzz/playback_entry.h"
#include "fuzz/ring_entry.h"
#include "fuzz/rtsp_entry.h"
#include "fuzz/seek_file_entry.h"
#include "support/test_support.h"

namespace {

using Entry = int (*)(const uint8_t *, size_t);

std::vector<std::string> CorpusFiles(const std::string &target) {
    std::string dir = std::string(AVRECORD_SOURCE_DIR) + "/tests/corpus/" + target;
    std::vector<std::string> files;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d)) {
            if (e->d_name[0] != '.') files.push_back(dir + "/" + e->d_name);
        }
        closedir(d);
    }
    std::sort(files.begin(), files.end());
    return files;
}

void Replay(const std::string &target, Entry entry) {
    std::vector<std::string> files = CorpusFiles(target);
    ASSERT_FALSE(files.empty()) << "no corpus for " << target;
    for (const std::string &file : files) {
        SCOPED_TRACE(file);
        std::string bytes = ReadWholeFile(file);
        EXPECT_EQ(entry(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()), 0);
    }
}

TEST(CorpusReplay, IniFile) { Replay("ini", fuzz::FuzzIniFile); }
TEST(CorpusReplay, PlaybackReader) { Replay("playback", fuzz::FuzzPlaybackReader); }
TEST(CorpusReplay, SeekFileAndIndexCheck) {
    ScopedRoot root;  // the entry points the card paths at its scratch directory
    Replay("seek_file", fuzz::FuzzSeekFile);
}
TEST(CorpusReplay, AviReader) { Replay("avi", fuzz::FuzzAviReader); }
TEST(CorpusReplay, CardImageReader) { Replay("card_image", fuzz::FuzzCardImage); }
TEST(CorpusReplay, ReplayHttpRequest) { Replay("http", fuzz::FuzzHttpRequest); }
TEST(CorpusReplay, RtspRequests) { Replay("rtsp", fuzz::FuzzRtspRequests); }

TEST(CorpusReplay, RingReader) {
    REQUIRE_PRIVATE_IPC();
    Replay("ring", fuzz::FuzzRingReader);
}

}  // namespace
