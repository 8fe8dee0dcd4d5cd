// A card image made by the formatter, for the tests of the code that reads
// images without mounting them. Header-only: only tests that link the
// formatter include it.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "mkfs/card_image.h"
#include "mkfs/fat32_records.h"
#include "mkfs/mkfs_vfat.h"
#include "support/card_fixture.h"

inline constexpr uint64_t kTestCardBytes = 2ull << 30;  // two media files, one picture file

// Formats a sparse image of kTestCardBytes at path; its layout.
inline Fat32Layout FormatTestCard(const std::string &path) {
    MakeSparseFile(path, kTestCardBytes);
    MkfsCapacityInfo capacity{};
    Fat32Layout layout{};
    testing::internal::CaptureStderr();
    int formatted = MkfsVfatFormat(path.c_str(), &capacity, 70, MkfsOptions{nullptr, nullptr, 0}, &layout);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(formatted, 0);
    return layout;
}

// Byte offset of FAT entry `cluster` in the first FAT, and of a file's
// 8.3 directory entry (the second of its pair).
inline uint64_t FatEntryOffset(const Fat32Layout &layout, uint32_t cluster) {
    return uint64_t{kFat32ReservedSectors} * layout.bytesPerSector + 4ull * cluster;
}
inline uint64_t ShortEntryOffset(const Fat32Layout &layout, const char *longName) {
    return Fat32ClusterOffset(layout, kFat32RootCluster) +
           uint64_t{static_cast<uint32_t>(CardFilePosition(layout, longName))} * kDirBytesPerFile +
           kDirEntrySize;
}

inline std::string Le32(uint32_t value) { return std::string(reinterpret_cast<const char *>(&value), 4); }
