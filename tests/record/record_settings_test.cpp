#include "record/record_settings.h"

#include <gtest/gtest.h>

#include "common/platform_paths.h"
#include "support/test_support.h"

TEST(RecordSettingsTest, ValuesAreBoundedAndDefaulted) {
    struct {
        const char *file;  // nullptr: no settings file
        int streamType;
        int duration;
        int syncSeconds;
    } cases[] = {
        {nullptr, 1, 600, 1},
        {"[AVRecordCustom]\nStreamType=0\nDuration=1200\nSyncSeconds=60\n", 0, 1200, 60},
        {"[AVRecordCustom]\nStreamType=2\nDuration=0\nSyncSeconds=0\n", 2, 0, 0},
        {"[AVRecordCustom]\nStreamType=3\nDuration=1201\nSyncSeconds=61\n", 1, 600, 1},
        {"[AVRecordCustom]\nStreamType=-1\nDuration=-5\nSyncSeconds=-1\n", 1, 600, 1},
        {"[AVRecordCustom]\nDuration=abc\nSyncSeconds=5\n", 1, 0, 5},
        {"[Other]\nStreamType=0\nDuration=10\nSyncSeconds=5\n", 1, 600, 1},
    };
    for (const auto &c : cases) {
        ScopedRoot root;
        if (c.file != nullptr) root.WriteFile(kSettingsFile, c.file);
        RecordSettings settings = ReadRecordSettings("test");
        EXPECT_EQ(settings.nStreamType, c.streamType) << (c.file ? c.file : "no file");
        EXPECT_EQ(settings.nDuration, c.duration) << (c.file ? c.file : "no file");
        EXPECT_EQ(settings.nSyncSeconds, c.syncSeconds) << (c.file ? c.file : "no file");
    }
}

// The stream type SysInfo holds replaces the current one only when it names
// a stream.
TEST(RecordSettingsTest, SysInfoStreamTypeOutOfRangeKeepsTheCurrent) {
    EXPECT_EQ(RecordStreamTypeOf(2, 0, "test"), 2);
    EXPECT_EQ(RecordStreamTypeOf(0, 2, "test"), 0);
    EXPECT_EQ(RecordStreamTypeOf(7, 2, "test"), 2);
    EXPECT_EQ(RecordStreamTypeOf(255, 0, "test"), 0);
}
