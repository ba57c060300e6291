#include "report/ReportFormats.h"
#include "base/Text.h"
#include "report/ReportDiff.h"
#include "report/ReportEntries.h"
#include "report/XmlText.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

using nlohmann::ordered_json;

namespace {

using List = std::vector<ordered_json>;

ordered_json FindingOf(int line, const char *text, const char *severity, const char *kind, const char *happens = "h") {
    ordered_json finding = {{"line", nullptr}, {"text", text},       {"severity", severity},
                            {"kind", kind},    {"happens", happens}, {"change", "c"}};
    if (line != 0)
        finding["line"] = line;
    return finding;
}

ordered_json FailureOf(int line, const char *text, const char *happens) {
    return {{"line", line}, {"text", text}, {"happens", happens}, {"change", ""}, {"command", "flashsim x"}};
}

ordered_json SweepOf(const char *kind, const List &failures) {
    const ordered_json none = ordered_json::array();
    return {{"kind", kind},         {"every", 1},           {"runs", 9},        {"done", 9},         {"held", 9},
            {"interrupted", false}, {"failures", failures}, {"unsealed", none}, {"unbootable", none}};
}

ordered_json ReportOf(const List &findings, const List &sweeps = {}) {
    return {{"lines", ordered_json::array()}, {"findings", findings}, {"sweeps", sweeps}};
}

std::string Changes(const ordered_json &before, const ordered_json &after) {
    const ReportDiff diff = CompareReports(before, after);
    const std::string last = diff.text.substr(diff.text.rfind('\n', diff.text.size() - 2) + 1);
    EXPECT_EQ(diff.isWorse, last.rfind("0 new, 0 worse, ", 0) != 0) << diff.text;
    std::string words;
    for (std::size_t at = 0; at + last.size() < diff.text.size(); at = diff.text.find('\n', at) + 1)
        words += diff.text.substr(at, diff.text.find(':', at) - at) + " ";
    return words;
}

} // namespace

TEST(ReportFormats, ShowWhatWouldSteerADisplay) {
    const struct {
        std::string text;
        const char *visible;
    } rows[] = {{"a\tb c", "a b c"},
                {std::string("\0\x1b[2J\r\n\x7f", 8), "\\x00\\x1b[2J\\x0d\\x0a\\x7f"},
                {"\xc2\x9b"
                 "31m \xe2\x80\xae \xe2\x81\xa6 \xd8\x9c \xef\xbb\xbf",
                 "\\u009b31m \\u202e \\u2066 \\u061c \\ufeff"},
                {"\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80", "\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80"},
                {"\xff \xc0\x80 \xed\xa0\x80 \xe2\x82", "\\xff \\xc0\\x80 \\xed\\xa0\\x80 \\xe2\\x82"}};
    for (const auto &row : rows) {
        EXPECT_EQ(VisibleText(row.text), row.visible);
        if (row.text.find('\n') == std::string::npos) {
            EXPECT_EQ(VisibleLines(row.text + "\r\n" + row.text + "\n"),
                      row.visible + std::string("\r\n") + row.visible + "\n");
        }
    }
    const struct {
        const char *text, *settled;
    } lines[] = {{"\r 1 %\r 12 %\r100 %\nend\r\n", "100 %\nend\r\n"},
                 {"long text\rshort", "shorttext"},
                 {"aaaa\rbb\r\rc", "cbaa"},
                 {"\xc3\xa4\xc3\xb6\xc3\xbc\r\xe2\x82\xac!!\r", "\xe2\x82\xac!!"},
                 {"\xc3\xa4\xc3\xb6\xc3\xbc\rx", "x\xc3\xb6\xc3\xbc"},
                 {"error\n\rgone\r", "error\ngone"}};
    for (const auto &row : lines) {
        EXPECT_EQ(LiveLines(row.text), row.text);
        EXPECT_EQ(SettledLines(row.text), row.settled);
    }
    EXPECT_EQ(LiveLines("a\r\x1b\r"), "a\r\\x1b\r");
    EXPECT_EQ(SettledLines("aaa\r\x1b\r"), "\\x1b");
    EXPECT_EQ(XmlMarkupEscaped("<a b=\"c\">&'"), "&#60;a b=&#34;c&#34;&#62;&#38;'");
}

TEST(ReportFormats, WordsForAShellAreVisibleAndComeOutAsTheyWere) {
    for (const char *word : {"plain", "", "a b'c", "\x1b[2J'\\\n",
                             "\xe2\x80\xae"
                             "f\xc3\xa4",
                             "\xff"
                             "1\t"}) {
        const std::string quoted = ShellWord(word);
        EXPECT_EQ(VisibleText(quoted), quoted);
        setenv("WORD", word, 1);
        setenv("SCRIPT", ("[ " + quoted + " = \"$WORD\" ]").c_str(), 1);
        EXPECT_EQ(system("bash -c \"$SCRIPT\""), 0) << quoted;
    }
    EXPECT_EQ(WholeCharacters("a\xe2\x82"), 1U);
    EXPECT_EQ(WholeCharacters("a\xe2\x82\xac"), 4U);
    EXPECT_EQ(WholeCharacters("\x82\x82\x82\x82"), 4U);
    EXPECT_EQ(WholeCharacters(""), 0U);
}

TEST(ReportFormats, FingerprintsAreUniqueAndSurviveMovedLines) {
    const auto prints = [](int offset) {
        const auto at = [offset](const char *happens) { return FailureOf(1 + offset, "erase 0 1", happens); };
        std::vector<std::string> all;
        for (const ReportEntry &entry : ReadEntries(
                 ReportOf({FindingOf(0, "", "error", "crashed"), FindingOf(1 + offset, "erase 0 1", "error", "failed"),
                           FindingOf(2 + offset, "erase 0 1", "error", "failed"),
                           FindingOf(2 + offset, "erase 0 1", "error", "overlap")},
                          {SweepOf("cut", {at("at 0x10"), at("other"), at("at 0x10")})}),
                 ""))
            all.push_back(entry.fingerprint);
        return all;
    };
    const std::vector<std::string> all = prints(0);
    EXPECT_EQ(all.size(), 6U);
    EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), all.size());
    EXPECT_EQ(prints(30), all);
    // Trackers of issues have stored them.
    EXPECT_EQ(ReadEntries(ReportOf({FindingOf(7, "erase 0 1", "error", "failed")}), "")[0].fingerprint,
              "7f637179ab5444ab:1");
}

TEST(ReportFormats, LineThatWasNotCarriedOutNeverPasses) {
    ordered_json report = ReportOf(List());
    for (const char *result : {"clean", "failed", "skipped", "never-ran"})
        report["lines"].push_back({{"number", report["lines"].size() + 1}, {"text", result}, {"result", result}});
    const std::string text = JUnitText(report, {"s", "", ""});
    EXPECT_NE(text.find(R"(<testsuite name="s" tests="5" failures="2" errors="0" skipped="1")"), std::string::npos)
        << text;
}

TEST(ReportFormats, InterruptedSweepFailsWithTheRunsToGo) {
    ordered_json sweep = SweepOf("cut", List());
    EXPECT_NE(JUnitText(ReportOf(List(), {sweep}), {}).find("9 of 9 runs passed"), std::string::npos);
    sweep["interrupted"] = true;
    sweep["done"] = 4;
    const std::string text = JUnitText(ReportOf(List(), {sweep}), {});
    EXPECT_NE(text.find("interrupted with 5 runs to go [sweep-cut]\n</failure>"), std::string::npos) << text;
    EXPECT_EQ(text.find("runs passed"), std::string::npos) << text;
}

TEST(ReportDiff, NamesEachDifference) {
    const List none;
    const auto swept = [](const List &failures, const char *key = "kind", const ordered_json &value = "cut") {
        ordered_json sweep = SweepOf("cut", failures);
        sweep[key] = value;
        return ReportOf(List(), {sweep});
    };
    const ordered_json error = FindingOf(3, "erase 0 1", "error", "failed");
    const ordered_json moved = FindingOf(30, "erase 0 1", "error", "failed", "h at 0x40");
    const ordered_json warning = FindingOf(3, "erase 0 1", "warning", "failed");
    const List once = {FailureOf(3, "erase 0 1", "block 7 is lost")};
    const List twice = {FailureOf(4, "erase 0 1", "block 8 is lost"), FailureOf(4, "erase 0 1", "block 8 is lost")};
    const ordered_json gap = {{"line", 3}, {"text", "erase 0 1"}, {"runs", 2},     {"first", 5},
                              {"last", 6}, {"why", "w"},          {"command", "x"}};
    const struct {
        const char *name;
        ordered_json before, after;
        const char *changes;
    } rows[] = {
        {"nothing", ReportOf({error}), ReportOf({moved}), ""},
        {"a finding", ReportOf(none), ReportOf({error}), "new "},
        {"another line", ReportOf({error}), ReportOf({FindingOf(3, "erase 0 2", "error", "failed")}), "new fixed "},
        {"once more", ReportOf({error}), ReportOf({error, error}), "new "},
        {"severity up", ReportOf({warning}), ReportOf({error}), "worse "},
        {"severity down", ReportOf({error}), ReportOf({warning}), "better "},
        {"gone", ReportOf({error}), ReportOf(none), "fixed "},
        {"more runs", swept(once), swept(twice), "worse "},
        {"fewer runs", swept(twice), swept(once), "better "},
        {"no longer boots", swept(none), swept(none, "unbootable", List{gap}), "new "},
        // What was not tried is not fixed.
        {"sweep missing", swept(once), ReportOf(none), "worse "},
        {"other sweep", swept(once), swept(none, "kind", "bad"), "worse "},
        {"sweep interrupted", swept(once), swept(none, "interrupted", true), "new worse "},
        {"fewer places", swept(once), swept(none, "every", 10), "worse "},
        {"more places", swept(none, "every", 10), swept(none), ""},
        {"a part", swept(once), swept(none, "shard", "1/2"), "worse "},
    };
    for (const auto &row : rows)
        EXPECT_EQ(Changes(row.before, row.after), row.changes) << row.name;
    EXPECT_THROW(CompareReports(ReportOf(none), ordered_json{{"sweeps", none}}), nlohmann::json::exception);
}
