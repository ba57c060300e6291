#include "report/ReportDiff.h"

#include "report/ReportEntries.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

using nlohmann::ordered_json;

namespace {

enum class Change { New, Worse, Fixed, Better };
constexpr const char *kChangeNames[] = {"new", "worse", "fixed", "better"};

/// What a difference of severity and runs is measured by.
std::pair<std::size_t, std::size_t> Weight(const ReportEntry &entry) {
    constexpr const char *kSeverities[] = {"note", "warning", "error"};
    const auto *severity = std::find(std::begin(kSeverities), std::end(kSeverities), entry.severity);
    return {static_cast<std::size_t>(severity - std::begin(kSeverities)), entry.runs};
}

/// @return why the new report says less about a sweep than the old one; empty when it does not.
std::string Shortfall(const ordered_json &before, const ordered_json &after) {
    const auto &sweeps = after.at("sweeps");
    const auto same = std::find_if(sweeps.begin(), sweeps.end(),
                                   [&](const ordered_json &sweep) { return sweep.at("kind") == before.at("kind"); });
    if (same == sweeps.end())
        return "not made";
    if (same->at("interrupted").get<bool>())
        return "interrupted";
    if (same->contains("shard") && same->value("shard", "") != before.value("shard", ""))
        return "only shard " + same->value("shard", "");
    const auto step = [](const ordered_json &sweep) {
        return sweep.at("every").is_null() ? 1 : sweep.at("every").get<std::uint64_t>();
    };
    return step(*same) > step(before) ? "only one in " + std::to_string(step(*same)) + " places tried" : "";
}

std::string EntryText(const ReportEntry &entry) {
    return (entry.line == 0 ? "" : "line " + std::to_string(entry.line) + ": ") + entry.severity + ": " +
           (entry.text.empty() ? "" : entry.text + ": ") + entry.message + " [" + entry.rule + "]";
}

std::map<std::string, ReportEntry> ByFingerprint(const ordered_json &report) {
    std::map<std::string, ReportEntry> entries;
    for (ReportEntry &entry : ReadEntries(report, ""))
        entries.emplace(entry.fingerprint, std::move(entry));
    return entries;
}

} // namespace

ReportDiff CompareReports(const ordered_json &before, const ordered_json &after) {
    std::size_t counts[std::size(kChangeNames)] = {};
    std::string lists[std::size(kChangeNames)];
    const auto add = [&](Change change, const std::string &what) {
        const auto index = static_cast<std::size_t>(change);
        ++counts[index];
        lists[index] += std::string(kChangeNames[index]) + ": " + what + "\n";
    };
    std::set<std::string> unknown;
    for (const ordered_json &sweep : before.at("sweeps")) {
        const std::string kind = sweep.at("kind").get<std::string>();
        const std::string shortfall = Shortfall(sweep, after);
        if (!shortfall.empty() && unknown.insert(kind).second)
            add(Change::Worse, "sweep " + kind + ": " + shortfall);
    }
    const auto old = ByFingerprint(before);
    const auto now = ByFingerprint(after);
    for (const ReportEntry &entry : ReadEntries(after, "")) {
        const auto same = old.find(entry.fingerprint);
        if (same == old.end())
            add(Change::New, EntryText(entry));
        else if (Weight(entry) > Weight(same->second))
            add(Change::Worse, EntryText(entry) + ", was " + EntryText(same->second));
        else if (Weight(entry) < Weight(same->second) && unknown.count(entry.sweep) == 0)
            add(Change::Better, EntryText(entry) + ", was " + EntryText(same->second));
    }
    for (const ReportEntry &entry : ReadEntries(before, "")) {
        if (now.count(entry.fingerprint) == 0 && unknown.count(entry.sweep) == 0)
            add(Change::Fixed, EntryText(entry));
    }
    ReportDiff diff;
    std::string total;
    for (std::size_t i = 0; i < std::size(kChangeNames); ++i) {
        diff.text += lists[i];
        total += (i == 0 ? "" : ", ") + std::to_string(counts[i]) + " " + kChangeNames[i];
    }
    diff.text += total + "\n";
    diff.isWorse = counts[0] + counts[1] != 0;
    return diff;
}
