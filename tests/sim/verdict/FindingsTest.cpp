#include "verdict/Finding.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <regex>

namespace {

/// The kinds that the manual describes, with "*" for a warning and "**" for a note.
std::map<std::string, std::string> DocumentedKinds() {
    std::ifstream file(MANUALS "/flashsim.1");
    const std::string manual((std::istreambuf_iterator<char>(file)), {});
    const std::size_t begin = manual.find(".Sh FINDINGS\n");
    const std::string section = manual.substr(begin, manual.find(".Sh SWEEPS\n") - begin);
    std::map<std::string, std::string> kinds;
    const std::regex row("T\\{\n([^ \n]+) ?(\\**)\nT\\}\tT\\{\n");
    for (std::sregex_iterator at(section.begin(), section.end(), row), end; at != end; ++at)
        EXPECT_TRUE(kinds.emplace((*at)[1], (*at)[2]).second) << (*at)[1] << " is described twice";
    return kinds;
}

} // namespace

TEST(Findings, AreThoseOfTheManualWithTheirSeverities) {
    std::map<std::string, std::string> kinds;
    for (const FindingRow &row : FindingRows()) {
        const char *mark = row.severity == Severity::Error ? "" : row.severity == Severity::Warning ? "*" : "**";
        EXPECT_TRUE(kinds.emplace(row.kind, mark).second) << row.kind << " is in the table twice";
    }
    EXPECT_EQ(DocumentedKinds(), kinds);
}

TEST(Findings, TakeSeverityAndAdviceFromTheTable) {
    UpdateLine line;
    line.number = 7;
    line.text = "erase 0 0";
    const Finding finding = ForLine(line, FindingId::NoSpare, "happens");
    EXPECT_EQ(finding.line, 7U);
    EXPECT_EQ(finding.text, "erase 0 0");
    EXPECT_EQ(finding.severity, Severity::Warning);
    EXPECT_EQ(finding.kind, "no-spare");
    EXPECT_EQ(finding.happens, "happens");
    EXPECT_EQ(finding.change, "enlarge the range by as many blocks as may be bad");
    const Finding other = ForRun(FindingId::NotifyFailed, "happens", "change this");
    EXPECT_EQ(other.line, 0U);
    EXPECT_EQ(other.severity, Severity::Note);
    EXPECT_EQ(other.change, "change this");
}
