// "avrecord-card version": which build this is.
#include <cstdio>

#include "card_command.h"

namespace {

int RunVersion(const CardArgs &args) {
    if (args.json) {
        JsonLine().Add("program", "avrecord-card").Add("version", "1.0").Print();
    } else {
        printf("avrecord-card 1.0\n");
    }
    return kExitOk;
}

}  // namespace

AVR_CARD_COMMAND(version, "version", "version [--json]", {}, RunVersion);
