#include "record/record_param_init.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "avrecord_lib/record_section.h"
#include "common/log.h"
#include "common/platform_paths.h"
#include "record/record_flags.h"
#include "record/record_status.h"

namespace {

constexpr int kMountProbeSize = 16;
constexpr char kCardToken[] = "mmc";

std::string IndexFilePath() { return PlatformPath(kCardMountPoint) + kIndexFileName; }

// The current file record, brought up to its sections' last update.
void ReadCurrentFile(int fd, const RecordConfigInfo *info, FileInfoHead *file) {
    AV_RecordFileInfoHeadRead(fd, info, file);
    if (file->m_u32HeadFlag != kFileInfoHeadFlag) return;
    static SectionInfoHead sections[kMaxSectionNo];  // 16 KiB, read once at start
    memset(sections, 0, sizeof sections);
    if (AV_RecordSectionInfoHeadRead(fd, file, sections) == 0) AV_RecordFileInfoHeadCatchUp(file, sections);
}

// A current file record that is full on the card belongs to a run that
// never reached its end steps (power cut, kill): the header is only written
// with a frame, so it still names the full file. The file is left exactly
// as that run's end would have left it; started again, its recordings would
// be written over from offset 0.
void LeaveFullFile(RecordConfigInfo *info, const FileInfoHead *file) {
    if (file->m_u32HeadFlag == kFileInfoHeadFlag) AV_RecordNextFileSelect(info, file);
}

// Reads the header and the current file record into the process-wide
// records; 0 or -1 with the reason logged.
int LoadIndex(const char *func) {
    RecordConfigInfo *info = GetRecordConfigInfo();
    FileInfoHead *file = GetFileInfoHead();
    memset(info, 0, sizeof *info);
    memset(file, 0, sizeof *file);
    int fd = AVFileOpen(IndexFilePath().c_str(), kAVFileModeRead);
    if (fd < 0) {
        LogTrace("%s %d: open file fail \n", func, __LINE__);
        return -1;
    }
    if (AV_RecordConfigInfoRead(fd, info) < 0) {
        LogTrace("%s %d: read file Head fail \n", func, __LINE__);
        AVFileClose(fd);
        return -1;
    }
    if (AV_RecordConfigInfoCheck(info) != 0) {
        LogTrace("%s %d: chek file Head fail \n", func, __LINE__);
        AVFileClose(fd);
        return -1;
    }
    ReadCurrentFile(fd, info, file);
    AVFileClose(fd);
    LeaveFullFile(info, file);
    FlagSet(g_bIndexLoaded, 1);
    return 0;
}

}  // namespace

int SDCardMountCheck() {
    std::string command = std::string("grep ") + kCardToken + " " + PlatformPath(kMountTable);
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return 0;
    char probe[kMountProbeSize] = {0};
    size_t got = fread(probe, 1, kMountProbeSize, pipe);
    pclose(pipe);
    return memmem(probe, got, kCardToken, strlen(kCardToken)) != nullptr ? 1 : 0;
}

int AVRecordParamInit(uint8_t ucCoverType) {
    if (FlagGet(g_bIndexLoaded) == 0 && LoadIndex(__func__) != 0) {
        RecordStatusSet(RecordState::kIndexInvalid, "the card's index cannot be read or is not valid");
        return -1;
    }
    LogTrace("%s %d: ucCoverType = %d  \n", __func__, __LINE__, ucCoverType);
    int cover = AV_RecordFileCoverCheck(GetRecordConfigInfo(), GetFileInfoHead(), ucCoverType);
    if (cover < 0) {
        RecordStatusSet(RecordState::kCardFull, "every file is used and overwriting is off");
        return -1;
    }
    if (cover > 0) FlagSet(g_bNewFileInfo, 1);
    return 0;
}
