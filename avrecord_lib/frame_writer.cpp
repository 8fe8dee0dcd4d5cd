#include "avrecord_lib/frame_writer.h"

#include <sys/sysinfo.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "avrecord_lib/ps_packetizer.h"
#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "avrecord_lib/record_section.h"
#include "common/card_time.h"
#include "common/log.h"
#include "common/nal_unit.h"
#include "common/platform_paths.h"
#include "sysconfig/camera_access.h"
#include "sysconfig/camera_property.h"
#include "sysconfig/sys_info.h"

uint32_t g_u32Offset = 0;

namespace {

constexpr int kMaxChannels = 4;
constexpr uint8_t kEncoderKeyMark = 1;

// Audio codec types of the channel settings and the codes they map to.
struct AudioCodecMap {
    uint32_t type;        // channel setting
    uint16_t code;        // stream parameter 1
    uint16_t sampleRate;  // stream parameter 6
    uint16_t value;       // stream parameter 7
};
constexpr AudioCodecMap kAudioCodecs[] = {
    {0, kAudioCodecG711U, 8000, 33000},
    {1, kAudioCodecG711A, 8000, 33000},
    {3, kAudioCodecAac, 48000, 64000},
};

const char kRuleLine[] = "%s %d : ####################################################### \n";

// The records as they stood at the last point whose data are known to be
// on the card: the open, then the last good flush (or, without flushes,
// the last frame whose writes all succeeded).
struct KnownWritten {
    RecordConfigInfo info{};
    FileInfoHead file{};
    SectionInfoHead section{};
    uint32_t offset = 0;      // g_u32Offset then
    uint32_t videoSince = 0;  // video frames accounted after it
};

// Totals since the process started; other threads read them.
struct WriterTotals {
    uint32_t framesWritten = 0;  // video frames the index holds (less those rolled back)
    uint32_t framesLost = 0;     // video frames a failed write cost
    uint32_t writeErrors = 0;    // failed writes and flushes
    uint32_t bytesWritten = 0;   // PS bytes written, modulo 2^32
    uint32_t lastFrameTime = 0;  // time of the newest frame known written
};

// Writer state (one recording at a time).
struct WriterState {
    std::atomic<uint32_t> recordingOn{0};     // frames ignored while clear
    std::atomic<uint32_t> writingEnabled{0};  // frames ignored while clear
    std::atomic<int32_t> channel{-1};         // channel being recorded
    int indexFd = -1;                         // index000.bin
    int mediaFd = -1;                         // current media file
    int streamFd = -1;                        // the media descriptor's second copy
    uint32_t fileSize = 0;                    // m_u32FileSize: PS bytes since init
    uint32_t frameCounter = 0;                // video frames since init
    bool sectionStarted = false;              // first key frame written
    bool firstKeyPending = false;             // first key frame in progress
    PSStreamParam param{};                    // stream parameters
    uint16_t audioCode = kAudioCodecG711U;    // audio codec code in force
    struct timeval refWall {};                // wall clock at the first key frame
    uint32_t refUptime = 0;                   // uptime at the first key frame
    uint32_t lastSync = 0;                    // uptime at the open or the last flush
    RecordEncodingInfo encoding{};            // channel settings, re-read per frame
    std::mutex gate;                          // held by a frame in flight, the open and the close
    uint32_t videoTally[kMaxChannels] = {};   // video frames per channel
    KnownWritten known;                       // where a failed write rolls the records back to
    std::atomic<int32_t> cardError{0};        // errno of the failure; 0 while the card takes writes
    std::atomic<int32_t> failedChannel{-1};   // channel whose frames count as lost meanwhile
    WriterTotals totals;                      // read through std::atomic_ref
};
WriterState g_writer;

// The output: the record file header slot, then the frame's PS bytes.
alignas(16) uint8_t g_outBuf[PSFrameBufferSize(kMaxFrameLength)];

void SystemWallClock(struct timeval *now) { gettimeofday(now, nullptr); }

uint32_t SystemUptime() {
    struct sysinfo info;
    return sysinfo(&info) == 0 ? static_cast<uint32_t>(info.uptime) : 0;
}

// The channel's settings from the configuration record: the stream's
// encoding property, the audio encoding and the rotate mode.
int CameraEncodingSource(int channel, RecordEncodingInfo *info) {
    VideoEncodingProperty streams[kSysStreamCount] = {};
    AudioEncodingProperty audio = {};
    const SysInfo *sys = GetSysInfo();
    if (channel < 0 || channel >= kSysStreamCount || sys == nullptr) return -1;
    if (CameraGetVideoEncodingProperty(streams) != 0) return -1;
    CameraGetAudioEncodingProperty(&audio);
    const VideoEncodingProperty &v = streams[channel];
    *info = RecordEncodingInfo{static_cast<uint32_t>(v.iWidth),
                               static_cast<uint32_t>(v.iHeight),
                               static_cast<uint32_t>(v.iFrameRate),
                               sys->ucVideoRotateMode,
                               static_cast<uint32_t>(v.iEncoding),
                               static_cast<uint32_t>(v.iStreamMode),
                               static_cast<uint32_t>(v.iStreamEncoding),
                               static_cast<uint32_t>(audio.iEncoding),
                               static_cast<uint32_t>(audio.entry[0].iSamplerate),
                               static_cast<uint32_t>(audio.entry[0].iBitrate)};
    return 0;
}

RecordWallClock g_wallClock = SystemWallClock;
RecordUptimeClock g_uptimeClock = SystemUptime;
RecordEncodingSource g_encodingSource = CameraEncodingSource;
std::string g_cardDir;  // empty: the card mount point
WriterStepHook g_stepHook = nullptr;
std::atomic<uint32_t> g_syncSeconds{0};  // flush interval, 0: none
// Every log line about a frame names the writer's own function, its helpers
// included: field logs are searched by it.
constexpr const char kWriterFunction[] = "libAVRecordWriteFrame";

void Step(WriterStep step) {
    if (g_stepHook != nullptr) g_stepHook(step);
}

void AddTotal(uint32_t &total, uint32_t amount) {
    std::atomic_ref<uint32_t>(total).fetch_add(amount, std::memory_order_relaxed);
}

void TakeKnownWritten(WriterState &w) {
    KnownWritten &k = w.known;
    k.info = *GetRecordConfigInfo();
    k.file = *GetFileInfoHead();
    k.section = *GetSectionInfoHead();
    k.offset = g_u32Offset;
    k.videoSince = 0;
    if (k.section.m_u32EndTime != 0)
        std::atomic_ref<uint32_t>(w.totals.lastFrameTime)
            .store(k.section.m_u32EndTime, std::memory_order_relaxed);
}

// Writes the three records; 0, or -1 when one of them did not reach the
// card. A section without a frame is written too: its slot must not claim
// what an earlier write put there.
int WriteRecords(int fd) {
    const FileInfoHead *file = GetFileInfoHead();
    const SectionInfoHead *section = GetSectionInfoHead();
    int result = 0;
    if (AV_RecordSectionInfoHeadWrite(fd, file, section) < 0) result = -1;
    if (AV_RecordFileInfoHeadWrite(fd, GetRecordConfigInfo(), file) < 0) result = -1;
    if (AV_RecordConfigInfoWrite(fd, GetRecordConfigInfo()) < 0) result = -1;
    return result;
}

// A write or flush failed: the section ends where its data are known to be
// on the card, the frames accounted since are counted lost, and the writer
// takes no frame until the run has ended the section. The records are
// written back now (the card may take them) and again by
// LS_RecordIndexRewrite once it takes writes.
void FailWrite(WriterState &w, int error, bool videoFrameInFlight) {
    KnownWritten &k = w.known;
    uint32_t lost = k.videoSince + (videoFrameInFlight ? 1 : 0);
    AddTotal(w.totals.writeErrors, 1);
    AddTotal(w.totals.framesLost, lost);
    std::atomic_ref<uint32_t>(w.totals.framesWritten).fetch_sub(k.videoSince, std::memory_order_relaxed);
    *GetRecordConfigInfo() = k.info;
    *GetFileInfoHead() = k.file;
    *GetSectionInfoHead() = k.section;
    g_u32Offset = k.offset;
    k.videoSince = 0;
    WriteRecords(w.indexFd);
    w.writingEnabled.store(0, std::memory_order_relaxed);
    w.failedChannel.store(w.channel.load(std::memory_order_relaxed), std::memory_order_relaxed);
    if (error == 0) error = EIO;  // a short write sets none
    w.cardError.store(error, std::memory_order_relaxed);
    LogError(
        "%s %d: card write failed, errno %d: the section ends at its last frame known written, %u frames "
        "lost\n",
        kWriterFunction, __LINE__, error, lost);
}

void LogPlayTime(const char *func, int line, time_t seconds) {
    struct tm tmv {};
    localtime_r(&seconds, &tmv);
    LogTrace("%s %d: ## PlayTime. %04d-%02d-%02d %02d:%02d:%02d    %u  ##\n", func, line, tmv.tm_year + 1900,
             tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec,
             static_cast<unsigned>(seconds));
}

void FillAudioParams(WriterState &w) {
    const RecordEncodingInfo &e = w.encoding;
    for (const AudioCodecMap &map : kAudioCodecs) {
        if (map.type == e.u32AudioCodeType) {
            w.audioCode = map.code;
            w.param.u16AudioCodec = map.code;
            w.param.u16AudioSampleRate = map.sampleRate;
            w.param.u16AudioValue = map.value;
            return;
        }
    }
    // Unknown type: the code in force stays, and audio goes on being
    // recorded with it; only the stream map takes the type itself.
    w.param.u16AudioCodec = static_cast<uint16_t>(e.u32AudioCodeType);
    w.param.u16AudioSampleRate = static_cast<uint16_t>(e.u32AudioSampleRate);
    w.param.u16AudioValue = static_cast<uint16_t>(e.u32AudioValue);
}

// Stream parameters and section media parameters at the section's first
// key frame; takes the reference clocks.
void StartSection(WriterState &w, uint16_t codec) {
    const RecordEncodingInfo &e = w.encoding;
    w.firstKeyPending = true;
    bool swap = e.u32RotateMode == 1 || e.u32RotateMode == 3;
    w.param.u16VideoCodec = codec;
    w.param.u16Width = static_cast<uint16_t>(swap ? e.u32Height : e.u32Width);
    w.param.u16Height = static_cast<uint16_t>(swap ? e.u32Width : e.u32Height);
    w.param.u16VideoParamA = static_cast<uint16_t>(e.u32VideoParamA);
    w.param.u16VideoParamB = static_cast<uint16_t>(e.u32VideoParamB);
    FillAudioParams(w);
    LogTrace("%s %d : Now RotateAngle  %d, width = %d, height = %d  framerate = %d  \n", kWriterFunction,
             __LINE__, static_cast<int>(e.u32RotateMode), w.param.u16Width, w.param.u16Height,
             static_cast<int>(e.u32FrameRate));

    SectionMediaParam media{w.param.u16Width, w.param.u16Height, static_cast<uint8_t>(e.u32FrameRate),
                            static_cast<uint8_t>(e.u32VideoByte), static_cast<uint8_t>(e.u32AudioCodeType)};
    SectionInfoHead *section = GetSectionInfoHead();
    AV_RecordSectionInfoHeadSetMediaParam(section, &media);

    g_wallClock(&w.refWall);
    w.refUptime = g_uptimeClock();
    LogTrace(kRuleLine, kWriterFunction, __LINE__);
    LogTrace("%s %d : m_u8AudioCodeType = %#x \n", kWriterFunction, __LINE__, section->m_u8AudioCodeType);
    LogPlayTime(kWriterFunction, __LINE__, w.refWall.tv_sec);
    LogTrace(kRuleLine, kWriterFunction, __LINE__);
}

// Uptime-based time, or the wall clock while it stays within tolerance; -1
// when that time is one the card cannot hold (the frame is not written).
int FrameTime(const WriterState &w, uint32_t *time) {
    struct timeval now {};
    g_wallClock(&now);
    time_t counted = w.refWall.tv_sec + static_cast<time_t>(g_uptimeClock() - w.refUptime);
    time_t drift = now.tv_sec - counted;
    time_t chosen = drift >= -kWallClockTolerance && drift <= kWallClockTolerance ? now.tv_sec : counted;
    return CardTimeForStore(chosen, time, "frame time", kWriterFunction);
}

// Builds the frame's bytes in g_outBuf; *start is where they begin. The PS
// length (with the record file header for a section's first frame) or -1.
int BuildFrame(WriterState &w, int kind, bool keyForm, const uint8_t *data, uint32_t length, uint32_t time,
               const uint8_t **start) {
    uint8_t *ps = g_outBuf + kRecordFileHeaderSize;
    *start = ps;
    if (kind != kFrameKindVideo) {
        if (!w.sectionStarted) return -1;
        uint16_t code = w.audioCode;
        if (code != kAudioCodecAac && code != kAudioCodecG711U && code != kAudioCodecG711A) return -1;
        return makeAudioPSFrame(data, length, ps, w.frameCounter + 1);
    }
    ++w.frameCounter;
    int psLength = makeVideoPSFrame(keyForm, data, length, ps, w.frameCounter, &w.param, time);
    if (psLength < 0 || w.frameCounter != 1) return psLength;
    memcpy(g_outBuf, kRecordFileHeader, kRecordFileHeaderSize);
    *start = g_outBuf;
    return psLength + kRecordFileHeaderSize;
}

int WriteKeyFrameEntry(WriterState &w, uint32_t time, uint32_t length, uint8_t keyType) {
    KeyFrameEntry entry;
    AV_RecordKeyFrameEntryInit(&entry, time, length, GetSectionInfoHead()->m_u32SectionSize, keyType);
    int result = AV_RecordKeyFrameEntryWrite(
        w.mediaFd, KeyFrameEntryOffset(GetFileInfoHead()->m_u32KeyFrameSum), &entry);
    struct tm tmv {};
    CardTimeLocal(time, &tmv);
    LogTrace("%s %d: ##keyType = %d  KeyFrameTime. %04d-%02d-%02d %02d:%02d:%02d ##\n", kWriterFunction,
             __LINE__, keyType, tmv.tm_year + 1900, tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour, tmv.tm_min,
             tmv.tm_sec);
    return result < 0 ? -1 : 0;
}

// Updates the three records for a frame and writes them in their order; 0,
// or -1 when one of the writes failed.
int UpdateIndex(WriterState &w, uint32_t time, uint32_t length, bool entryWritten, bool audio) {
    SectionInfoHead *section = GetSectionInfoHead();
    FileInfoHead *file = GetFileInfoHead();
    RecordConfigInfo *info = GetRecordConfigInfo();
    AV_RecordSectionInfoHeadSetEndTime(section, time);
    AV_RecordSectionInfoHeadAddSize(section, length);
    AV_RecordSectionInfoHeadCountFrame(section, entryWritten, audio);
    AV_RecordFileInfoHeadAddDataSize(file, length);
    if (time >= file->m_u32EndTime) AV_RecordFileInfoHeadSetEndTime(file, time);
    AV_RecordFileInfoHeadCountKeyFrame(file, entryWritten);
    Step(WriterStep::kRecordsUpdated);
    int result = AV_RecordSectionInfoHeadWrite(w.indexFd, file, section) < 0 ? -1 : 0;
    if (AV_RecordFileInfoHeadWrite(w.indexFd, info, file) < 0) result = -1;
    if (AV_RecordConfigInfoWrite(w.indexFd, info) < 0) result = -1;
    return result;
}

// Media data first, then the index that describes it (not the index when
// the data could not be flushed): a flushed index never points at data that
// a power cut could still take. Without flushes every frame whose writes
// succeeded counts as written. 0, or -1 when a flush failed.
int SyncIfDue(WriterState &w) {
    uint32_t interval = g_syncSeconds.load(std::memory_order_relaxed);
    if (interval == 0) {
        TakeKnownWritten(w);
        return 0;
    }
    uint32_t now = g_uptimeClock();
    if (now - w.lastSync < interval) return 0;
    w.lastSync = now;
    if (AVFileDataSync(w.mediaFd) != 0 || AVFileDataSync(w.indexFd) != 0) {
        int error = errno;
        LogTrace("%s %d: fdatasync failed, errno %d\n", kWriterFunction, __LINE__, error);
        errno = error;
        return -1;
    }
    TakeKnownWritten(w);
    return 0;
}

bool Recording(const WriterState &w, int channel) {
    return w.recordingOn.load(std::memory_order_relaxed) &&
           channel == w.channel.load(std::memory_order_relaxed);
}

// A frame whose bytes are in the media file: the offsets, its key-frame
// entry and the records; then a flush when one is due. 0, or -1 (errno
// set) when a write or the flush failed.
int AccountFrame(WriterState &w, uint32_t time, uint32_t written, bool video, bool key, bool marked) {
    if (w.firstKeyPending) {
        w.sectionStarted = true;
        w.firstKeyPending = false;
        time = GetSectionInfoHead()->m_u32StartTime;
    }
    w.fileSize += written;
    g_u32Offset += written;

    uint32_t pixels = uint32_t{w.param.u16Width} * w.param.u16Height;
    bool entry = video && (key || (marked && pixels >= kKeyEntryMinPixels));
    int result = 0;
    if (entry) {
        result = WriteKeyFrameEntry(w, time, written, marked ? kKeyTypeEncoderMark : kKeyTypeParameterSet);
        Step(WriterStep::kKeyEntryWritten);
    }
    if (UpdateIndex(w, time, written, entry, !video) != 0) result = -1;
    AddTotal(w.totals.bytesWritten, written);
    if (video) {
        AddTotal(w.totals.framesWritten, 1);
        ++w.known.videoSince;
    }
    if (result != 0) return -1;
    return SyncIfDue(w);
}

// A frame that is not written. When it was to open the section, the section
// stays unopened: nothing may come before its first key frame.
int RefuseFrame(WriterState &w) {
    if (w.firstKeyPending) {
        w.firstKeyPending = false;
        w.frameCounter = 0;
    }
    return -1;
}

// One frame that passed the gate, from its classification to the index.
int WriteAdmittedFrame(WriterState &w, int channel, int kind, const uint8_t *data, const AVDataInfo *info) {
    uint32_t length = static_cast<uint32_t>(info->AVDataLen);
    bool video = kind == kFrameKindVideo;
    g_encodingSource(channel, &w.encoding);
    FrameClass cls = video ? LS_RecordClassifyFrame(data, length) : FrameClass{kVideoCodecH264, false};
    if (!w.writingEnabled.load(std::memory_order_relaxed)) return 0;
    // Past the full mark the sizes no longer grow, so no section could
    // account for the frame: it is left out until the run moves on.
    if (AV_RecordFileInfoHeadIsFull(GetFileInfoHead())) return 0;
    Step(WriterStep::kAdmitted);

    if (!w.sectionStarted && cls.key) StartSection(w, cls.codec);
    if (!w.sectionStarted && !w.firstKeyPending) {
        w.refUptime = 0;
        return -1;
    }
    uint32_t time = 0;
    if (FrameTime(w, &time) != 0) return RefuseFrame(w);
    bool marked = info->KeyFrameFlag == kEncoderKeyMark;

    const uint8_t *start = nullptr;
    int psLength = BuildFrame(w, kind, cls.key || marked, data, length, time, &start);
    if (psLength < 0) return RefuseFrame(w);
    errno = 0;
    if (AV_RecordStreamInfoWrite(w.mediaFd, g_u32Offset, start, static_cast<uint32_t>(psLength)) !=
        psLength) {
        FailWrite(w, errno, video);
        return -1;
    }
    Step(WriterStep::kMediaWritten);
    errno = 0;
    if (AccountFrame(w, time, static_cast<uint32_t>(psLength), video, cls.key, marked) != 0) {
        FailWrite(w, errno, false);
        return -1;
    }
    return 0;
}

// Closes both descriptors. The open calls it too, for what an earlier open
// left: a failed open keeps the index open, and a run that returned
// without its end steps keeps both.
void CloseDescriptors(WriterState &w) {
    if (w.indexFd >= 0) AVFileClose(w.indexFd);
    if (w.mediaFd >= 0) AVFileClose(w.mediaFd);
    w.indexFd = -1;
    w.mediaFd = -1;
}

}  // namespace

FrameClass LS_RecordClassifyFrame(const uint8_t *data, uint32_t length) {
    FrameClass cls{kVideoCodecH264, false};
    if (length < kNalHeaderAt + 2) return cls;
    int h264 = H264NalType(data[kNalHeaderAt]);
    if (H264PictureOrParamSet(h264)) {
        cls.key = h264 == kH264NalSps;
        return cls;
    }
    int h265 = H265NalType(data[kNalHeaderAt]);
    if (h265 == kH265NalTrail || h265 == kH265NalVps) {
        cls.codec = kVideoCodecH265;
        cls.key = h265 == kH265NalVps;
    }
    return cls;
}

void LS_RecordSetEncodingSource(RecordEncodingSource source) {
    g_encodingSource = source != nullptr ? source : CameraEncodingSource;
}

void LS_RecordSetSyncSeconds(uint32_t seconds) { g_syncSeconds.store(seconds, std::memory_order_relaxed); }

void LS_RecordSetStepHook(WriterStepHook hook) { g_stepHook = hook; }

void LS_RecordSetCardDir(const char *dir) { g_cardDir = dir != nullptr ? dir : ""; }

void LS_RecordSetClocks(RecordWallClock wall, RecordUptimeClock uptime) {
    g_wallClock = wall != nullptr ? wall : SystemWallClock;
    g_uptimeClock = uptime != nullptr ? uptime : SystemUptime;
}

uint32_t LS_RecordVideoFrameTally(int channel) {
    if (channel < 0 || channel >= kMaxChannels) return 0;
    return std::atomic_ref<uint32_t>(g_writer.videoTally[channel]).load(std::memory_order_relaxed);
}

int LS_RecordInit(const FileInfoHead *file, int channel) {
    if (file == nullptr) return -1;
    WriterState &w = g_writer;
    std::lock_guard<std::mutex> gate(w.gate);
    CloseDescriptors(w);

    char path[256];
    std::string card = g_cardDir.empty() ? PlatformPath(kCardMountPoint) : g_cardDir;
    snprintf(path, sizeof path, "%s%s", card.c_str(), kIndexFileName);
    w.indexFd = AVFileOpen(path, kAVFileModeReadWrite);
    if (w.indexFd < 0) return -1;
    char name[32];
    snprintf(name, sizeof name, kMediaFileNameFormat, static_cast<int>(file->m_u32FileNo));
    snprintf(path, sizeof path, "%s%s", card.c_str(), name);
    LogTrace("%s %d :################## FileName = %s \n", __func__, __LINE__, path);
    w.mediaFd = AVFileOpen(path, kAVFileModeReadWrite);
    if (w.mediaFd < 0) {
        LogTrace("%s %d : open %s file fail\n", __func__, __LINE__, path);
        return -1;
    }
    w.streamFd = w.mediaFd;

    w.fileSize = 0;
    w.frameCounter = 0;
    w.param = PSStreamParam{};
    w.lastSync = g_uptimeClock();
    w.channel.store(channel, std::memory_order_relaxed);
    g_u32Offset = file->m_u32DataSize;
    TakeKnownWritten(w);
    LogTrace("%s %d : g_u32Offset = %d \n", __func__, __LINE__, static_cast<int>(g_u32Offset));
    LogTrace("%s %d:  m_u32FileSize = %d \n", __func__, __LINE__, static_cast<int>(w.fileSize));
    w.writingEnabled.store(1, std::memory_order_relaxed);
    w.recordingOn.store(1, std::memory_order_relaxed);
    return 0;
}

int libAVRecordWriteFrame(int channel, int kind, const uint8_t *data, const AVDataInfo *info) {
    WriterState &w = g_writer;
    if (kind == kFrameKindVideo && w.cardError.load(std::memory_order_relaxed) != 0 &&
        channel == w.failedChannel.load(std::memory_order_relaxed)) {
        AddTotal(w.totals.framesLost, 1);
        return 0;
    }
    if (!Recording(w, channel)) return 0;
    if (data == nullptr || info == nullptr || info->AVDataLen < 0 ||
        static_cast<uint32_t>(info->AVDataLen) > kMaxFrameLength) {
        return -1;
    }
    if (kind == kFrameKindVideo && channel >= 0 && channel < kMaxChannels) {
        std::atomic_ref<uint32_t>(w.videoTally[channel]).fetch_add(1, std::memory_order_relaxed);
    }
    // The gate: a frame that gets through is written whole before the run
    // can end the section; one that comes after the end is not taken.
    std::lock_guard<std::mutex> gate(w.gate);
    if (!Recording(w, channel)) return 0;
    return WriteAdmittedFrame(w, channel, kind, data, info);
}

void LS_RecordStop() {
    WriterState &w = g_writer;
    w.recordingOn.store(0, std::memory_order_relaxed);
    std::lock_guard<std::mutex> gate(w.gate);
}

int LS_RecordClose() {
    WriterState &w = g_writer;
    w.recordingOn.store(0, std::memory_order_relaxed);
    std::lock_guard<std::mutex> gate(w.gate);
    CloseDescriptors(w);
    // The media descriptor's second copy is released through the logged
    // stream close. Its number may already belong to a file another thread
    // opened since, so the close is made on the cleared copy: it fails
    // harmlessly and leaves its log line.
    w.streamFd = -1;
    AV_RecordStreamFileClose(w.streamFd);
    w.writingEnabled.store(0, std::memory_order_relaxed);
    w.channel.store(-1, std::memory_order_relaxed);
    g_u32Offset = 0;
    w.firstKeyPending = false;
    w.sectionStarted = false;
    w.fileSize = 0;
    w.frameCounter = 0;
    return 0;
}

int LS_RecordCardError() { return g_writer.cardError.load(std::memory_order_relaxed); }

int LS_RecordIndexRewrite() {
    WriterState &w = g_writer;
    std::lock_guard<std::mutex> gate(w.gate);
    char path[256];
    std::string card = g_cardDir.empty() ? PlatformPath(kCardMountPoint) : g_cardDir;
    snprintf(path, sizeof path, "%s%s", card.c_str(), kIndexFileName);
    errno = 0;
    int fd = AVFileOpen(path, kAVFileModeReadWrite);
    if (fd < 0) return errno != 0 ? errno : EIO;
    errno = 0;
    int result = WriteRecords(fd) == 0 && AVFileDataSync(fd) == 0 ? 0 : (errno != 0 ? errno : EIO);
    AVFileClose(fd);
    if (result == 0) {
        w.cardError.store(0, std::memory_order_relaxed);
        w.failedChannel.store(-1, std::memory_order_relaxed);
    }
    return result;
}

WriterCounters LS_RecordCounters() {
    const WriterTotals &t = g_writer.totals;
    auto load = [](const uint32_t &v) {
        return std::atomic_ref<uint32_t>(const_cast<uint32_t &>(v)).load(std::memory_order_relaxed);
    };
    return WriterCounters{load(t.framesWritten), load(t.framesLost), load(t.writeErrors),
                          load(t.bytesWritten), load(t.lastFrameTime)};
}
