#include "report/SweepReport.h"

#include "base/Text.h"
#include "mtd/DeviceText.h"
#include "sweep/SweepTable.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

using nlohmann::ordered_json;

namespace {

constexpr std::size_t kMostTroubles = 8;

std::string CountRuns(std::size_t count) { return Count(static_cast<std::int64_t>(count), "run"); }

/// Runs with the same trouble.
struct Trouble {
    const SweepFailure *first;
    std::size_t runs;
    std::vector<Extent> torn; ///< of power cuts
};

std::vector<Trouble> GatherTroubles(const std::vector<SweepFailure> &failures) {
    std::vector<Trouble> troubles;
    for (const SweepFailure &failure : failures) {
        auto same = std::find_if(troubles.begin(), troubles.end(), [&](const Trouble &trouble) {
            return trouble.first->line == failure.line && trouble.first->happens == failure.happens;
        });
        if (same == troubles.end())
            same = troubles.insert(troubles.end(), {&failure, 0, {}});
        ++same->runs;
        const bool isNew = std::find(same->torn.begin(), same->torn.end(), failure.what.cutExtent) == same->torn.end();
        if (failure.what.cutAtChange != 0 && isNew)
            same->torn.push_back(failure.what.cutExtent);
    }
    return troubles;
}

/// @return the file in which a command keeps its chip.
std::string KeptChip(const SweepCase &what, std::size_t number) {
    if (what.cutAtChange == 0)
        return "run" + std::to_string(number) + ".nand";
    if (number != 0 &&
        (what.secondCutAtChange != 0 || what.badBlocks.size() + what.eraseFails.size() + what.programFails.size() != 0))
        return "pair" + std::to_string(number) + ".nand";
    const std::string state = what.cutExtent == Extent::FirstHalf ? "" : "-" + ExtentsText({what.cutExtent});
    return "cut" + std::to_string(what.cutAtChange) + state + ".nand";
}

/// @return the command for the first run of a case.
/// @param keepsChip whether the command keeps its chip in a file
std::string FirstCommand(const RerunWords &words, const SweepCase &what, const std::string &chip, bool keepsChip) {
    std::string command = "flashsim" + words.options;
    std::string copy;
    if (words.flash.empty())
        command += " --used";
    else
        copy = "cp " + words.flash + " " + chip + " && cp " + words.flash + ".chip " + chip + ".chip && ";
    if (!words.flash.empty() || keepsChip)
        command += " --flash " + chip;
    std::vector<std::uint32_t> bad = words.bad;
    bad.insert(bad.end(), what.badBlocks.begin(), what.badBlocks.end());
    std::sort(bad.begin(), bad.end());
    const std::pair<const char *, const std::vector<std::uint32_t> &> lists[] = {
        {" --bad ", bad}, {" --erase-fails ", what.eraseFails}, {" --program-fails ", what.programFails}};
    for (const auto &[option, blocks] : lists) {
        if (!blocks.empty())
            command += option + BlocksText(blocks);
    }
    for (const SimFault &fault : what.faults)
        command += " --fault " + FaultText(fault);
    if (what.cutAtChange != 0)
        command += " --cut " + CutText({what.cutAtChange, what.cutExtent});
    return copy + command + " " + words.update;
}

std::string WhyText(const BootGap &gap) {
    if (gap.selectors.empty())
        return gap.why;
    std::vector<std::string> numbers;
    for (const std::size_t number : gap.selectors)
        numbers.push_back(std::to_string(number));
    const bool isOne = numbers.size() == 1;
    return gap.why + "; line" + (isOne ? " " : "s ") + JoinWords(numbers, ", ") + (isOne ? " selects" : " select") +
           " this slot before line " + std::to_string(gap.line) + " has written it";
}

/// Adds a later shard's part of a sweep.
void AddShard(ordered_json &whole, const ordered_json &part) {
    for (const char *count : {"runs", "done", "held"})
        whole[count] = whole[count].get<std::size_t>() + part.at(count).get<std::size_t>();
    whole["interrupted"] = whole["interrupted"].get<bool>() || part.at("interrupted").get<bool>();
    for (const ordered_json &failure : part.at("failures"))
        whole["failures"].push_back(failure);
    for (const char *list : {"unsealed", "unbootable"}) {
        ordered_json &lines = whole[list];
        for (const ordered_json &line : part.at(list)) {
            const auto same = std::find_if(lines.begin(), lines.end(),
                                           [&](const ordered_json &it) { return it["line"] == line["line"]; });
            if (same == lines.end()) {
                lines.push_back(line);
                continue;
            }
            (*same)["runs"] = (*same)["runs"].get<std::size_t>() + line["runs"].get<std::size_t>();
            if (line.contains("last"))
                (*same)["last"] = line["last"];
        }
    }
    for (const ordered_json &sight : part.value("board", ordered_json::array())) {
        const auto same = std::find_if(whole["board"].begin(), whole["board"].end(),
                                       [&](const ordered_json &it) { return it["found"] == sight["found"]; });
        if (same == whole["board"].end())
            whole["board"].push_back(sight);
        else
            (*same)["runs"] = (*same)["runs"].get<std::size_t>() + sight["runs"].get<std::size_t>();
    }
}

} // namespace

std::string RerunCommand(const RerunWords &words, const SweepFailure &failure) {
    const std::string chip = KeptChip(failure.what, failure.number);
    const bool hasSecond = failure.what.cutAtChange != 0 || failure.isOfSecondRun;
    std::string first = FirstCommand(words, failure.what, chip, hasSecond);
    if (!hasSecond)
        return first;
    const std::string again = "; flashsim" + words.options + " --flash " + chip;
    const PowerCut second = {failure.what.secondCutAtChange, failure.what.cutExtent};
    return first + (second.change == 0 ? "" : again + " --cut " + CutText(second) + " " + words.update) + again + " " +
           words.update;
}

std::string BootGapText(std::uint64_t first, std::uint64_t last, const std::string &why) {
    const std::string changes = std::to_string(first) + (first == last ? "" : " to " + std::to_string(last));
    return "the device does not boot after " +
           std::string(first == last ? "a power cut at change " : "power cuts at changes ") + changes + ": " + why;
}

std::string SweepText(const SweepResult &result, const RerunWords &words, const std::string &scriptName) {
    const std::string name = std::string("sweep ") + result.settings.kind->name;
    if (result.planned == 0)
        return name + ": " + (result.isInterrupted ? "interrupted before its first run" : "nothing to try") + "\n";
    const auto describe = [&](std::size_t line, const std::string &text, const std::string &happens, std::size_t runs,
                              const std::vector<Extent> &torn) {
        return VisibleText(scriptName) + (line == 0 ? "" : ":" + std::to_string(line)) + ": " + name + ": " +
               VisibleText((text.empty() ? "" : text + ": ") + happens) + " [" + CountRuns(runs) +
               (torn.empty() ? "" : ": " + ExtentsText(torn)) + "]\n";
    };
    std::string all = name + ": " + result.settings.kind->heading(result) + ": " +
                      std::to_string(result.done - result.failures.size()) + " of " + CountRuns(result.done) +
                      " passed";
    if (result.isInterrupted)
        all += ", interrupted with " + CountRuns(result.planned - result.done) + " to go";
    all += '\n';
    if (!result.whyExact.empty())
        all += name + ": each run was a real one: " + result.whyExact + "\n";
    for (const auto &[sight, runs] : result.sights)
        all += name + ": " + sight + " [" + CountRuns(runs) + "]\n";
    const std::vector<Trouble> troubles = GatherTroubles(result.failures);
    for (std::size_t i = 0; i < std::min(troubles.size(), kMostTroubles); ++i) {
        const SweepFailure &first = *troubles[i].first;
        all += describe(first.line, first.text, first.happens, troubles[i].runs, troubles[i].torn);
        if (!first.advice.empty())
            all.append("    ").append(first.advice).append("\n");
        all.append("    ").append(RerunCommand(words, first)).append("\n");
    }
    if (troubles.size() > kMostTroubles)
        all += name + ": and " + std::to_string(troubles.size() - kMostTroubles) + " further kinds of failure\n";
    for (const UnsealedLine &unsealed : result.unsealed)
        all += describe(
            unsealed.line, unsealed.text,
            "note: the cut leaves an environment with an invalid CRC; the boot loader cannot use it until a second run "
            "has finished",
            unsealed.runs, {});
    for (const BootGap &gap : result.gaps) {
        all += describe(gap.line, gap.text, BootGapText(gap.first.cutAtChange, gap.last, WhyText(gap)), gap.runs, {});
        all.append("    ").append(kUnbootableAdvice).append("\n");
        all += "    " + FirstCommand(words, gap.first, KeptChip(gap.first, 0), true) + "\n";
    }
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
                          {"bootChecked", UsesOption(*settings.kind, "boots") && settings.boot.IsAny()},
                          {"failures", ordered_json::array()},
                          {"unsealed", ordered_json::array()},
                          {"unbootable", ordered_json::array()}};
    if (!settings.board.empty()) {
        sweep["board"] = ordered_json::array();
        for (const auto &[sight, runs] : result.sights)
            sweep["board"].push_back({{"found", sight}, {"runs", runs}});
    }
    if (settings.shards > 1)
        sweep["shard"] = std::to_string(settings.shard) + "/" + std::to_string(settings.shards);
    for (const BootGap &gap : result.gaps)
        sweep["unbootable"].push_back({{"line", gap.line},
                                       {"text", gap.text},
                                       {"runs", gap.runs},
                                       {"first", gap.first.cutAtChange},
                                       {"torn", ExtentsText({gap.first.cutExtent})},
                                       {"last", gap.last},
                                       {"why", WhyText(gap)},
                                       {"change", kUnbootableAdvice},
                                       {"selectedBy", gap.selectors},
                                       {"command", FirstCommand(words, gap.first, KeptChip(gap.first, 0), true)}});
    for (const UnsealedLine &unsealed : result.unsealed)
        sweep["unsealed"].push_back({{"line", unsealed.line}, {"text", unsealed.text}, {"runs", unsealed.runs}});
    if (UsesOption(*settings.kind, "sets"))
        sweep["seed"] = settings.seed;
    if (UsesOption(*settings.kind, "every") && settings.board.empty())
        sweep["every"] = settings.every;
    for (const SweepFailure &failure : result.failures) {
        ordered_json described = {{"run", failure.number},
                                  {"badBlocks", failure.what.badBlocks},
                                  {"cut", nullptr},
                                  {"torn", nullptr},
                                  {"secondCut", nullptr},
                                  {"eraseFails", failure.what.eraseFails},
                                  {"programFails", failure.what.programFails},
                                  {"fault", nullptr},
                                  {"line", nullptr},
                                  {"text", failure.text},
                                  {"happens", failure.happens},
                                  {"change", failure.advice},
                                  {"command", RerunCommand(words, failure)}};
        if (failure.what.cutAtChange != 0) {
            described["cut"] = failure.what.cutAtChange;
            described["torn"] = ExtentsText({failure.what.cutExtent});
        }
        if (failure.what.secondCutAtChange != 0)
            described["secondCut"] = failure.what.secondCutAtChange;
        std::string faults;
        for (const SimFault &fault : failure.what.faults)
            faults += (faults.empty() ? "" : " ") + FaultText(fault);
        if (!faults.empty())
            described["fault"] = faults;
        if (failure.line != 0)
            described["line"] = failure.line;
        sweep["failures"].push_back(described);
    }
    return sweep;
}

ordered_json MergeReports(std::vector<ordered_json> reports) {
    if (reports.empty())
        throw std::invalid_argument("no report to merge");
    ordered_json merged = reports.front();
    for (std::size_t i = 0; i < merged.at("sweeps").size(); ++i) {
        // By shard, so that lists come in the order of one sweep.
        std::map<std::size_t, ordered_json> parts;
        std::size_t shards = 0;
        for (const ordered_json &report : reports) {
            const ordered_json part = report.at("sweeps").at(i);
            const std::string shard = part.value("shard", "");
            std::size_t at = 0;
            const std::size_t number = shard.empty() ? 0 : std::stoul(shard, &at);
            const std::size_t count = shard.empty() ? 0 : std::stoul(shard.substr(at + 1));
            if (count == 0 || (shards != 0 && shards != count) || !parts.emplace(number, part).second)
                throw std::invalid_argument("the reports are not the shards of one sweep");
            shards = count;
        }
        if (parts.size() != shards)
            throw std::invalid_argument(std::to_string(shards - parts.size()) + " of " + std::to_string(shards) +
                                        " shards are missing");
        ordered_json whole = parts.begin()->second;
        whole.erase("shard");
        for (auto part = std::next(parts.begin()); part != parts.end(); ++part)
            AddShard(whole, part->second);
        merged["sweeps"][i] = whole;
    }
    for (ordered_json &report : reports) {
        report["sweeps"] = merged["sweeps"];
        if (report != merged)
            throw std::invalid_argument("the reports are of different updates or options");
    }
    return merged;
}
