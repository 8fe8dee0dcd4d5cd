#include "serve_stream.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "card_clip.h"
#include "serve_api.h"

namespace {

constexpr size_t kClipFileChunk = 1 << 16;

}  // namespace

void StreamVideo(const std::string &cardDir, uint32_t at, uint32_t end, std::shared_ptr<void> slot,
                 httplib::Response &res) {
    // The stream has no length to take ranges of: whatever range the
    // browser asks for, it gets the whole of it.
    res.status = kHttpOk;
    res.set_header("Cache-Control", "no-store");
    res.set_chunked_content_provider("video/mp4", [cardDir, at, end, slot](size_t, httplib::DataSink &sink) {
        ClipRequest request;
        request.cardDir = cardDir;
        request.from = at;
        request.to = end;
        ClipInfo info;
        std::string reason;
        int streamed = CardClipToStream(
            request,
            [&sink](const uint8_t *data, size_t size) {
                return sink.is_writable() && sink.write(reinterpret_cast<const char *>(data), size);
            },
            nullptr, &info, &reason);
        if (streamed == kClipOk) {
            sink.done();
            return true;
        }
        // A stream cut short must not look finished: no last chunk, the
        // connection just ends.
        if (streamed != kClipCancelled)
            fprintf(stderr, "avrecord-card serve: playback stopped: %s\n", reason.c_str());
        return false;
    });
}

bool SendClipFile(const std::string &path, const std::string &name, std::shared_ptr<void> slot,
                  httplib::Response &res) {
    auto file = std::make_shared<std::FILE *>(std::fopen(path.c_str(), "rb"));
    if (*file == nullptr) return false;
    std::error_code error;
    size_t size = std::filesystem::file_size(path, error);
    res.set_header("Content-Disposition", "attachment; filename=\"" + name + "\"");
    res.set_content_provider(
        size, "video/mp4",
        [file, slot](size_t offset, size_t length, httplib::DataSink &sink) {
            char buffer[kClipFileChunk];
            if (fseeko(*file, static_cast<off_t>(offset), SEEK_SET) != 0) return false;
            size_t got = fread(buffer, 1, std::min(length, sizeof buffer), *file);
            return got > 0 && sink.write(buffer, got);
        },
        [file](bool) { std::fclose(*file); });
    return true;
}
