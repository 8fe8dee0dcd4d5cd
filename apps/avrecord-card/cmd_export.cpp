// "avrecord-card export NAME -o OUT": one recorded section or alarm event
// out of the card, as AVI (video, with audio when the recording has it) or
// as the plain video elementary stream (.h264 / .h265).
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "avrecord_lib/playback_reader.h"
#include "card_command.h"
#include "tools/avi_writer.h"
#include "tools/recording_reader.h"

namespace {

constexpr uint32_t kDefaultFrameRate = 25;
constexpr int kAudioBits = 16;

enum class OutputKind { kAvi, kH264, kH265 };

bool EndsWith(const std::string &text, const char *suffix) {
    size_t n = std::strlen(suffix);
    return text.size() > n && text.compare(text.size() - n, n, suffix) == 0;
}

bool OutputKindOf(const std::string &path, OutputKind *kind) {
    if (EndsWith(path, ".avi")) {
        *kind = OutputKind::kAvi;
    } else if (EndsWith(path, ".h264")) {
        *kind = OutputKind::kH264;
    } else if (EndsWith(path, ".h265")) {
        *kind = OutputKind::kH265;
    } else {
        return false;
    }
    return true;
}

// H.265 when the first NAL unit of a key frame is a parameter set, access
// unit delimiter or SEI of H.265; H.264 otherwise.
int CodecOf(const RecordingFrame &key) {
    const uint8_t *p = key.pData;
    for (uint32_t i = 0; i + 3 < key.u32Length; ++i) {
        if (p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 1) {
            int type = (p[i + 3] >> 1) & 0x3F;
            return type >= 32 && type <= 40 ? kAviCodecH265 : kAviCodecH264;
        }
    }
    return kAviCodecH264;
}

// Audio stream of the AVI from the section's audio codec type: G.711 mu-law,
// G.711 A-law or AAC.
struct AviAudio {
    int format;  // WAVE format tag
    int rate;    // samples per second
};
AviAudio AudioOf(const SectionInfoHead &section) {
    switch (section.m_u8AudioCodeType) {
        case 0:
            return {7, 8000};
        case 1:
            return {6, 8000};
        case 3:
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

void Progress(uint32_t done, uint32_t total) {
    if (isatty(STDERR_FILENO) && (done % 25 == 0 || done == total)) {
        fprintf(stderr, "\rexport: %u/%u frames", done, total);
        if (done == total) fprintf(stderr, "\n");
    }
}

int WriteAvi(const CardArgs &args, const RecordingSpan &span, const Survey &survey, const std::string &out,
             std::string *reason) {
    const SectionInfoHead &s = span.stSection;
    AviAudio audio = AudioOf(s);
    int rate = s.m_u8FrameRate != 0 ? s.m_u8FrameRate : kDefaultFrameRate;
    QuietStdout quiet;
    H264ToAviStart(out.c_str(), survey.codec, s.m_u16Width, s.m_u16Height, rate, audio.format,
                   survey.audio != 0 ? 1 : 0, audio.rate, kAudioBits);
    uint32_t done = 0;
    bool written = true;
    int read = RecordingReadFrames(
        args.card.c_str(), span,
        [&](const RecordingFrame &f) {
            int kind = f.iType == kPSFrameAudio ? kAviFrameAudio : kAviFrameVideo;
            written = H264ToAviWriteFrame(f.pData, f.u32Length, kind) == 0;
            Progress(++done, survey.video + survey.audio);
            return written;
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
    FILE *file = fopen(out.c_str(), "wb");
    if (file == nullptr) {
        *reason = "cannot create " + out;
        return kExitUsage;
    }
    uint32_t done = 0;
    bool written = true;
    int read = RecordingReadFrames(
        args.card.c_str(), span,
        [&](const RecordingFrame &f) {
            if (f.iType == kPSFrameVideo) written = fwrite(f.pData, 1, f.u32Length, file) == f.u32Length;
            Progress(++done, survey.video + survey.audio);
            return written;
        },
        reason);
    bool closed = fclose(file) == 0;
    if (read != 0) return kExitCardProblem;
    if (!written || !closed) {
        *reason = "cannot write " + out;
        return kExitUsage;
    }
    return kExitOk;
}

void Report(const CardArgs &args, const std::string &out, const Survey &survey) {
    const char *codec = survey.codec == kAviCodecH265 ? "h265" : "h264";
    if (args.json) {
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

int RunExport(const CardArgs &args) {
    RecordingSpan span;
    if (args.positional.size() != 1 || RecordingParseName(args.positional[0].c_str(), &span) != 0) {
        return CardFail(args, kExitUsage, "needs one NAME like hi000000_000001.mp4 or he000000_000000.mp4");
    }
    std::string out = args.Get("-o");
    OutputKind kind;
    if (!OutputKindOf(out, &kind))
        return CardFail(args, kExitUsage, "needs -o OUT.avi, OUT.h264 or OUT.h265");
    std::string reason;
    if (RecordingLocate(args.card.c_str(), &span, &reason) != 0) {
        return CardFail(args, kExitCardProblem, "%s", reason.c_str());
    }
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

AVR_CARD_COMMAND(export, "export", "export NAME -o OUT.avi|OUT.h264|OUT.h265 [--card DIR] [--json]", {"-o"},
                 RunExport);
