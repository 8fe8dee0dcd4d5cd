#include "replay_settings.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/inifile.h"
#include "common/platform_paths.h"

namespace {

constexpr int kValueSize = 128;
constexpr char kUsage[] =
    "Usage: avrecord-replay [--card DIR | --image PATH] [--listen ADDR] [--rtsp-port N] [--http-port N] [--help]\n"
    "Serves the card's recordings over RTSP (rtsp://HOST:PORT/replay, ONVIF replay) and HTTP while the\n"
    "recorder records. Settings: section [AVRecordReplay] of /opt/app/config/CustomTools.cfg (User,\n"
    "Password, RtspPort, HttpPort, MaxClients, SessionTimeout); the options override them. Without User\n"
    "and Password it listens on 127.0.0.1 only.\n"
    "  --card DIR      the card folder (default: the card's mount point)\n"
    "  --image PATH    a card image instead of the card\n"
    "  --listen ADDR   IPv4 address to listen on (default: every address)\n"
    "  --rtsp-port N   RTSP port (default 8554)\n"
    "  --http-port N   HTTP port (default 8081)\n";

std::string ReadString(const std::string &file, const char *key) {
    char value[kValueSize] = "";
    read_profile_string(kReplaySettingsSection, key, value, sizeof value, "", file.c_str());
    return value;
}

bool ParsePort(const char *text, uint16_t *port) {
    char *end = nullptr;
    unsigned long value = strtoul(text, &end, 10);
    if (end == text || *end != '\0' || value > UINT16_MAX) return false;
    *port = static_cast<uint16_t>(value);
    return true;
}

}  // namespace

void ReplayReadSettings(ReplaySettings *settings) {
    std::string file = PlatformPath(kSettingsFile);
    settings->cardDir = PlatformPath(kCardMountPoint);
    settings->user = ReadString(file, "User");
    settings->password = ReadString(file, "Password");
    int rtsp = read_profile_int(kReplaySettingsSection, "RtspPort", kDefaultRtspPort, file.c_str());
    int http = read_profile_int(kReplaySettingsSection, "HttpPort", kDefaultHttpPort, file.c_str());
    int clients = read_profile_int(kReplaySettingsSection, "MaxClients", kDefaultMaxClients, file.c_str());
    int timeout = read_profile_int(kReplaySettingsSection, "SessionTimeout", 60, file.c_str());
    if (rtsp > 0 && rtsp <= UINT16_MAX) settings->u16RtspPort = static_cast<uint16_t>(rtsp);
    if (http > 0 && http <= UINT16_MAX) settings->u16HttpPort = static_cast<uint16_t>(http);
    if (clients > 0 && clients <= 64) settings->u32MaxClients = static_cast<uint32_t>(clients);
    if (timeout >= 10 && timeout <= 3600) settings->u32SessionTimeout = static_cast<uint32_t>(timeout);
}

int ReplayParseArguments(int argc, char **argv, ReplaySettings *settings) {
    for (int i = 1; i < argc; ++i) {
        const char *option = argv[i];
        if (strcmp(option, "--help") == 0 || strcmp(option, "-h") == 0) {
            fputs(kUsage, stdout);
            return 1;
        }
        if (i + 1 >= argc) {
            fprintf(stderr, "avrecord-replay: %s needs a value\n%s", option, kUsage);
            return -1;
        }
        const char *value = argv[++i];
        bool ok = true;
        if (strcmp(option, "--card") == 0)
            settings->cardDir = value;
        else if (strcmp(option, "--image") == 0)
            settings->imagePath = value;
        else if (strcmp(option, "--listen") == 0)
            settings->listen = value;
        else if (strcmp(option, "--rtsp-port") == 0)
            ok = ParsePort(value, &settings->u16RtspPort);
        else if (strcmp(option, "--http-port") == 0)
            ok = ParsePort(value, &settings->u16HttpPort);
        else
            ok = false;
        if (!ok) {
            fprintf(stderr, "avrecord-replay: wrong argument %s %s\n%s", option, value, kUsage);
            return -1;
        }
    }
    return 0;
}

std::string ReplayListenAddress(const ReplaySettings &settings, bool *forced) {
    bool credentials = !settings.user.empty() && !settings.password.empty();
    *forced = !credentials && !settings.listen.empty() && settings.listen != kLoopbackAddress;
    if (!credentials) return kLoopbackAddress;
    return settings.listen.empty() ? kAnyAddress : settings.listen;
}
