#include "card_reader/card_recovery.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/playback_reader.h"
#include "avrecord_lib/ps_format.h"
#include "avrecord_lib/ps_packetizer.h"
#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "avrecord_lib/record_section.h"
#include "card_reader/event_slot.h"
#include "common/file_guard.h"
#include "common/file_io.h"

namespace {

constexpr uint32_t kFrameBufferSize = kMaxFrameLength + kPSKeyFrameReadLimit;
constexpr uint32_t kResyncChunk = 1u << 20;
// Bytes that tell a pack start code or a record file header.
constexpr uint32_t kPatternSize = kPsStartCodeSize;
// A fresh configuration's record type (the setting is not in the stream).
constexpr uint8_t kRecordTypeDefault = 0;
constexpr uint8_t kMediaFlag = 1;
// A section record's start may lie this far before its first frame (the
// wait for the first key frame, or a joined previous section).
constexpr uint32_t kStartSlackSeconds = 10;
// Unreadable stream bytes inside a section hide at most this much of it.
constexpr uint32_t kResumeSeconds = 60;
// Its end may lie this far behind its last video frame (an audio frame).
constexpr uint32_t kEndSlackSeconds = 1;
// The writer ends a run when the wall clock steps by more than 5 s (read in
// whole seconds on two clocks, so one more): a video frame further back
// than this belongs to no section running before it.
constexpr uint32_t kClockStepSeconds = 6;

// Low 32 bits of the time stamp the packetizer gives frame counter n.
uint32_t CounterStamp(uint32_t n) { return static_cast<uint32_t>(PSTimeStamp(n, kPsTimeStampRate)); }

// The counter whose time stamp is pts, 0 when none near it has it.
uint32_t CounterOfStamp(uint32_t pts) {
    int64_t guess = pts / (90000 / kPsTimeStampRate);
    for (int64_t n = std::max<int64_t>(1, guess - 2); n <= guess + 2; ++n) {
        if (CounterStamp(static_cast<uint32_t>(n)) == pts) return static_cast<uint32_t>(n);
    }
    return 0;
}

// One frame as the scan reads it.
struct ScannedFrame {
    uint32_t offset;  // its first PS byte
    uint32_t next;    // the byte behind it
    bool video;
    bool keyForm;      // pack, system header and stream map in front
    bool paramSetLed;  // its first unit is an SPS / VPS
    uint32_t time;     // pack time (video)
    uint32_t pts;      // low 32 bits of its time stamp
    uint16_t codec;    // from the stream map (key form)
    uint16_t width;
    uint16_t height;
    int audioCodeType;  // from the stream map, -1 when not one of ours
};

// What the old index says about one media file.
struct OldFile {
    bool valid = false;  // a file record of this file
    FileInfoHead record{};
    std::vector<SectionInfoHead> sections;  // slots 1..sum, magic checked by the user
};

// Card-wide values for the fields the stream does not carry.
struct Defaults {
    uint8_t videoParam = 0;
    uint8_t recordType = kRecordTypeDefault;
    uint8_t keyType = kKeyTypeEncoderMark;
};

// A section while it is scanned.
struct SectionScan {
    SectionInfoHead record{};
    std::vector<KeyFrameEntry> keys;
    uint32_t counter = 0;    // video frames (the time-stamp counter)
    uint32_t firstTime = 0;  // pack time of the first frame
    uint32_t lastVideoTime = 0;
    bool firstFrame = true;
    bool remnant = false;
    bool broken = false;       // unreadable bytes inside it
    bool rateCounted = false;  // its rate counted over whole seconds
    bool headerLost = false;   // its start is unreadable: counted as skipped bytes
    uint16_t codec = 0;
    uint64_t frames = 0;
    std::map<uint32_t, uint32_t> perSecond;  // video frames per pack time
};

class FileScanner {
public:
    FileScanner(uint32_t fileNo, int fd, const OldFile &old, const Defaults &defaults, bool writable,
                uint8_t *buf, CardRecovery *out)
        : fileNo_(fileNo),
          fd_(fd),
          old_(old),
          defaults_(defaults),
          writable_(writable),
          buf_(buf),
          out_(out) {
        file_.m_u32HeadFlag = kFileInfoHeadFlag;
        file_.m_u32FileNo = fileNo;
        file_.m_u32RecordType = kRecordTypeNormal;
    }
    void Scan(RecoveredFile *result);

private:
    bool ReadFrame(uint32_t at, ScannedFrame *frame);
    bool IsRecordHeader(uint32_t at);
    uint32_t FindResync(uint32_t from);
    uint32_t FindInChunk(uint32_t at, uint32_t n);
    bool Continues(const SectionScan &s, const ScannedFrame &f) const;
    void Open(uint32_t offset, bool remnant);
    void OpenDamagedSection(uint32_t at);
    void Add(const ScannedFrame &f);
    void AddKeyEntry(const ScannedFrame &f, uint32_t size, uint32_t time);
    void Close();
    void FinishSection(SectionScan &s);
    void FillShortSectionRates();
    uint8_t FrameRate(const SectionScan &s) const;
    void KeepOldFields(uint32_t slot, SectionInfoHead *r) const;
    void ReportSection(uint32_t slot, const SectionInfoHead &r);
    void ReportFile();
    void Merge(RecoveredFile *result);
    void Change(uint32_t sectionNo, const char *format, ...) __attribute__((format(printf, 3, 4)));

    uint32_t fileNo_;
    int fd_;
    const OldFile &old_;
    const Defaults &defaults_;
    bool writable_;  // the writer could have recorded here
    uint8_t *buf_;
    CardRecovery *out_;
    FileInfoHead file_{};
    std::unique_ptr<SectionScan> current_;
    std::vector<SectionScan> written_;
    std::vector<SectionScan> remnants_;
    bool remnantMode_ = false;
    uint64_t unreadable_ = 0;
    uint32_t keyRewrites_ = 0;
    uint32_t frameEnd_ = 0;  // behind the last frame taken into a section
    std::vector<uint8_t> chunk_;
};

void FileScanner::Change(uint32_t sectionNo, const char *format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    out_->changes.push_back(IndexProblem{fileNo_, sectionNo, text});
}

bool FileScanner::IsRecordHeader(uint32_t at) {
    uint8_t head[kRecordFileHeaderSize];
    return AV_RecordStreamInfoRead(fd_, at, head, sizeof head) >= 0 &&
           memcmp(head, kRecordFileHeader, sizeof head) == 0;
}

bool FileScanner::ReadFrame(uint32_t at, ScannedFrame *f) {
    uint32_t next = at;
    int type;
    uint32_t length = 0;
    uint32_t time = 0;
    uint32_t pts = 0;
    if (libAVRecordPlayBackGetPSFrameBounded(fd_, &next, kKeyFrameTableOffset, &type, buf_, kFrameBufferSize,
                                             &length, &time, &pts) != 0 ||
        next <= at)
        return false;
    *f = ScannedFrame{at, next, type == kPSFrameVideo, false, false, time, pts, 0, 0, 0, -1};
    if (!f->video) return true;
    uint8_t head[kKeyFrameHeadersSize];
    if (AV_RecordStreamInfoRead(fd_, at, head, sizeof head) < 0) return false;
    PsStreamMap map;
    f->keyForm = PsDecodeKeyFrameHeaders(head, &map);
    f->paramSetLed = LS_RecordClassifyFrame(buf_, length).key;
    if (f->keyForm) {
        f->codec = map.videoCodec;
        f->width = map.width;
        f->height = map.height;
        if (map.audio != nullptr) f->audioCodeType = map.audio->sectionType;
    }
    return true;
}

// The next place from `from` on where a section (its record file header) or
// a key frame (pack and system header) starts; the key-frame table's offset
// when there is none.
uint32_t FileScanner::FindResync(uint32_t from) {
    chunk_.resize(kResyncChunk);
    for (uint32_t at = from; at + kPatternSize <= kKeyFrameTableOffset;) {
        // Holes of a sparse file hold zeros: nothing to find there.
        int64_t data = FileIo().seek(fd_, at, SEEK_DATA);
        if (data < 0 && errno == ENXIO) break;
        if (data > at) {
            at = static_cast<uint32_t>(std::min<int64_t>(data, kKeyFrameTableOffset));
            continue;
        }
        uint32_t n = std::min<uint32_t>(kResyncChunk, kKeyFrameTableOffset - at);
        if (AV_RecordStreamInfoRead(fd_, at, chunk_.data(), n) < 0) break;
        uint32_t found = FindInChunk(at, n);
        if (found != 0 || n < kResyncChunk) return found != 0 ? found : kKeyFrameTableOffset;
        at += n - (kPatternSize - 1);
    }
    return kKeyFrameTableOffset;
}

// The first pack of a key frame or record file header that begins in the
// chunk read from `at` (0: none).
uint32_t FileScanner::FindInChunk(uint32_t at, uint32_t n) {
    const uint8_t *begin = chunk_.data();
    const uint8_t *end = begin + n;
    auto next = [end](const uint8_t *p, uint8_t c) {
        return p < end ? static_cast<const uint8_t *>(memchr(p, c, end - p)) : nullptr;
    };
    // The 01 of a pack start code, and the first byte of "IMKH".
    const uint8_t *one = next(begin + 2, kPsStartCodePrefix[2]);
    const uint8_t *head = next(begin, kRecordFileHeader[0]);
    while (one != nullptr || head != nullptr) {
        if (head == nullptr || (one != nullptr && one - 2 < head)) {
            const uint8_t *pack = one - 2;
            uint32_t where = at + static_cast<uint32_t>(pack - begin);
            if (static_cast<uint32_t>(end - pack) >= kPatternSize && PsIsStartCode(pack, kPsPackId) &&
                libAVRecordPlayBackIsKeyFrame(fd_, where) == 1)
                return where;
            one = next(one + 1, kPsStartCodePrefix[2]);
        } else {
            uint32_t where = at + static_cast<uint32_t>(head - begin);
            if (static_cast<uint32_t>(end - head) >= kPatternSize &&
                memcmp(head, kRecordFileHeader, kPatternSize) == 0 && IsRecordHeader(where))
                return where;
            head = next(head + 1, kRecordFileHeader[0]);
        }
    }
    return 0;
}

// The frame carries on the section's time-stamp counter (a new section
// starts the counter again, an earlier lap's frames carry another).
bool FileScanner::Continues(const SectionScan &s, const ScannedFrame &f) const {
    if (f.video && f.keyForm && s.codec != 0 &&
        (f.codec != s.codec || f.width != s.record.m_u16Width || f.height != s.record.m_u16Height))
        return false;
    // Behind unreadable bytes the section goes on at a later key frame of
    // its own: a higher counter, shortly after.
    if (s.broken) {
        return f.video && f.keyForm && CounterOfStamp(f.pts) > s.counter && f.time >= s.lastVideoTime &&
               f.time - s.lastVideoTime <= kResumeSeconds;
    }
    // An earlier lap's frames may follow the new lap's last one on the very
    // same counter (the same stream recorded from the same start): only
    // their time, older than the section's, tells them apart.
    if (f.video && s.counter != 0 && f.time + kClockStepSeconds < s.lastVideoTime) return false;
    return f.pts == CounterStamp(f.video ? s.counter + 1 : s.counter + 2);
}

void FileScanner::Open(uint32_t offset, bool remnant) {
    Close();
    current_ = std::make_unique<SectionScan>();
    current_->remnant = remnant;
    SectionInfoHead &r = current_->record;
    r.m_u32HeadFlag = kSectionInfoHeadFlag;
    r.m_u32FileNo = static_cast<uint16_t>(fileNo_);
    r.m_u32SectionOffset = offset;
    r.m_u32KeyFrameEntrySize = kKeyFrameEntrySize;
    r.m_u8MediaFlag = kMediaFlag;
    r.m_u8RecordType = defaults_.recordType;
    r.m_u8VideoParam = defaults_.videoParam;
}

void FileScanner::AddKeyEntry(const ScannedFrame &f, uint32_t size, uint32_t time) {
    SectionScan &s = *current_;
    KeyFrameEntry entry;
    uint8_t type = f.paramSetLed ? defaults_.keyType : kKeyTypeEncoderMark;
    uint32_t k = static_cast<uint32_t>(s.keys.size());
    for (const SectionScan &w : written_) k += static_cast<uint32_t>(w.keys.size());
    KeyFrameEntry onCard{};
    // The table on the card keeps the writer's entries for this lap: their
    // key type, and the section's start time in its first entry.
    if (!s.remnant && k < kMaxKeyFrameEntries &&
        AV_RecordKeyFrameEntryRead(fd_, KeyFrameEntryOffset(k), &onCard) == 0 &&
        onCard.m_u32HeadFlag == kKeyFrameEntryFlag && onCard.m_u32FrameSize == size &&
        onCard.m_u32FrameOffset == s.record.m_u32SectionSize &&
        (onCard.m_u8KeyType == kKeyTypeEncoderMark ||
         (onCard.m_u8KeyType == kKeyTypeParameterSet && f.paramSetLed))) {
        type = onCard.m_u8KeyType;
        if (s.firstFrame && onCard.m_u32Time <= time && time - onCard.m_u32Time <= kStartSlackSeconds)
            time = onCard.m_u32Time;
    }
    AV_RecordKeyFrameEntryInit(&entry, time, size, s.record.m_u32SectionSize, type);
    if (!s.remnant && memcmp(&entry, &onCard, sizeof entry) != 0) ++keyRewrites_;
    s.keys.push_back(entry);
}

void FileScanner::Add(const ScannedFrame &f) {
    SectionScan &s = *current_;
    if (s.broken) {
        // The unreadable bytes in front of the frame stay the section's.
        uint32_t skipped = f.offset - (s.record.m_u32SectionOffset + s.record.m_u32SectionSize);
        AV_RecordSectionInfoHeadAddSize(&s.record, skipped);
        AV_RecordFileInfoHeadAddDataSize(&file_, skipped);
    }
    uint32_t size = f.next - f.offset;
    if (s.firstFrame && !s.headerLost) size += kRecordFileHeaderSize;
    uint32_t time = f.video ? f.time : s.lastVideoTime;
    if (f.video) {
        s.counter = s.broken && f.keyForm ? CounterOfStamp(f.pts) : s.counter + 1;
        s.lastVideoTime = f.time;
        ++s.perSecond[f.time];
    }
    if (s.firstFrame) {
        s.codec = f.codec;
        s.firstTime = f.time;
        SectionMediaParam media{f.width, f.height, 0, defaults_.videoParam,
                                static_cast<uint8_t>(f.audioCodeType < 0 ? 0 : f.audioCodeType)};
        AV_RecordSectionInfoHeadSetMediaParam(&s.record, &media);
    }
    uint32_t pixels = uint32_t{s.record.m_u16Width} * s.record.m_u16Height;
    bool entry = f.video && f.keyForm && (f.paramSetLed || pixels >= kKeyEntryMinPixels);
    if (entry) AddKeyEntry(f, size, time);
    if (s.firstFrame) {
        // The writer gives the first frame the section's start time.
        time = entry ? s.keys.back().m_u32Time : time;
        s.record.m_u32StartTime = time;
        s.firstFrame = false;
    }
    s.broken = false;
    AV_RecordSectionInfoHeadSetEndTime(&s.record, time);
    AV_RecordSectionInfoHeadAddSize(&s.record, size);
    AV_RecordSectionInfoHeadCountFrame(&s.record, entry, !f.video);
    frameEnd_ = f.next;
    if (!s.remnant) AV_RecordFileInfoHeadAddDataSize(&file_, size);
    ++s.frames;
}

uint8_t FileScanner::FrameRate(const SectionScan &s) const {
    // Frame times are the times the frames were written: a frame that comes
    // a few milliseconds late moves from one second to the next (a steady
    // 25 fps reads 26, 24, 26, ...), and the ring's backlog arrives in one
    // burst at the start. So: the median count over two whole seconds
    // inside the section (its first and last second are partial), halved.
    std::vector<uint32_t> pairs;
    uint32_t rate = 0;
    if (s.perSecond.size() > 2) {
        auto last = std::prev(s.perSecond.end());
        rate = std::next(s.perSecond.begin())->second;  // one whole second only
        for (auto it = std::next(s.perSecond.begin()); std::next(it) != last; ++it)
            pairs.push_back(it->second + std::next(it)->second);
    }
    if (!pairs.empty()) {
        std::sort(pairs.begin(), pairs.end());
        size_t mid = pairs.size() / 2;
        uint32_t twice = pairs.size() % 2 != 0 ? 2 * pairs[mid] : pairs[mid - 1] + pairs[mid];
        rate = (twice + 2) / 4;  // the median pair, halved, rounded
    } else if (rate == 0) {
        uint32_t seconds = s.lastVideoTime > s.firstTime ? s.lastVideoTime - s.firstTime : 1;
        rate = (s.record.m_u32VideoFrameSum + seconds / 2) / seconds;
    }
    return static_cast<uint8_t>(std::min<uint32_t>(rate, UINT8_MAX));
}

void FileScanner::FinishSection(SectionScan &s) {
    s.record.m_u8FrameRate = FrameRate(s);
    s.rateCounted = s.perSecond.size() > 2;
    s.perSecond.clear();
}

// A section too short to hold a whole second takes the rate of the nearest
// section of the file that was counted over whole seconds (a camera keeps
// its rate from one section to the next far more often than not).
void FileScanner::FillShortSectionRates() {
    for (size_t i = 0; i < written_.size(); ++i) {
        if (written_[i].rateCounted) continue;
        for (size_t d = 1; d < written_.size(); ++d) {
            const SectionScan *near = i >= d && written_[i - d].rateCounted ? &written_[i - d]
                                      : i + d < written_.size() && written_[i + d].rateCounted
                                          ? &written_[i + d]
                                          : nullptr;
            if (near == nullptr) continue;
            written_[i].record.m_u8FrameRate = near->record.m_u8FrameRate;
            break;
        }
    }
}

void FileScanner::Close() {
    if (!current_) return;
    SectionScan &s = *current_;
    if (s.frames != 0) {
        FinishSection(s);
        (s.remnant ? remnants_ : written_).push_back(std::move(s));
    }
    current_.reset();
}

void FileScanner::Scan(RecoveredFile *result) {
    uint32_t trustedEnd = old_.valid ? old_.record.m_u32DataSize : 0;
    remnantMode_ = !writable_;
    uint32_t at = 0;
    while (at < kKeyFrameTableOffset) {
        if (!remnantMode_ && AV_RecordFileInfoHeadIsFull(&file_)) {
            // The writer takes nothing more into a full file.
            Close();
            remnantMode_ = true;
            at = FindResync(at);
            continue;
        }
        // A frame, or else the record file header of a new section.
        ScannedFrame f;
        bool read = ReadFrame(at, &f);
        if (!read && IsRecordHeader(at)) {
            Open(at, remnantMode_);
            at += kRecordFileHeaderSize;
            continue;
        }
        if (read && current_ && Continues(*current_, f)) {
            Add(f);
            at = f.next;
            continue;
        }
        // A key frame with a fresh counter opens a section whose record
        // file header is damaged; after a gap, an earlier lap's key frame
        // opens a remnant. The section starts at the header's place, which
        // holds no frame of another section.
        bool fresh = read && f.video && f.keyForm && f.pts == CounterStamp(1);
        bool canOpen = read && f.video && f.keyForm && at >= frameEnd_ + kRecordFileHeaderSize;
        if (canOpen && (fresh || (remnantMode_ && !current_))) {
            Open(at - kRecordFileHeaderSize, remnantMode_);
            current_->counter = fresh ? 0 : CounterOfStamp(f.pts) - 1;
            Add(f);
            at = f.next;
            continue;
        }
        uint32_t gap = at;
        if (!remnantMode_ && at < trustedEnd) OpenDamagedSection(at);
        if (!remnantMode_ && at < trustedEnd && current_) {
            // Inside the data the index vouches for: the section goes on
            // behind the unreadable bytes.
            current_->broken = true;
        } else {
            Close();
            remnantMode_ = true;
            // A key frame that carries on no section starts a remnant.
            if (canOpen) continue;
        }
        at = FindResync(at + 1);
        unreadable_ += at - gap;
    }
    Close();
    Merge(result);
}

// The old record of a slot, when it is one of this file's (nullptr if not).
const SectionInfoHead *OldSection(const OldFile &old, uint32_t fileNo, uint32_t slot) {
    if (slot == 0 || slot > old.sections.size()) return nullptr;
    const SectionInfoHead &o = old.sections[slot - 1];
    return SectionRecordDamage(o, fileNo, slot).empty() ? &o : nullptr;
}

// Unreadable bytes inside a section the index has begin behind the last
// frame taken: that section is opened at its place all the same, to go on
// at its next readable key frame.
void FileScanner::OpenDamagedSection(uint32_t at) {
    for (uint32_t slot = 1; slot <= old_.sections.size(); ++slot) {
        const SectionInfoHead *o = OldSection(old_, fileNo_, slot);
        if (o == nullptr || o->m_u32SectionOffset > at || at - o->m_u32SectionOffset >= o->m_u32SectionSize ||
            o->m_u32SectionOffset < frameEnd_)
            continue;
        Open(o->m_u32SectionOffset, false);
        current_->headerLost = true;
        current_->lastVideoTime = o->m_u32StartTime;
        return;
    }
}

// The old record's values for what the stream does not tell, where the old
// record describes the same data.
void FileScanner::KeepOldFields(uint32_t slot, SectionInfoHead *r) const {
    const SectionInfoHead *o = OldSection(old_, fileNo_, slot);
    // The same recording: same place, and a start at or shortly before the
    // first frame.
    if (o == nullptr || o->m_u32SectionOffset != r->m_u32SectionOffset ||
        o->m_u32StartTime > r->m_u32StartTime || r->m_u32StartTime - o->m_u32StartTime > kStartSlackSeconds)
        return;
    r->m_u8FrameRate = o->m_u8FrameRate;
    r->m_u8VideoParam = o->m_u8VideoParam;
    r->m_u8RecordType = o->m_u8RecordType;
    r->m_u32StartTime = o->m_u32StartTime;
    if (o->m_u32EndTime >= r->m_u32EndTime && o->m_u32EndTime - r->m_u32EndTime <= kEndSlackSeconds)
        r->m_u32EndTime = o->m_u32EndTime;
}

// Names the fields in which two records differ.
template <typename Record>
std::string DifferingFields(
    const Record &was, const Record &now,
    std::initializer_list<std::pair<const char *, std::pair<size_t, size_t>>> fields) {
    std::string names;
    const uint8_t *a = reinterpret_cast<const uint8_t *>(&was);
    const uint8_t *b = reinterpret_cast<const uint8_t *>(&now);
    for (const auto &[name, range] : fields) {
        if (memcmp(a + range.first, b + range.first, range.second) != 0)
            names += names.empty() ? name : std::string(", ") + name;
    }
    return names.empty() ? "reserved bytes" : names;
}

#define AVR_FIELD(type, field) \
    std::pair<size_t, size_t> { offsetof(type, field), sizeof(type::field) }

void FileScanner::ReportSection(uint32_t slot, const SectionInfoHead &r) {
    const SectionInfoHead *o = OldSection(old_, fileNo_, slot);
    if (o == nullptr) {
        Change(slot, "section record rebuilt from the data (the index had none)");
        return;
    }
    if (memcmp(o, &r, sizeof r) == 0) return;
    Change(slot, "section record corrected (%s) to match the data",
           DifferingFields(*o, r,
                           {{"offset", AVR_FIELD(SectionInfoHead, m_u32SectionOffset)},
                            {"start time", AVR_FIELD(SectionInfoHead, m_u32StartTime)},
                            {"end time", AVR_FIELD(SectionInfoHead, m_u32EndTime)},
                            {"size", AVR_FIELD(SectionInfoHead, m_u32SectionSize)},
                            {"video frames", AVR_FIELD(SectionInfoHead, m_u32VideoFrameSum)},
                            {"key frames", AVR_FIELD(SectionInfoHead, m_u32KeyFrameSum)},
                            {"entry size", AVR_FIELD(SectionInfoHead, m_u32KeyFrameEntrySize)},
                            {"width", AVR_FIELD(SectionInfoHead, m_u16Width)},
                            {"height", AVR_FIELD(SectionInfoHead, m_u16Height)},
                            {"frame rate", AVR_FIELD(SectionInfoHead, m_u8FrameRate)},
                            {"media flag", AVR_FIELD(SectionInfoHead, m_u8MediaFlag)},
                            {"video byte", AVR_FIELD(SectionInfoHead, m_u8VideoParam)},
                            {"audio codec", AVR_FIELD(SectionInfoHead, m_u8AudioCodeType)},
                            {"record type", AVR_FIELD(SectionInfoHead, m_u8RecordType)}})
               .c_str());
}

void FileScanner::ReportFile() {
    bool had = old_.valid;
    bool has = file_.m_u32HeadFlag == kFileInfoHeadFlag;
    if (!had && has) Change(0, "file record rebuilt from the data (the index had none)");
    if (had && !has) Change(0, "file record cleared: the media file holds none of the data it described");
    if (!had || !has || memcmp(&old_.record, &file_, sizeof file_) == 0) return;
    Change(0, "file record corrected (%s) to match the data",
           DifferingFields(old_.record, file_,
                           {{"start time", AVR_FIELD(FileInfoHead, m_u32StartTime)},
                            {"end time", AVR_FIELD(FileInfoHead, m_u32EndTime)},
                            {"data size", AVR_FIELD(FileInfoHead, m_u32DataSize)},
                            {"record type", AVR_FIELD(FileInfoHead, m_u32RecordType)},
                            {"sections", AVR_FIELD(FileInfoHead, m_u32RecordSectionSum)},
                            {"key frames", AVR_FIELD(FileInfoHead, m_u32KeyFrameSum)}})
               .c_str());
}

void FileScanner::Merge(RecoveredFile *result) {
    FillShortSectionRates();
    uint32_t keys = 0;
    for (size_t i = 0; i < written_.size(); ++i) {
        // Past the last slot the writer keeps rewriting that slot.
        uint32_t slot = static_cast<uint32_t>(std::min<size_t>(i + 1, kMaxSectionNo));
        SectionInfoHead r = written_[i].record;
        r.m_u16SectionNo = static_cast<uint16_t>(slot);
        KeepOldFields(slot, &r);
        // The section's first frame carries its start time.
        std::vector<KeyFrameEntry> &sectionKeys = written_[i].keys;
        if (!sectionKeys.empty() && sectionKeys.front().m_u32FrameOffset == 0)
            sectionKeys.front().m_u32Time = r.m_u32StartTime;
        if (slot <= result->sections.size())
            result->sections.back() = r;
        else
            result->sections.push_back(r);
        if (i == 0 || r.m_u32StartTime < file_.m_u32StartTime) file_.m_u32StartTime = r.m_u32StartTime;
        if (r.m_u32EndTime >= file_.m_u32EndTime) file_.m_u32EndTime = r.m_u32EndTime;
        keys += r.m_u32KeyFrameSum;
        result->keyFrames.insert(result->keyFrames.end(), written_[i].keys.begin(), written_[i].keys.end());
        result->frames += written_[i].frames;
    }
    for (uint32_t slot = 1; slot <= result->sections.size(); ++slot)
        ReportSection(slot, result->sections[slot - 1]);
    for (uint32_t slot = static_cast<uint32_t>(result->sections.size()) + 1;
         old_.valid && slot <= old_.sections.size(); ++slot) {
        if (OldSection(old_, fileNo_, slot) != nullptr)
            Change(slot, "section record dropped: no data of it in the media file");
    }
    if (written_.empty()) {
        file_ = FileInfoHead{};
    } else {
        file_.m_u32RecordSectionSum = static_cast<uint32_t>(result->sections.size());
        file_.m_u32KeyFrameSum = keys;
    }
    ReportFile();
    if (keyRewrites_ != 0) Change(0, "%u key-frame entries rewritten to match the data", keyRewrites_);
    result->record = file_;
    for (SectionScan &s : remnants_) {
        result->remnants.push_back(s.record);
        result->remnantKeys.insert(result->remnantKeys.end(), s.keys.begin(), s.keys.end());
        result->remnantFrames += s.frames;
    }
    result->unreadableBytes = unreadable_;
    result->indexed = old_.valid;
}

// Reads the old index: the header when it passes its check, and each
// file's record and section records when they are this file's.
void ReadOldIndex(const std::string &cardDir, uint32_t fileSum, CardRecovery *out,
                  std::vector<OldFile> *old) {
    old->assign(fileSum, OldFile{});
    FileGuard fd = AVFileOpenGuarded(cardDir + kIndexFileName);
    if (fd.fd() < 0) {
        out->notes.push_back(IndexProblem{-1, 0, "index000.bin cannot be opened"});
        return;
    }
    RecordConfigInfo header;
    out->indexReadable =
        AV_RecordConfigInfoRead(fd.fd(), &header) > 0 && AV_RecordConfigInfoCheck(&header) == 0;
    if (out->indexReadable) out->header = header;
    std::vector<SectionInfoHead> sections(kMaxSectionNo);
    for (uint32_t n = 0; n < fileSum; ++n) {
        OldFile &f = (*old)[n];
        if (AV_RecordFileInfoHeadAccecsFileNoRead(fd.fd(), n, &f.record) < 0) continue;
        f.valid = f.record.m_u32HeadFlag == kFileInfoHeadFlag && f.record.m_u32FileNo == n;
        // Without its file record every slot is read: the section records
        // that are this file's and agree with the data still count.
        uint32_t sum = f.valid ? std::min(f.record.m_u32RecordSectionSum, kMaxSectionNo) : kMaxSectionNo;
        FileInfoHead clamped = f.record;
        clamped.m_u32FileNo = n;
        clamped.m_u32RecordSectionSum = sum;
        if (sum != 0 && AV_RecordSectionInfoHeadRead(fd.fd(), &clamped, sections.data()) == 0)
            f.sections.assign(sections.begin(), sections.begin() + sum);
    }
}

// The most common value of a section field over the old index's valid
// section records; fallback when there are none.
uint8_t CommonSectionByte(const std::vector<OldFile> &old, uint8_t SectionInfoHead::*field,
                          uint8_t fallback) {
    std::map<uint8_t, uint32_t> counts;
    for (uint32_t n = 0; n < old.size(); ++n) {
        for (uint32_t slot = 1; slot <= old[n].sections.size(); ++slot) {
            const SectionInfoHead *o = OldSection(old[n], n, slot);
            if (o != nullptr) ++counts[o->*field];
        }
    }
    uint8_t best = fallback;
    uint32_t seen = 0;
    for (const auto &[value, times] : counts) {
        if (times > seen) best = value, seen = times;
    }
    return best;
}

uint32_t CountMediaFiles(const std::string &cardDir) {
    uint32_t n = 0;
    while (n < kMaxIndexFileRecords && n < kMaxIndexSectionBlocks &&
           CardFileSize(CardMediaFilePath(cardDir, n)) >= 0)
        ++n;
    return n;
}

bool HasRecord(const RecoveredFile &f) { return f.record.m_u32HeadFlag == kFileInfoHeadFlag; }

// The file the writer records into now. It leaves a file only once it is
// full, so a file with data short of full is the current one; when every
// file with data is full, the one recorded last (the latest end time).
uint32_t CurrentFile(const CardRecovery &r) {
    uint32_t newest = 0;
    for (uint32_t n = 0; n < r.files.size(); ++n) {
        const FileInfoHead &f = r.files[n].record;
        if (HasRecord(r.files[n]) && !AV_RecordFileInfoHeadIsFull(&f)) return n;
        if (HasRecord(r.files[n]) && f.m_u32EndTime >= r.files[newest].record.m_u32EndTime) newest = n;
    }
    return newest;
}

// Whether the old header's place in the circular order agrees with the
// data: its current file is the one being recorded, or, when that is full,
// the file after it that the next section opens.
bool HeaderAgrees(const CardRecovery &r, uint32_t fileSum) {
    const RecordConfigInfo &h = r.header;
    if (!r.indexReadable || h.m_u32RecordFileSum != fileSum || h.m_u32FileInfoHeadNo >= fileSum ||
        h.m_u32RecordFileUsed > fileSum)
        return false;
    uint32_t current = CurrentFile(r);
    const RecoveredFile &named = r.files[h.m_u32FileInfoHeadNo];
    if (!HasRecord(r.files[current])) return true;  // nothing recorded: any place will do
    if (h.m_u32FileInfoHeadNo == current) return true;
    bool full = AV_RecordFileInfoHeadIsFull(&r.files[current].record);
    return full && !HasRecord(named) && h.m_u32FileInfoHeadNo == (current + 1) % fileSum;
}

// Files the writer has not reached since the header was written hold data
// of an earlier use of the card: offered as remnants only.
void SetAsideUnreached(CardRecovery *r) {
    const RecordConfigInfo &h = r->header;
    if (h.m_u32RecordFileUsed >= h.m_u32RecordFileSum) return;
    for (uint32_t n = h.m_u32FileInfoHeadNo + 1; n < r->files.size(); ++n) {
        RecoveredFile &f = r->files[n];
        if (f.indexed || f.sections.empty()) continue;
        f.remnants.insert(f.remnants.begin(), f.sections.begin(), f.sections.end());
        f.remnantKeys.insert(f.remnantKeys.begin(), f.keyFrames.begin(), f.keyFrames.end());
        f.remnantFrames += f.frames;
        f.sections.clear();
        f.keyFrames.clear();
        f.frames = 0;
        f.record = FileInfoHead{};
        r->changes.erase(std::remove_if(r->changes.begin(), r->changes.end(),
                                        [n](const IndexProblem &p) { return p.fileNo == n; }),
                         r->changes.end());
    }
}

void RebuildHeader(CardRecovery *r, uint32_t fileSum, uint32_t configValue) {
    RecordConfigInfo was = r->header;
    RecordConfigInfo &h = r->header;
    AV_RecordConfigInfoInit(&h, r->indexReadable ? was.m_u32RecordConfigValue : configValue, fileSum);
    h.m_u32FileInfoHeadNo = CurrentFile(*r);
    bool wrapped = false;
    for (uint32_t n = h.m_u32FileInfoHeadNo + 1; n < fileSum; ++n)
        wrapped = wrapped || r->files[n].record.m_u32HeadFlag == kFileInfoHeadFlag;
    h.m_u32RecordFileUsed = wrapped ? fileSum : h.m_u32FileInfoHeadNo;
    if (!r->indexReadable) {
        r->changes.push_back(IndexProblem{-1, 0, "header rebuilt: the index had no valid header"});
    } else if (memcmp(&was, &h, sizeof h) != 0) {
        r->changes.push_back(IndexProblem{
            -1, 0,
            "header rebuilt (" +
                DifferingFields(was, h,
                                {{"space size", AVR_FIELD(RecordConfigInfo, m_u32RecordSpaceSize)},
                                 {"file sum", AVR_FIELD(RecordConfigInfo, m_u32RecordFileSum)},
                                 {"files used", AVR_FIELD(RecordConfigInfo, m_u32RecordFileUsed)},
                                 {"current file", AVR_FIELD(RecordConfigInfo, m_u32FileInfoHeadNo)},
                                 {"check code", AVR_FIELD(RecordConfigInfo, m_u32CheckCode)}}) +
                "): it did not agree with the media files"});
    }
}

void RecoverEvents(const std::string &cardDir, CardRecovery *r) {
    uint32_t fileSum = static_cast<uint32_t>(r->files.size());
    r->eventSlots.assign(fileSum, AlarmEventInfo{});
    r->events.assign(fileSum, {});
    r->eventSlotDamaged.assign(fileSum, false);
    FileGuard fd = AVFileOpenGuarded(cardDir + kEventFileName);
    r->eventsReadable = fd.fd() >= 0;
    if (fd.fd() < 0) {
        r->notes.push_back(IndexProblem{-1, 0, "event000.bin cannot be read: the alarm event list is gone"});
        return;
    }
    uint32_t damaged = 0;
    for (uint32_t n = 0; n < fileSum && n < kMaxEventLists; ++n) {
        EventSlot slot = ReadEventSlot(fd.fd(), n);
        if (slot.used && slot.damage.empty()) {
            r->eventSlots[n] = slot.info;
            r->events[n] = std::move(slot.entries);
        } else if (slot.used) {
            r->eventSlotDamaged[n] = true;
            ++damaged;
            r->changes.push_back(IndexProblem{
                n, 0, "alarm event slot damaged (" + slot.damage + "): cleared (its events are gone)"});
        }
    }
    if (damaged != 0 && damaged == fileSum)
        r->notes.push_back(IndexProblem{-1, 0, "every alarm event slot is damaged: the event list is gone"});
}

void AppendRecord(CardFilePatches *p, uint32_t offset, const void *record, size_t size) {
    const uint8_t *bytes = static_cast<const uint8_t *>(record);
    p->patches.push_back(FilePatch{offset, std::vector<uint8_t>(bytes, bytes + size)});
}

template <typename Record>
void AppendRecords(CardFilePatches *p, uint32_t offset, const std::vector<Record> &records) {
    if (!records.empty()) AppendRecord(p, offset, records.data(), records.size() * sizeof(Record));
}

// The file's record and sections as the view shows them: the remnants
// follow the file's own sections (as far as the slots go).
void ViewRecords(const RecoveredFile &f, FileInfoHead *record, std::vector<SectionInfoHead> *sections,
                 std::vector<KeyFrameEntry> *keys) {
    *record = f.record;
    *sections = f.sections;
    *keys = f.keyFrames;
    for (const SectionInfoHead &s : f.remnants) {
        if (sections->size() >= kMaxSectionNo) break;
        SectionInfoHead r = s;
        r.m_u16SectionNo = static_cast<uint16_t>(sections->size() + 1);
        sections->push_back(r);
        if (record->m_u32HeadFlag != kFileInfoHeadFlag) {
            record->m_u32HeadFlag = kFileInfoHeadFlag;
            record->m_u32FileNo = s.m_u32FileNo;
            record->m_u32StartTime = s.m_u32StartTime;
            record->m_u32RecordType = kRecordTypeNormal;
        }
        record->m_u32StartTime = std::min(record->m_u32StartTime, s.m_u32StartTime);
        record->m_u32EndTime = std::max(record->m_u32EndTime, s.m_u32EndTime);
        record->m_u32DataSize = std::max(record->m_u32DataSize, s.m_u32SectionOffset + s.m_u32SectionSize);
    }
    uint32_t remnantSlots = static_cast<uint32_t>(sections->size() - f.sections.size());
    uint32_t remnantKeys = 0;
    for (uint32_t i = 0; i < remnantSlots; ++i) remnantKeys += f.remnants[i].m_u32KeyFrameSum;
    keys->insert(keys->end(), f.remnantKeys.begin(), f.remnantKeys.begin() + remnantKeys);
    record->m_u32RecordSectionSum = static_cast<uint32_t>(sections->size());
    record->m_u32KeyFrameSum = static_cast<uint32_t>(keys->size());
}

}  // namespace

int RecoverCard(const std::string &cardDir, CardRecovery *recovery, std::string *why, uint32_t configValue,
                RecoveryProgress progress) {
    CardRecovery &r = *recovery;
    r = CardRecovery{};
    uint32_t fileSum = CountMediaFiles(cardDir);
    if (fileSum == 0) {
        *why = "no media files (" + CardMediaFilePath(cardDir, 0) + ") on the card";
        return -1;
    }
    std::vector<OldFile> old;
    ReadOldIndex(cardDir, fileSum, &r, &old);
    Defaults defaults;
    defaults.videoParam = CommonSectionByte(old, &SectionInfoHead::m_u8VideoParam, 0);
    defaults.recordType = CommonSectionByte(old, &SectionInfoHead::m_u8RecordType, kRecordTypeDefault);
    std::unique_ptr<uint8_t[]> buf(new uint8_t[kFrameBufferSize]);
    r.files.resize(fileSum);
    for (uint32_t n = 0; n < fileSum; ++n) {
        FileGuard media = AVFileOpenGuarded(CardMediaFilePath(cardDir, n));
        if (media.fd() < 0) {
            r.notes.push_back(IndexProblem{n, 0, "media file cannot be opened"});
            continue;
        }
        FileScanner scanner(n, media.fd(), old[n], defaults, true, buf.get(), &r);
        scanner.Scan(&r.files[n]);
        if (progress != nullptr) progress(n, fileSum);
    }
    if (HeaderAgrees(r, fileSum)) {
        SetAsideUnreached(&r);
    } else {
        RebuildHeader(&r, fileSum, configValue);
    }
    RecoverEvents(cardDir, &r);
    return 0;
}

std::vector<CardFilePatches> RecoveryPatches(const CardRecovery &r, bool withRemnants) {
    std::vector<CardFilePatches> out;
    CardFilePatches index{kIndexFileName, kIndexFileSize, {}};
    AppendRecord(&index, 0, &r.header, sizeof r.header);
    for (uint32_t n = 0; n < r.files.size(); ++n) {
        const RecoveredFile &f = r.files[n];
        FileInfoHead record = f.record;
        std::vector<SectionInfoHead> sections = f.sections;
        std::vector<KeyFrameEntry> keys = f.keyFrames;
        if (withRemnants) ViewRecords(f, &record, &sections, &keys);
        // A file the index never described and the data does not either
        // keeps its bytes.
        if (HasRecord(f) || f.indexed || !sections.empty())
            AppendRecord(&index, FileInfoHeadPosition(n), &record, sizeof record);
        AppendRecords(&index, SectionInfoHeadPosition(n, 1), sections);
        CardFilePatches media{CardMediaFilePath("", n), kMediaFileSize, {}};
        // The view shows a record file header where each section starts
        // (a remnant starts at a key frame of an earlier lap).
        if (withRemnants) {
            for (const SectionInfoHead &section : sections)
                AppendRecord(&media, section.m_u32SectionOffset, kRecordFileHeader, kRecordFileHeaderSize);
        }
        if (keys.empty() && media.patches.empty()) continue;
        AppendRecords(&media, kKeyFrameTableOffset,
                      std::vector<KeyFrameEntry>(
                          keys.begin(), keys.begin() + std::min<size_t>(keys.size(), kMaxKeyFrameEntries)));
        out.push_back(std::move(media));
    }
    std::sort(index.patches.begin(), index.patches.end(),
              [](const FilePatch &a, const FilePatch &b) { return a.offset < b.offset; });
    out.insert(out.begin(), std::move(index));
    CardFilePatches events{kEventFileName, kEventFileSize, {}};
    for (uint32_t n = 0; n < r.eventSlots.size(); ++n) {
        if (r.eventSlotDamaged[n]) {
            AlarmEventInfo cleared{};
            AppendRecord(&events, AlarmEventInfoPosition(n), &cleared, sizeof cleared);
        } else if (r.eventSlots[n].m_u32HeadFlag == kAlarmEventInfoFlag) {
            AppendRecord(&events, AlarmEventInfoPosition(n), &r.eventSlots[n], sizeof r.eventSlots[n]);
        }
    }
    for (uint32_t n = 0; n < r.events.size(); ++n)
        AppendRecords(&events, AlarmEventEntryPosition(n, 0), r.events[n]);
    std::sort(events.patches.begin(), events.patches.end(),
              [](const FilePatch &a, const FilePatch &b) { return a.offset < b.offset; });
    if (r.eventsReadable || !events.patches.empty()) out.push_back(std::move(events));
    return out;
}

bool RecoveryIsRemnant(const CardRecovery &r, uint32_t fileNo, uint32_t sectionNo) {
    return fileNo < r.files.size() && sectionNo > r.files[fileNo].sections.size();
}
