#include "tools/file_utils.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/log.h"

namespace {

constexpr mode_t kFolderMode = 0755;
constexpr int kDeletePathSize = 256;
constexpr unsigned long kBytesPerKiB = 1024;

int DeleteFailed(const char *function, int line, int result) {
    LogTrace("%s %d: 0 != ret %d errno %d\n\n", function, line, result, errno);
    return -1;
}

// Removes one entry of a folder being deleted; logs under the caller's name.
int DeleteEntry(const char *caller, const char *path) {
    struct stat st;
    if (lstat(path, &st) != 0) return DeleteFailed(caller, __LINE__, -1);
    if (S_ISDIR(st.st_mode)) {
        LogTrace("%s %d: %s is dir\n", caller, __LINE__, path);
        return FileUtilsDeleteFolder(path);
    }
    LogTrace("%s %d: %s is file\n", caller, __LINE__, path);
    int result = remove(path);
    return result == 0 ? 0 : DeleteFailed(caller, __LINE__, result);
}

}  // namespace

int FileUtilsCreateMultiFolder(const char *path) {
    if (path == nullptr) return -1;
    LogTrace(":::%s:::%d::dir_path=%s::\n", __func__, __LINE__, path);
    std::string whole(path);
    for (size_t i = 1; i < whole.size(); ++i) {
        if (whole[i] != '/') continue;
        std::string prefix = whole.substr(0, i);
        if (access(prefix.c_str(), F_OK) == 0) continue;
        if (mkdir(prefix.c_str(), kFolderMode) != 0) {
            LogTrace("mkdir fail!dir_path = %s\n", prefix.c_str());
            LogTrace("%s %d errno %s\n", __func__, __LINE__, strerror(errno));
            return -1;
        }
    }
    return 0;
}

int FileUtilsDeleteFolder(const char *path) {
    if (path == nullptr) return -1;
    LogTrace("%s %d: dirname %s\n", __func__, __LINE__, path);
    DIR *dir = opendir(path);
    if (dir == nullptr) return DeleteFailed(__func__, __LINE__, -1);
    int result = 0;
    while (dirent *entry = readdir(dir)) {
        if (FileUtilsIsDotEntry(entry->d_name)) continue;
        char child[kDeletePathSize];
        int length = std::snprintf(child, sizeof(child), "%s/%s", path, entry->d_name);
        // A cut path could name something else: refuse rather than guess.
        if (length < 0 || length >= kDeletePathSize) {
            errno = ENAMETOOLONG;
            result = DeleteFailed(__func__, __LINE__, -1);
            break;
        }
        if ((result = DeleteEntry(__func__, child)) != 0) break;
    }
    closedir(dir);
    if (result != 0) return -1;
    result = remove(path);
    return result == 0 ? 0 : DeleteFailed(__func__, __LINE__, result);
}

int FileUtilsGetStorageInfo(const char *path, uint32_t *totalKiB, uint32_t *freeKiB, uint32_t *usedKiB) {
    if (path == nullptr || totalKiB == nullptr || freeKiB == nullptr || usedKiB == nullptr) return -1;
    struct statvfs st {};
    statvfs(path, &st);
    unsigned long kibPerBlock = st.f_bsize / kBytesPerKiB;
    *totalKiB = static_cast<uint32_t>(st.f_blocks * kibPerBlock);
    *freeKiB = static_cast<uint32_t>(st.f_bfree * kibPerBlock);
    *usedKiB = *totalKiB - *freeKiB;
    LogTrace("%s %d: total %lu free %lu used %lu\n", __func__, __LINE__,
             static_cast<unsigned long>(*totalKiB), static_cast<unsigned long>(*freeKiB),
             static_cast<unsigned long>(*usedKiB));
    return 0;
}

int FileUtilsCreateFile(const char *path) {
    if (path == nullptr) return -1;
    FILE *file = std::fopen(path, "wb");
    if (file == nullptr) return -1;
    std::fclose(file);
    return 0;
}

int FileUtilsIsExist(const char *path) {
    if (path == nullptr) return -1;
    return access(path, F_OK) == 0 ? 0 : -1;
}

int FileUtilsIsFolder(const char *path) {
    struct stat st;
    if (path == nullptr || stat(path, &st) != 0) return -1;
    if (S_ISDIR(st.st_mode)) {
        LogTrace("%s is folder\n", path);
        return 0;
    }
    LogTrace("%s is file\n", path);
    return 1;
}

bool FileUtilsIsEmptyFolder(const char *path) {
    if (path == nullptr) return false;
    DIR *dir = opendir(path);
    if (dir == nullptr) return false;
    int entries = 0;
    bool onlyDots = true;
    while (dirent *entry = readdir(dir)) {
        ++entries;
        onlyDots = onlyDots && FileUtilsIsDotEntry(entry->d_name);
    }
    closedir(dir);
    return entries == 2 && onlyDots;
}

bool FileUtilsIsDotEntry(const char *name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

uint32_t FileUtilsGetFileSize(const char *path) {
    struct stat st;
    if (path == nullptr || stat(path, &st) != 0) return 0;
    return static_cast<uint32_t>(st.st_size);
}
