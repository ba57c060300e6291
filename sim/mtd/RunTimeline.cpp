#include "mtd/RunTimeline.h"

#include "mtd/SimState.h"
#include "mtd/Trace.h"

#include <map>
#include <sstream>
#include <utility>

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
            const RunChange change = RunChange::Of(entry);
            if (change.kind == AccessKind::MarkBad)
                badMarks.push_back({changes.size(), change.place});
            else
                changes.push_back(change);
        }
    }
}
