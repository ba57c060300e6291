#include "report/SweepReport.h"

#include "base/Text.h"
#include "mtd/DeviceText.h"
#include "sweep/SweepTable.h"

#include <algorithm>
#include <nlohmann/json.hpp>

using nlohmann::ordered_json;

namespace {

constexpr std::size_t kMostTroubles = 8;

std::string CountRuns(std::size_t count) { return Count(static_cast<std::int64_t>(count), "run"); }

/// Runs with the same trouble.
struct Trouble {
    const SweepFailure *first;
    std::size_t runs;
};

std::vector<Trouble> GatherTroubles(const std::vector<SweepFailure> &failures) {
    std::vector<Trouble> troubles;
    for (const SweepFailure &failure : failures) {
        const auto same = std::find_if(troubles.begin(), troubles.end(), [&](const Trouble &trouble) {
            return trouble.first->line == failure.line && trouble.first->happens == failure.happens;
        });
        if (same == troubles.end())
            troubles.push_back({&failure, 1});
        else
            ++same->runs;
    }
    return troubles;
}

/// The file in which a command keeps its chip.
std::string KeptChip(const SweepFailure &failure) {
    const std::uint64_t change = failure.what.cutAtChange;
    return (change != 0 ? "cut" + std::to_string(change) : "run" + std::to_string(failure.number)) + ".nand";
}

} // namespace

std::string RerunCommand(const RerunWords &words, const SweepFailure &failure) {
    const SweepCase &what = failure.what;
    const std::string chip = KeptChip(failure);
    const std::string plain = "flashsim" + words.options;
    std::string command;
    std::string start = plain;
    if (words.flash.empty())
        start += " --used";
    else
        command = "cp " + words.flash + " " + chip + " && cp " + words.flash + ".chip " + chip + ".chip && ";
    if (!words.flash.empty() || what.cutAtChange != 0)
        start += " --flash " + chip;
    std::vector<std::uint32_t> bad = words.bad;
    bad.insert(bad.end(), what.badBlocks.begin(), what.badBlocks.end());
    std::sort(bad.begin(), bad.end());
    if (!bad.empty())
        start += " --bad " + BlocksText(bad);
    for (const SimFault &fault : what.faults)
        start += " --fault " + FaultText(fault);
    if (what.cutAtChange == 0)
        return command + start + " " + words.update;
    return command + start + " --cut " + std::to_string(what.cutAtChange) + " " + words.update + "; " + plain +
           " --flash " + chip + " " + words.update;
}

std::string SweepText(const SweepResult &result, const RerunWords &words, const std::string &scriptName) {
    const std::string name = std::string("sweep ") + result.settings.kind->name;
    if (result.planned == 0)
        return name + ": " + (result.isInterrupted ? "interrupted before its first run" : "nothing to try") + "\n";
    const auto describe = [&](std::size_t line, const std::string &text, const std::string &happens, std::size_t runs) {
        return scriptName + (line == 0 ? "" : ":" + std::to_string(line)) + ": " + name + ": " +
               (text.empty() ? "" : text + ": ") + happens + " [" + CountRuns(runs) + "]\n";
    };
    std::string all = name + ": " + result.settings.kind->heading(result) + ": " +
                      std::to_string(result.done - result.failures.size()) + " of " + CountRuns(result.done) +
                      " passed";
    if (result.isInterrupted)
        all += ", interrupted with " + CountRuns(result.planned - result.done) + " to go";
    all += '\n';
    const std::vector<Trouble> troubles = GatherTroubles(result.failures);
    for (std::size_t i = 0; i < std::min(troubles.size(), kMostTroubles); ++i) {
        const SweepFailure &first = *troubles[i].first;
        all += describe(first.line, first.text, first.happens, troubles[i].runs);
        if (!first.advice.empty())
            all.append("    ").append(first.advice).append("\n");
        all.append("    ").append(RerunCommand(words, first)).append("\n");
    }
    if (troubles.size() > kMostTroubles)
        all += name + ": and " + std::to_string(troubles.size() - kMostTroubles) + " further kinds of failure\n";
    for (const UnsealedLine &unsealed : result.unsealed)
        all += describe(
            unsealed.line, unsealed.text,
            "note: the cut leaves an environment with an invalid CRC; the boot loader finds none until a second run "
            "has finished",
            unsealed.runs);
    return all;
}

ordered_json DescribeSweep(const SweepResult &result, const RerunWords &words) {
    const SweepSettings &settings = result.settings;
    ordered_json sweep = {{"kind", settings.kind->name},
                          {"every", nullptr},
                          {"seed", nullptr},
                          {"runs", result.planned},
                          {"done", result.done},
                          {"held", result.done - result.failures.size()},
                          {"interrupted", result.isInterrupted},
                          {"failures", ordered_json::array()},
                          {"unsealed", ordered_json::array()}};
    for (const UnsealedLine &unsealed : result.unsealed)
        sweep["unsealed"].push_back({{"line", unsealed.line}, {"text", unsealed.text}, {"runs", unsealed.runs}});
    if (UsesOption(*settings.kind, "seed"))
        sweep["seed"] = settings.seed;
    if (UsesOption(*settings.kind, "every"))
        sweep["every"] = settings.every;
    for (const SweepFailure &failure : result.failures) {
        ordered_json described = {{"run", failure.number},
                                  {"badBlocks", failure.what.badBlocks},
                                  {"cut", nullptr},
                                  {"fault", nullptr},
                                  {"line", nullptr},
                                  {"text", failure.text},
                                  {"happens", failure.happens},
                                  {"change", failure.advice},
                                  {"command", RerunCommand(words, failure)}};
        if (failure.what.cutAtChange != 0)
            described["cut"] = failure.what.cutAtChange;
        if (!failure.what.faults.empty())
            described["fault"] = FaultText(failure.what.faults.front());
        if (failure.line != 0)
            described["line"] = failure.line;
        sweep["failures"].push_back(described);
    }
    return sweep;
}
