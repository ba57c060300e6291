#include "base/Number.h"

#include <gtest/gtest.h>

TEST(Number, LeadingOneEndsWhereItsDigitsEnd) {
    const struct {
        const char *text;
        std::uint64_t value;
        std::size_t length;
    } rows[] = {{"0", 0, 1},        {"128K", 128, 3}, {"0x20000,", 0x20000, 7},
                {"0XfFg", 0xff, 4}, {"010", 10, 3},   {"18446744073709551615", UINT64_MAX, 20}};
    for (const auto &row : rows) {
        const auto number = ReadLeadingNumber(row.text);
        ASSERT_TRUE(number) << row.text;
        EXPECT_EQ(number->value, row.value) << row.text;
        EXPECT_EQ(number->length, row.length) << row.text;
    }
    for (const char *text : {"", "K", "-1", "+1", " 1", "x10", "18446744073709551616", "0x10000000000000000"})
        EXPECT_FALSE(ReadLeadingNumber(text)) << text;
}

TEST(Number, DecimalTakesDigitsOnly) {
    EXPECT_EQ(ParseDecimal("0"), 0U);
    EXPECT_EQ(ParseDecimal("007"), 7U);
    EXPECT_EQ(ParseDecimal("999999999999999999"), 999'999'999'999'999'999U);
    for (const char *text : {"", "-1", "+1", " 1", "1 ", "1K", "0x1", "1000000000000000000"})
        EXPECT_FALSE(ParseDecimal(text)) << text;
}
