#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

/// What the formats of other tools need besides the report.
struct FormatFacts {
    std::string script;                  ///< path of the script, relative to the folder of the pipeline
    std::string command;                 ///< repeats the run that was judged
    std::string version;                 ///< of flashsim
    std::string update = {};             ///< name of the update
    const struct PageRun *run = nullptr; ///< the run itself, for a page; null when only its report is known
};

// Each takes a report as MakeReport makes it, with its sweeps, and returns a whole file of ASCII text, or of UTF-8 text
// for XML. Characters that control a display are shown as VisibleText shows them.

/// The report itself, for programs; bytes that are not UTF-8 are replaced.
std::string ReportText(const nlohmann::ordered_json &report, const FormatFacts &facts = {});

/// SARIF 2.1.0: a rule for each kind of finding, and a result for each entry, with its fingerprint.
std::string SarifText(const nlohmann::ordered_json &report, const FormatFacts &facts);

/// JUnit's XML: a suite for the run with a case for each script line, and a suite for each sweep with a case for each
/// entry, or one that passes.
std::string JUnitText(const nlohmann::ordered_json &report, const FormatFacts &facts);

/// The code quality report of GitLab: a list with an object for each entry.
std::string CodeQualityText(const nlohmann::ordered_json &report, const FormatFacts &facts);
