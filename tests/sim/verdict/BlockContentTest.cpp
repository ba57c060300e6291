#include "verdict/BlockContent.h"

#include "base/Bytes.h"

#include <gtest/gtest.h>

namespace {

constexpr std::size_t kBlock = 0x4000;

std::uint32_t Crc32(const std::string &data) {
    return ~AddToCrc(kCrcStart, reinterpret_cast<const std::uint8_t *>(data.data()), data.size());
}

/// A list with its CRC in front, or its CRC and a flag, in an area of its own at the start of a block.
std::string Environment(std::string list, std::size_t length, const std::string &flag = "") {
    list.resize(length - 4 - flag.size());
    const std::uint32_t crc = Crc32(list);
    std::string area;
    for (int shift = 0; shift < 32; shift += 8)
        area += static_cast<char>(crc >> shift);
    return area + flag + list;
}

std::string Block(std::string start, char fill = '\xFF') {
    start.resize(kBlock, fill);
    return start;
}

} // namespace

TEST(BlockContent, IsKnownByItsCrcOrItsFormat) {
    using Kind = BlockContent::Kind;
    const std::string list("a=1\0b=2\0", 8);
    const struct {
        std::string block;
        Kind kind;
        const char *text;
    } rows[] = {
        {Environment(list, kBlock), Kind::Environment, "an environment of 0x4000 bytes"},
        {Environment("", kBlock), Kind::Environment, "an environment of 0x4000 bytes"},
        {Block(Environment(list, 0x2000)), Kind::Shorter, "an environment of 0x2000 bytes"},
        {Block(Environment(list, 0x1234), '\0'), Kind::Shorter, "an environment of 0x1234 bytes"},
        {Environment(list, kBlock, "\1"), Kind::Redundant, "a redundant environment of 0x4000 bytes with the flag 0x1"},
        {Environment(list, kBlock, std::string(1, '\0')), Kind::Redundant,
         "a redundant environment of 0x4000 bytes with the flag 0x0"},
        {Block(Environment(list, 0x2000, "\xFF")), Kind::Redundant,
         "a redundant environment of 0x2000 bytes with the flag 0xff"},
        {Block(""), Kind::Blank, "nothing: the block is blank"},
        {Block("", '\0'), Kind::Other, "zeros"},
        {Block("UBI#"), Kind::Other, "a UBI image"},
        {Block("a text\nof two lines"), Kind::Other, "text"},
        {Block(std::string("\1\2\3\4a=1\0", 8), '\0'), Kind::Other,
         "variables whose CRC is wrong or covers more than the range"},
        {Environment(list, kBlock + 0x4000).substr(0, kBlock), Kind::Other,
         "variables whose CRC is wrong or covers more than the range"},
        {Block("\1\2\3\4\5"), Kind::Other, "other data"},
    };
    for (const auto &row : rows) {
        const BlockContent content = LookAtBlock(row.block);
        EXPECT_EQ(content.text, row.text);
        EXPECT_EQ(content.kind, row.kind) << row.text;
    }
    EXPECT_EQ(Crc32("123456789"), 0xCBF43926U);
}

TEST(BlockContent, FindsWhatIsReadThroughTheEccInAnyEraseBlockOfAnImage) {
    const auto name = [](const std::string &image) -> std::string {
        const DataFormat *format = FindFormatReadThroughEcc(image, kBlock);
        return format == nullptr ? "" : format->name;
    };
    EXPECT_EQ(name("UBI#"), "a UBI image");
    EXPECT_EQ(name(Block("loader") + "hsqs"), "a squashfs image");
    EXPECT_EQ(name("x" + Block("hsqs")), "") << "not at the start of a block";
    EXPECT_EQ(name("\x28\xCD\x3D\x45"), "a cramfs image") << "of the other byte order";
    EXPECT_EQ(name("\x85\x19\x02\xE0"), "a JFFS2 image") << "whatever node comes first";
    EXPECT_EQ(name("\x85\x19\x02\x02"), "") << "a magic of two bytes occurs by chance";
    EXPECT_EQ(name("\x27\x05\x19\x56"), "") << "a boot loader reads its own images as it likes";
}

TEST(BlockContent, VariablesAreThoseThatABootLoaderUses) {
    const BootVariables variables(std::string_view("a=1\0b=\0c\0a=2=3\0\0d=4\0", 20));
    EXPECT_EQ(variables.values, (std::map<std::string, std::string>{{"a", "2=3"}, {"b", ""}}));
    EXPECT_EQ(variables.duplicates, (std::set<std::string>{"a"}));
    EXPECT_TRUE(BootVariables("").values.empty());
    EXPECT_EQ(BootVariables("a=1").values.size(), 1U) << "the area ends within the entry";
}
