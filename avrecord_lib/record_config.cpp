#include "avrecord_lib/record_config.h"

#include <cerrno>
#include <cstddef>
#include <string>

#include "avrecord_lib/index_records.h"
#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "common/log.h"
#include "common/platform_paths.h"
#include "mkfs/mkfs_vfat.h"

namespace {

// The header keeps the capacity record's first and fifth 32-bit words.
static_assert(offsetof(MkfsCapacityInfo, m_u32VideoFileNum) == 4 * sizeof(uint32_t));

SDCardFormatFunc g_sdCardFormat = mkfs_vfat;

}  // namespace

int AV_RecordFileConfigSet(const char *path, const MkfsCapacityInfo *config) {
    if (path == nullptr || config == nullptr) return -1;
    uint32_t storeFileNum = config->m_u32VideoFileNum;
    LogTrace("%s %d:StoreFileNum = %d \n", __func__, __LINE__, static_cast<int>(storeFileNum));
    RecordConfigInfo info;
    AV_RecordConfigInfoInit(&info, static_cast<uint32_t>(config->m_u64TotalSize), storeFileNum);
    int fd = AVFileOpen(path, kAVFileModeReadWrite);
    if (fd < 0) return -1;
    int ret = AV_RecordConfigInfoWrite(fd, &info) < 0 ? -1 : 0;
    AVFileClose(fd);
    return ret;
}

int AV_RecordConfigInfoGet(const char *path, uint32_t *spaceSize, uint32_t *freeSize) {
    if (path == nullptr || spaceSize == nullptr || freeSize == nullptr) return -1;
    int fd = AVFileOpen(path, kAVFileModeRead);
    if (fd < 0) return -1;
    RecordConfigInfo info;
    int ret = AV_RecordConfigInfoRead(fd, &info) < 0 ? -1 : AV_RecordConfigInfoCheck(&info);
    AVFileClose(fd);
    if (ret < 0) return -1;
    uint32_t freeFiles = info.m_u32RecordFileSum - info.m_u32RecordFileUsed;
    LogTrace("%s %d : m_u32RecordFileSum = %d  m_u32RecordSpaceSize = %lu  m_u32RecordFreeSize = %lu \n",
             __func__, __LINE__, static_cast<int>(info.m_u32RecordFileSum),
             static_cast<unsigned long>(info.m_u32RecordSpaceSize), static_cast<unsigned long>(freeFiles));
    *spaceSize = info.m_u32RecordSpaceSize;
    *freeSize = freeFiles * kMediaFileSizeMiB;
    return 0;
}

int AV_RecordSDCardFormat(MkfsCapacityInfo *capacity, int percent) {
    LogTrace("%s %d \n", __func__, __LINE__);
    std::string device = PlatformPath(kCardDevice);
    errno = 0;
    if (g_sdCardFormat(device.c_str(), capacity, percent) != 0) {
        // The device is opened exclusively: a card still mounted (or open
        // elsewhere) is refused with EBUSY and left as it was.
        const char *why = errno == EBUSY ? "the device is busy (still mounted?)" : "the formatter failed";
        LogError("%s %d: %s not formatted: %s\n", __func__, __LINE__, device.c_str(), why);
    }
    return 0;
}

void SetSDCardFormatFunc(SDCardFormatFunc format) { g_sdCardFormat = format != nullptr ? format : mkfs_vfat; }
