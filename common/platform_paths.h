// Platform paths: every absolute system path the programs open passes
// through PlatformPath. With AVRECORD_ROOT set (tests, the PC demo) the path
// is taken under that directory; unset, the real path is used.
#pragma once

#include <string>

// "/media/SDCard/" -> "$AVRECORD_ROOT/media/SDCard/" when AVRECORD_ROOT is set.
std::string PlatformPath(const char *absolutePath);

// The same into a caller buffer; returns buf, or nullptr when it does not fit.
const char *PlatformPathInto(const char *absolutePath, char *buf, size_t size);

// The system paths of the daemon, spelled once.
inline constexpr const char kCardMountPoint[] = "/media/SDCard/";
inline constexpr const char kCardDevice[] = "/dev/mmcblk1p1";
inline constexpr const char kMountTable[] = "/proc/mounts";
inline constexpr const char kSettingsFile[] = "/opt/app/config/CustomTools.cfg";
inline constexpr const char kDeviceParamFile[] = "/param/CPLD.conf";
inline constexpr const char kStorageOptionMarker[] = "/tmp/StorageOption";
inline constexpr const char kDebugPortMarker[] = "/tmp/Debug_Port_ON";
inline constexpr const char kStatusFile[] = "/tmp/avrecord-status.json";

// The daemon's published status (JSON, replaced whole on every change).
std::string StatusFilePath();
