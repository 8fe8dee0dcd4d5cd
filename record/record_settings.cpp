#include "record/record_settings.h"

#include <cstdlib>
#include <string>

#include "common/inifile.h"
#include "common/log.h"
#include "common/platform_paths.h"

int RecordStreamTypeOf(int value, int current, const char *caller) {
    if (value >= 0 && value <= kMaxStreamType) return value;
    LogTrace("%s %d Param error, nStreamType = %d\n", caller, __LINE__, value);
    return current;
}

RecordSettings ReadRecordSettings(const char *caller) {
    std::string file = PlatformPath(kSettingsFile);
    char value[kSettingValueSize] = {0};
    RecordSettings settings{};

    read_profile_string(kRecordSettingsSection, kStreamTypeKey, value, kSettingValueSize, "1", file.c_str());
    settings.nStreamType = atoi(value);
    LogTrace("%s %d nStreamType = %d\n", caller, __LINE__, settings.nStreamType);
    settings.nStreamType = RecordStreamTypeOf(settings.nStreamType, kDefaultStreamType, caller);

    read_profile_string(kRecordSettingsSection, kDurationKey, value, kSettingValueSize, "600", file.c_str());
    settings.nDuration = atoi(value);
    if (settings.nDuration < 0 || settings.nDuration > kMaxDuration) {
        LogTrace("%s %d Param error, nDuration = %d\n", caller, __LINE__, settings.nDuration);
        settings.nDuration = kDefaultDuration;
    }

    read_profile_string(kRecordSettingsSection, kSyncSecondsKey, value, kSettingValueSize, "1", file.c_str());
    settings.nSyncSeconds = atoi(value);
    LogTrace("%s %d nSyncSeconds = %d\n", caller, __LINE__, settings.nSyncSeconds);
    if (settings.nSyncSeconds < 0 || settings.nSyncSeconds > kMaxSyncSeconds) {
        LogTrace("%s %d Param error, nSyncSeconds = %d\n", caller, __LINE__, settings.nSyncSeconds);
        settings.nSyncSeconds = kDefaultSyncSeconds;
    }
    return settings;
}
