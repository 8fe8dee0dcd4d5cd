#include "replay/replay_source.h"

#include <chrono>
#include <deque>
#include <utility>

#include "avrecord_lib/annexb_stream.h"
#include "avrecord_lib/ps_format.h"
#include "avrecord_lib/ps_packetizer.h"
#include "avrecord_lib/record_file.h"
#include "card_reader/adts_header.h"
#include "common/card_layout.h"
#include "common/nal_unit.h"
#include "replay/card_catalog.h"
#include "replay/section_reader.h"

namespace {

constexpr uint64_t kUsPerSecond = 1000000;
// Sections further apart than this have a gap between them; the recorder
// joins back-to-back sections onto the previous end time.
constexpr uint32_t kGapSeconds = 1;
// A unit kept back to learn whether a gap follows it goes out unmarked
// once the recording has brought nothing new for this long.
constexpr std::chrono::milliseconds kHoldLimit{500};
// The card's index is listed again at most this often while waiting for a
// new section.
constexpr std::chrono::milliseconds kRelistInterval{200};
// A range whose end has passed by this much is over, whatever the recorder
// still writes.
constexpr uint64_t kEndSettleUs = 2 * kUsPerSecond;
// Frames a description looks through for the key frame and the audio.
constexpr int kDescribeFrames = 200;

using SteadyClock = std::chrono::steady_clock;

uint64_t NowUs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

uint64_t SecondsUs(uint32_t seconds) { return uint64_t{seconds} * kUsPerSecond; }

class CardSource : public ReplaySource {
public:
    CardSource(const ReplayCard &card, uint64_t startUs, uint64_t endUs, bool intra, bool recorded)
        : dir_(card.dir),
          index_(CatalogPath(card.dir, kIndexFileName)),
          startUs_(startUs),
          endUs_(endUs),
          intra_(intra) {
        reader_.SetRecordedBytes(recorded);
    }
    bool Ready() const { return index_.fd() >= 0; }
    int Next(ReplayUnit *unit) override;

private:
    int Fetch(ReplayUnit *unit);
    int FromFrame(const SectionFrame &frame, ReplayUnit *unit);
    int Begin();
    int Advance();
    int WaitOrDone();
    bool MayRelist();
    int Deliver(ReplayUnit *unit);

    std::string dir_;
    CatalogFile index_;
    uint64_t startUs_, endUs_;
    bool intra_;
    bool started_ = false;     // a section is open
    bool gapPending_ = false;  // the next unit follows a gap
    bool done_ = false;
    bool footageEnded_ = false;  // done because the recordings ran out
    SectionReader reader_;
    std::deque<ReplayUnit> ahead_;  // units read, not yet handed out (at most two)
    SteadyClock::time_point heldSince_{};
    bool holding_ = false;
    SteadyClock::time_point lastList_{};
    bool idle_ = false;  // the last listing found nothing new
};

bool CardSource::MayRelist() {
    SteadyClock::time_point now = SteadyClock::now();
    if (idle_ && now - lastList_ < kRelistInterval) return false;
    lastList_ = now;
    return true;
}

int CardSource::WaitOrDone() {
    if (endUs_ != 0 && NowUs() > endUs_ + kEndSettleUs) {
        footageEnded_ = true;
        return kReplayDone;
    }
    return kReplayWaiting;
}

// Opens the section holding the start, or the next one after it.
int CardSource::Begin() {
    if (!MayRelist()) return kReplayWaiting;
    CardCatalog catalog;
    if (CatalogLoad(dir_, &catalog) != 0) return kReplayError;
    const CatalogSection *first = CatalogAt(catalog, static_cast<uint32_t>(startUs_ / kUsPerSecond));
    idle_ = first == nullptr;
    if (idle_) return WaitOrDone();
    if (endUs_ != 0 && SecondsUs(first->stSection.m_u32StartTime) > endUs_) return kReplayDone;
    if (reader_.Open(dir_, index_.fd(), *first) != 0) return kReplayError;
    started_ = true;
    SectionRead r = reader_.Seek(startUs_);
    if (r == SectionRead::kError) return kReplayError;
    return r == SectionRead::kEnded ? Advance() : kReplayUnit;
}

// Moves on to the section after the current one.
int CardSource::Advance() {
    if (!MayRelist()) return kReplayWaiting;
    CardCatalog catalog;
    if (CatalogLoad(dir_, &catalog) != 0) return kReplayError;
    const CatalogSection was = reader_.Section();
    const CatalogSection *next = CatalogNext(catalog, was);
    idle_ = next == nullptr;
    if (idle_) return WaitOrDone();
    if (endUs_ != 0 && SecondsUs(next->stSection.m_u32StartTime) > endUs_) {
        footageEnded_ = true;
        return kReplayDone;
    }
    if (reader_.Open(dir_, index_.fd(), *next) != 0) return kReplayError;
    gapPending_ = next->stSection.m_u32StartTime > was.stSection.m_u32EndTime + kGapSeconds;
    return kReplayUnit;
}

int CardSource::FromFrame(const SectionFrame &frame, ReplayUnit *unit) {
    unit->bVideo = frame.bVideo;
    unit->bKey = frame.Key();
    unit->bGapBefore = gapPending_;
    unit->bGapAfter = false;
    unit->bLast = false;
    unit->u64CaptureUs = frame.u64CaptureUs;
    unit->u32Pts90k = frame.u32Pts;
    unit->data.assign(frame.pData, frame.pData + frame.u32Length);
    gapPending_ = false;
    return kReplayUnit;
}

// The next unit of the range, across sections, without look-ahead marks.
int CardSource::Fetch(ReplayUnit *unit) {
    for (;;) {
        if (!started_) {
            int r = Begin();
            if (r != kReplayUnit) return r;
        }
        SectionFrame frame;
        SectionRead read = reader_.Read(&frame);
        if (read == SectionRead::kError) return kReplayError;
        if (read == SectionRead::kFrame) {
            if (endUs_ != 0 && frame.u64CaptureUs > endUs_) return kReplayDone;
            if (intra_ && !frame.Key()) continue;
            return FromFrame(frame, unit);
        }
        if (read == SectionRead::kEnd) {
            int grew = reader_.Refresh();
            if (grew == 1) continue;
            if (grew == 0 && CatalogIsCurrent(index_.fd(), reader_.Section())) return WaitOrDone();
        }
        int r = Advance();
        if (r != kReplayUnit) return r;
    }
}

int CardSource::Deliver(ReplayUnit *unit) {
    *unit = std::move(ahead_.front());
    ahead_.pop_front();
    holding_ = false;
    return kReplayUnit;
}

int CardSource::Next(ReplayUnit *unit) {
    while (ahead_.size() < 2 && !done_) {
        ReplayUnit fetched;
        int r = Fetch(&fetched);
        if (r == kReplayUnit) {
            if (!ahead_.empty() && fetched.bGapBefore) ahead_.back().bGapAfter = true;
            ahead_.push_back(std::move(fetched));
            continue;
        }
        if (r == kReplayDone) {
            done_ = true;
            if (!ahead_.empty()) {
                ahead_.back().bLast = true;
                ahead_.back().bGapAfter = ahead_.back().bGapAfter || footageEnded_;
            }
            break;
        }
        if (ahead_.empty()) return r;
        if (r == kReplayError) return Deliver(unit);
        // Waiting at the recording's edge, where what follows the held unit
        // shows only once the recorder writes it. An open range never ends
        // and does not wait for that: the unit goes out at once, unmarked
        // (the first unit after a gap still carries the mark). In a range
        // with an end it may be the last, and waits until the wait grows long.
        if (endUs_ == 0) return Deliver(unit);
        if (!holding_) {
            holding_ = true;
            heldSince_ = SteadyClock::now();
        }
        if (SteadyClock::now() - heldSince_ >= kHoldLimit) return Deliver(unit);
        return kReplayWaiting;
    }
    if (ahead_.empty()) return kReplayDone;
    return Deliver(unit);
}

// The parameter sets of a key frame, without their start codes.
void TakeParameterSets(const uint8_t *data, size_t size, ReplayTracks *tracks) {
    bool h265 = tracks->iVideoCodec == kVideoCodecH265;
    size_t at = AnnexBNextStartCode(data, size, 0);
    while (at < size) {
        size_t payload = at + (data[at + 2] == 1 ? 3 : 4);
        size_t next = AnnexBNextStartCode(data, size, payload);
        if (payload >= size) break;
        std::vector<uint8_t> unit(data + payload, data + next);
        int type = h265 ? H265NalType(data[payload]) : H264NalType(data[payload]);
        if (h265 ? type == kH265NalVps : false) tracks->vps = unit;
        if (type == (h265 ? kH265NalSps : kH264NalSps) && tracks->sps.empty()) tracks->sps = unit;
        if (type == (h265 ? kH265NalPps : kH264NalPps) && tracks->pps.empty()) tracks->pps = unit;
        at = next;
    }
}

int AudioCodecOf(uint8_t sectionType) {
    const PsAudioType *type = PsAudioTypeOfSection(sectionType);
    return type != nullptr ? type->codec : kAudioCodecAac;
}

void TakeAudio(const SectionReader &reader, const SectionFrame &frame, ReplayTracks *tracks) {
    tracks->bHasAudio = true;
    tracks->iAudioCodec = AudioCodecOf(reader.Section().stSection.m_u8AudioCodeType);
    reader.AudioFormat(frame.pData, frame.u32Length, &tracks->u32AudioRate, &tracks->u32AudioChannels);
    if (tracks->iAudioCodec == kAudioCodecAac && frame.u32Length >= kAdtsHeaderSize) {
        tracks->audioConfig.resize(kAudioSpecificConfigSize);
        AdtsAudioSpecificConfig(frame.pData, tracks->audioConfig.data());
    }
}

// Codec, parameter sets and audio from the first frames of the section.
int DescribeSection(const std::string &dir, int indexFd, const CatalogSection &section,
                    ReplayTracks *tracks) {
    SectionReader reader;
    if (reader.Open(dir, indexFd, section) != 0) return -1;
    const SectionInfoHead &s = section.stSection;
    tracks->u16Width = s.m_u16Width;
    tracks->u16Height = s.m_u16Height;
    tracks->u32FrameRate = s.m_u8FrameRate;
    bool keySeen = false;
    for (int i = 0; i < kDescribeFrames && !(keySeen && tracks->bHasAudio); ++i) {
        SectionFrame frame;
        if (reader.Read(&frame) != SectionRead::kFrame) break;
        if (!frame.bVideo) {
            if (!tracks->bHasAudio) TakeAudio(reader, frame, tracks);
        } else if (frame.Key() && !keySeen) {
            keySeen = true;
            tracks->iVideoCodec = frame.u16VideoCodec;
            TakeParameterSets(frame.pData, frame.u32Length, tracks);
        }
    }
    return keySeen ? 0 : -1;
}

std::unique_ptr<ReplaySource> OpenSource(const ReplayCard &card, uint64_t startUs, uint64_t endUs, bool intra,
                                         bool recorded) {
    auto source = std::make_unique<CardSource>(card, startUs, endUs, intra, recorded);
    if (!source->Ready()) return nullptr;
    return source;
}

}  // namespace

std::unique_ptr<ReplaySource> ReplayOpen(const ReplayCard &card, uint64_t startUs, uint64_t endUs,
                                         bool bIntraOnly) {
    return OpenSource(card, startUs, endUs, bIntraOnly, false);
}

std::unique_ptr<ReplaySource> ReplayOpenRecorded(const ReplayCard &card, uint64_t startUs, uint64_t endUs) {
    return OpenSource(card, startUs, endUs, false, true);
}

int ReplayDescribe(const ReplayCard &card, uint32_t start, uint32_t end, ReplayTracks *tracks) {
    *tracks = ReplayTracks{};
    tracks->iVideoCodec = kVideoCodecH264;
    CardCatalog catalog;
    CatalogFile index(CatalogPath(card.dir, kIndexFileName));
    if (index.fd() < 0 || CatalogLoad(card.dir, &catalog) != 0 || catalog.sections.empty()) return -1;
    tracks->u32Oldest = catalog.sections.front().stSection.m_u32StartTime;
    for (const CatalogSection &s : catalog.sections) {
        tracks->u32Newest = std::max(tracks->u32Newest, s.stSection.m_u32EndTime);
    }
    const CatalogSection *section = CatalogAt(catalog, start);
    if (section == nullptr || (end != 0 && section->stSection.m_u32StartTime > end)) {
        section = &catalog.sections.back();
    }
    return DescribeSection(card.dir, index.fd(), *section, tracks);
}
