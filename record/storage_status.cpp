#include "record/storage_status.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "common/log.h"
#include "common/platform_paths.h"

int FileUtilsGetStorageStatus(const char * /*path*/) {
    std::string device = PlatformPath(kCardDevice);
    if (access(device.c_str(), F_OK) == 0) return 0;
    int error = errno;
    LogTrace("%s %d: errno = %d %s\n", __func__, __LINE__, error, strerror(error));
    return -1;
}
