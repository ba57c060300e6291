#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

/// The difference between the reports of two releases.
struct ReportDiff {
    std::string text;     ///< a line for each difference, then the counts
    bool isWorse = false; ///< whether something is new or worse
};

/// Compares entries of reports by their fingerprints, which do not depend on line numbers. An entry is worse when its
/// severity rises, or when more runs of a sweep show it. A sweep that the new report lacks, or that was interrupted, or
/// tried fewer places, is worse too: nothing of that sweep counts as fixed or better.
/// @throws nlohmann::json::exception when a field is missing or of the wrong type
ReportDiff CompareReports(const nlohmann::ordered_json &before, const nlohmann::ordered_json &after);
