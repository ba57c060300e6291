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
