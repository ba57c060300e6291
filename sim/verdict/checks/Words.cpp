#include "base/Text.h"
#include "verdict/Checks.h"

#include <cstring>

namespace {

/// What a device's shell doesn't take for plain text, in a word and at its beginning.
constexpr const char *kShellCharacters = "$`\"'\\|&;<>()*?[";
constexpr const char *kShellBeginnings = "#~";

/// @return whether a word is a number as people write offsets, with or without 0x, such as "80000" and "512K"; a name
///         such as "face" is none.
bool LooksLikeOffset(const std::string &word) {
    const bool isPrefixed = word.rfind("0x", 0) == 0 || word.rfind("0X", 0) == 0;
    const std::size_t end = word.find_first_not_of("0123456789abcdefABCDEF", isPrefixed ? 2 : 0);
    const bool hasUnit = end + 1 == word.size() && std::strchr("kKmM", word[end]) != nullptr;
    return word[0] >= '0' && word[0] <= '9' && (end == std::string::npos || hasUnit);
}

void CheckNumber(const UpdateLine &line, std::size_t token, const ScriptNumber &number,
                 std::vector<Finding> &findings) {
    if (number.isForeign || number.isBeyond)
        findings.push_back(ForLine(line, FindingId::Number, line.tokens[token] + " is read as " + Hex(number.value),
                                   number.isBeyond ? "use at most 0x7fffffff" : ""));
}

void CheckLine(const UpdateLine &line, std::vector<Finding> &findings) {
    if (line.IsTurnedLong()) {
        findings.push_back(ForLine(line, FindingId::SetenvLong,
                                   "five words or more are the long form: " + line.tokens[1] + " is read as offset " +
                                       Hex(line.offset.value) + ", " + line.tokens[2] + " as size " +
                                       Hex(line.size.value) + ", " + line.Name() + " as the name"));
        return;
    }
    if (line.hasRange) {
        CheckNumber(line, 1, line.offset, findings);
        CheckNumber(line, 2, line.size, findings);
    }
    if (line.tokens.size() > line.usedTokens && line.tokens[line.usedTokens][0] != '#')
        findings.push_back(ForLine(line, FindingId::IgnoredWords,
                                   line.tokens[line.usedTokens] + " and everything after it is ignored"));
    const bool setsVariable = line.kind == LineKind::SetEnv || line.kind == LineKind::HandEnv;
    if (setsVariable && line.Name().find('=') != std::string::npos)
        findings.push_back(ForLine(line, FindingId::NameEquals,
                                   line.Name() + " as a name never matches: each update adds one more entry"));
    if (line.kind != LineKind::HandEnv)
        return;
    if (LooksLikeOffset(line.Name()))
        findings.push_back(ForLine(line, FindingId::SetenvShort,
                                   "four words or fewer are the short form: a variable with the name " + line.Name() +
                                       " gets the value " + line.Value()));
    for (const std::string &text : {line.Name(), line.Value()}) {
        if (text.find_first_of(kShellCharacters) != std::string::npos || text.find_first_of(kShellBeginnings) == 0)
            findings.push_back(
                ForLine(line, FindingId::ShellText, "a shell changes " + text + " on the way to /bin/bootvars"));
    }
}

} // namespace

/// Words that don't mean what they seem to.
std::vector<Finding> CheckWords(const RunFacts &facts) {
    std::vector<Finding> findings;
    for (const LineVerdict &line : facts.lines) {
        if (line.line.isComplete)
            CheckLine(line.line, findings);
    }
    for (const UpdateLine &line : ReadHiddenLines(VisibleScript(facts.record.script)))
        findings.push_back(
            ForLine(line, FindingId::HiddenCommand, "a # inside the first word makes the whole line a comment"));
    return findings;
}
