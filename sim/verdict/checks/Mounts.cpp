#include "verdict/CheckText.h"
#include "verdict/Checks.h"

#include <sstream>

/// File systems that a ubiformat line could not unmount: the program formats a partition in use.
std::vector<Finding> CheckMounts(const RunFacts &facts) {
    std::vector<std::string> busy;
    std::istringstream trace(facts.record.trace);
    for (std::string line; std::getline(trace, line);) {
        const std::size_t end = line.find("\" = -1 EBUSY");
        if (BeginsWith(line, "umount \"") && end != std::string::npos)
            busy.push_back(line.substr(8, end - 8));
    }
    std::vector<Finding> findings;
    if (busy.empty())
        return findings;
    std::string paths;
    for (const std::string &path : busy)
        paths += (paths.empty() ? "" : ", ") + path;
    for (const LineVerdict &line : facts.lines) {
        if (line.line.kind == LineKind::Ubiformat && line.HasRun())
            findings.push_back(ForLine(line.line, FindingId::StillMounted,
                                       paths + (busy.size() == 1 ? " is" : " are") +
                                           " still mounted while the partition is formatted"));
    }
    return findings;
}
