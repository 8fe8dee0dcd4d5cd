// avrecord-replay: serves the card's recordings over RTSP and HTTP beside the
// recorder, at a lower priority, never writing to the card.
#include <signal.h>
#include <sys/resource.h>

#include <cstdio>

#include "card_reader/card_image_io.h"
#include "common/log.h"
#include "replay/replay_http.h"
#include "replay/replay_source.h"
#include "replay/rtsp_server.h"
#include "replay_settings.h"

namespace {

constexpr int kNiceness = 10;  // the recorder goes first

// Waits for a stop signal; they are blocked in every thread.
void WaitForStop() {
    sigset_t stops;
    sigemptyset(&stops);
    for (int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) sigaddset(&stops, signal);
    int received = 0;
    sigwait(&stops, &received);
    LogTrace("%s %d: signal %d, stopping\n", __FUNCTION__, __LINE__, received);
}

void BlockStopSignals() {
    sigset_t stops;
    sigemptyset(&stops);
    for (int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) sigaddset(&stops, signal);
    pthread_sigmask(SIG_BLOCK, &stops, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

RtspBackend CardBackend(const ReplayCard &card) {
    RtspBackend backend;
    backend.describe = [card](ReplayTracks *tracks) { return ReplayDescribe(card, 0, 0, tracks); };
    backend.open = [card](uint64_t fromUs, uint64_t toUs, bool bIntraOnly) {
        return ReplayOpen(card, fromUs, toUs, bIntraOnly);
    };
    return backend;
}

// With --image, the card's files are read from the image (read-only)
// through the card image reader. False, said on standard error, when the
// image is no card of this recorder.
bool AttachImage(ReplaySettings *settings) {
    if (settings->imagePath.empty()) return true;
    std::string why;
    if (CardImageAttach(settings->imagePath, &settings->cardDir, &why) == 0) return true;
    std::fprintf(stderr, "avrecord-replay: %s: %s\n", settings->imagePath.c_str(), why.c_str());
    return false;
}

}  // namespace

int main(int argc, char **argv) {
    ReplaySettings settings;
    ReplayReadSettings(&settings);
    int parsed = ReplayParseArguments(argc, argv, &settings);
    if (parsed != 0) return parsed > 0 ? 0 : 2;
    if (!AttachImage(&settings)) return 1;
    LogEnable("AVRecordReplay", 3);
    BlockStopSignals();
    if (setpriority(PRIO_PROCESS, 0, kNiceness) != 0) {
        LogWarn("%s %d: the priority could not be lowered\n", __FUNCTION__, __LINE__);
    }
    bool forced = false;
    bool credentials = !settings.user.empty() && !settings.password.empty();
    RtspServerOptions options;
    options.listenAddress = ReplayListenAddress(settings, &forced);
    if (!credentials) {
        LogWarn("%s %d: no User and Password in [%s]: listening on %s only%s\n", __FUNCTION__, __LINE__,
                kReplaySettingsSection, kLoopbackAddress, forced ? ", not on the address asked" : "");
    }
    options.u16Port = settings.u16RtspPort;
    options.u32MaxSessions = settings.u32MaxClients;
    options.u32SessionTimeout = settings.u32SessionTimeout;
    ReplayAuth auth(credentials ? settings.user : "", settings.password);
    ReplayCard card{settings.cardDir};
    RtspServer rtsp(options, CardBackend(card), auth);
    if (rtsp.Start() != 0) return 1;
    LogTrace("%s %d: replay of %s at rtsp://%s:%u/replay\n", __FUNCTION__, __LINE__, card.dir.c_str(),
             options.listenAddress.c_str(), rtsp.Port());
    ReplayHttpOptions http;
    http.listenAddress = options.listenAddress;
    http.u16Port = settings.u16HttpPort;
    http.u32MaxClients = settings.u32MaxClients;
    http.card = card;
    http.auth = &auth;
    ReplayHttpServer listing(http);
    if (listing.Start() != 0) return 1;
    LogTrace("%s %d: listing at http://%s:%u/list\n", __FUNCTION__, __LINE__, http.listenAddress.c_str(),
             listing.Port());
    WaitForStop();
    listing.Stop();
    rtsp.Stop();
    return 0;
}
