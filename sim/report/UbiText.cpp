#include "report/UbiText.h"

#include "base/Text.h"

std::vector<std::string> UbiLines(const UbiPartition &partition) {
    const UbiAttachment &ubi = partition.attachment;
    if (!ubi.IsAttached())
        return {partition.name + " is not attached: " + ubi.reason};
    std::vector<std::string> lines = {partition.name + " has " + Count(ubi.pebs.total, "PEB") + ", " +
                                      std::to_string(ubi.pebs.bad) + " bad; " + std::to_string(ubi.reservedForBad) +
                                      " of " + std::to_string(ubi.wantedForBad) + " reserved for bad blocks, " +
                                      std::to_string(ubi.available) + " available"};
    for (const UbiVolume &volume : ubi.volumes)
        lines.push_back("volume " + std::to_string(volume.id) + " \"" + volume.name + "\" is " +
                        (volume.isStatic ? "static" : "dynamic") + " and fills " + std::to_string(volume.lebs.size()) +
                        " of " + Count(volume.reservedPebs, "LEB") +
                        (volume.isAutoresized ? ", resized from " + std::to_string(volume.tablePebs) : ""));
    return lines;
}
