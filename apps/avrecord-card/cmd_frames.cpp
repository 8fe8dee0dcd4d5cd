// "avrecord-card frames NAME": walks one recorded section
// ("hiNNNNNN_SSSSSS.mp4") or alarm event ("heNNNNNN_EEEEEE.mp4") frame by
// frame with the playback reader, positioned from the index records. One
// line per frame; --es writes the video elementary stream to a file.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/index_check.h"
#include "avrecord_lib/index_records.h"
#include "avrecord_lib/playback_reader.h"
#include "avrecord_lib/ps_packetizer.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "card_command.h"

namespace {

// Largest frame a section can hold, with room for one more PES payload.
constexpr uint32_t kFrameBufferSize = kMaxFrameLength + kPesMaxPayload;

// What the name selects.
struct Selection {
    bool event = false;      // he name
    uint32_t fileNo = 0;     // media file
    uint32_t number = 0;     // section number or event index
    uint32_t dataBegin = 0;  // first PS byte of the section
    uint32_t dataEnd = 0;    // end of the section's PS bytes
    uint32_t fromTime = 0;   // event: frames from the key frame before this time
    uint32_t toTime = 0;     // event: up to this time (0: the section's end)
};

bool ParseName(const std::string &name, Selection *sel) {
    char kind = 0;
    char tail[8] = {};
    unsigned fileNo = 0, number = 0;
    if (name.size() != strlen("hi000000_000000.mp4") || name[0] != 'h' ||
        sscanf(name.c_str(), "h%c%6u_%6u%7s", &kind, &fileNo, &number, tail) != 4 ||
        strcmp(tail, ".mp4") != 0 || (kind != 'i' && kind != 'e')) {
        return false;
    }
    sel->event = kind == 'e';
    sel->fileNo = fileNo;
    sel->number = number;
    return true;
}

std::string FormatTime(uint32_t seconds) {
    time_t t = static_cast<time_t>(seconds);
    struct tm tmv;
    gmtime_r(&t, &tmv);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tmv);
    return text;
}

// The first section record of the file that `match` accepts; kExitOk, or
// kExitCardProblem (nothing printed) when there is none.
template <typename Match>
int FindSection(const CardArgs &args, int indexFd, const FileInfoHead &file, Match match,
                SectionInfoHead *section) {
    std::vector<SectionInfoHead> sections(kMaxSectionNo);
    if (AV_RecordSectionInfoHeadRead(indexFd, &file, sections.data()) < 0) {
        return CardFail(args, kExitCardProblem, "cannot read the section records of media file %u",
                        file.m_u32FileNo);
    }
    for (uint32_t i = 0; i < file.m_u32RecordSectionSum && i < sections.size(); ++i) {
        if (sections[i].m_u32HeadFlag == kSectionInfoHeadFlag && match(sections[i])) {
            *section = sections[i];
            return kExitOk;
        }
    }
    return kExitCardProblem;
}

int FindEvent(const CardArgs &args, uint32_t fileNo, uint32_t eventNo, AlarmEventEntry *event) {
    std::string path = args.card + kEventFileName;
    int fd = AVFileOpen(path.c_str(), kAVFileModeRead);
    if (fd < 0) return CardFail(args, kExitCardProblem, "cannot open %s", path.c_str());
    AlarmEventInfo info;
    std::vector<AlarmEventEntry> entries(kMaxAlarmEventListRead);
    bool ok = AV_AlarmEventFileInfoRead(fd, fileNo, &info) >= 0 &&
              info.m_u32HeadFlag == kAlarmEventInfoFlag &&
              AV_AlarmEventEntryListRead(fd, &info, entries.data()) >= 0;
    AVFileClose(fd);
    if (!ok) return CardFail(args, kExitCardProblem, "media file %u has no alarm events", fileNo);
    for (uint32_t i = 0; i < info.m_u32AlarmEventSum && i < entries.size(); ++i) {
        if (entries[i].m_u32HeadFlag == kAlarmEventEntryFlag && entries[i].m_u16EventNo == eventNo) {
            *event = entries[i];
            return kExitOk;
        }
    }
    return CardFail(args, kExitCardProblem, "media file %u has no alarm event %u", fileNo, eventNo);
}

// Reads the index records the name points at into sel.
int Locate(const CardArgs &args, Selection *sel) {
    CardIndex index;
    std::string reason;
    if (LoadCardIndex(args.card, &index, &reason) < 0)
        return CardFail(args, kExitCardProblem, "%s", reason.c_str());
    if (sel->fileNo >= index.files.size() || index.files[sel->fileNo].m_u32HeadFlag != kFileInfoHeadFlag) {
        return CardFail(args, kExitCardProblem, "media file %u holds no recording", sel->fileNo);
    }
    const FileInfoHead &file = index.files[sel->fileNo];
    int indexFd = AVFileOpen((args.card + kIndexFileName).c_str(), kAVFileModeRead);
    SectionInfoHead section{};
    int rc;
    if (sel->event) {
        AlarmEventEntry event{};
        rc = FindEvent(args, sel->fileNo, sel->number, &event);
        sel->fromTime = event.m_u32StartTime;
        sel->toTime = event.m_u32EndTime;
        auto holdsEvent = [&](const SectionInfoHead &s) {
            return s.m_u32StartTime <= sel->fromTime && sel->fromTime <= s.m_u32EndTime;
        };
        if (rc == kExitOk &&
            (rc = FindSection(args, indexFd, file, holdsEvent, &section)) == kExitCardProblem) {
            CardFail(args, rc, "no section of media file %u holds the event's start %u", sel->fileNo,
                     sel->fromTime);
        }
    } else {
        auto numbered = [&](const SectionInfoHead &s) { return s.m_u16SectionNo == sel->number; };
        if ((rc = FindSection(args, indexFd, file, numbered, &section)) == kExitCardProblem) {
            CardFail(args, rc, "media file %u has no section %u", sel->fileNo, sel->number);
        }
    }
    AVFileClose(indexFd);
    if (rc != kExitOk) return rc;
    uint64_t end = uint64_t{section.m_u32SectionOffset} + section.m_u32SectionSize;
    if (end > kKeyFrameTableOffset) {
        return CardFail(args, kExitCardProblem, "section data %u+%u runs into the key-frame table",
                        section.m_u32SectionOffset, section.m_u32SectionSize);
    }
    sel->dataBegin = section.m_u32SectionOffset;
    sel->dataEnd = static_cast<uint32_t>(end);
    return kExitOk;
}

struct FrameInfo {
    uint32_t offset;  // pack header or audio PES
    int type;         // kPSFrameVideo / kPSFrameAudio
    bool key;         // key frame
    uint32_t length;  // elementary-stream bytes
    uint32_t time;    // wall clock of the last video frame
    uint32_t pts;     // PTS, low 32 bits
};

// Walks the section's frames from `at`; visit returns false to stop.
// kExitOk, or kExitCardProblem after a frame could not be read.
template <typename Visit>
int WalkFrames(const CardArgs &args, int fd, const Selection &sel, uint32_t at, std::vector<uint8_t> &buf,
               Visit visit) {
    uint32_t time = 0;
    while (at < sel.dataEnd) {
        FrameInfo info{at, 0, false, 0, time, 0};
        uint32_t next = at;
        if (libAVRecordPlayBackGetPSFrameBounded(fd, &next, sel.dataEnd, &info.type, buf.data(), buf.size(),
                                                 &info.length, &time, &info.pts) != 0 ||
            next <= at) {
            return CardFail(args, kExitCardProblem, "unreadable frame at offset %u of media file %u", at,
                            sel.fileNo);
        }
        info.time = time;
        info.key = info.type == kPSFrameVideo && libAVRecordPlayBackIsKeyFrame(fd, at) == 1;
        if (!visit(info)) break;
        at = next;
    }
    return kExitOk;
}

const char *KindName(const FrameInfo &f) {
    return f.type == kPSFrameAudio ? "audio" : f.key ? "key" : "video";
}

void PrintFrame(const CardArgs &args, uint32_t n, const FrameInfo &f) {
    if (args.json) {
        JsonLine line;
        line.Add("frame", n).Add("kind", KindName(f)).Add("offset", f.offset).Add("length", f.length);
        if (f.type == kPSFrameVideo) line.Add("time", f.time);
        line.Add("pts", f.pts).Print();
    } else {
        printf("%6u  %-5s  %8u  %s  %10u\n", n, KindName(f), f.length,
               f.type == kPSFrameVideo ? FormatTime(f.time).c_str() : "                   ", f.pts);
    }
}

int RunFrames(const CardArgs &args) {
    Selection sel;
    if (args.positional.size() != 1 || !ParseName(args.positional[0], &sel)) {
        return CardFail(args, kExitUsage, "needs one NAME like hi000000_000001.mp4 or he000000_000000.mp4");
    }
    if (int rc = Locate(args, &sel); rc != kExitOk) return rc;

    char mediaName[32];
    snprintf(mediaName, sizeof mediaName, kMediaFileNameFormat, static_cast<int>(sel.fileNo));
    std::string mediaPath = args.card + mediaName;
    int fd = AVFileOpen(mediaPath.c_str(), kAVFileModeRead);
    if (fd < 0) return CardFail(args, kExitCardProblem, "cannot open %s", mediaPath.c_str());
    FILE *es = nullptr;
    if (args.Has("--es") && (es = fopen(args.Get("--es").c_str(), "wb")) == nullptr) {
        AVFileClose(fd);
        return CardFail(args, kExitUsage, "cannot write %s", args.Get("--es").c_str());
    }

    std::vector<uint8_t> buf(kFrameBufferSize);
    uint8_t head[kRecordFileHeaderSize];
    uint32_t first = sel.dataBegin;
    if (AV_RecordStreamInfoRead(fd, first, head, sizeof head) >= 0 &&
        memcmp(head, kRecordFileHeader, 4) == 0) {
        first += kRecordFileHeaderSize;
    }
    int rc = kExitOk;
    if (sel.event) {
        // Start at the last key frame at or before the event.
        uint32_t start = first;
        rc = WalkFrames(args, fd, sel, first, buf, [&](const FrameInfo &f) {
            if (f.type == kPSFrameVideo && f.time > sel.fromTime) return false;
            if (f.key) start = f.offset;
            return true;
        });
        first = start;
    }
    uint32_t n = 0, keys = 0, audio = 0;
    uint64_t esBytes = 0;
    if (rc == kExitOk) {
        rc = WalkFrames(args, fd, sel, first, buf, [&](const FrameInfo &f) {
            if (sel.event && sel.toTime != 0 && f.type == kPSFrameVideo && f.time > sel.toTime) return false;
            PrintFrame(args, n++, f);
            keys += f.key;
            audio += f.type == kPSFrameAudio;
            if (es != nullptr && f.type == kPSFrameVideo) {
                fwrite(buf.data(), 1, f.length, es);
                esBytes += f.length;
            }
            return true;
        });
    }
    AVFileClose(fd);
    if (es != nullptr && fclose(es) != 0 && rc == kExitOk) {
        rc = CardFail(args, kExitUsage, "cannot write %s", args.Get("--es").c_str());
    }
    if (!args.json) {
        printf("%u frames (%u key, %u audio)", n, keys, audio);
        if (es != nullptr) printf(", %llu bytes of video written", static_cast<unsigned long long>(esBytes));
        printf("\n");
    }
    return rc;
}

}  // namespace

AVR_CARD_COMMAND(frames, "frames", "frames NAME [--card DIR] [--json] [--es OUT]", {"--es"}, RunFrames);
