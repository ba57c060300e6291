// Reports from files, for `flashsim merge` and `flashsim diff`. The input is two reports with a zero byte between.

#include "Fuzz.h"
#include "report/Report.h"
#include "report/ReportDiff.h"
#include "report/ReportFormats.h"
#include "report/SweepReport.h"

#include <nlohmann/json.hpp>

int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    Input input(bytes, size);
    const std::string texts[] = {input.Text(), input.Text()};
    std::vector<nlohmann::ordered_json> reports;
    for (const std::string &text : texts) {
        if (auto report = ParseReport(text))
            reports.push_back(std::move(*report));
    }
    if (reports.size() < std::size(texts))
        return 0;
    // The tool answers both kinds of exceptions with one line.
    try {
        MayRefuse([&] { CompareReports(reports[0], reports[1]); });
    } catch (const nlohmann::json::exception &) {
    }
    try {
        MayRefuse([&] { ReportText(MergeReports(reports)); });
    } catch (const nlohmann::json::exception &) {
    }
    return 0;
}
