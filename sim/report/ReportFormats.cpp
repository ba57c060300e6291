#include "report/ReportFormats.h"

#include "base/Text.h"
#include "report/ReportEntries.h"
#include "report/XmlText.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <nlohmann/json.hpp>
#include <vector>

using nlohmann::ordered_json;

namespace {

std::string JsonText(const ordered_json &json) {
    constexpr int kIndent = 2;
    // A script may hold bytes that are not UTF-8.
    return json.dump(kIndent, ' ', true, ordered_json::error_handler_t::replace) + "\n";
}

/// @return a relative path as a URI reference.
std::string UriOf(const std::string &path) {
    constexpr const char *kPlain = "-._~/";
    std::string uri;
    for (const char character : path) {
        const auto byte = static_cast<unsigned char>(character);
        const bool isPlain = byte < 0x80 && (std::isalnum(byte) != 0 || std::string(kPlain).find(character) < 5);
        uri += isPlain ? std::string(1, character) : FormatText("%%%02X", byte);
    }
    return uri;
}

/// @return an entry for people, without its place: "text: message".
std::string Described(const ReportEntry &entry) {
    return (entry.text.empty() ? "" : entry.text + ": ") + entry.message;
}

std::string WithCommand(const ReportEntry &entry) {
    return Described(entry) + (entry.command.empty() ? "" : "\nTo repeat: " + entry.command);
}

struct TestCase {
    std::string name;
    std::vector<std::string> failures = {}; ///< for people; the first line of the first one is the summary
    std::string output = {};
    bool isSkipped = false;
};

struct TestSuite {
    std::string name;
    std::vector<TestCase> cases = {};
};

void AddEntry(const ReportEntry &entry, const std::string &script, TestCase &test) {
    const std::string line = script + (entry.line == 0 ? "" : ":" + std::to_string(entry.line)) + ": " +
                             entry.severity + ": " + entry.message + " [" + entry.rule + "]" +
                             (entry.command.empty() ? "" : "\nTo repeat: " + entry.command);
    if (entry.severity == "note")
        test.output += line + "\n";
    else
        test.failures.push_back(line);
}

/// Cases of script lines, then of entries about other lines and about the run.
TestSuite LineSuite(const ordered_json &report, const std::vector<ReportEntry> &entries, const std::string &script) {
    std::map<std::size_t, TestCase> cases = {{0, {"the run as a whole"}}};
    for (const ReportEntry &entry : entries) {
        if (entry.sweep.empty())
            AddEntry(entry, script, cases.emplace(entry.line, TestCase{entry.text}).first->second);
    }
    for (const ordered_json &line : report.at("lines")) {
        const auto number = line.at("number").get<std::size_t>();
        const std::string result = line.at("result").get<std::string>();
        TestCase &test = cases.emplace(number, TestCase{VisibleText(line.at("text").get<std::string>())}).first->second;
        if (!test.failures.empty() || result == "clean")
            continue;
        test.isSkipped = result == "never-ran";
        if (!test.isSkipped)
            test.failures.push_back(script + ":" + std::to_string(number) + ": error: the line was not carried out (" +
                                    result + ")");
    }
    TestSuite suite = {script};
    for (auto &[number, test] : cases)
        suite.cases.push_back(std::move(test));
    return suite;
}

TestSuite SweepSuite(const ordered_json &sweep, const std::vector<ReportEntry> &entries, const std::string &script) {
    const std::string kind = sweep.at("kind").get<std::string>();
    const std::string name = "sweep " + kind;
    TestSuite suite = {script + " " + name};
    bool hasFailed = false;
    for (const ReportEntry &entry : entries) {
        if (entry.sweep != kind)
            continue;
        suite.cases.push_back({entry.rule + (entry.text.empty() ? "" : ": " + entry.text)});
        AddEntry(entry, script, suite.cases.back());
        hasFailed = hasFailed || !suite.cases.back().failures.empty();
    }
    if (!hasFailed)
        suite.cases.insert(suite.cases.begin(), {name,
                                                 {},
                                                 sweep.at("held").dump() + " of " +
                                                     Count(sweep.at("done").get<std::int64_t>(), "run") + " passed\n"});
    return suite;
}

std::string Attribute(const char *name, const std::string &value) {
    return std::string(" ") + name + "=\"" + XmlMarkupEscaped(value) + "\"";
}

std::string CaseText(const TestCase &test, const std::string &name, const TestSuite &suite, const std::string &script) {
    std::string text = "    <testcase" + Attribute("classname", suite.name) + Attribute("name", name) +
                       Attribute("file", script) + Attribute("time", "0") + ">\n";
    if (!test.failures.empty()) {
        const std::string &first = test.failures.front();
        text += "      <failure" + Attribute("message", first.substr(0, first.find('\n'))) +
                Attribute("type", "finding") + ">";
        for (const std::string &failure : test.failures)
            text += XmlMarkupEscaped(failure) + "\n";
        text += "</failure>\n";
    }
    if (test.isSkipped)
        text += "      <skipped message=\"the line never ran\"/>\n";
    if (!test.output.empty())
        text += "      <system-out>" + XmlMarkupEscaped(test.output) + "</system-out>\n";
    return text + "    </testcase>\n";
}

std::string Counts(const std::vector<TestSuite> &suites) {
    std::size_t tests = 0;
    std::size_t failed = 0;
    for (const TestSuite &suite : suites) {
        for (const TestCase &test : suite.cases) {
            ++tests;
            failed += test.failures.empty() ? 0 : 1;
        }
    }
    return Attribute("tests", std::to_string(tests)) + Attribute("failures", std::to_string(failed)) +
           Attribute("errors", "0");
}

} // namespace

std::string ReportText(const ordered_json &report, const FormatFacts & /*facts*/) { return JsonText(report); }

std::string SarifText(const ordered_json &report, const FormatFacts &facts) {
    ordered_json rules = ordered_json::array();
    std::map<std::string, std::size_t> places;
    for (const ReportRule &rule : ReportRules()) {
        std::string title = rule.id;
        std::replace(title.begin(), title.end(), '-', ' ');
        places.emplace(rule.id, rules.size());
        rules.push_back({{"id", rule.id},
                         {"shortDescription", {{"text", title}}},
                         {"fullDescription", {{"text", title}}},
                         {"help", {{"text", rule.advice}}},
                         {"defaultConfiguration", {{"level", rule.severity}}}});
    }
    ordered_json results = ordered_json::array();
    bool isComplete = true;
    for (const ordered_json &sweep : report.at("sweeps"))
        isComplete = isComplete && !sweep.at("interrupted").get<bool>();
    for (const ReportEntry &entry : ReadEntries(report, facts.command)) {
        ordered_json place = {{"artifactLocation", {{"uri", UriOf(facts.script)}}}};
        if (entry.line != 0)
            place["region"] = {{"startLine", entry.line}};
        results.push_back({{"ruleId", entry.rule},
                           {"ruleIndex", places.at(entry.rule)},
                           {"level", entry.severity},
                           {"message", {{"text", WithCommand(entry)}}},
                           {"locations", ordered_json::array({{{"physicalLocation", place}}})},
                           {"partialFingerprints", {{"primaryLocationLineHash", entry.fingerprint}}}});
        isComplete = isComplete && entry.rule != "interrupted";
    }
    return JsonText(
        {{"$schema", "https://docs.oasis-open.org/sarif/sarif/v2.1.0/errata01/os/schemas/sarif-schema-2.1.0.json"},
         {"version", "2.1.0"},
         {"runs",
          ordered_json::array(
              {{{"tool", {{"driver", {{"name", "flashsim"}, {"semanticVersion", facts.version}, {"rules", rules}}}}},
                {"invocations", ordered_json::array({{{"commandLine", VisibleText(facts.command)},
                                                      {"executionSuccessful", isComplete}}})},
                {"columnKind", "utf16CodeUnits"},
                {"results", results}}})}});
}

std::string JUnitText(const ordered_json &report, const FormatFacts &facts) {
    const std::string script = VisibleText(facts.script);
    const std::vector<ReportEntry> entries = ReadEntries(report, facts.command);
    std::vector<TestSuite> suites = {LineSuite(report, entries, script)};
    for (const ordered_json &sweep : report.at("sweeps"))
        suites.push_back(SweepSuite(sweep, entries, script));
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites name=\"flashsim\"" + Counts(suites) +
                       Attribute("time", "0") + ">\n";
    for (const TestSuite &suite : suites) {
        const auto skipped =
            std::count_if(suite.cases.begin(), suite.cases.end(), [](const TestCase &test) { return test.isSkipped; });
        text += "  <testsuite" + Attribute("name", suite.name) + Counts({suite}) +
                Attribute("skipped", std::to_string(skipped)) + Attribute("time", "0") + ">\n";
        std::map<std::string, std::size_t> seen;
        for (const TestCase &test : suite.cases) {
            // Readers follow a case from run to run by its name, which is unique.
            const std::size_t count = ++seen[test.name];
            text += CaseText(test, test.name + (count == 1 ? "" : " (" + std::to_string(count) + ")"), suite, script);
        }
        text += "  </testsuite>\n";
    }
    return text + "</testsuites>\n";
}

std::string CodeQualityText(const ordered_json &report, const FormatFacts &facts) {
    static const std::map<std::string, const char *> kSeverities = {
        {"note", "info"}, {"warning", "major"}, {"error", "critical"}};
    ordered_json issues = ordered_json::array();
    for (const ReportEntry &entry : ReadEntries(report, facts.command))
        issues.push_back(
            {{"description", WithCommand(entry)},
             {"check_name", entry.rule},
             {"fingerprint", entry.fingerprint},
             {"severity", kSeverities.at(entry.severity)},
             {"location",
              {{"path", VisibleText(facts.script)}, {"lines", {{"begin", std::max<std::size_t>(entry.line, 1)}}}}}});
    return JsonText(issues);
}
