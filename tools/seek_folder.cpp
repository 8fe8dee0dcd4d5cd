#include "tools/seek_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/card_time.h"
#include "common/log.h"
#include "tools/calendar_time.h"
#include "tools/file_utils.h"

namespace {

constexpr uint32_t kSecondsPerMinute = 60;
constexpr int kNameTimeFields = 6;

// Closes the directory stream on every way out.
class DirStream {
public:
    explicit DirStream(const char *path) : dir_(opendir(path)) {}
    ~DirStream() {
        if (dir_ != nullptr) closedir(dir_);
    }
    DirStream(const DirStream &) = delete;
    DirStream &operator=(const DirStream &) = delete;
    bool ok() const { return dir_ != nullptr; }
    const char *Next() {
        dirent *entry = readdir(dir_);
        return entry != nullptr ? entry->d_name : nullptr;
    }
    // Directory or not, by the entry's own status (links are not followed);
    // -1 when it cannot be stat'ed.
    int IsDirectory(const char *name) const {
        struct stat st;
        if (fstatat(dirfd(dir_), name, &st, AT_SYMLINK_NOFOLLOW) != 0) return -1;
        return S_ISDIR(st.st_mode) ? 1 : 0;
    }

private:
    DIR *dir_;
};

std::string JoinPath(const char *dir, const char *name) { return std::string(dir) + "/" + name; }

// "YYYY-MM-DD-HH-MM-SS." as calendar fields.
bool ParseNameTime(const char *name, DateTime *fields) {
    *fields = DateTime{};
    return std::sscanf(name, "%04d-%02d-%02d-%2d-%02d-%02d.", &fields->year, &fields->month, &fields->day,
                       &fields->hour, &fields->minute, &fields->second) == kNameTimeFields;
}

bool OpenOrLog(const DirStream &dir, const char *path) {
    if (dir.ok()) return true;
    LogTrace("cannot open directory: %s\n", path);
    return false;
}

// The files (or the sub-folders, as "dir/name" paths) of one directory with
// the times their names give; the list is cleared first and holds at most
// MAX_FILE_NUMBER entries. Logs under the caller's name.
int ListFolder(const char *caller, const char *dir, FileListInfo *list, bool folders) {
    if (dir == nullptr || list == nullptr) return -1;
    DirStream stream(dir);
    if (!OpenOrLog(stream, dir)) return -1;
    std::memset(list, 0, sizeof(*list));
    while (const char *name = stream.Next()) {
        bool wanted = folders ? stream.IsDirectory(name) == 1 && !FileUtilsIsDotEntry(name)
                              : stream.IsDirectory(name) == 0;
        if (!wanted) continue;
        if (list->s32FileNum >= MAX_FILE_NUMBER) {
            LogTrace("%s %d: file number more than MAX_FILE_NUMBER\n", caller, __LINE__);
            break;
        }
        std::string entry = folders ? JoinPath(dir, name) : std::string(name);
        FileListAdd(list, entry.c_str(), FileUtilsGetFileLastModifyTime(name), 0);
    }
    return 0;
}

}  // namespace

int SeekFileEx(const char *rootDir, uint32_t startTime, uint32_t endTime, FileListInfo *pFileListInfo) {
    if (rootDir == nullptr || pFileListInfo == nullptr) {
        LogTrace("%s %d point is NULL \n", __func__, __LINE__);
        return -1;
    }
    DateTime s = UtcDateTime(startTime), e = UtcDateTime(endTime);
    LogTrace("## StartTime. %04d-%02d-%02d %02d:%02d:%02d ##\n", s.year, s.month, s.day, s.hour, s.minute,
             s.second);
    LogTrace("## EndTime. %04d-%02d-%02d %02d:%02d:%02d ##\n", e.year, e.month, e.day, e.hour, e.minute,
             e.second);
    char day[16];
    std::snprintf(day, sizeof(day), "%04d-%02d-%02d", s.year, s.month, s.day);
    std::string dayDir = JoinPath(rootDir, day);
    int count = 0;
    pFileListInfo->s32FileNum = 0;
    // Only the start's day is searched, over the hour numbers of start and end.
    for (int hour = s.hour; hour <= e.hour; ++hour) {
        char hourName[8];
        std::snprintf(hourName, sizeof(hourName), "%02d", hour);
        std::string hourDir = JoinPath(dayDir.c_str(), hourName);
        LogTrace("fulldir = %s\n", hourDir.c_str());
        if (FileUtilsIsExist(hourDir.c_str()) == 0) {
            SeekCurrentFolderFile(hourDir.c_str(), startTime, endTime, pFileListInfo, &count);
        }
    }
    return 0;
}

int SeekCurrentFolderFile(const char *dir, uint32_t startTime, uint32_t endTime, FileListInfo *pFileListInfo,
                          int *count) {
    if (dir == nullptr || pFileListInfo == nullptr || count == nullptr) return -1;
    DirStream stream(dir);
    if (!OpenOrLog(stream, dir)) return -1;
    pFileListInfo->s32FileNum = std::clamp(*count, 0, MAX_FILE_NUMBER);
    const int64_t earliest = static_cast<int64_t>(startTime) - kFolderSeekTolerance;
    while (const char *name = stream.Next()) {
        DateTime fields;
        if (stream.IsDirectory(name) != 0 || !ParseNameTime(name, &fields)) continue;
        int64_t named = LocalSeconds(fields);
        if (named < earliest || named > static_cast<int64_t>(endTime)) continue;
        if (pFileListInfo->s32FileNum >= MAX_FILE_NUMBER) {
            LogTrace("%s %d File is more than %d\n", __func__, __LINE__, MAX_FILE_NUMBER);
            break;
        }
        // The end stops at the card's last second rather than wrap to 1970.
        uint32_t start = static_cast<uint32_t>(named);
        uint32_t end = static_cast<uint32_t>(std::min<int64_t>(named + kFolderFileDuration, kCardTimeLast));
        FileListEntry *entry = FileListAdd(pFileListInfo, name, start, end);
        entry->u32FileSize = FileUtilsGetFileSize(JoinPath(dir, name).c_str());
    }
    *count = pFileListInfo->s32FileNum;
    return 0;
}

int FileUtilsCurrentFolderFileSeek(const char *dir, FileListInfo *pFileListInfo) {
    return ListFolder(__func__, dir, pFileListInfo, false);
}

int FileUtilsCurrentFolderSubFolderSeek(const char *dir, FileListInfo *pFileListInfo) {
    return ListFolder(__func__, dir, pFileListInfo, true);
}

int SeekFolder(const char *dir, int depth, SeekFolderVisitor visitor) {
    if (dir == nullptr) return -1;
    DirStream stream(dir);
    if (!stream.ok()) return -1;
    int entries = 0;
    while (const char *name = stream.Next()) {
        if (stream.IsDirectory(name) != 1) {
            ++entries;
            LogTrace("===========%*s%s\n", depth, "", name);
            if (visitor != nullptr && visitor(dir, name) == -1) return -1;
            continue;
        }
        LogTrace("%s %d: dir = %s entry->d_name = %s\n", __func__, __LINE__, dir, name);
        if (FileUtilsIsDotEntry(name)) continue;
        ++entries;
        if (visitor != nullptr && visitor(dir, name) == -1) return -1;
        if (SeekFolder(JoinPath(dir, name).c_str(), depth + 4, visitor) == -1) return -1;
    }
    return entries;
}

uint32_t FileUtilsGetFileLastModifyTime(const char *name) {
    if (name == nullptr) return 0;
    if (std::count(name, name + std::strlen(name), '-') >= 2) {
        DateTime fields;
        if (!ParseNameTime(name, &fields)) return 0;
        int64_t seconds = LocalSeconds(fields);
        LogTrace("%s %d: ##%4d-%02d-%02d %02d:%02d:%02d week %d##\n", __func__, __LINE__, fields.year,
                 fields.month, fields.day, fields.hour, fields.minute, fields.second,
                 LocalDateTime(static_cast<uint32_t>(seconds)).weekday);
        return static_cast<uint32_t>(seconds);
    }
    for (const char *p = name; *p != '\0'; ++p) {
        if (!std::isdigit(static_cast<unsigned char>(*p))) {
            LogTrace("%s %d filename = %s is not digit\n", __func__, __LINE__, name);
            return 0;
        }
    }
    // An all-digit name counts minutes.
    return static_cast<uint32_t>(std::strtoul(name, nullptr, 10)) * kSecondsPerMinute;
}
