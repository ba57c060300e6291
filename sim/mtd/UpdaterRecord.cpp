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

// A change in the record: a byte with the kind of access and these.
constexpr unsigned kKindBits = 0x07;
constexpr unsigned kByProgram = 0x08;
constexpr unsigned kWithEcc = 0x10;
constexpr unsigned kHasData = 0x20;
constexpr unsigned kHasOob = 0x40;

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

std::string RunChange::Line() const {
    const unsigned bits = static_cast<unsigned>(kind) | (isByProgram ? kByProgram : 0) | (withEcc ? kWithEcc : 0) |
                          (hasData ? kHasData : 0) | (hasOob ? kHasOob : 0);
    const auto byte = static_cast<unsigned char>(bits);
    return RecordLine(RecordKind::Change, &byte, sizeof byte, place);
}

RunChange RunChange::Of(const RecordEntry &entry) {
    const unsigned bits = static_cast<unsigned char>(entry.bytes[0]);
    return {static_cast<AccessKind>(bits & kKindBits),
            (bits & kByProgram) != 0,
            static_cast<std::uint32_t>(entry.offset),
            (bits & kWithEcc) != 0,
            (bits & kHasData) != 0,
            (bits & kHasOob) != 0};
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
            if (!entry.bytes.empty() && RunChange::Of(entry).kind != AccessKind::MarkBad)
                changes.push_back(RunChange::Of(entry));
            break;
        }
    }
}
