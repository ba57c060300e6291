#include "mtd/RunTimeline.h"

#include "mtd/SimState.h"
#include "mtd/Trace.h"
#include "mtd/UpdaterRecord.h"

#include <map>
#include <sstream>
#include <utility>

namespace {

// A change in the record: a byte with the kind of access and these.
constexpr unsigned kKindBits = 0x07;
constexpr unsigned kByProgram = 0x08;
constexpr unsigned kWithEcc = 0x10;
constexpr unsigned kHasData = 0x20;
constexpr unsigned kHasOob = 0x40;

RunChange ChangeOf(const RecordEntry &entry) {
    const unsigned bits = static_cast<unsigned char>(entry.bytes[0]);
    return {static_cast<AccessKind>(bits & kKindBits),
            (bits & kByProgram) != 0,
            static_cast<std::uint32_t>(entry.offset),
            (bits & kWithEcc) != 0,
            (bits & kHasData) != 0,
            (bits & kHasOob) != 0};
}

} // namespace

std::string RunChange::Line() const {
    const unsigned bits = static_cast<unsigned>(kind) | (isByProgram ? kByProgram : 0) | (withEcc ? kWithEcc : 0) |
                          (hasData ? kHasData : 0) | (hasOob ? kHasOob : 0);
    const auto byte = static_cast<unsigned char>(bits);
    return RecordLine(RecordKind::Change, &byte, sizeof byte, place);
}

RunTimeline::RunTimeline(const std::string &text) {
    std::map<std::string, std::size_t> kinds;
    for (std::uint32_t kind = 0; kind < kRequestKinds; ++kind)
        kinds[RequestName(static_cast<RequestKind>(kind))] = kind;
    std::size_t requestTime = 0; // a request's line follows its changes
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        RecordEntry entry;
        if (line.empty() || line[0] != kRecordMark) {
            const auto kind = kinds.find(line.substr(0, line.find(' ')));
            if (kind != kinds.end())
                requests[kind->second].push_back(std::exchange(requestTime, changes.size()));
            else if (auto command = StartedCommand(line))
                commands.push_back({changes.size(), *std::move(command)});
        } else if (entry.Read(line.substr(1)) && !entry.bytes.empty()) {
            if (entry.kind == RecordKind::Out || entry.kind == RecordKind::Err)
                outputs.push_back({changes.size(), entry.kind == RecordKind::Err, std::move(entry.bytes)});
            if (entry.kind != RecordKind::Change)
                continue;
            const RunChange change = ChangeOf(entry);
            if (change.kind == AccessKind::MarkBad)
                badMarks.push_back({changes.size(), change.place});
            else
                changes.push_back(change);
        }
    }
}
