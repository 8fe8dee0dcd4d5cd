// The daemon's own settings, section "AVRecordCustom" of the settings file
// "/opt/app/config/CustomTools.cfg".
#pragma once

inline constexpr char kRecordSettingsSection[] = "AVRecordCustom";
inline constexpr char kStreamTypeKey[] = "StreamType";
inline constexpr char kDurationKey[] = "Duration";
inline constexpr char kSyncSecondsKey[] = "SyncSeconds";
inline constexpr int kSettingValueSize = 64;
inline constexpr int kDefaultStreamType = 1;
inline constexpr int kMaxStreamType = 2;
inline constexpr int kDefaultDuration = 600;
inline constexpr int kMaxDuration = 1200;
inline constexpr int kDefaultSyncSeconds = 1;
inline constexpr int kMaxSyncSeconds = 60;

struct RecordSettings {
    int nStreamType;   // encoder stream 0..2; replaced by SysInfo's before use
    int nDuration;     // seconds 0..1200; accepted by StartRecord and not used
    int nSyncSeconds;  // seconds 0..60 between flushes of the recorded data; 0: never
};

// Reads the keys (defaults "1", "600" and "1"), logs them under the
// caller's name and replaces values out of range by the defaults.
RecordSettings ReadRecordSettings(const char *caller);

// The record stream type SysInfo holds, when it names a stream (0..2);
// otherwise logs the bad value under the caller's name and keeps current,
// so a broken byte changes nothing about what is recorded.
int RecordStreamTypeOf(int sysInfoValue, int current, const char *caller);
