#include "mkfs/fat32_records.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <string>

namespace {

Fat32Layout SampleLayout(uint32_t totalSectors) {
    Fat32Layout layout{};
    layout.bytesPerSector = 512;
    layout.totalSectors = totalSectors;
    layout.heads = 255;
    layout.sectorsPerTrack = 63;
    layout.sectorsPerCluster = 16;
    layout.fatSectors = 14768;
    layout.clusterCount = 1890243;
    return layout;
}

std::string Bytes(const void *record, size_t offset, size_t length) {
    return std::string(static_cast<const char *>(record) + offset, length);
}

}  // namespace

TEST(Fat32RecordsTest, BootSectorBytes) {
    Fat32BootSector boot;
    Fat32BuildBootSector(SampleLayout(30273437), 0x12345678, &boot);
    EXPECT_EQ(Bytes(&boot, 0, 11), std::string("\xEB\x58\x90mkdosfs\0", 11));
    EXPECT_EQ(Bytes(&boot, 13, 9), std::string("\x10\x06\x00\x02\x00\x00\x00\x00\xF8", 9));
    EXPECT_EQ(Bytes(&boot, 32, 4), std::string("\x9D\xEF\xCD\x01", 4));
    EXPECT_EQ(Bytes(&boot, 44, 8), std::string("\x02\x00\x00\x00\x01\x00\x03\x00", 8));
    EXPECT_EQ(Bytes(&boot, 52, 14), std::string(14, '\0'));
    EXPECT_EQ(Bytes(&boot, 66, 5), std::string("\x29\x78\x56\x34\x12", 5));
    EXPECT_EQ(Bytes(&boot, 71, 19), std::string(11, '\0') + "FAT32   ");
    EXPECT_EQ(Bytes(&boot, 90, 3), "\x0E\x1F\xBE");
    EXPECT_EQ(Bytes(&boot, 0x77, 30), std::string("This is not a bootable disk\r\n", 30));
    EXPECT_EQ(Bytes(&boot, 510, 2), "\x55\xAA");

    Fat32BuildBootSector(SampleLayout(65535), 0, &boot);
    EXPECT_EQ(boot.totalSectors16, 65535);
    Fat32BuildBootSector(SampleLayout(65536), 0, &boot);
    EXPECT_EQ(boot.totalSectors16, 0);
}

TEST(Fat32RecordsTest, FsInfoCountsTheCardAsEmpty) {
    Fat32FsInfo info;
    Fat32BuildFsInfo(SampleLayout(30273437), &info);
    EXPECT_EQ(Bytes(&info, 0, 4), "RRaA");
    EXPECT_EQ(Bytes(&info, 484, 12), std::string("rrAa\xC2\xD7\x1C\x00\x02\x00\x00\x00", 12));
    EXPECT_EQ(Bytes(&info, 508, 4), std::string("\0\0\x55\xAA", 4));
}

TEST(Fat32RecordsTest, DirectoryEntryPair) {
    setenv("TZ", "UTC", 1);
    tzset();
    Fat32Stamp stamp = Fat32StampOf(1709214359);  // 2024-02-29 13:45:59
    EXPECT_EQ(stamp.time, 13 << 11 | 45 << 5 | 29);
    EXPECT_EQ(stamp.date, 44 << 9 | 2 << 5 | 29);

    Fat32LongNameEntry longEntry;
    Fat32ShortEntry shortEntry;
    Fat32BuildDirEntries("INDEX000BIN", "index000.bin", 0x12345, 0x4000000, stamp, &longEntry, &shortEntry);
    EXPECT_EQ(Bytes(&longEntry, 0, 1), "\x41");
    EXPECT_EQ(Bytes(&longEntry, 1, 10), std::string("i\0n\0d\0e\0x\0", 10));
    EXPECT_EQ(Bytes(&longEntry, 11, 3),
              std::string("\x0F\0", 2) + char(Fat32ShortNameChecksum("INDEX000BIN")));
    EXPECT_EQ(Bytes(&longEntry, 14, 12), std::string("0\x00"
                                                     "0\x00"
                                                     "0\x00.\0b\0i\0",
                                                     12));
    EXPECT_EQ(Bytes(&longEntry, 26, 6), std::string("\0\0n\0\0\0", 6));  // cluster 0, 'n', end
    EXPECT_EQ(Bytes(&shortEntry, 0, 14), std::string("INDEX000BIN\x20\0\0", 14));
    EXPECT_EQ(shortEntry.firstClusterHigh, 0x1);
    EXPECT_EQ(shortEntry.firstClusterLow, 0x2345);
    EXPECT_EQ(shortEntry.fileSize, 0x4000000u);
    EXPECT_EQ(shortEntry.createDate, stamp.date);
    EXPECT_EQ(shortEntry.accessDate, stamp.date);

    Fat32BuildDirEntries("A          ", "a.b", 3, 1, stamp, &longEntry, &shortEntry);
    EXPECT_EQ(longEntry.name1[3], 0);  // end of a short long name, then padding
    EXPECT_EQ(longEntry.name1[4], 0xFFFF);
    EXPECT_EQ(longEntry.name3[1], 0xFFFF);
}

// Decoding refuses what this formatter would never have written.
TEST(Fat32RecordsTest, DecodeValidatesTheBootSector) {
    Fat32BootSector good;
    Fat32BuildBootSector(SampleLayout(30273437), 1, &good);
    Fat32Layout layout{};
    const char *why = nullptr;
    ASSERT_EQ(Fat32DecodeBootSector(reinterpret_cast<const uint8_t *>(&good), &layout, &why), 0);
    EXPECT_EQ(layout.clusterCount, 1890243u);
    EXPECT_EQ(layout.DataStartSector(), 6u + 2 * 14768);

    const struct {
        const char *name;
        void (*spoil)(Fat32BootSector &);
    } cases[] = {
        {"signature", [](Fat32BootSector &b) { b.signature = 0; }},
        {"sector size", [](Fat32BootSector &b) { b.bytesPerSector = 768; }},
        {"cluster size", [](Fat32BootSector &b) { b.sectorsPerCluster = 3; }},
        {"FAT16", [](Fat32BootSector &b) { b.fatSectors16 = 200; }},
        {"reserved", [](Fat32BootSector &b) { b.reservedSectors = 32; }},
        {"FAT beyond the end", [](Fat32BootSector &b) { b.fatSectors32 = 0x7FFFFFFF; }},
    };
    for (const auto &c : cases) {
        Fat32BootSector bad = good;
        c.spoil(bad);
        EXPECT_EQ(Fat32DecodeBootSector(reinterpret_cast<const uint8_t *>(&bad), &layout, &why), -1)
            << c.name;
        EXPECT_NE(why, nullptr);
    }
}
