#include "verdict/CheckText.h"
#include "verdict/Checks.h"

#include <cstdlib>
#include <cstring>
#include <sys/wait.h>

namespace {

constexpr const char *kPrepareCommand = "/app/prepare_flashrig.sh ";
constexpr int kNoProgram = 127; ///< exit status of a shell that finds no program of the name

std::string LastLine(const std::string &text) {
    const std::size_t end = text.find_last_not_of('\n');
    if (end == std::string::npos)
        return "";
    const std::size_t start = text.rfind('\n', end) + 1; // npos + 1 is 0
    return text.substr(start, end + 1 - start);
}

/// The last message of the updater or of a program that it ran.
std::string LastMessage(const RunFacts &facts) {
    const std::string last = LastLine(facts.record.err.empty() ? facts.record.out : facts.record.err);
    return last.empty() ? "no message" : last;
}

std::string PrepareAdvice(const ShellCall &call) {
    constexpr const char *kShellCharacters = " \t$`\"'\\|&;<>()*?[";
    if (call.command.find_first_of(kShellCharacters, std::strlen(kPrepareCommand)) != std::string::npos)
        return "rename the image: a shell splits or changes a name with blanks or special characters";
    if (WIFEXITED(call.status) && WEXITSTATUS(call.status) == kNoProgram)
        return "provide the device's own prepare script with --root, as app/prepare_flashrig.sh";
    return "";
}

/// Of a run that didn't get to a script.
/// @param isExplained other findings tell why
Finding NotStartedFinding(const RunFacts &facts, bool isExplained) {
    const std::string happens = "the updater doesn't reach a script: " + LastMessage(facts);
    std::string change = isExplained ? "see the other findings about the start of the update" : "";
    for (const auto &file : facts.record.files) {
        if (file.first.find('/') != std::string::npos)
            change = "the script is in " + file.first.substr(0, file.first.rfind('/')) +
                     " of the update: put it and its files at the top";
    }
    return ForRun(FindingId::NotStarted, happens, change);
}

/// Of a refusal "script line 3 of 300 characters, the limit is 255" or "script of ...".
Finding RefusalFinding(const RunFacts &facts) {
    constexpr const char *kOfLine = "script line ";
    const std::string &refusal = facts.story.refusal;
    const std::string happens = refusal + ": the script is refused and no line runs";
    if (!BeginsWith(refusal, kOfLine))
        return ForRun(FindingId::ScriptTooLong, happens);
    Finding finding = ForRun(FindingId::LineTooLong, happens);
    finding.line = std::strtoul(refusal.c_str() + std::strlen(kOfLine), nullptr, 10);
    for (const LineVerdict &line : facts.lines) {
        if (line.line.number == finding.line)
            finding.text = line.line.text;
    }
    return finding;
}

} // namespace

/// How the run got from its start to the first line of the script.
std::vector<Finding> CheckStart(const RunFacts &facts) {
    std::vector<Finding> findings;
    if (facts.isScriptCut)
        findings.push_back(
            ForRun(FindingId::ScriptCut, "the updater reads the script up to its first zero byte, and at most 1 MiB"));
    // Of a run that was killed for its time the script isn't known.
    if (facts.story.hasStarted && facts.lines.empty() && !facts.record.isOverdue)
        findings.push_back(
            ForRun(FindingId::NotStarted, "the script has no command: nothing is done", "add commands to the script"));
    if (!facts.story.refusal.empty())
        findings.push_back(RefusalFinding(facts));
    if (!facts.flash.HasDevice())
        findings.push_back(
            ForRun(FindingId::NoWholeFlash, "no MTD device has all in its name, and there is no mtd0 to use instead"));
    bool hasFailedStart = false;
    for (const ShellCall &call : facts.calls.shellCalls) {
        if (call.status <= 0)
            continue;
        const std::size_t count = findings.size();
        if (BeginsWith(call.command, kPrepareCommand))
            findings.push_back(ForRun(FindingId::PrepareFailed,
                                      "the prepare script ends with " + EndingText(call.status) +
                                          ", and the update goes on with whatever is in /tmp/update",
                                      PrepareAdvice(call)));
        else if (call.command == facts.story.handOver)
            findings.push_back(
                ForRun(FindingId::HandoverFailed,
                       "the copy of the updater in the update ends silently with " + EndingText(call.status)));
        hasFailedStart = hasFailedStart || findings.size() > count;
    }
    if (!facts.story.hasStarted)
        findings.insert(findings.begin() + (facts.isScriptCut ? 1 : 0), NotStartedFinding(facts, hasFailedStart));
    return findings;
}
