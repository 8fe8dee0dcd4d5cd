#include "mkfs/card_file_set.h"

#include <algorithm>
#include <cstdio>

#include "common/card_layout.h"

namespace {

constexpr uint64_t kMiB = 1ull << 20;
constexpr uint64_t kMaxPercent = 100;

struct FixedFile {
    const char *shortName;
    const char *longName;
    uint32_t size;
};
constexpr FixedFile kFixedFiles[kCardFixedFiles] = {
    {"EVENT000BIN", kEventFileName, kEventFileSize},
    {"KEYFRAMEBIN", kKeyFrameFileName, kKeyFrameFileSize},
    {"INDEX000BIN", kIndexFileName, kIndexFileSize},
    {"INDEX001BIN", kBackupIndexFileName, kIndexFileSize},
};

// Six digits: a card of 2 TiB holds fewer than 10^4 files of 256 MiB.
constexpr uint32_t kNumberedLimit = 1000000;

void SetNumbered(CardFile *file, const char *shortFormat, const char *longFormat, uint32_t number) {
    number %= kNumberedLimit;
    snprintf(file->m_szShortName, sizeof file->m_szShortName, shortFormat, number);
    snprintf(file->m_szLongName, sizeof file->m_szLongName, longFormat, number);
    file->m_u32Size = kCardLargeFileSize;
    file->m_bLarge = true;
}

void SetFixed(CardFile *file, const FixedFile &fixed) {
    snprintf(file->m_szShortName, sizeof file->m_szShortName, "%s", fixed.shortName);
    snprintf(file->m_szLongName, sizeof file->m_szLongName, "%s", fixed.longName);
    file->m_u32Size = fixed.size;
    file->m_bLarge = fixed.size == kCardLargeFileSize;
}

}  // namespace

int CardFileAt(uint32_t position, uint32_t pictureFiles, uint32_t mediaFiles, CardFile *file) {
    if (position < pictureFiles) {
        SetNumbered(file, "HI%06uPIC", kPictureFileNameFormat, position);
        return 0;
    }
    position -= pictureFiles;
    if (position < mediaFiles) {
        SetNumbered(file, "HI%06uMP4", kMediaFileNameFormat, position);
        return 0;
    }
    position -= mediaFiles;
    if (position >= kCardFixedFiles) return -1;
    SetFixed(file, kFixedFiles[position]);
    return 0;
}

int CardSplitCapacity(uint64_t deviceBytes, int percent, MkfsCapacityInfo *capacity) {
    if (percent < 0 || percent > static_cast<int>(kMaxPercent)) return -1;
    uint64_t shared = deviceBytes > kCardHeldBackBytes ? deviceBytes - kCardHeldBackBytes : 0;
    uint64_t mediaShare = static_cast<uint64_t>(percent) * shared;
    uint64_t pictureShare = static_cast<uint64_t>(kMaxPercent - percent) * shared;
    capacity->m_u64TotalSize = deviceBytes / kMiB;
    capacity->m_u32VideoFileNum = static_cast<uint32_t>(mediaShare / (kMaxPercent * kCardLargeFileSize));
    capacity->m_u64VideoSpace = mediaShare / (kMaxPercent * kMiB);
    capacity->m_u32PictureFileNum = static_cast<uint32_t>(pictureShare / (kMaxPercent * kCardLargeFileSize));
    capacity->m_u64PictureSpace = pictureShare / (kMaxPercent * kMiB);
    if (capacity->m_u32VideoFileNum <= kCardMaxMediaFiles) return 0;
    capacity->m_u32VideoFileNum = kCardMaxMediaFiles;
    capacity->m_u64VideoSpace = static_cast<uint64_t>(kCardMaxMediaFiles) * (kCardLargeFileSize / kMiB);
    return 1;
}

void CardDescribeFileSet(uint32_t pictureFiles, uint32_t mediaFiles, MkfsCapacityInfo *capacity) {
    constexpr uint64_t kLargeMiB = kCardLargeFileSize / kMiB;
    constexpr uint64_t kFixedMiB = (2ull * kCardLargeFileSize + 2ull * kCardSmallFileSize) / kMiB;
    capacity->m_u32VideoFileNum = mediaFiles;
    capacity->m_u64VideoSpace = mediaFiles * kLargeMiB;
    capacity->m_u32PictureFileNum = pictureFiles;
    capacity->m_u64PictureSpace = pictureFiles * kLargeMiB;
    capacity->m_u64TotalSize = capacity->m_u64VideoSpace + capacity->m_u64PictureSpace + kFixedMiB;
}
