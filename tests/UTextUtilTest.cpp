#include "UTextUtil.h"
#include "UTypeUtil.h"

#include <gtest/gtest.h>

using Texts = std::vector<std::string>;

TEST(UTextUtil, SplitCutsAtRunsOfDelimitersAndAppends) {
    const struct {
        const char *text;
        Texts tokens;
    } rows[] = {
        {"", {}},
        {"\r\n\r", {}},
        {"erase 0 1\rwrite 2\r\n\n# end", {"erase 0 1", "write 2", "# end"}},
        {"\nlast", {"last"}},
    };
    for (const auto &row : rows) {
        Texts tokens;
        EXPECT_EQ(UTextUtil::Split(row.text, "\r\n", tokens), static_cast<int>(row.tokens.size()));
        EXPECT_EQ(tokens, row.tokens);
    }
    Texts tokens = {"one", "two"};
    EXPECT_EQ(UTextUtil::Split("a b c", " ", tokens), 5);
    EXPECT_EQ(tokens, (Texts{"one", "two", "a", "b", "c"}));
}

TEST(UTextUtil, NumbersClampToThirtyTwoBits) {
    const struct {
        const char *text;
        int number;
    } rows[] = {
        {"10", 0x10},
        {"0x10", 0x10},
        {"-0x20", -0x20},
        {"7fffffff", 0x7FFFFFFF},
        {"80000000", 0x7FFFFFFF},
        {"xyz", 0},
        {"-ffffffffffffffffff", -0x7FFFFFFF - 1},
        {"12g4", 0x12},
        {"ffffffffffffffff", 0x7FFFFFFF},
    };
    for (const auto &row : rows)
        EXPECT_EQ(UTextUtil::ToInt(row.text, 16), row.number) << row.text;
}

TEST(UTypeUtil, TrimTakesTabsAndLineEndsButNotSpaces) {
    const struct {
        const char *text;
        const char *trimmed;
    } rows[] = {{"\t\r\n", ""}, {"\n 12 \t34 \r\n", " 12 \t34 "}, {"plain", "plain"}, {"", ""}};
    for (const auto &row : rows) {
        std::string buffer = row.text;
        EXPECT_EQ(trim(buffer.data()), 0);
        EXPECT_STREQ(buffer.c_str(), row.trimmed);
    }
    EXPECT_EQ(trim(nullptr), -1);
}

TEST(UTypeUtil, StringTrimsTakeAllWhiteSpace) {
    EXPECT_EQ(StdStringLtrim(" \f\v\t a b \n"), "a b \n");
    EXPECT_EQ(StdStringRtrim(" a b \r\n"), " a b");
    EXPECT_EQ(StdStringTrim("\n a b \f"), "a b");
    EXPECT_EQ(StdStringTrim(" \t\r\n"), "");
}
