#include "verdict/Finding.h"

const std::vector<FindingRow> &FindingRows() {
    static const std::vector<FindingRow> kRows = {
#define FINDING(name, kind, severity, advice) {kind, Severity::severity, advice},
#include "verdict/Findings.def"
    };
    return kRows;
}

Finding ForLine(const UpdateLine &line, FindingId id, const std::string &happens, const std::string &change) {
    Finding finding = ForRun(id, happens, change);
    finding.line = line.number;
    finding.text = line.text;
    return finding;
}

Finding ForRun(FindingId id, const std::string &happens, const std::string &change) {
    const FindingRow &row = FindingRows()[static_cast<std::size_t>(id)];
    return {0, "", row.severity, row.kind, happens, change.empty() ? row.advice : change};
}
