#include "sandbox/Reply.h"

#include "sandbox/SandboxInit.h"

#include <cstdint>
#include <cstring>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace {

/// Reads a line "SIZE COUNT WORD" of a reply and the bytes after it. @return false when they are anything else.
bool TakeFile(const std::string &line, std::istream &rest, std::size_t mostBytes, RunOutcome &outcome) {
    std::istringstream words(line);
    std::int64_t size = 0;
    std::int64_t count = 0;
    std::string name;
    if (!(words >> size >> count >> name) || size < kNoSize || count < 0 ||
        static_cast<std::uint64_t>(count) > mostBytes)
        return false;
    outcome.files[name] = size;
    if (size == kNoSize || size != count)
        return count == 0;
    std::string &bytes = outcome.contents[name];
    bytes.resize(static_cast<std::size_t>(count));
    rest.read(bytes.data(), static_cast<std::streamsize>(count));
    return rest.gcount() == count;
}

constexpr const char *kNoReply = "the sandbox ended without a reply";

} // namespace

void ReadReply(const std::string &text, RunOutcome &outcome) {
    constexpr const char *kError = "error ";
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);
    if (line.rfind(kError, 0) == 0)
        throw std::runtime_error(line.substr(strlen(kError)));
    std::istringstream words(line);
    std::string word;
    if (!(words >> word >> outcome.status) || word != "status")
        throw std::runtime_error(kNoReply);
    while (words >> word) {
        if (word == "busy")
            outcome.leavesProcesses = true;
        else if (word == "left")
            words >> outcome.leftPrograms;
        else if (word == "limit")
            words >> outcome.excess;
        else if (word == "own")
            words >> outcome.ownBefore >> outcome.ownAfter;
    }
    while (std::getline(lines, line) && !line.empty()) {
        if (!TakeFile(line, lines, text.size(), outcome))
            throw std::runtime_error(kNoReply);
    }
    outcome.script.assign(std::istreambuf_iterator<char>(lines), {});
}
