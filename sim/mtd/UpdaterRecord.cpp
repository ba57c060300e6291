#include "mtd/UpdaterRecord.h"

#include <cstdlib>
#include <sstream>

namespace {

constexpr const char *kHexDigits = "0123456789abcdef";

char ValueOf(char digit) { return static_cast<char>(digit <= '9' ? digit - '0' : digit - 'a' + 10); }

/// @return the bytes that a text of whole pairs of hexadecimal digits names; a text that was cut off has fewer.
std::string BytesOf(const std::string &digits) {
    std::string bytes;
    bytes.reserve(digits.size() / 2);
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes += static_cast<char>(ValueOf(digits[i]) * 16 + ValueOf(digits[i + 1]));
    return bytes;
}

} // namespace

std::string RecordLine(RecordKind kind, const void *bytes, std::size_t length, std::uint64_t offset) {
    std::string line = std::string(1, static_cast<char>(kind)) + std::to_string(offset) + " ";
    line.reserve(line.size() + 2 * length);
    const auto *byte = static_cast<const unsigned char *>(bytes);
    for (std::size_t i = 0; i < length; ++i) {
        line += kHexDigits[byte[i] / 16];
        line += kHexDigits[byte[i] % 16];
    }
    return line;
}

bool RecordEntry::Read(const std::string &line) {
    const std::size_t blank = line.find(' ');
    if (blank == std::string::npos)
        return false;
    kind = static_cast<RecordKind>(line[0]);
    offset = std::strtoull(line.c_str() + 1, nullptr, 10);
    bytes = BytesOf(line.substr(blank + 1));
    return true;
}

UpdaterRecord::UpdaterRecord(const std::string &text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        RecordEntry entry;
        if (!entry.Read(line))
            continue;
        switch (entry.kind) {
        case RecordKind::Out:
            out += entry.bytes;
            break;
        case RecordKind::Err:
            err += entry.bytes;
            break;
        case RecordKind::Read:
            reads.push_back({entry.offset, std::move(entry.bytes)});
            break;
        case RecordKind::Erased:
            erased.push_back({entry.offset, std::move(entry.bytes)});
            break;
        case RecordKind::Change:
            break; // see RunTimeline
        }
    }
}
