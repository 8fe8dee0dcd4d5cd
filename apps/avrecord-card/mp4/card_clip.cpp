#include "card_clip.h"

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "avrecord_lib/playback_reader.h"
#include "avrecord_lib/ps_format.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "card_reader/adts_header.h"
#include "card_reader/index_check.h"
#include "card_reader/recording_reader.h"
#include "mp4_output.h"

namespace {

constexpr uint32_t kDefaultFrameRate = 25;
constexpr uint32_t kProbeFrames = 250;         // frames searched for the first audio frame
constexpr uint64_t kProgressEveryFrames = 10;  // video frames between progress reports
// The packetizer stamps audio a few frames after the video it follows;
// more than a second apart is no recorded offset but a broken stamp.
constexpr int64_t kMaxAudioLeadTicks = kMp4VideoClock;

// One section's share of the clip: a whole section, or (bEvent set) its
// frames stamped u32FromTime to u32ToTime, read from the key frame before
// the first of them.
struct ClipPiece {
    RecordingSpan span;
    uint64_t bytesEstimate;
    uint64_t framesEstimate;
};

struct ClipPlan {
    std::string cardDir;
    std::vector<ClipPiece> pieces;
};

// A video frame held back until the first frame shown comes.
struct Preroll {
    std::vector<uint8_t> data;
    bool key;
};

void ProgressTotal(uint64_t *total, uint64_t done, bool complete) {
    if (complete || *total < done) *total = done;
}

// A section met while planning, with where reading may start.
struct PlannedSection {
    SectionInfoHead section;
    uint32_t keyOffset;  // key frame at or before the range's start, 0: none known
};

uint32_t FrameRateOf(const SectionInfoHead &s) {
    return s.m_u8FrameRate != 0 ? s.m_u8FrameRate : kDefaultFrameRate;
}

// Share of a section's [start, end] second range that [from, to] covers.
double Covered(const SectionInfoHead &s, uint32_t from, uint32_t to) {
    uint64_t begin = std::max(s.m_u32StartTime, from);
    uint64_t end = std::min<uint64_t>(uint64_t{s.m_u32EndTime} + 1, uint64_t{to} + 1);
    uint64_t whole = uint64_t{s.m_u32EndTime} + 1 - s.m_u32StartTime;
    if (end <= begin || whole == 0) return 0;
    return std::min(1.0, static_cast<double>(end - begin) / static_cast<double>(whole));
}

void Estimate(ClipPiece *piece, double share) {
    const SectionInfoHead &s = piece->span.stSection;
    piece->bytesEstimate = static_cast<uint64_t>(share * s.m_u32SectionSize);
    piece->framesEstimate = static_cast<uint64_t>(share * s.m_u32VideoFrameSum);
}

int PlanRecording(const ClipRequest &request, ClipPlan *plan, std::string *reason) {
    ClipPiece piece{};
    if (RecordingParseName(request.recording.c_str(), &piece.span) != 0) {
        *reason = "no recording name: " + request.recording;
        return kClipBadRequest;
    }
    if (RecordingLocate(plan->cardDir.c_str(), &piece.span, reason) != 0) return kClipBadRequest;
    const RecordingSpan &span = piece.span;
    Estimate(&piece, span.bEvent ? Covered(span.stSection, span.u32FromTime, span.u32ToTime) : 1.0);
    plan->pieces.push_back(piece);
    return kClipOk;
}

int PlanRange(const ClipRequest &request, ClipPlan *plan, std::string *reason) {
    if (request.to < request.from) {
        *reason = "the range ends before it begins";
        return kClipBadRequest;
    }
    std::vector<PlannedSection> found;
    int walked =
        ForEachCardSection(plan->cardDir, [&](int mediaFd, const SectionInfoHead &s, uint32_t firstEntry) {
            if (s.m_u32EndTime == 0 || s.m_u32EndTime < s.m_u32StartTime || s.m_u32StartTime > request.to ||
                s.m_u32EndTime < request.from)
                return;
            found.push_back({s, RecordingKeyEntryBefore(mediaFd, s, firstEntry, request.from)});
        });
    if (walked != 0) {
        *reason = "cannot read the index of " + plan->cardDir;
        return kClipCardError;
    }
    std::stable_sort(found.begin(), found.end(), [](const PlannedSection &a, const PlannedSection &b) {
        return a.section.m_u32StartTime < b.section.m_u32StartTime;
    });
    for (const PlannedSection &p : found) {
        ClipPiece piece{};
        piece.span.u32FileNo = p.section.m_u32FileNo;
        piece.span.u32Number = p.section.m_u16SectionNo;
        if (RecordingLocate(plan->cardDir.c_str(), &piece.span, reason) != 0) return kClipCardError;
        const SectionInfoHead &s = piece.span.stSection;
        if (request.from > s.m_u32StartTime || request.to < s.m_u32EndTime) {
            piece.span.bEvent = true;
            piece.span.u32FromTime = std::max(request.from, s.m_u32StartTime);
            piece.span.u32ToTime = request.to;
        }
        if (p.keyOffset > piece.span.u32DataBegin && p.keyOffset < piece.span.u32DataEnd)
            piece.span.u32DataBegin = p.keyOffset;
        uint32_t shownFrom = piece.span.bEvent ? piece.span.u32FromTime : 0;
        if (RecordingSeekStart(plan->cardDir.c_str(), &piece.span, shownFrom, reason) != 0)
            return kClipCardError;
        Estimate(&piece, Covered(s, request.from, request.to));
        plan->pieces.push_back(piece);
    }
    if (plan->pieces.empty()) {
        *reason = "no recording in the range";
        return kClipNothing;
    }
    return kClipOk;
}

// The pieces of the clip request asks for.
int Plan(const ClipRequest &request, ClipPlan *plan, std::string *reason) {
    plan->cardDir = request.cardDir;
    if (plan->cardDir.empty() || plan->cardDir.back() != '/') plan->cardDir += '/';
    return request.recording.empty() ? PlanRange(request, plan, reason)
                                     : PlanRecording(request, plan, reason);
}

Mp4AudioKind AudioKindOf(const SectionInfoHead &s) {
    switch (s.m_u8AudioCodeType) {
        case kSectionAudioG711U:
            return Mp4AudioKind::kG711U;
        case kSectionAudioG711A:
            return Mp4AudioKind::kG711A;
        case kSectionAudioAac:
            return Mp4AudioKind::kAac;
        default:
            return Mp4AudioKind::kNone;
    }
}

// The track setup from the first piece: its first key frame and, within
// the first frames behind it, its first audio frame.
struct Probe {
    Mp4Tracks tracks;
    std::vector<uint8_t> key;
    std::vector<uint8_t> audio;
};

int ProbeTracks(const std::string &cardDir, const ClipPiece &piece, Probe *probe, std::string *reason) {
    const SectionInfoHead &s = piece.span.stSection;
    Mp4AudioKind audioKind = AudioKindOf(s);
    uint32_t seen = 0;
    int read = RecordingReadFrames(
        cardDir.c_str(), piece.span,
        [&](const RecordingFrame &f) {
            if (f.iType == kPSFrameVideo && f.Key() && probe->key.empty()) {
                probe->key.assign(f.pData, f.pData + f.u32Length);
                probe->tracks.h265 = RecordingIsH265(f);
            } else if (f.iType == kPSFrameAudio && !probe->key.empty() && probe->audio.empty()) {
                probe->audio.assign(f.pData, f.pData + f.u32Length);
            }
            bool audioWanted = audioKind != Mp4AudioKind::kNone && probe->audio.empty();
            return (probe->key.empty() || audioWanted) && ++seen < kProbeFrames;
        },
        reason);
    if (read != 0) return kClipCardError;
    if (probe->key.empty()) {
        *reason = "no key frame in the range";
        return kClipNothing;
    }
    Mp4Tracks &t = probe->tracks;
    t.width = s.m_u16Width;
    t.height = s.m_u16Height;
    t.frameRate = FrameRateOf(s);
    t.keyFrame = probe->key.data();
    t.keyFrameLength = static_cast<uint32_t>(probe->key.size());
    AdtsHeader adts;
    bool usable = !probe->audio.empty() && (audioKind != Mp4AudioKind::kAac ||
                                            AdtsParse(probe->audio.data(), probe->audio.size(), &adts));
    t.audio = usable ? audioKind : Mp4AudioKind::kNone;
    t.audioFrame = probe->audio.data();
    t.audioFrameLength = static_cast<uint32_t>(probe->audio.size());
    return kClipOk;
}

// Writes the frames of every piece in turn.
class ClipWriter {
public:
    ClipWriter(const ClipPlan &plan, Mp4Output &out, const Probe &probe, const ClipProgressFn &progress,
               ClipInfo *info)
        : plan_(plan), out_(out), probe_(probe), progress_(progress), info_(info) {
        for (const ClipPiece &piece : plan.pieces) {
            progressNow_.videoFramesTotal += piece.framesEstimate;
            progressNow_.cardBytesTotal += piece.bytesEstimate;
        }
    }

    int Run(std::string *reason) {
        for (const ClipPiece &piece : plan_.pieces) {
            if (!SameTracks(piece)) info_->stoppedAt = piece.span.stSection.m_u32StartTime;
            if (info_->stoppedAt != 0) break;
            int result = WritePiece(piece, reason);
            if (result != kClipOk) return result;
        }
        Report(true);
        return info_->videoFrames != 0 ? kClipOk : (*reason = "no frame in the range", kClipNothing);
    }

private:
    // Later sections join only with the first one's picture size and audio.
    bool SameTracks(const ClipPiece &piece) const {
        const SectionInfoHead &s = piece.span.stSection;
        const Mp4Tracks &t = probe_.tracks;
        bool audioFits = t.audio == Mp4AudioKind::kNone || AudioKindOf(s) == t.audio;
        return s.m_u16Width == t.width && s.m_u16Height == t.height && audioFits;
    }

    // What one piece's walk keeps between frames.
    struct PieceState {
        PieceState(const ClipPiece &p, int64_t ticks) : piece(p), frameTicks(ticks) {}
        const ClipPiece &piece;
        int64_t frameTicks;
        bool keySeen = false;
        bool codecChecked = false;
        bool audioAligned = false;
        uint32_t lastVideoCardPts = 0;  // stamp of the latest video frame on the card
        int64_t lastVideoPts = 0;       // and where it went in the MP4
        std::vector<Preroll> preroll;   // frames before the first one shown
        int result = kClipOk;
    };

    int WritePiece(const ClipPiece &piece, std::string *reason) {
        PieceState st(piece, kMp4VideoClock / FrameRateOf(piece.span.stSection));
        uint64_t readBefore = progressNow_.cardBytes;
        int read = RecordingReadFrames(
            plan_.cardDir.c_str(), piece.span,
            [&](const RecordingFrame &f) {
                progressNow_.cardBytes = readBefore + (f.u32Offset - piece.span.u32DataBegin);
                return f.iType == kPSFrameAudio ? Audio(st, f) : Video(st, f);
            },
            reason);
        if (read != 0) return kClipCardError;
        if (st.result != kClipOk) {
            *reason = st.result == kClipCancelled || out_.SinkStopped() ? "stopped" : out_.Error();
            return out_.SinkStopped() ? kClipCancelled : st.result;
        }
        if (st.keySeen) ++info_->sections;
        return kClipOk;
    }

    // Audio goes in from the first frame shown on. The first audio frame of
    // a piece keeps its recorded distance from the video frame before it.
    bool Audio(PieceState &st, const RecordingFrame &f) {
        if (!st.keySeen || !Shown(st)) return true;
        ++info_->audioFrames;
        int64_t at = -1;
        if (!st.audioAligned) {
            int64_t lead = static_cast<int32_t>(f.u32Pts - st.lastVideoCardPts);
            if (lead < 0 || lead > kMaxAudioLeadTicks) lead = 0;
            at = (st.lastVideoPts + lead) * out_.AudioRate() / kMp4VideoClock;
            st.audioAligned = true;
        }
        return Check(out_.WriteAudio(f.pData, f.u32Length, at), &st.result);
    }

    bool Video(PieceState &st, const RecordingFrame &f) {
        if (!st.keySeen && !f.Key()) return true;
        if (!st.codecChecked && RecordingIsH265(f) != probe_.tracks.h265) {
            info_->stoppedAt = st.piece.span.stSection.m_u32StartTime;
            return false;
        }
        st.keySeen = st.codecChecked = true;
        st.lastVideoCardPts = f.u32Pts;
        // Frames stamped before the range decode the first one shown: they
        // wait until it comes and go in ahead of it, before time 0.
        if (info_->videoFrames == 0 && f.u32Time < st.piece.span.u32FromTime && st.piece.span.bEvent) {
            st.preroll.push_back(Preroll{std::vector<uint8_t>(f.pData, f.pData + f.u32Length), f.Key()});
            return true;
        }
        if (!WritePreroll(st)) return false;
        st.lastVideoPts = videoPts_;
        if (!Check(out_.WriteVideo(f.pData, f.u32Length, f.Key(), videoPts_, st.frameTicks), &st.result))
            return false;
        Count(f, st.frameTicks);
        if (info_->videoFrames % kProgressEveryFrames == 0 && !Report()) {
            st.result = kClipCancelled;
            return false;
        }
        return true;
    }

    bool WritePreroll(PieceState &st) {
        int64_t pts = videoPts_ - static_cast<int64_t>(st.preroll.size()) * st.frameTicks;
        for (const Preroll &p : st.preroll) {
            uint32_t length = static_cast<uint32_t>(p.data.size());
            if (!Check(out_.WriteVideo(p.data.data(), length, p.key, pts, st.frameTicks), &st.result))
                return false;
            pts += st.frameTicks;
        }
        st.preroll.clear();
        return true;
    }

    bool Shown(const PieceState &st) const { return info_->videoFrames != 0 || !st.piece.span.bEvent; }

    static bool Check(bool written, int *result) {
        if (!written) *result = kClipOutputError;
        return written;
    }

    void Count(const RecordingFrame &f, int64_t frameTicks) {
        if (info_->videoFrames == 0) info_->firstTime = f.u32Time;
        info_->lastTime = f.u32Time;
        ++info_->videoFrames;
        info_->keyFrames += f.Key();
        videoPts_ += frameTicks;
        info_->duration = static_cast<double>(videoPts_) / kMp4VideoClock;
    }

    // The totals are estimates from the index: never below what is done,
    // and what was done once the clip is complete.
    bool Report(bool complete = false) {
        progressNow_.videoFrames = info_->videoFrames;
        ProgressTotal(&progressNow_.videoFramesTotal, progressNow_.videoFrames, complete);
        ProgressTotal(&progressNow_.cardBytesTotal, progressNow_.cardBytes, complete);
        progressNow_.outputBytes = out_.BytesWritten();
        info_->outputBytes = progressNow_.outputBytes;
        return !progress_ || progress_(progressNow_);
    }

    const ClipPlan &plan_;
    Mp4Output &out_;
    const Probe &probe_;
    const ClipProgressFn &progress_;
    ClipInfo *info_;
    ClipProgress progressNow_{};
    int64_t videoPts_ = 0;  // kMp4VideoClock units from the clip's first frame
};

using OpenOutput = std::function<bool(Mp4Output &, const Mp4Tracks &, std::string *)>;

int MakeClip(const ClipRequest &request, const OpenOutput &open, const ClipProgressFn &progress,
             ClipInfo *info, std::string *reason) {
    ClipInfo unused;
    std::string why;
    if (info == nullptr) info = &unused;
    if (reason == nullptr) reason = &why;
    *info = ClipInfo{};
    ClipPlan plan;
    int result = Plan(request, &plan, reason);
    if (result != kClipOk) return result;
    Probe probe;
    result = ProbeTracks(plan.cardDir, plan.pieces.front(), &probe, reason);
    if (result != kClipOk) return result;
    const Mp4Tracks &t = probe.tracks;
    info->videoCodec = t.h265 ? "hevc" : "h264";
    info->audioCodec = t.audio != Mp4AudioKind::kNone ? "aac" : "";
    const PsAudioType *source = PsAudioTypeOfSection(plan.pieces.front().span.stSection.m_u8AudioCodeType);
    info->sourceAudio = t.audio != Mp4AudioKind::kNone && source != nullptr ? source->name : "";
    info->width = t.width;
    info->height = t.height;
    info->frameRate = t.frameRate;
    Mp4Output out;
    if (!open(out, t, reason)) return kClipOutputError;
    result = ClipWriter(plan, out, probe, progress, info).Run(reason);
    std::string finishReason;
    bool finished = out.Finish(&finishReason);
    info->outputBytes = out.BytesWritten();
    if (result == kClipOk && !finished) {
        *reason = finishReason;
        result = out.SinkStopped() ? kClipCancelled : kClipOutputError;
    }
    return result;
}

}  // namespace

int CardClipToFile(const ClipRequest &request, const std::string &path, const ClipProgressFn &progress,
                   ClipInfo *info, std::string *reason) {
    bool created = false;
    int result = MakeClip(
        request,
        [&](Mp4Output &out, const Mp4Tracks &tracks, std::string *why) {
            created = true;
            return out.OpenFile(path, tracks, why);
        },
        progress, info, reason);
    if (result != kClipOk && created) unlink(path.c_str());
    return result;
}

int CardClipKeyTime(const ClipRequest &request, uint32_t *keyTime, std::string *reason) {
    ClipPlan plan;
    int planned = Plan(request, &plan, reason);
    if (planned == kClipOk) *keyTime = plan.pieces.front().span.u32KeyTime;
    return planned;
}

int CardClipToStream(const ClipRequest &request, const ClipSinkFn &sink, const ClipProgressFn &progress,
                     ClipInfo *info, std::string *reason) {
    return MakeClip(
        request,
        [&](Mp4Output &out, const Mp4Tracks &tracks, std::string *why) {
            return out.OpenStream(sink, tracks, why);
        },
        progress, info, reason);
}
