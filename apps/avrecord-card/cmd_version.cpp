// "avrecord-card version": which build this is.
#include <cstdio>

#include "card_command.h"
#include "common/version.h"

namespace {

int RunVersion(const CardArgs &args) {
    if (args.json) {
        JsonLine().Add("program", "avrecord-card").Add("version", AVRecordVersion()).Print();
    } else {
        printf("avrecord-card %s\n", AVRecordVersion());
    }
    return kExitOk;
}

}  // namespace

AVR_CARD_COMMAND(version, "version", "version [--json]", {}, RunVersion);
