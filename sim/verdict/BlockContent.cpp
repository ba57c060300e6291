#include "verdict/BlockContent.h"

#include "base/Bytes.h"
#include "base/Text.h"

#include <algorithm>
#include <iterator>

using namespace std::string_view_literals;

namespace {

constexpr std::size_t kFlagBytes = 1; ///< after the CRC of a redundant environment
/// Of fewer bytes a CRC that fits says nothing.
constexpr std::size_t kShortest = 16;

struct FormatRow {
    std::size_t offset;
    std::string_view magic;
    DataFormat format;
};
constexpr FormatRow kFormats[] = {
    {0, "UBI#"sv, {"a UBI image", true}},
    {0, "\x31\x18\x10\x06"sv, {"a UBIFS image", true}},
    {0, "hsqs"sv, {"a squashfs image", true}},
    {0, "sqsh"sv, {"a squashfs image", true}},
    {0, "\x45\x3D\xCD\x28"sv, {"a cramfs image", true}},
    {0, "\x28\xCD\x3D\x45"sv, {"a cramfs image", true}},
    // A node's magic and its type, in both byte orders: two bytes alone occur by chance.
    {0, "\x85\x19\x01\xE0"sv, {"a JFFS2 image", true}},
    {0, "\x85\x19\x02\xE0"sv, {"a JFFS2 image", true}},
    {0, "\x85\x19\x03\x20"sv, {"a JFFS2 image", true}},
    {0, "\x85\x19\x08\xE0"sv, {"a JFFS2 image", true}},
    {0, "\x19\x85\xE0\x01"sv, {"a JFFS2 image", true}},
    {0, "\x19\x85\xE0\x02"sv, {"a JFFS2 image", true}},
    {0, "\x19\x85\x20\x03"sv, {"a JFFS2 image", true}},
    {0, "\x19\x85\xE0\x08"sv, {"a JFFS2 image", true}},
    {0x438, "\x53\xEF"sv, {"an ext file system", true}},
    {0, "\x27\x05\x19\x56"sv, {"a boot loader's image", false}},
    {0, "\xD0\x0D\xFE\xED"sv, {"a device tree or FIT image", false}},
    {0, "\x7F\x45LF"sv, {"an ELF program", false}},
    {0, "\x1F\x8B\x08"sv, {"a gzip file", false}},
};

/// @return how many bytes from the start of a block on its CRC covers when the list begins at `start`, the CRC
///         included; 0 when it fits no length.
std::size_t CoveredLength(std::string_view block, std::size_t start) {
    std::uint32_t stored = 0;
    for (std::size_t i = 0; i < kCrcBytes; ++i)
        stored |= std::uint32_t{static_cast<unsigned char>(block[i])} << (8 * i);
    std::uint32_t crc = kCrcStart;
    std::size_t covered = 0;
    for (std::size_t at = start; at < block.size(); ++at) {
        const auto byte = static_cast<std::uint8_t>(block[at]);
        crc = AddToCrc(crc, &byte, 1);
        if (~crc == stored && at + 1 >= kShortest)
            covered = at + 1;
    }
    return covered;
}

bool IsOnly(std::string_view block, char byte) {
    return std::all_of(block.begin(), block.end(), [byte](char other) { return other == byte; });
}

bool IsText(char byte) { return (byte >= ' ' && byte <= '~') || byte == '\n' || byte == '\r' || byte == '\t'; }

/// @return whether a list of variables follows a CRC or a flag.
bool HasList(std::string_view block, std::size_t start) {
    if (block.size() < start)
        return false;
    const std::string_view entry = block.substr(start, block.find('\0', start) - start);
    return entry.find('=') != std::string_view::npos && entry.find('=') != 0 &&
           std::all_of(entry.begin(), entry.end(), IsText);
}

std::string DescribeOther(std::string_view block) {
    if (IsOnly(block, '\0'))
        return "zeros";
    if (const DataFormat *format = FindFormat(block))
        return format->name;
    const std::string_view start = block.substr(0, std::min(block.find('\xFF'), std::size_t{256}));
    if (!start.empty() && std::all_of(start.begin(), start.end(), IsText))
        return "text";
    if (HasList(block, kCrcBytes) || HasList(block, kCrcBytes + kFlagBytes))
        return "variables whose CRC is wrong or covers more than the range";
    return "other data";
}

} // namespace

const DataFormat *FindFormat(std::string_view data) {
    const auto *found = std::find_if(std::begin(kFormats), std::end(kFormats), [&](const FormatRow &row) {
        return data.size() >= row.offset && data.substr(row.offset, row.magic.size()) == row.magic;
    });
    return found == std::end(kFormats) ? nullptr : &found->format;
}

const DataFormat *FindFormatReadThroughEcc(std::string_view image, std::size_t eraseSize) {
    for (std::size_t at = 0; at < image.size(); at += eraseSize) {
        const DataFormat *format = FindFormat(image.substr(at));
        if (format != nullptr && format->isReadThroughEcc)
            return format;
    }
    return nullptr;
}

BlockContent LookAtBlock(std::string_view block) {
    using Kind = BlockContent::Kind;
    if (IsOnly(block, '\xFF'))
        return {Kind::Blank, 0, "nothing: the block is blank"};
    if (block.size() < kShortest)
        return {Kind::Other, 0, DescribeOther(block)};
    if (const std::size_t length = CoveredLength(block, kCrcBytes))
        return {length == block.size() ? Kind::Environment : Kind::Shorter, length,
                "an environment of " + Hex(static_cast<std::int64_t>(length)) + " bytes"};
    if (const std::size_t length = CoveredLength(block, kCrcBytes + kFlagBytes))
        return {Kind::Redundant, length,
                "a redundant environment of " + Hex(static_cast<std::int64_t>(length)) + " bytes with the flag " +
                    Hex(static_cast<unsigned char>(block[kCrcBytes]))};
    return {Kind::Other, 0, DescribeOther(block)};
}

BootVariables::BootVariables(std::string_view list) {
    for (std::size_t at = 0; at < list.size() && list[at] != '\0';) {
        const std::size_t end = std::min(list.find('\0', at), list.size());
        const std::string_view entry = list.substr(at, end - at);
        const std::size_t equals = entry.find('=');
        at = end + 1;
        if (equals == std::string_view::npos)
            continue;
        const std::string name(entry.substr(0, equals));
        if (values.count(name) != 0)
            duplicates.insert(name);
        values[name] = entry.substr(equals + 1);
    }
}
