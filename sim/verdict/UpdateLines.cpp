#include "verdict/UpdateLines.h"

#include "UTextUtil.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>

namespace {

constexpr const char *kLineEnds = "\r\n";
constexpr const char *kBlanks = " \f\n\t\r\v";
constexpr const char *kHexDigits = "0123456789abcdefABCDEF";
constexpr std::size_t kVisibleBytes = 0x100000;

/// The commands and the indexes of their tokens; 0 for no such token. A row with more tokens precedes its short form.
struct CommandRow {
    const char *name;
    std::size_t tokens;
    std::size_t imageToken;
    LineKind kind;
    bool hasRange;
};
constexpr CommandRow kCommands[] = {
    {"write", 4, 3, LineKind::Write, true},     {"writeoob", 4, 3, LineKind::WriteOob, true},
    {"erase", 3, 0, LineKind::Erase, true},     {"setenv", 5, 0, LineKind::SetEnv, true},
    {"setenv", 3, 0, LineKind::HandEnv, false}, {"ubiformat", 3, 2, LineKind::Ubiformat, false},
};

const CommandRow *FindCommand(const std::vector<std::string> &tokens) {
    const CommandRow *found = nullptr;
    for (const CommandRow &row : kCommands) {
        if (tokens[0] != row.name)
            continue;
        found = &row;
        if (tokens.size() >= row.tokens)
            break;
    }
    return found;
}

ScriptNumber ReadNumber(const std::string &token) {
    ScriptNumber number;
    number.value = UTextUtil::ToInt(token.c_str(), 16);
    errno = 0;
    const long long wide = std::strtoll(token.c_str(), nullptr, 16);
    number.isBeyond = errno == ERANGE || wide != number.value;
    std::size_t digits = token.find_first_not_of("+-") == 1 ? 1 : 0;
    if (token.compare(digits, 2, "0x") == 0 || token.compare(digits, 2, "0X") == 0)
        digits += 2;
    number.isForeign = digits >= token.size() || token.find_first_not_of(kHexDigits, digits) != std::string::npos;
    return number;
}

/// Counts line ends as an editor does: CR LF is one.
std::size_t LineEnds(const std::string &text, std::size_t from, std::size_t to) {
    std::size_t count = 0;
    for (std::size_t at = from; at < to; ++at) {
        const bool secondOfPair = text[at] == '\n' && at > 0 && text[at - 1] == '\r';
        count += secondOfPair ? 0 : 1;
    }
    return count;
}

UpdateLine TakeLine(std::size_t number, const std::string &text, std::vector<std::string> tokens) {
    UpdateLine line;
    line.number = number;
    line.text = text;
    line.tokens = std::move(tokens);
    const CommandRow *command = FindCommand(line.tokens);
    if (command == nullptr)
        return line;
    line.kind = command->kind;
    line.usedTokens = command->tokens;
    line.isComplete = line.tokens.size() >= command->tokens;
    if (!line.isComplete)
        return line;
    line.hasRange = command->hasRange;
    if (line.hasRange) {
        line.offset = ReadNumber(line.tokens[1]);
        line.size = ReadNumber(line.tokens[2]);
    }
    if (command->imageToken != 0)
        line.image = line.tokens[command->imageToken];
    return line;
}

} // namespace

bool UpdateLine::IsTurnedLong() const {
    return kind == LineKind::SetEnv && isComplete && (offset.isForeign || size.isForeign || Name()[0] == '#');
}

std::string VisibleScript(const std::string &file) {
    const std::string text = file.substr(0, kVisibleBytes);
    return text.substr(0, text.find('\0'));
}

namespace {

/// Calls `visit` with number, text and tokens of each line that holds a word.
template <typename Visit> void VisitLines(const std::string &text, Visit visit) {
    std::vector<std::string> pieces;
    UTextUtil::Split(text.c_str(), kLineEnds, pieces);
    std::size_t number = 1;
    std::size_t done = 0;
    for (const std::string &piece : pieces) {
        const std::size_t start = text.find_first_not_of(kLineEnds, done);
        number += LineEnds(text, done, start);
        done = start + piece.size();
        std::vector<std::string> tokens;
        if (UTextUtil::Split(piece.c_str(), kBlanks, tokens) != 0)
            visit(number, piece, std::move(tokens));
    }
}

} // namespace

std::vector<UpdateLine> ReadUpdateLines(const std::string &text) {
    std::vector<UpdateLine> lines;
    VisitLines(text, [&](std::size_t number, const std::string &piece, std::vector<std::string> tokens) {
        if (tokens[0].find('#') == std::string::npos)
            lines.push_back(TakeLine(number, piece, std::move(tokens)));
    });
    return lines;
}

std::vector<UpdateLine> ReadHiddenLines(const std::string &text) {
    std::vector<UpdateLine> lines;
    VisitLines(text, [&](std::size_t number, const std::string &piece, std::vector<std::string> tokens) {
        const std::size_t mark = tokens[0].find('#');
        if (mark == std::string::npos || mark == 0)
            return;
        tokens[0].resize(mark);
        if (FindCommand(tokens) != nullptr)
            lines.push_back(TakeLine(number, piece, std::move(tokens)));
    });
    return lines;
}
