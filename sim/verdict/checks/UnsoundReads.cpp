#include "base/Text.h"
#include "verdict/Checks.h"

#include <map>
#include <set>

/// Pages that were read through the ECC and had none.
std::vector<Finding> CheckUnsoundReads(const RunFacts &facts) {
    std::map<const UpdateLine *, std::set<std::int64_t>> pages;
    for (const std::int64_t offset : facts.NotedPages(kUnsoundReadNote))
        pages[facts.ChangerOf(offset)].insert(offset);
    std::vector<Finding> findings;
    for (const auto &[line, offsets] : pages) {
        const std::string count = Count(static_cast<std::int64_t>(offsets.size()), "page");
        findings.push_back(
            line != nullptr
                ? ForLine(*line, FindingId::EnvironmentDamaged,
                          count + " of the block had no valid ECC: read with bit errors, and written back like that")
                : ForRun(FindingId::UnsoundRead,
                         count + " read normally without valid ECC, first at " + Hex(*offsets.begin())));
    }
    return findings;
}
