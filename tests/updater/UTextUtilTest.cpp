#include "UTextUtil.h"
#include "ProcessUtil.h"
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

TEST(ProcessUtil, SplitsCutAtEachDelimiterOrAtRunsOfThem) {
    const struct {
        std::string text;
        const char *delimiters;
        Texts fields; ///< of StdStringSplit
        Texts tokens; ///< of TextSplit
    } rows[] = {
        {"12 345 6", " ", {"12", "345", "6"}, {"12", "345", "6"}},
        {"1 2", " ", {"1", "2"}, {"1", "2"}},
        {" a  b ", " ", {"", "a", "", "b", ""}, {"a", "b"}},
        {"a,b;c", ";,", {"a", "b", "c"}, {"a", "b", "c"}},
        {"", " ", {""}, {}},
        {" ", " ", {"", ""}, {}},
        {"a b", "", {"a b"}, {"a b"}},
    };
    for (auto row : rows) {
        const std::string text = row.text;
        Texts fields = {"first"};
        Texts tokens = {"first"};
        row.fields.insert(row.fields.begin(), "first");
        row.tokens.insert(row.tokens.begin(), "first");
        StdStringSplit(row.text, row.delimiters, &fields);
        EXPECT_EQ(fields, row.fields) << text;
        EXPECT_EQ(row.text, text);
        EXPECT_EQ(TextSplit(text.c_str(), row.delimiters, &tokens), static_cast<int>(row.tokens.size()));
        EXPECT_EQ(tokens, row.tokens) << text;
    }
    EXPECT_EQ(TextSplit("a", " ", nullptr), -1);
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

TEST(UTextUtil, ExactKeysNeedABlankOrTheSeparatorBehindThem) {
    const struct {
        const char *text;
        const char *value; // null: no such key
        const char *copy;  // in a buffer of 8 bytes, cut first, then without blanks at the end
        int number;        // of 15 characters at most
    } rows[] = {
        {"a=1;key=2", "2", "2", 2},
        {"key", nullptr, "untouch", 99},
        {"monkey=1;key=2", "1", "1", 1},
        {"keykey=-1;", "-1", "-1", -1},
        {"keys=1;key=2", "2", "2", 2},
        {"key x;far = 3 ;", " 3 ", " 3", 3},
        {"key 1;", nullptr, "untouch", 99},
        {"key\t=1", nullptr, "untouch", 99},
        {"key=;c=2", "", "", 0},
        {"key==2\n", "=2", "=2", 0},
        {"key=1234567;", "1234567", "1234567", 1234567},
        {"key=12345678", "12345678", "1234567", 12345678},
        {"key=12345  8;", "12345  8", "12345", 12345},
        {"key=   ;", "   ", "", 0},
        {"key= \t ;", " \t ", " \t", 0},
        {"key=000000000000123;", "000000000000123", "0000000", 123},
        {"key=0000000000001234;", "0000000000001234", "0000000", 123},
        {"key=3000000000", "3000000000", "3000000", 0x7FFFFFFF},
    };
    for (const auto &row : rows) {
        const bool found = row.value != nullptr;
        char *value = nullptr;
        int length = 0;
        EXPECT_EQ(UTextUtil::findKeyExact(row.text, "key", '=', ";\n", &value, &length), found) << row.text;
        EXPECT_EQ(std::string(found ? value : "", static_cast<std::size_t>(length)), found ? row.value : "");
        char copy[] = "untouch";
        EXPECT_EQ(UTextUtil::findKeyExact(row.text, "key", '=', ";\n", copy, sizeof copy),
                  found ? static_cast<int>(std::string(row.copy).size()) : -1);
        EXPECT_STREQ(copy, row.copy);
        int number = 99;
        EXPECT_EQ(UTextUtil::findKeyExact(row.text, "key", '=', ";\n", &number), found);
        EXPECT_EQ(number, row.number);
    }
    int number = 0;
    EXPECT_EQ(UTextUtil::findKeyExact("=1", "", '=', ";", &number), 0);
}

TEST(UTextUtil, FirstKeyCountsWhateverFollowsIt) {
    const struct {
        const char *text;
        const char *value; // null: no such key
        const char *rest;  // from behind the blanks that follow the separator
    } rows[] = {
        {"keys=1;key=2;", "1", "1;key=2;"}, {"key", nullptr, nullptr}, {"x=1", nullptr, nullptr},
        {"key=  \t1;", "  \t1", "\t1;"},    {"key=  ", "  ", ""},      {"key=;x", "", ";x"},
    };
    for (const auto &row : rows) {
        char *value = nullptr;
        int length = 0;
        EXPECT_EQ(UTextUtil::findKey(row.text, "key", '=', ";", &value, &length), row.value != nullptr) << row.text;
        EXPECT_EQ(std::string(value == nullptr ? "" : value, static_cast<std::size_t>(length)),
                  row.value == nullptr ? "" : row.value);
        EXPECT_STREQ(UTextUtil::findKey(row.text, "key", '='), row.rest);
    }
    EXPECT_STREQ(UTextUtil::findValue("=", '='), "");
    EXPECT_EQ(UTextUtil::findValue("key", ':'), nullptr);
    EXPECT_EQ(UTextUtil::findValue("key", '\0'), nullptr);
}

TEST(UTextUtil, TrimsTakeASetOffBothEnds) {
    const struct {
        const char *text;
        const char *trimmed;
        const char *left; // what the old start of the buffer reads afterwards
    } rows[] = {{"--a-b-+", "a-b", "--a-b"}, {"a", "a", "a"}, {"", "", ""}, {"-+-", "", "-+-"}, {"ab-", "ab", "ab"}};
    for (const auto &row : rows) {
        EXPECT_EQ(UTextUtil::Trim(std::string(row.text), "+-"), row.trimmed);
        std::string buffer = row.text;
        char *text = buffer.data();
        EXPECT_STREQ(UTextUtil::TrimStr(text, "+-"), row.trimmed);
        EXPECT_STREQ(text, row.left);
        UTextUtil::Trim(text, "+-");
        EXPECT_STREQ(text, row.trimmed);
    }
}

TEST(UTextUtil, TokensAreTrimmedAndBlankOnesStay) {
    EXPECT_EQ(UTextUtil::tokenize("", ",;"), Texts());
    EXPECT_EQ(UTextUtil::tokenize(",;,", ",;"), Texts());
    Texts tokens = UTextUtil::tokenize(",a ,, \v\f,b\t;c", ",;");
    EXPECT_EQ(tokens, (Texts{"a", "", "b", "c"}));
    EXPECT_EQ(UTextUtil::implode(tokens, ", "), "a, , b, c");
    tokens.resize(1);
    EXPECT_EQ(UTextUtil::implode(tokens, ", "), "a");
}

TEST(UTextUtil, TokenWalksOfTwoObjectsAreApart) {
    char outerText[] = "a b,c";
    char innerText[] = "1,2";
    UTextUtil outer;
    UTextUtil inner;
    EXPECT_EQ(inner.nextToken(","), nullptr);
    EXPECT_STREQ(outer.firstToken(outerText, " "), "a");
    EXPECT_STREQ(inner.firstToken(innerText, ","), "1");
    EXPECT_STREQ(outer.nextToken(","), "b");
    EXPECT_STREQ(inner.nextToken(","), "2");
    EXPECT_STREQ(outer.nextToken(","), "c");
    EXPECT_EQ(outer.nextToken(","), nullptr);
}

TEST(UTextUtil, CaseChangesLeaveBytesOutsideAscii) {
    char text[] = "aZ9_\xE4\xFF";
    UTextUtil::ToUpper(text);
    EXPECT_STREQ(text, "AZ9_\xE4\xFF");
    UTextUtil::ToLower(text);
    EXPECT_STREQ(text, "az9_\xE4\xFF");
    UTextUtil::Replace(text, '\xFF', 'a');
    UTextUtil::Replace(text, 'a', 'b');
    UTextUtil::Replace(text, '\0', 'x');
    EXPECT_STREQ(text, "bz9_\xE4\x62");
}
