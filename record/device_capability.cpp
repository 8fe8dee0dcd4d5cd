#include "record/device_capability.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/inifile.h"
#include "common/platform_paths.h"

namespace {

constexpr int kCapabilitySize = 16;
constexpr int kValueSize = 16;
char g_capability[kCapabilitySize] = "";

// The INI loader refuses files of MAX_FILE_SIZE bytes or more by aborting;
// such a file counts as unreadable here.
bool Readable(const std::string &path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    if (st.st_size >= MAX_FILE_SIZE) return false;
    FILE *file = fopen(path.c_str(), "r");
    if (file == nullptr) return false;
    fclose(file);
    return true;
}

}  // namespace

const char *GetDeviceCapability() {
    std::string path = PlatformPath(kDeviceParamFile);
    if (!Readable(path)) return g_capability;
    char value[kValueSize] = {0};
    read_profile_string(kCapabilitySection, kStorageCapabilityKey, value, kValueSize, "", path.c_str());
    bool records = value[0] != '\0' && atoi(value) == kStorageCapabilityRecord;
    snprintf(g_capability, kCapabilitySize, "%s", records ? "T1" : kNoRecordCapability);
    return g_capability;
}

bool DeviceLacksRecordCapability() { return strstr(GetDeviceCapability(), kNoRecordCapability) != nullptr; }
