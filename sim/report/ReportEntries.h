#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

/// A kind of entry. Ids never change.
struct ReportRule {
    std::string id;       ///< the kind of a finding, "sweep-" and the name of a sweep, "unbootable" or "unsealed"
    std::string severity; ///< usual severity: "error", "warning" or "note"
    std::string advice;   ///< what to change
};

/// @return the rules of all findings, in the order of Findings.def, then those of sweeps.
std::vector<ReportRule> ReportRules();

/// One thing in a report that people have to look at: a finding, equal failures of a sweep's runs, or a line with power
/// cuts after which the device does not boot. All texts but the fingerprint are visible text of one line.
struct ReportEntry {
    std::string rule;
    std::string severity; ///< "error", "warning" or "note"
    std::size_t line = 0; ///< number in the script; 0 for an entry about the run
    std::string text;     ///< that line
    std::string message;  ///< what happens and what to change
    std::string command;  ///< for a shell, repeats the first run that shows it; may be empty
    std::string sweep;    ///< name of the sweep; empty for a finding
    std::size_t runs = 0; ///< number of runs of the sweep that show it; 0 for a finding
    /// Unique in a report, and the same in later reports: depends on the rule, the text of the line and the number of
    /// earlier entries of both; for failures of a sweep also on what happens, without the numbers in it. The number of
    /// the line has no influence.
    std::string fingerprint;
};

/// @param report as MakeReport makes it, with its sweeps, or as read from a file
/// @param command repeats the run that was judged
/// @return findings in their order, then those of each sweep.
/// @throws nlohmann::json::exception when a field is missing or of the wrong type
std::vector<ReportEntry> ReadEntries(const nlohmann::ordered_json &report, const std::string &command);
