#include "common/platform_paths.h"

#include <cstdlib>
#include <cstring>

namespace {

const char *RootPrefix() {
    const char *root = std::getenv("AVRECORD_ROOT");
    return (root != nullptr && root[0] != '\0') ? root : nullptr;
}

}  // namespace

std::string PlatformPath(const char *absolutePath) {
    const char *root = RootPrefix();
    if (root == nullptr || absolutePath == nullptr || absolutePath[0] != '/') {
        return absolutePath != nullptr ? absolutePath : "";
    }
    std::string path(root);
    while (!path.empty() && path.back() == '/') path.pop_back();
    path += absolutePath;
    return path;
}

const char *PlatformPathInto(const char *absolutePath, char *buf, size_t size) {
    std::string path = PlatformPath(absolutePath);
    if (buf == nullptr || path.size() + 1 > size) return nullptr;
    std::memcpy(buf, path.c_str(), path.size() + 1);
    return buf;
}

std::string StatusFilePath() { return PlatformPath(kStatusFile); }
