#include "mkfs/fat32_records.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "support/scoped_zone.h"

namespace {

std::string Bytes(const void *record, size_t offset, size_t length) {
    return std::string(static_cast<const char *>(record) + offset, length);
}

// A 15.5 GB card.
Fat32Layout CardLayout() {
    Fat32Layout layout{};
    layout.bytesPerSector = 512;
    layout.totalSectors = 30273437;
    layout.sectorsPerCluster = 16;
    layout.fatSectors = 14768;
    return layout;
}

}  // namespace

TEST(Fat32RecordsTest, BootSectorBytes) {
    Fat32Layout layout = CardLayout();
    Fat32BootSector boot;
    Fat32BuildBootSector(layout, 0x12345678, &boot);
    EXPECT_EQ(Bytes(&boot, 0, 11), std::string("\xEB\x58\x90mkdosfs\0", 11));
    EXPECT_EQ(Bytes(&boot, 13, 9), std::string("\x10\x06\x00\x02\x00\x00\x00\x00\xF8", 9));
    EXPECT_EQ(Bytes(&boot, 52, 14), std::string(14, '\0'));
    EXPECT_EQ(Bytes(&boot, 66, 24),
              std::string("\x29\x78\x56\x34\x12", 5) + std::string(11, '\0') + "FAT32   ");
    EXPECT_EQ(Bytes(&boot, 0x77, 30), std::string("This is not a bootable disk\r\n", 30));
    EXPECT_EQ(Bytes(&boot, 510, 2), "\x55\xAA");
    layout.totalSectors = 65535;  // small enough for the 16-bit field
    Fat32BuildBootSector(layout, 0, &boot);
    EXPECT_EQ(boot.totalSectors16, 65535);
}

TEST(Fat32RecordsTest, DirectoryTimesAndClusters) {
    ScopedZone zone("UTC");
    Fat32Stamp stamp = Fat32StampOf(1709214359);  // 2024-02-29 13:45:59
    EXPECT_EQ(stamp.time, 13 << 11 | 45 << 5 | 29);
    EXPECT_EQ(stamp.date, 44 << 9 | 2 << 5 | 29);
    // A clock outside the directory's 1980..2107 gets the nearest end.
    EXPECT_EQ(Fat32StampOf(0).date, 0 << 9 | 1 << 5 | 1);
    EXPECT_EQ(Fat32StampOf(0).time, 0);
    EXPECT_EQ(Fat32StampOf(4354819200).date, 127 << 9 | 12 << 5 | 31);  // 2108-01-01
    EXPECT_EQ(Fat32StampOf(4354819199).date, 127 << 9 | 12 << 5 | 31);  // 2107-12-31 23:59:59
    EXPECT_EQ(Fat32StampOf(4294967296).date, 126 << 9 | 2 << 5 | 7);    // 2106-02-07, past the card's range

    Fat32LongNameEntry longEntry;
    Fat32ShortEntry shortEntry;
    Fat32BuildDirEntries("INDEX000BIN", "index000.bin", 0x12345, 1, stamp, &longEntry, &shortEntry);
    EXPECT_EQ(longEntry.name3[1], 0);  // the 13th character ends the name
    EXPECT_EQ(shortEntry.firstClusterHigh, 0x1);
    EXPECT_EQ(shortEntry.firstClusterLow, 0x2345);
}
