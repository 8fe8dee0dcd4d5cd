// "avrecord-card serve": a web page for the card on this machine: the days
// with recordings, a zoomable timeline of each day, playback from any
// moment, clips as MP4, and the JSON API under /api/ that the page uses.
#include <string>

#include "card_command.h"

#if AVRECORD_CARD_SERVE
#include "serve_http.h"
#endif

namespace {

constexpr char kDefaultListen[] = "127.0.0.1:8080";

#if AVRECORD_CARD_SERVE
constexpr char kServeUsage[] =
    "serve [--card DIR|--image PATH] [--listen HOST:PORT] (default 127.0.0.1:8080)";

int RunServe(const CardArgs &args) {
    if (!args.positional.empty()) return CardFail(args, kExitUsage, "takes no operands");
    ServeOptions options;
    options.cardDir = args.card;
    if (!ParseListenAddress(args.Get("--listen", kDefaultListen), &options.host, &options.port))
        return CardFail(args, kExitUsage, "--listen is HOST:PORT, for example %s", kDefaultListen);
    return ServeCard(options);
}
#else
constexpr char kServeUsage[] = "serve  (the web page is not part of this build)";

int RunServe(const CardArgs &args) {
    return CardFail(args, kExitUsage, "the web page is not part of this build");
}
#endif

}  // namespace

AVR_CARD_COMMAND(serve, "serve", kServeUsage, {"--listen", "--image"}, RunServe, nullptr, kReadsIndex);
