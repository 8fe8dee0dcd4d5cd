#include "record/record_status.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <mutex>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/index_records.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "avrecord_lib/record_section.h"
#include "common/card_time.h"
#include "common/file_io.h"
#include "common/log.h"
#include "common/platform_paths.h"
#include "record/record_clock.h"

namespace {

constexpr unsigned kPublishSeconds = 1;
constexpr mode_t kStatusMode = 0644;
constexpr mode_t kFolderMode = 0755;
constexpr double kSecondsPerHour = 3600.0;
// The rate is a running mean over about this many seconds of recording.
constexpr double kRateSmoothing = 30.0;
constexpr size_t kCauseSize = 160;

const char *const kStateNames[] = {"recording",      "waiting",       "no-card",
                                   "card-read-only", "card-failing",  "card-full",
                                   "clock-invalid",  "index-invalid", "stopping"};

// What the main thread sets and the publisher reads, under the lock.
struct StatusState {
    std::mutex lock;
    RecordState state = RecordState::kWaiting;
    uint32_t since = 0;
    char cause[kCauseSize] = "starting";
    uint32_t oldest = 0;
    uint32_t newestFile = 0;    // end of the current file record when read
    uint32_t cardFiles = 0;     // media files of the card
    double bytesPerSecond = 0;  // running mean while recording
    uint32_t lastBytes = 0;     // writer's byte total at the last sample
    uint32_t lastUptime = 0;    // uptime at the last sample
    bool sampled = false;
};
StatusState g_status;

uint32_t NowSeconds() {
    uint32_t now = 0;
    TimeToCardTime(RecordClock().wallClock(), &now);
    return now;
}

// Folds the bytes written since the last sample into the rate (only while
// recording: a pause is no rate).
void SampleRate(StatusState &s) {
    uint32_t uptime = RecordClock().uptime();
    uint32_t bytes = LS_RecordCounters().bytesWritten;
    if (s.sampled && uptime > s.lastUptime && s.state == RecordState::kRecording) {
        double rate = static_cast<double>(bytes - s.lastBytes) / (uptime - s.lastUptime);
        double weight = (uptime - s.lastUptime) / kRateSmoothing;
        if (weight > 1) weight = 1;
        s.bytesPerSecond =
            s.bytesPerSecond == 0 ? rate : s.bytesPerSecond + weight * (rate - s.bytesPerSecond);
    }
    s.lastBytes = bytes;
    s.lastUptime = uptime;
    s.sampled = true;
}

RecordStatus Snapshot(const StatusState &s) {
    WriterCounters c = LS_RecordCounters();
    RecordStatus status{
        s.state,       s.since,  NowSeconds(), s.cause, c.lastFrameTime, c.framesWritten, c.framesLost,
        c.writeErrors, s.oldest, s.newestFile, -1};
    if (c.lastFrameTime > status.newest) status.newest = c.lastFrameTime;
    if (s.bytesPerSecond > 0 && s.cardFiles > 0)
        status.cardHours = double{kMediaFileFullSize} * s.cardFiles / s.bytesPerSecond / kSecondsPerHour;
    return status;
}

void AppendJsonString(std::string &out, const std::string &text) {
    out += '"';
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char esc[8];
            snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
        } else {
            out += c;
        }
    }
    out += '"';
}

// Writes the text beside the status file and renames it over it.
int ReplaceStatusFile(const std::string &text) {
    std::string path = StatusFilePath();
    std::string folder = path.substr(0, path.rfind('/'));
    if (!folder.empty()) mkdir(folder.c_str(), kFolderMode);
    std::string temporary = path + ".new";
    const FileIoOps &io = FileIo();
    int fd = io.open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kStatusMode);
    if (fd < 0) return -1;
    ssize_t written = io.write(fd, text.data(), text.size());
    int closed = io.close(fd);
    if (written != static_cast<ssize_t>(text.size()) || closed != 0) return -1;
    return io.rename(temporary.c_str(), path.c_str());
}

int PublishLocked(StatusState &s) { return ReplaceStatusFile(RecordStatusJson(Snapshot(s))); }

void *PublishThread(void * /*arg*/) {
    prctl(PR_SET_NAME, "StatusThread");
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(g_status.lock);
            SampleRate(g_status);
            PublishLocked(g_status);
        }
        sleep(kPublishSeconds);
    }
    return nullptr;
}

}  // namespace

const char *RecordStateName(RecordState state) {
    auto index = static_cast<size_t>(state);
    return index < sizeof kStateNames / sizeof kStateNames[0] ? kStateNames[index] : "unknown";
}

std::string RecordStatusJson(const RecordStatus &s) {
    char numbers[384];
    std::string out = "{\"state\":";
    AppendJsonString(out, RecordStateName(s.state));
    out += ",\"cause\":";
    AppendJsonString(out, s.cause);
    snprintf(numbers, sizeof numbers,
             ",\"since\":%" PRIu32 ",\"updated\":%" PRIu32 ",\"last_frame\":%" PRIu32
             ",\"frames_written\":%" PRIu32 ",\"frames_lost\":%" PRIu32 ",\"write_errors\":%" PRIu32
             ",\"oldest\":%" PRIu32 ",\"newest\":%" PRIu32,
             s.since, s.updated, s.lastFrame, s.framesWritten, s.framesLost, s.writeErrors, s.oldest,
             s.newest);
    out += numbers;
    if (s.cardHours >= 0) {
        snprintf(numbers, sizeof numbers, ",\"card_hours\":%.1f}\n", s.cardHours);
        out += numbers;
    } else {
        out += ",\"card_hours\":null}\n";
    }
    return out;
}

void RecordStatusSet(RecordState state, const char *cause) {
    std::lock_guard<std::mutex> guard(g_status.lock);
    StatusState &s = g_status;
    if (s.state == state && s.since != 0) return;
    LogTrace("%s %d: status %s -> %s: %s\n", __func__, __LINE__, RecordStateName(s.state),
             RecordStateName(state), cause != nullptr ? cause : "");
    s.state = state;
    s.since = NowSeconds();
    snprintf(s.cause, sizeof s.cause, "%s", cause != nullptr ? cause : "");
    PublishLocked(s);
}

RecordState RecordStatusState() {
    std::lock_guard<std::mutex> guard(g_status.lock);
    return g_status.state;
}

void RecordStatusReadSpan() {
    const RecordConfigInfo info = *GetRecordConfigInfo();
    const FileInfoHead current = *GetFileInfoHead();
    FileInfoHead oldest{};
    uint32_t files = info.m_u32RecordFileSum;
    // Once every file was used the oldest recording is in the file after
    // the current one; before that, in file 0.
    uint32_t oldestNo =
        files != 0 && info.m_u32RecordFileUsed >= files ? (current.m_u32FileNo + 1) % files : 0;
    std::string index = PlatformPath(kCardMountPoint) + kIndexFileName;
    int fd = AVFileOpen(index.c_str(), kAVFileModeRead);
    bool read = fd >= 0 && AV_RecordFileInfoHeadAccecsFileNoRead(fd, oldestNo, &oldest) >= 0 &&
                oldest.m_u32HeadFlag == kFileInfoHeadFlag;
    if (fd >= 0) AVFileClose(fd);
    std::lock_guard<std::mutex> guard(g_status.lock);
    g_status.cardFiles = files;
    g_status.oldest = read ? oldest.m_u32StartTime : current.m_u32StartTime;
    g_status.newestFile = current.m_u32EndTime;
}

int RecordStatusPublish() {
    std::lock_guard<std::mutex> guard(g_status.lock);
    return PublishLocked(g_status);
}

int RecordStatusStart() {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, PublishThread, nullptr) != 0) return -1;
    pthread_detach(thread);
    return 0;
}
