#include "mtd/DeviceText.h"

#include "base/Number.h"
#include "base/Text.h"
#include "mtd/Trace.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace {

constexpr std::uint64_t kMostChanges = std::uint64_t{1} << 40;

[[noreturn]] void Refuse(const std::string &text, const std::string &wanted) {
    throw std::invalid_argument("'" + text + "' is not " + wanted);
}

/// Reads the name or number of an errno value.
bool ReadErrno(const std::string &text, int &error) {
    constexpr int kErrnoEnd = 4096;
    if (const auto number = ParseDecimal(text)) {
        error = *number < kErrnoEnd ? static_cast<int>(*number) : 0;
        return error != 0;
    }
    for (error = 1; error < kErrnoEnd; ++error) {
        const char *name = strerrorname_np(error);
        if (name != nullptr && text == name)
            return true;
    }
    return false;
}

std::uint32_t ReadSmall(const std::string &text, const std::string &whole, const char *wanted) {
    const auto number = ReadLeadingNumber(text);
    if (!number || number->length != text.size() || number->value > std::numeric_limits<std::int32_t>::max())
        Refuse(whole, wanted);
    return static_cast<std::uint32_t>(number->value);
}

std::uint32_t SmallSize(const std::string &text) {
    const std::uint64_t size = ParseSize(text);
    if (size > std::numeric_limits<std::uint32_t>::max())
        Refuse(text, "a size below 4G");
    return static_cast<std::uint32_t>(size);
}

/// By extent.
constexpr const char *kExtentNames[] = {"whole", "none", "half", "most", "bare", "done", "unstable"};
static_assert(sizeof kExtentNames / sizeof *kExtentNames == kExtents);

} // namespace

std::uint64_t ParseSize(const std::string &text) {
    const struct {
        const char *unit;
        int shift;
    } units[] = {{"", 0}, {"K", 10}, {"M", 20}, {"G", 30}};
    if (const auto number = ReadLeadingNumber(text)) {
        const std::string rest = text.substr(number->length);
        for (const auto &unit : units) {
            if (rest == unit.unit && number->value <= std::numeric_limits<std::uint64_t>::max() >> unit.shift)
                return number->value << unit.shift;
        }
    }
    Refuse(text, "a size such as 128K, 64M or 2048");
}

NandGeometry ParseGeometry(const std::string &text) {
    const std::vector<std::string> sizes = SplitList(text);
    if (sizes.size() != 4)
        Refuse(text, "a chip's SIZE,ERASE,PAGE,OOB");
    return {ParseSize(sizes[0]), SmallSize(sizes[1]), SmallSize(sizes[2]), SmallSize(sizes[3])};
}

Ecc ParseEcc(const std::string &text) {
    if (text == "host")
        return Ecc::Host;
    if (text == "chip")
        return Ecc::Chip;
    Refuse(text, "an ECC: host or chip");
}

std::vector<std::uint32_t> ParseBlocks(const std::string &text) {
    constexpr const char *kWanted = "a list of blocks such as 7,64-66";
    std::vector<std::uint32_t> blocks;
    for (const std::string &item : SplitList(text)) {
        const size_t dash = item.find('-');
        const std::uint32_t first = ReadSmall(item.substr(0, dash), text, kWanted);
        const std::uint32_t last = dash == std::string::npos ? first : ReadSmall(item.substr(dash + 1), text, kWanted);
        // Checked before the list is made: a slip of the keyboard must not fill the memory.
        if (last < first || last - first > 1U << 20)
            Refuse(text, kWanted);
        for (std::uint32_t block = first; block <= last; ++block)
            blocks.push_back(block);
    }
    return blocks;
}

SimDevice ParseDevice(const std::string &text, const NandGeometry &geometry) {
    constexpr const char *kWanted = "a device N:NAME or N:NAME:OFFSET,SIZE of whole blocks on the chip";
    const size_t nameAt = text.find(':');
    if (nameAt == std::string::npos)
        Refuse(text, kWanted);
    const size_t placeAt = text.find(':', nameAt + 1);
    SimDevice device = {static_cast<int>(ReadSmall(text.substr(0, nameAt), text, kWanted)),
                        text.substr(nameAt + 1, placeAt - nameAt - 1), 0, geometry.size};
    if (placeAt != std::string::npos) {
        const std::vector<std::string> place = SplitList(text.substr(placeAt + 1));
        if (place.size() != 2)
            Refuse(text, kWanted);
        device.offset = ParseSize(place[0]);
        device.size = ParseSize(place[1]);
    }
    // Programs look for the node of a number of up to six digits.
    constexpr int kNumberEnd = 1000000;
    const bool isOnChip = device.offset <= geometry.size && device.size <= geometry.size - device.offset;
    const bool isWhole = device.offset % geometry.eraseSize == 0 && device.size % geometry.eraseSize == 0;
    if (!isOnChip || !isWhole || device.size == 0 || device.name.empty() || device.number >= kNumberEnd)
        Refuse(text, kWanted);
    return device;
}

std::vector<SimDevice> DefaultDevices(const NandGeometry &geometry) {
    // A sixteenth for the boot loader, a quarter for kernels, the rest for programs, as such devices have it.
    const std::uint64_t erase = geometry.eraseSize;
    const std::uint64_t boot = (geometry.Blocks() + 15) / 16 * erase;
    const std::uint64_t kernel = geometry.Blocks() / 4 * erase;
    std::vector<SimDevice> devices = {{0, "boot", 0, boot},
                                      {1, "kernel", boot, kernel},
                                      {9, "opt", boot + kernel, geometry.size - boot - kernel},
                                      {12, "all", 0, geometry.size}};
    // A chip of a few blocks has no room for all of them.
    devices.erase(std::remove_if(devices.begin(), devices.end(), [](const SimDevice &it) { return it.size == 0; }),
                  devices.end());
    return devices;
}

SimFault ReadFault(const std::string &text) {
    const std::size_t equals = text.find('=');
    const std::size_t colon = std::min(text.find(':'), equals);
    SimFault fault = {};
    bool isGood = equals != std::string::npos && FindRequest(text.substr(0, colon), fault.kind) &&
                  ReadErrno(text.substr(equals + 1), fault.error);
    if (isGood && colon < equals) {
        fault.nth = ParseDecimal(text.substr(colon + 1, equals - colon - 1)).value_or(0);
        isGood = fault.nth != 0;
    }
    if (!isGood)
        Refuse(text, "a fault KIND[:N]=ERRNO such as MEMWRITE:3=EIO");
    return fault;
}

std::string BlocksText(const std::vector<std::uint32_t> &ascending) {
    std::string text;
    for (size_t first = 0, last = 0; first < ascending.size(); first = ++last) {
        while (last + 1 < ascending.size() && ascending[last + 1] == ascending[last] + 1)
            ++last;
        text += (text.empty() ? "" : ",") + std::to_string(ascending[first]);
        if (last > first)
            text += "-" + std::to_string(ascending[last]);
    }
    return text;
}

std::string FaultText(const SimFault &fault) {
    return std::string(RequestName(fault.kind)) + (fault.nth == 0 ? "" : ":" + std::to_string(fault.nth)) + "=" +
           ErrnoName(fault.error);
}

PowerCut ReadCut(const std::string &text) {
    const std::size_t colon = text.find(':');
    const std::optional<std::uint64_t> change = ParseDecimal(text.substr(0, colon));
    if (!change || text[0] == '0' || *change > kMostChanges)
        Refuse(text, "a power cut N or N:STATE such as 100 or 100:done");
    return {*change, colon == std::string::npos ? Extent::FirstHalf : ReadExtents(text.substr(colon + 1)).at(0)};
}

std::vector<Extent> ReadExtents(const std::string &list) {
    std::vector<Extent> extents;
    for (const std::string &name : SplitList(list)) {
        const auto *found = std::find(std::begin(kExtentNames) + 1, std::end(kExtentNames), name);
        if (found == std::end(kExtentNames))
            Refuse(list, "a list of none, half, most, bare, done and unstable");
        const auto extent = static_cast<Extent>(found - std::begin(kExtentNames));
        if (std::find(extents.begin(), extents.end(), extent) == extents.end())
            extents.push_back(extent);
    }
    if (extents.empty())
        Refuse(list, "a list of none, half, most, bare, done and unstable");
    return extents;
}

std::string ExtentsText(const std::vector<Extent> &extents) {
    std::string text;
    for (const Extent extent : extents)
        text.append(text.empty() ? "" : ",").append(kExtentNames[static_cast<std::size_t>(extent)]);
    return text;
}

std::string CutText(const PowerCut &cut) {
    return std::to_string(cut.change) + (cut.extent == Extent::FirstHalf ? "" : ":" + ExtentsText({cut.extent}));
}

std::pair<std::int64_t, std::int64_t> ReadRange(const std::string &text) {
    const std::vector<std::string> sizes = SplitList(text);
    constexpr std::uint64_t kMost = std::uint64_t{1} << 40;
    if (sizes.size() != 2 || ParseSize(sizes[0]) > kMost || ParseSize(sizes[1]) > kMost)
        Refuse(text, "a range OFFSET,SIZE such as 0x100000,128K");
    const auto begin = static_cast<std::int64_t>(ParseSize(sizes[0]));
    return {begin, begin + static_cast<std::int64_t>(ParseSize(sizes[1]))};
}
