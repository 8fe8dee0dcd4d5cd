// The MP4 muxer of the clips, over FFmpeg's libavformat: one video track
// (H.264 or H.265 access units as recorded, start codes and all) and at
// most one AAC track, either taken as recorded (ADTS) or encoded from G.711
// (see g711_to_aac.h). Writes a file (index moved to the front when done)
// or fragmented MP4 through a callback.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

struct AVFormatContext;
struct AVStream;
struct AVPacket;
class G711ToAac;

enum class Mp4AudioKind { kNone, kAac, kG711A, kG711U };

struct Mp4Tracks {
    bool h265 = false;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t frameRate = 0;
    const uint8_t *keyFrame = nullptr;  // first key frame: its parameter sets describe the track
    uint32_t keyFrameLength = 0;
    Mp4AudioKind audio = Mp4AudioKind::kNone;
    const uint8_t *audioFrame = nullptr;  // first AAC frame (ADTS): rate and channels
    uint32_t audioFrameLength = 0;
};

// Video time stamps are in these units per second.
inline constexpr int kMp4VideoClock = 90000;

class Mp4Output {
public:
    using Sink = std::function<bool(const uint8_t *data, size_t length)>;

    Mp4Output();
    ~Mp4Output();
    Mp4Output(const Mp4Output &) = delete;
    Mp4Output &operator=(const Mp4Output &) = delete;

    // Opens the output and writes the header. false with *reason.
    bool OpenFile(const std::string &path, const Mp4Tracks &tracks, std::string *reason);
    bool OpenStream(const Sink &sink, const Mp4Tracks &tracks, std::string *reason);

    // One access unit at pts (kMp4VideoClock units), shown for duration.
    bool WriteVideo(const uint8_t *data, uint32_t length, bool key, int64_t pts, int64_t duration);
    // One recorded audio frame. at: the sample position the video says it
    // belongs to, or -1 to follow the previous frame. A frame that would
    // start before the end of the previous one follows it instead; later
    // ones leave a gap (AAC) or are preceded by silence (G.711).
    bool WriteAudio(const uint8_t *data, uint32_t length, int64_t at);
    // Samples per second of the audio track (0 without audio).
    int AudioRate() const { return audioRate_; }
    bool HasAudio() const { return audio_ != nullptr; }

    // Flushes the encoder, writes the index and closes. false with *reason.
    bool Finish(std::string *reason);
    // MP4 bytes handed on so far.
    uint64_t BytesWritten() const;
    // The last failure of a write call, and whether it was the sink that
    // asked to stop.
    const std::string &Error() const { return error_; }
    bool SinkStopped() const { return sinkStopped_; }

private:
    bool Open(const Mp4Tracks &tracks, const char *movFlags, std::string *reason);
    bool AddVideo(const Mp4Tracks &tracks, std::string *reason);
    bool AddAudio(const Mp4Tracks &tracks, std::string *reason);
    bool WritePacket(AVPacket *packet, AVStream *stream, int64_t pts, int64_t duration, bool key);
    bool WriteAacPacket(AVPacket *packet);
    bool FlushFirstFragment();
    bool Fail(const char *what, int error);

    AVFormatContext *format_ = nullptr;
    AVStream *video_ = nullptr;
    AVStream *audio_ = nullptr;
    std::unique_ptr<G711ToAac> encoder_;
    struct AdtsFilter;
    std::unique_ptr<AdtsFilter> adts_;
    Sink sink_;
    bool ownsIo_ = false;
    bool headerWritten_ = false;
    bool sinkStopped_ = false;
    // A stream's first fragment goes out once every track has a sample.
    bool firstFragmentDue_ = false;
    bool videoStarted_ = false;
    bool audioStarted_ = false;
    int audioRate_ = 0;
    int64_t audioNext_ = 0;  // sample position after the last audio frame
    uint64_t bytes_ = 0;
    std::string path_;
    std::string error_;
};
