// "avrecord-card timeline": an SVG picture of one day of a card, sections
// and alarm events on a 24-hour axis.
#include <cstdio>
#include <string>

#include "card_command.h"
#include "card_reader/record_timeline.h"
#include "tools/calendar_time.h"

namespace {

int RunTimeline(const CardArgs &args) {
    if (!args.positional.empty()) return CardFail(args, kExitUsage, "takes no operands");
    DateTime day{};
    if (!ParseDate(args.Get("--day").c_str(), &day))
        return CardFail(args, kExitUsage, "needs --day YYYY-MM-DD");
    std::string out = args.Get("-o");
    if (out.empty()) return CardFail(args, kExitUsage, "needs -o OUT.svg");
    RecordTimeline timeline;
    if (RecordTimelineLoad(args.card.c_str(), day.year, day.month, day.day, &timeline) != 0) {
        return CardFail(args, kExitCardProblem, "cannot search %s: index or event file missing or damaged",
                        args.card.c_str());
    }
    std::string svg = RecordTimelineSvg(timeline);
    FILE *file = fopen(out.c_str(), "wb");
    if (file == nullptr) return CardFail(args, kExitUsage, "cannot create %s", out.c_str());
    bool written = fwrite(svg.data(), 1, svg.size(), file) == svg.size();
    if (fclose(file) != 0 || !written) return CardFail(args, kExitUsage, "cannot write %s", out.c_str());
    if (args.json) {
        JsonLine()
            .Add("file", out)
            .Add("day", timeline.day)
            .Add("sections", static_cast<unsigned>(timeline.sections.size()))
            .Add("events", static_cast<unsigned>(timeline.events.size()))
            .Print();
    } else {
        printf("%s: %s, %zu sections, %zu alarm events\n", out.c_str(), timeline.day.c_str(),
               timeline.sections.size(), timeline.events.size());
    }
    return kExitOk;
}

}  // namespace

AVR_CARD_COMMAND(timeline, "timeline",
                 "timeline --day YYYY-MM-DD -o OUT.svg [--card DIR|--image PATH] [--json]",
                 {"--day", "-o", "--image"}, RunTimeline, nullptr, kReadsIndex);
