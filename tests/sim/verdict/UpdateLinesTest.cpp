#include "verdict/UpdateLines.h"

#include "base/Text.h"

#include <gtest/gtest.h>

namespace {

constexpr const char *kKinds[] = {"unknown", "write", "writeoob", "erase", "setenv", "handenv", "ubiformat"};

std::string Describe(const ScriptNumber &number) {
    return Hex(number.value) + (number.isForeign ? "?" : "") + (number.isBeyond ? "!" : "");
}

/// "3 write 0x0+0x4000 image" with its line number; "?" after a foreign number, "!" after one beyond the range,
/// "incomplete", "long" for a line that was meant to be short, and the number of ignored words.
std::string Describe(const std::vector<UpdateLine> &lines) {
    std::string text;
    for (const UpdateLine &line : lines) {
        text += (text.empty() ? "" : "; ") + std::to_string(line.number) + " " +
                kKinds[static_cast<std::size_t>(line.kind)];
        if (line.hasRange)
            text += " " + Describe(line.offset) + "+" + Describe(line.size);
        if (!line.image.empty())
            text += " " + line.image;
        if (line.isComplete && (line.kind == LineKind::SetEnv || line.kind == LineKind::HandEnv))
            text += " " + line.Name() + "=" + line.Value();
        if (line.IsTurnedLong())
            text += " long";
        if (!line.isComplete)
            text += line.kind == LineKind::Unknown ? "" : " incomplete";
        else if (line.tokens.size() > line.usedTokens)
            text += " ignores " + std::to_string(line.tokens.size() - line.usedTokens);
    }
    return text;
}

} // namespace

TEST(UpdateLines, AreReadAsTheUpdaterReadsThem) {
    const struct {
        const char *script;
        const char *lines;
    } rows[] = {
        {"", ""},
        {"\n \t\n\r\n", ""},
        {"erase 0 4000", "1 erase 0x0+0x4000"},
        // Line numbers are an editor's: CR and LF in a row are one end, in the other order two.
        {"erase 0 1\r\nerase 0 2\rerase 0 3\nerase 0 4\n\rerase 0 5\r\r\nerase 0 6",
         "1 erase 0x0+0x1; 2 erase 0x0+0x2; 3 erase 0x0+0x3; 4 erase 0x0+0x4; 6 erase 0x0+0x5; 8 erase 0x0+0x6"},
        {"\n\n  erase 0 1", "3 erase 0x0+0x1"},
        // A # in the first word makes a comment; elsewhere it means nothing.
        {"# erase 0 1\nerase# 0 1\n#\nerase 0 1 # all", "4 erase 0x0+0x1 ignores 2"},
        {"\terase\v0\f1 ", "1 erase 0x0+0x1"},
        {"write 0 4000 a\nwriteoob 10 20 b c d", "1 write 0x0+0x4000 a; 2 writeoob 0x10+0x20 b ignores 2"},
        {"write 0 4000\nerase 0\nwriteoob\nsetenv a\nubiformat /dev/mtd9",
         "1 write incomplete; 2 erase incomplete; 3 writeoob incomplete; 4 handenv incomplete; 5 ubiformat incomplete"},
        {"Write 0 1 a\nwrites 0 1 a\nburn", "1 unknown; 2 unknown; 3 unknown"},
        {"ubiformat /dev/mtd9 image x", "1 ubiformat image ignores 1"},
        // Five words make the long form of setenv, four are the short one with an ignored word.
        {"setenv a b\nsetenv a b c\nsetenv 0 4000 a b\nsetenv 0 4000 a b c",
         "1 handenv a=b; 2 handenv a=b ignores 1; 3 setenv 0x0+0x4000 a=b; 4 setenv 0x0+0x4000 a=b ignores 1"},
        {"setenv delay 3 # now\nsetenv 0 4000 # now\nsetenv 0 3 # now\nsetenv 0 zz a b",
         "1 setenv 0xde?+0x3 #=now long; 2 setenv 0x0+0x4000 #=now long; 3 setenv 0x0+0x3 #=now long; "
         "4 setenv 0x0+0x0? a=b long"},
        // Numbers.
        {"erase 0x10 +0X20\nerase -4000 4000\nerase ff FF",
         "1 erase 0x10+0x20; 2 erase -0x4000+0x4000; 3 erase 0xff+0xff"},
        {"erase 16k 0x", "1 erase 0x16?+0x0?"},
        {"erase + --1", "1 erase 0x0?+0x0?"},
        {"erase 7fffffff 80000000", "1 erase 0x7fffffff+0x7fffffff!"},
        {"erase -80000000 -80000001", "1 erase -0x80000000+-0x80000000!"},
        {"erase 100000000 ffffffffffffffffff", "1 erase 0x7fffffff!+0x7fffffff!"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(Describe(ReadUpdateLines(row.script)), row.lines) << row.script;
}

TEST(UpdateLines, AreSeenUpToTheFirstZeroByteOrOneMebibyte) {
    constexpr std::size_t kMebibyte = 1 << 20;
    EXPECT_EQ(VisibleScript(std::string("erase\0 0", 8)), "erase");
    EXPECT_EQ(VisibleScript(""), "");
    EXPECT_EQ(VisibleScript(std::string(kMebibyte, 'x')).size(), kMebibyte);
    EXPECT_EQ(VisibleScript(std::string(kMebibyte + 1, 'x')).size(), kMebibyte);
}
