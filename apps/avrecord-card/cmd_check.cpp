// "avrecord-card check": verifies the index against the media files and
// prints every problem found; exit 1 when there is any. With --frames every
// recorded frame is read back as well, naming where reading breaks off.
#include <cstdio>
#include <string>
#include <vector>

#include "card_command.h"
#include "card_reader/index_check.h"

namespace {

void PrintProblem(const CardArgs &args, const IndexProblem &problem) {
    if (args.json) {
        JsonLine line;
        line.Add("type", "problem");
        if (problem.fileNo >= 0) line.Add("file", static_cast<long long>(problem.fileNo));
        if (problem.sectionNo != 0) line.Add("section", problem.sectionNo);
        line.Add("text", problem.text).Print();
    } else {
        printf("%s\n", FormatIndexProblem(problem).c_str());
    }
}

int RunCheck(const CardArgs &args) {
    if (!args.positional.empty()) return CardFail(args, kExitUsage, "takes no operands");
    std::vector<IndexProblem> problems;
    if (CheckCardIndex(args.card, &problems) != 0) {
        return CardFail(args, kExitCardProblem, "%s", problems.front().text.c_str());
    }
    // --frames: also read every recorded frame back.
    if (args.Has("--frames")) CheckCardFrames(args.card, &problems);
    for (const IndexProblem &problem : problems) PrintProblem(args, problem);
    if (args.json) {
        JsonLine()
            .Add("type", "summary")
            .Add("card", args.card)
            .Add("problems", static_cast<unsigned long long>(problems.size()))
            .Print();
    } else if (problems.empty()) {
        printf("%s: index consistent\n", args.card.c_str());
    }
    if (!problems.empty())
        return CardFail(args, kExitCardProblem, "%zu problems in the index", problems.size());
    return kExitOk;
}

}  // namespace

AVR_CARD_COMMAND(check, "check", "check [--card DIR|--image PATH] [--frames] [--json]", {"--image"}, RunCheck,
                 nullptr, kReadsIndex);
