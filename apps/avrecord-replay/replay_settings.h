// The replay server's settings: section "AVRecordReplay" of the settings
// file, then the command line over it.
#pragma once

#include <cstdint>
#include <string>

inline constexpr char kReplaySettingsSection[] = "AVRecordReplay";
inline constexpr uint16_t kDefaultRtspPort = 8554;
inline constexpr uint16_t kDefaultHttpPort = 8081;
inline constexpr uint32_t kDefaultMaxClients = 8;
inline constexpr char kLoopbackAddress[] = "127.0.0.1";
inline constexpr char kAnyAddress[] = "0.0.0.0";

struct ReplaySettings {
    std::string cardDir;    // --card, or the card's mount point
    std::string imagePath;  // --image
    std::string listen;     // --listen, or every address (loopback without credentials)
    std::string user;
    std::string password;
    uint16_t u16RtspPort = kDefaultRtspPort;
    uint16_t u16HttpPort = kDefaultHttpPort;
    uint32_t u32MaxClients = kDefaultMaxClients;
    uint32_t u32SessionTimeout = 60;
};

// Reads the settings file (under AVRECORD_ROOT) into *settings.
void ReplayReadSettings(ReplaySettings *settings);

// Applies the command line. 0, 1 after --help (printed), -1 on a wrong
// argument (the reason printed on standard error).
int ReplayParseArguments(int argc, char **argv, ReplaySettings *settings);

// The address to listen on: loopback only without credentials, whatever was
// asked. *forced tells when an asked address was overruled.
std::string ReplayListenAddress(const ReplaySettings &settings, bool *forced);
