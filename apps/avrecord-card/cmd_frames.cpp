// "avrecord-card frames NAME": walks one recorded section
// ("hiNNNNNN_SSSSSS.mp4") or alarm event ("heNNNNNN_EEEEEE.mp4") frame by
// frame with the playback reader, positioned from the index records. One
// line per frame; --es writes the video elementary stream to a file.
#include <cstdio>
#include <ctime>
#include <string>

#include "avrecord_lib/playback_reader.h"
#include "card_command.h"
#include "card_reader/recording_reader.h"
#include "tools/calendar_time.h"

namespace {

const char *KindName(const RecordingFrame &f) {
    return f.iType == kPSFrameAudio ? "audio" : f.Key() ? "key" : "video";
}

void PrintFrame(const CardArgs &args, uint32_t n, const RecordingFrame &f) {
    bool video = f.iType == kPSFrameVideo;
    if (args.json) {
        JsonLine line;
        line.Add("frame", n).Add("kind", KindName(f)).Add("offset", f.u32Offset).Add("length", f.u32Length);
        if (video) line.Add("time", f.u32Time);
        line.Add("pts", f.u32Pts).Print();
    } else {
        printf("%6u  %-5s  %8u  %19s  %10u\n", n, KindName(f), f.u32Length,
               video ? UtcTimeText(f.u32Time).c_str() : "", f.u32Pts);
    }
}

int RunFrames(const CardArgs &args) {
    RecordingSpan span;
    int located = CardLocateRecording(args, &span);
    if (located != kExitOk) return located;
    std::string reason;
    FILE *es = nullptr;
    if (args.Has("--es") && (es = fopen(args.Get("--es").c_str(), "wb")) == nullptr) {
        return CardFail(args, kExitUsage, "cannot write %s", args.Get("--es").c_str());
    }

    uint32_t n = 0, keys = 0, audio = 0;
    uint64_t esBytes = 0;
    int read = RecordingReadFrames(
        args.card.c_str(), span,
        [&](const RecordingFrame &f) {
            PrintFrame(args, n++, f);
            keys += f.Key();
            audio += f.iType == kPSFrameAudio;
            if (es != nullptr && f.iType == kPSFrameVideo) {
                fwrite(f.pData, 1, f.u32Length, es);
                esBytes += f.u32Length;
            }
            return true;
        },
        &reason);
    bool written = es == nullptr || fclose(es) == 0;
    if (read != 0) return CardFail(args, kExitCardProblem, "%s", reason.c_str());
    if (!written) return CardFail(args, kExitUsage, "cannot write %s", args.Get("--es").c_str());
    if (!args.json) {
        printf("%u frames (%u key, %u audio)", n, keys, audio);
        if (es != nullptr) printf(", %llu bytes of video written", static_cast<unsigned long long>(esBytes));
        printf("\n");
    }
    return kExitOk;
}

}  // namespace

AVR_CARD_COMMAND(frames, "frames", "frames NAME [--card DIR|--image PATH] [--json] [--es OUT]",
                 {"--es", "--image"}, RunFrames, nullptr, kReadsIndex);
