#include "UEnvTool.h"

#include <gtest/gtest.h>

using namespace std::string_literals;
using Texts = std::vector<std::string>;

namespace {

/// A block with a wrong seal, the area behind it filled up with zero bytes.
std::string Block(int size, std::string area) {
    area.resize(static_cast<std::size_t>(size - 4), '\0');
    return "SEAL" + area;
}

/// A copy of exactly the block's size, so that the sanitizer sees each byte read outside it.
UEnvTool Tool(const std::string &block) {
    const std::vector<char> bytes(block.begin(), block.end());
    return UEnvTool(bytes.data(), static_cast<int>(bytes.size()));
}

std::string Bytes(const UEnvTool &tool) { return std::string(tool.m_pBlock, static_cast<std::size_t>(tool.m_nSize)); }

} // namespace

TEST(Crc32, EqualsTheBitwiseRuleAtEveryAlignmentAndLength) {
    alignas(8) unsigned char bytes[48];
    for (unsigned int i = 0; i < sizeof bytes; ++i)
        bytes[i] = static_cast<unsigned char>(i * 73 + 200);
    for (unsigned int start = 0; start < 8; ++start) {
        unsigned int expected = 0x12345678;
        for (unsigned int length = 0; start + length < sizeof bytes; ++length) {
            EXPECT_EQ(crc32_no_comp(0x12345678, bytes + start, length), expected) << start << '+' << length;
            expected ^= bytes[start + length];
            for (int bit = 0; bit < 8; ++bit)
                expected = (expected >> 1) ^ ((expected & 1) != 0 ? 0xEDB88320 : 0);
        }
    }
    EXPECT_EQ(crc_table[1], 0x77073096U);
    EXPECT_EQ(crc_table.size(), 256U);
}

TEST(UEnvTool, ReadsEntriesUpToTheDoubleZeroOrTheBound) {
    const struct {
        std::string block;
        Texts entries;
    } rows[] = {
        {Block(32, "a=1\0b=2"s), {"a=1", "b=2"}},
        {Block(32, "a=1\0\0b=2"s), {"a=1"}},
        {Block(32, ""), {""}},
        {Block(32, "\0a=1"s), {"", "a=1"}},
        {std::string(32, '\xFF'), {}},
        {Block(16, "a=1\0b=2345678"s), {"a=1"}},
        {Block(16, "a=1\0b=2"s), {"a=1", "b=2"}},
        {Block(16, "a=1\0b=23"s), {"a=1"}}, // the list's end lies behind the bound
        {Block(6, ""), {""}},
        {Block(6, "\0a"s), {""}},
        {Block(5, ""), {}},
        {"", {}},
    };
    for (const auto &row : rows) {
        const UEnvTool tool = Tool(row.block);
        EXPECT_EQ(tool.m_vEntry, row.entries);
        EXPECT_EQ(Bytes(tool), row.block);
    }
}

TEST(UEnvTool, FindsNamesAsWholesAndByCase) {
    const UEnvTool tool = Tool(Block(64, "noname\0ab=1\0a=b=c\0empty=\0a=2"s));
    const struct {
        const char *name;
        int has;
        const char *value;
    } rows[] = {{"ab", 1, "1"},    {"a", 1, "b=c"}, {"empty", 1, ""}, {"A", 0, ""},
                {"noname", 0, ""}, {"a=b", 0, ""},  {"ab=1", 0, ""},  {"", 0, ""}};
    for (const auto &row : rows) {
        EXPECT_EQ(tool.HasEnv(row.name), row.has) << row.name;
        EXPECT_EQ(tool.GetEnv(row.name), row.value);
    }
}

TEST(UEnvTool, ChangesTheFirstEntryInPlaceOrAppendsOne) {
    const struct {
        std::string area;
        const char *name;
        const char *value;
        std::string changed;
    } rows[] = {
        {"a=1\0b=2\0a=3"s, "a", "10", "a=10\0b=2\0a=3"s},
        {"a=1\0b=2"s, "c", "", "a=1\0b=2\0c="s},
        {"a=1\0noname"s, "noname", "x", "a=1\0noname\0noname=x"s},
        {"a=1\0\0garbage"s, "a", "2", "a=2"},
        {"", "a", "1", "\0a=1"s},
        {std::string(28, '\xFF'), "a", "1", "a=1"},
        {"a=b=1"s, "a=b", "2", "a=b=1\0a=b=2"s},
    };
    for (const auto &row : rows) {
        UEnvTool tool = Tool(Block(32, row.area));
        EXPECT_EQ(tool.SetEnv(row.name, row.value), 0);
        EXPECT_EQ(Bytes(tool).substr(4), Block(32, row.changed).substr(4));
        const unsigned int all = crc32_no_comp(~0U, reinterpret_cast<unsigned char *>(tool.m_pBlock) + 4, 28);
        EXPECT_EQ(tool.m_nCrc, ~all);
    }
}

TEST(UEnvTool, SealsTheBlockLeastSignificantByteFirst) {
    UEnvTool tool = Tool(Block(32, "a=1"));
    EXPECT_EQ(tool.SetEnv("b", "2"), 0);
    EXPECT_EQ(Bytes(tool), "\x4C\x23\x45\xA1" + Block(32, "a=1\0b=2"s).substr(4));
    UEnvTool digits = Tool(Block(13, "123456789"));
    EXPECT_EQ(digits.UpdateCRC(), 0);
    EXPECT_EQ(digits.m_nCrc, 0xCBF43926);
    EXPECT_EQ(Bytes(digits), "\x26\x39\xF4\xCB"
                             "123456789");
    UEnvTool none = Tool("abc");
    EXPECT_EQ(none.UpdateCRC(), 0);
    EXPECT_EQ(Bytes(none), "abc");
}

TEST(UEnvTool, RefusesAListThatOutgrowsTheBlock) {
    const struct {
        const char *value;
        int result;
        Texts readBack;
    } rows[] = {
        {"123", 0, {"a=1", "b=123"}}, // ends 8 bytes short of the block
        {"1234", 0, {"a=1"}},         // fits, but the next scan does not see its end
        {"1234567", 0, {"a=1"}},      // up to the last byte
        {"12345678", -1, {"a=1", "b="}},
    };
    for (const auto &row : rows) {
        UEnvTool tool = Tool(Block(18, "a=1\0b="s));
        EXPECT_EQ(tool.SetEnv("b", row.value), row.result) << row.value;
        EXPECT_EQ(tool.m_vEntry, (Texts{"a=1", row.result == 0 ? "b="s + row.value : "b="}));
        EXPECT_EQ(Tool(Bytes(tool)).m_vEntry, row.readBack);
        if (row.result != 0) {
            EXPECT_EQ(Bytes(tool), Block(18, "a=1\0b="s));
        }
    }
    EXPECT_EQ(Tool("abc").SetEnv("", ""), -1);
}
