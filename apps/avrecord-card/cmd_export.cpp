// "avrecord-card export NAME -o OUT": one recorded section or alarm event
// out of the card, as MP4 (video as recorded, audio as AAC), as AVI (video,
// with audio when the recording has it) or as the plain video elementary
// stream (.h264 / .h265). MP4 also takes a time range (--from, --to), which
// may span sections.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "avrecord_lib/playback_reader.h"
#include "card_command.h"
#include "card_reader/recording_reader.h"
#include "terminal_progress.h"
#include "tools/avi_writer.h"
#include "tools/calendar_time.h"
#ifdef AVRECORD_CARD_MP4
#include "mp4/card_clip.h"
#endif

namespace {

constexpr uint32_t kDefaultFrameRate = 25;
constexpr char kStandardOutput[] = "-";  // as -o: write the export to standard output
constexpr int kAudioBits = 16;

enum class OutputKind { kAvi, kH264, kH265, kMp4 };

struct KindName {
    const char *name;
    OutputKind kind;
};
constexpr KindName kKindNames[] = {{"avi", OutputKind::kAvi},
                                   {"h264", OutputKind::kH264},
                                   {"h265", OutputKind::kH265},
                                   {"mp4", OutputKind::kMp4}};

bool EndsWith(const std::string &text, const std::string &suffix) {
    return text.size() > suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// --format when given, else the output's extension.
bool OutputKindOf(const CardArgs &args, const std::string &path, OutputKind *kind) {
    for (const KindName &k : kKindNames) {
        bool named =
            args.Has("--format") ? args.Get("--format") == k.name : EndsWith(path, std::string(".") + k.name);
        if (named) {
            *kind = k.kind;
            return true;
        }
    }
    return false;
}

int CodecOf(const RecordingFrame &key) { return RecordingIsH265(key) ? kAviCodecH265 : kAviCodecH264; }

// Audio stream of the AVI from the section's audio codec type: G.711 mu-law,
// G.711 A-law or AAC.
struct AviAudio {
    int format;  // WAVE format tag
    int rate;    // samples per second
};
AviAudio AudioOf(const SectionInfoHead &section) {
    switch (section.m_u8AudioCodeType) {
        case kSectionAudioG711U:
            return {7, 8000};
        case kSectionAudioG711A:
            return {6, 8000};
        case kSectionAudioAac:
            return {0xFF, 48000};
        default:
            return {0, 8000};
    }
}

// What a first pass over the recording finds.
struct Survey {
    uint32_t video = 0;
    uint32_t audio = 0;
    int codec = kAviCodecH264;
};

// Keeps the AVI writer's own messages off the command's output.
class QuietStdout {
public:
    QuietStdout() {
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null >= 0) {
            dup2(null, STDOUT_FILENO);
            close(null);
        }
    }
    ~QuietStdout() {
        fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
        }
    }
    QuietStdout(const QuietStdout &) = delete;
    QuietStdout &operator=(const QuietStdout &) = delete;

private:
    int saved_;
};

// Progress of a name export from the frame just read.
void Progress(TerminalProgress &progress, const RecordingSpan &span, const RecordingFrame &f, uint32_t done,
              uint32_t total) {
    uint32_t bytes = f.u32Offset - span.u32DataBegin;
    uint32_t all = span.u32DataEnd - span.u32DataBegin;
    progress.Update(done, total, bytes, all != 0 ? static_cast<double>(bytes) / all : 0);
}

// Hands the recording's frames to write (false stops) with the export's
// progress line; the read's result.
int ReadWithProgress(const CardArgs &args, const RecordingSpan &span, const Survey &survey,
                     const std::function<bool(const RecordingFrame &)> &write, std::string *reason) {
    uint32_t done = 0;
    TerminalProgress progress("export");
    return RecordingReadFrames(
        args.card.c_str(), span,
        [&](const RecordingFrame &f) {
            bool more = write(f);
            Progress(progress, span, f, ++done, survey.video + survey.audio);
            return more;
        },
        reason);
}

int WriteAvi(const CardArgs &args, const RecordingSpan &span, const Survey &survey, const std::string &out,
             std::string *reason) {
    const SectionInfoHead &s = span.stSection;
    AviAudio audio = AudioOf(s);
    int rate = s.m_u8FrameRate != 0 ? s.m_u8FrameRate : kDefaultFrameRate;
    QuietStdout quiet;
    H264ToAviStart(out.c_str(), survey.codec, s.m_u16Width, s.m_u16Height, rate, audio.format,
                   survey.audio != 0 ? 1 : 0, audio.rate, kAudioBits);
    bool written = true;
    int read = ReadWithProgress(
        args, span, survey,
        [&](const RecordingFrame &f) {
            int kind = f.iType == kPSFrameAudio ? kAviFrameAudio : kAviFrameVideo;
            return written = H264ToAviWriteFrame(f.pData, f.u32Length, kind) == 0;
        },
        reason);
    bool finished = H264ToAviStop() == 0;
    if (read != 0) return kExitCardProblem;
    if (!written || !finished) {
        *reason = "cannot write " + out;
        return kExitUsage;
    }
    return kExitOk;
}

int WriteElementaryStream(const CardArgs &args, const RecordingSpan &span, const Survey &survey,
                          const std::string &out, std::string *reason) {
    bool toStdout = out == kStandardOutput;
    FILE *file = toStdout ? stdout : fopen(out.c_str(), "wb");
    if (file == nullptr) {
        *reason = "cannot create " + out;
        return kExitUsage;
    }
    bool written = true;
    int read = ReadWithProgress(
        args, span, survey,
        [&](const RecordingFrame &f) {
            if (f.iType == kPSFrameVideo) written = fwrite(f.pData, 1, f.u32Length, file) == f.u32Length;
            return written;
        },
        reason);
    bool closed = (toStdout ? fflush(file) : fclose(file)) == 0;
    if (read != 0) return kExitCardProblem;
    if (!written || !closed) {
        *reason = "cannot write " + out;
        return kExitUsage;
    }
    return kExitOk;
}

// On standard error when standard output carries the stream itself.
void Report(const CardArgs &args, const std::string &out, const Survey &survey) {
    const char *codec = survey.codec == kAviCodecH265 ? "h265" : "h264";
    if (out == kStandardOutput) {
        fprintf(stderr, "%u video frames (%s) written, %u audio frames left out\n", survey.video, codec,
                survey.audio);
    } else if (args.json) {
        JsonLine()
            .Add("file", out)
            .Add("codec", codec)
            .Add("video_frames", survey.video)
            .Add("audio_frames", survey.audio)
            .Print();
    } else {
        printf("%s: %u video frames (%s), %u audio frames\n", out.c_str(), survey.video, codec, survey.audio);
    }
}

#ifdef AVRECORD_CARD_MP4
// MP4 of a recording (name) or of a time range: remuxed by the clip library.
// "-o -" streams it (fragmented) to standard output.
int ExportMp4(const CardArgs &args, const std::string &out) {
    ClipRequest request;
    request.cardDir = args.card;
    if (args.positional.size() == 1) {
        request.recording = args.positional[0];
    } else if (!ParseTimeArgument(args.Get("--from").c_str(), &request.from) ||
               !ParseTimeArgument(args.Get("--to").c_str(), &request.to)) {
        return CardFail(args, kExitUsage, "times are local YYYY-MM-DDTHH:MM:SS or seconds since 1970");
    }
    TerminalProgress terminal("export");
    auto progress = [&](const ClipProgress &p) {
        double share = p.cardBytesTotal != 0 ? static_cast<double>(p.cardBytes) / p.cardBytesTotal : 0;
        terminal.Update(p.videoFrames, p.videoFramesTotal, p.outputBytes, std::min(share, 1.0));
        return true;
    };
    ClipInfo info;
    std::string reason;
    bool toStdout = out == kStandardOutput;
    auto sink = [](const uint8_t *data, size_t length) { return fwrite(data, 1, length, stdout) == length; };
    int result = toStdout ? CardClipToStream(request, sink, progress, &info, &reason)
                          : CardClipToFile(request, out, progress, &info, &reason);
    terminal.Finish();
    if (toStdout && fflush(stdout) != 0 && result == kClipOk) {
        result = kClipOutputError;
        reason = "cannot write standard output";
    }
    if (result != kClipOk) {
        bool usage = result == kClipBadRequest && request.recording.empty();
        return CardFail(args, result == kClipOutputError || usage ? kExitUsage : kExitCardProblem, "%s",
                        reason.c_str());
    }
    if (toStdout) return kExitOk;  // standard output holds the MP4 itself
    if (args.json) {
        JsonLine line;
        line.Add("file", out).Add("codec", info.videoCodec).Add("audio", info.audioCodec);
        line.Add("video_frames", static_cast<unsigned long long>(info.videoFrames))
            .Add("key_frames", static_cast<unsigned long long>(info.keyFrames))
            .Add("audio_frames", static_cast<unsigned long long>(info.audioFrames))
            .Add("duration", info.duration)
            .Add("first", info.firstTime)
            .Add("last", info.lastTime)
            .Add("sections", info.sections)
            .Add("bytes", static_cast<unsigned long long>(info.outputBytes));
        if (info.stoppedAt != 0) line.Add("stopped_at", info.stoppedAt);
        line.Print();
    } else {
        printf("%s: %llu video frames (%s), %.2f s, audio %s, %u section(s)\n", out.c_str(),
               static_cast<unsigned long long>(info.videoFrames), info.videoCodec.c_str(), info.duration,
               info.audioCodec.empty() ? "none" : (info.sourceAudio == "aac" ? "aac" : "aac from g711"),
               info.sections);
        if (info.stoppedAt != 0) {
            DateTime t = LocalDateTime(info.stoppedAt);
            printf(
                "stopped at the section starting %04d-%02d-%02d %02d:%02d:%02d: other codec, picture size or "
                "audio\n",
                t.year, t.month, t.day, t.hour, t.minute, t.second);
        }
    }
    return kExitOk;
}
#endif

int RunExport(const CardArgs &args) {
    std::string out = args.Get("-o");
    OutputKind kind;
    if (!OutputKindOf(args, out, &kind))
        return CardFail(args, kExitUsage, "needs -o OUT.mp4, OUT.avi, OUT.h264 or OUT.h265 (or --format)");
    if (out == kStandardOutput) {
        // An AVI's header is completed once every frame is written: it needs a file.
        if (kind == OutputKind::kAvi)
            return CardFail(args, kExitUsage, "AVI cannot go to standard output: give -o FILE.avi");
        if (isatty(STDOUT_FILENO))
            return CardFail(args, kExitUsage, "standard output is a terminal: pipe it, or give -o FILE");
    }
    bool range = args.Has("--from") || args.Has("--to");
    if (kind == OutputKind::kMp4) {
#ifdef AVRECORD_CARD_MP4
        if (range == (args.positional.size() == 1) || (range && (!args.Has("--from") || !args.Has("--to"))))
            return CardFail(args, kExitUsage, "needs one NAME, or --from and --to");
        return ExportMp4(args, out);
#else
        return CardFail(args, kExitUsage, "MP4 export is not part of this build");
#endif
    }
    if (range) return CardFail(args, kExitUsage, "a time range exports to MP4 only");
    RecordingSpan span;
    int located = CardLocateRecording(args, &span);
    if (located != kExitOk) return located;
    std::string reason;
    Survey survey;
    bool codecKnown = false;
    int read = RecordingReadFrames(
        args.card.c_str(), span,
        [&](const RecordingFrame &f) {
            if (f.iType == kPSFrameAudio) {
                ++survey.audio;
                return true;
            }
            if (!codecKnown) survey.codec = CodecOf(f);
            codecKnown = true;
            ++survey.video;
            return true;
        },
        &reason);
    if (read != 0) return CardFail(args, kExitCardProblem, "%s", reason.c_str());
    if ((kind == OutputKind::kH264 && survey.codec != kAviCodecH264) ||
        (kind == OutputKind::kH265 && survey.codec != kAviCodecH265)) {
        return CardFail(args, kExitUsage, "%s holds %s video", args.positional[0].c_str(),
                        survey.codec == kAviCodecH265 ? "H.265" : "H.264");
    }
    int rc = kind == OutputKind::kAvi ? WriteAvi(args, span, survey, out, &reason)
                                      : WriteElementaryStream(args, span, survey, out, &reason);
    if (rc != kExitOk) return CardFail(args, rc, "%s", reason.c_str());
    Report(args, out, survey);
    return kExitOk;
}

}  // namespace

#ifdef AVRECORD_CARD_MP4
#define AVR_EXPORT_USAGE                                                                                     \
    "export NAME|--from TIME --to TIME -o OUT.mp4|OUT.avi|OUT.h264|OUT.h265|- [--format mp4|avi|h264|h265] " \
    "[--card DIR|--image PATH] [--json]"
#else
#define AVR_EXPORT_USAGE                                                                                     \
    "export NAME -o OUT.avi|OUT.h264|OUT.h265|- [--format avi|h264|h265] [--card DIR|--image PATH] [--json]" \
    "  (MP4 export is not part of this build)"
#endif

AVR_CARD_COMMAND(export, "export", AVR_EXPORT_USAGE, {"-o", "--format", "--from", "--to", "--image"},
                 RunExport, nullptr, kReadsIndex);
