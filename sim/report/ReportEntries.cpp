#include "report/ReportEntries.h"

#include "base/Text.h"
#include "report/SweepReport.h"
#include "sweep/SweepTable.h"
#include "verdict/Finding.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <nlohmann/json.hpp>

using nlohmann::ordered_json;

namespace {

constexpr const char *kUnbootable = "unbootable";
constexpr const char *kUnsealed = "unsealed";
constexpr const char *kError = "error";

/// FNV-1a: the same on every machine and in every version.
std::string HashText(const std::string &text) {
    std::uint64_t hash = 0xcbf29ce484222325;
    for (const char character : text)
        hash = (hash ^ static_cast<unsigned char>(character)) * 0x100000001b3;
    return FormatText("%016llx", static_cast<unsigned long long>(hash));
}

/// Line numbers, blocks and offsets in a message change from release to release.
std::string WithoutNumbers(std::string text) {
    text.erase(std::remove_if(text.begin(), text.end(),
                              [](char character) { return std::isxdigit(static_cast<unsigned char>(character)) != 0; }),
               text.end());
    return text;
}

/// Adds entries to a list and gives each its fingerprint.
class EntryList {
public:
    /// @param source object of the report, with "line" and "text"
    /// @param distinction what tells entries of one rule and line apart, besides their order
    void Add(const ordered_json &source, ReportEntry entry, const std::string &distinction = "") {
        if (!source.at("line").is_null())
            entry.line = source.at("line").get<std::size_t>();
        const std::string text = source.at("text").get<std::string>();
        entry.text = VisibleText(text);
        entry.message = VisibleText(entry.message);
        entry.command = VisibleText(entry.command);
        const std::string hash = HashText(entry.rule + '\0' + text + '\0' + WithoutNumbers(distinction));
        entry.fingerprint = hash + ":" + std::to_string(++m_seen[hash]);
        if (entry.runs != 0)
            entry.message += " [" + Count(static_cast<std::int64_t>(entry.runs), "run") + "]";
        entries.push_back(std::move(entry));
    }

    std::vector<ReportEntry> entries;

private:
    std::map<std::string, std::size_t> m_seen;
};

std::string Join(const std::string &happens, const std::string &change) {
    return happens + (change.empty() ? "" : "; " + change);
}

void AddSweep(const ordered_json &sweep, EntryList &list) {
    const std::string kind = sweep.at("kind").get<std::string>();
    const std::string rule = "sweep-" + kind;
    if (sweep.at("interrupted").get<bool>())
        list.Add({{"line", nullptr}, {"text", ""}},
                 {rule, kError, 0, "",
                  sweep.at("runs") == 0
                      ? "interrupted before its first run"
                      : "interrupted with " +
                            Count(sweep.at("runs").get<std::int64_t>() - sweep.at("done").get<std::int64_t>(), "run") +
                            " to go",
                  "", kind, 0, ""},
                 "interrupted");
    struct Group {
        const ordered_json *first;
        std::size_t runs;
    };
    std::vector<Group> groups;
    std::map<std::string, std::size_t> places;
    for (const ordered_json &failure : sweep.at("failures")) {
        const std::string key = failure.at("line").dump() + " " + failure.at("happens").get<std::string>();
        const auto [place, isNew] = places.emplace(key, groups.size());
        if (isNew)
            groups.push_back({&failure, 0});
        ++groups[place->second].runs;
    }
    for (const auto &[first, runs] : groups) {
        const std::string happens = first->at("happens").get<std::string>();
        list.Add(*first,
                 {rule, kError, 0, "", Join(happens, first->at("change").get<std::string>()),
                  first->at("command").get<std::string>(), kind, runs, ""},
                 happens);
    }
    for (const ordered_json &gap : sweep.at("unbootable"))
        list.Add(gap, {kUnbootable, kError, 0, "",
                       Join(BootGapText(gap.at("first").get<std::uint64_t>(), gap.at("last").get<std::uint64_t>(),
                                        gap.at("why").get<std::string>()),
                            kUnbootableAdvice),
                       gap.at("command").get<std::string>(), kind, gap.at("runs").get<std::size_t>(), ""});
    for (const ordered_json &line : sweep.at("unsealed"))
        list.Add(line, {kUnsealed, "note", 0, "",
                        "power cuts leave an environment with an invalid CRC; the boot loader cannot use it until a "
                        "second run has finished",
                        "", kind, line.at("runs").get<std::size_t>(), ""});
}

} // namespace

std::vector<ReportRule> ReportRules() {
    constexpr const char *kNames[] = {"note", "warning", kError};
    std::vector<ReportRule> rules;
    for (const FindingRow &row : FindingRows())
        rules.push_back({row.kind, kNames[static_cast<std::size_t>(row.severity)], row.advice});
    for (const SweepKind &kind : kSweepKinds)
        rules.push_back(
            {std::string("sweep-") + kind.name, kError, std::string("make the update survive this: ") + kind.summary});
    rules.push_back({kUnbootable, kError, kUnbootableAdvice});
    rules.push_back({kUnsealed, "note", "keep a second copy of the environment that survives a power cut"});
    return rules;
}

std::vector<ReportEntry> ReadEntries(const ordered_json &report, const std::string &command) {
    EntryList list;
    for (const ordered_json &finding : report.at("findings"))
        list.Add(finding, {finding.at("kind").get<std::string>(), finding.at("severity").get<std::string>(), 0, "",
                           Join(finding.at("happens").get<std::string>(), finding.at("change").get<std::string>()),
                           command, "", 0, ""});
    for (const ordered_json &sweep : report.at("sweeps"))
        AddSweep(sweep, list);
    return std::move(list.entries);
}
