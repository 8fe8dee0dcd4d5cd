#include "support/card_recorder.h"

#include "avrecord_lib/index_records.h"
#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "avrecord_lib/record_section.h"
#include "support/card_fixture.h"

namespace {
uint32_t g_recorderClock = 0;
time_t RecorderClock() { return g_recorderClock; }
}  // namespace

bool CardRecorder::StartSection(uint32_t startTime) {
    RecordConfigInfo *info = GetRecordConfigInfo();
    FileInfoHead *file = GetFileInfoHead();
    indexFd_ = AVFileOpen((dir_ + kIndexFileName).c_str(), kAVFileModeReadWrite);
    if (AV_RecordConfigInfoRead(indexFd_, info) < 0 || AV_RecordConfigInfoCheck(info) < 0) return false;
    AV_RecordFileInfoHeadRead(indexFd_, info, file);
    if (AV_RecordFileCoverCheck(info, file, 1) < 0) return false;
    g_recorderClock = startTime;
    SetRecordClockForTest(RecorderClock);
    int ret = AV_RecordFileConfigParamGet(info, file, GetSectionInfoHead(), 1);
    SetRecordClockForTest(nullptr);
    mediaFd_ = AVFileOpen(MediaFilePath(dir_, file->m_u32FileNo).c_str(), kAVFileModeReadWrite);
    return ret == 0 && mediaFd_ >= 0;
}

bool CardRecorder::WriteFrame(uint32_t time, uint32_t size, bool keyFrame) {
    RecordConfigInfo *info = GetRecordConfigInfo();
    FileInfoHead *file = GetFileInfoHead();
    SectionInfoHead *section = GetSectionInfoHead();
    std::string frame(size, '\x55');
    frame.replace(0, 4, "\x00\x00\x01\xBA", 4);
    if (AV_RecordStreamInfoWrite(mediaFd_, file->m_u32DataSize, frame.data(), size) < 0) return false;
    if (keyFrame) {
        KeyFrameEntry entry;
        AV_RecordKeyFrameEntryInit(&entry, time, size, section->m_u32SectionSize, 2);
        AV_RecordKeyFrameEntryWrite(mediaFd_, KeyFrameEntryOffset(file->m_u32KeyFrameSum), &entry);
    }
    AV_RecordSectionInfoHeadSetEndTime(section, time);
    AV_RecordSectionInfoHeadAddSize(section, size);
    AV_RecordSectionInfoHeadCountFrame(section, keyFrame, 0);
    AV_RecordFileInfoHeadAddDataSize(file, size);
    if (time >= file->m_u32EndTime) AV_RecordFileInfoHeadSetEndTime(file, time);
    AV_RecordFileInfoHeadCountKeyFrame(file, keyFrame);
    return AV_RecordSectionInfoHeadWrite(indexFd_, file, section) == 0 &&
           AV_RecordFileInfoHeadWrite(indexFd_, info, file) == 0 &&
           AV_RecordConfigInfoWrite(indexFd_, info) > 0;
}

void CardRecorder::EndSection() {
    AVFileClose(mediaFd_);
    RecordConfigInfo *info = GetRecordConfigInfo();
    AV_RecordNextFileSelect(info, GetFileInfoHead());
    AV_RecordConfigInfoWrite(indexFd_, info);
    AVFileClose(indexFd_);
    mediaFd_ = indexFd_ = -1;
}
