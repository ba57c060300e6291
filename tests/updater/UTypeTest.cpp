#include "UType.h"

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

TEST(TypeName, GivesTheReadableTextOrNull) {
    TypeName name(typeid(std::vector<int>).name());
    EXPECT_STREQ(name, "std::vector<int, std::allocator<int> >");
    const TypeName moved(std::move(name));
    EXPECT_STREQ(moved, "std::vector<int, std::allocator<int> >");
    EXPECT_EQ(static_cast<const char *>(TypeName("no such name")), nullptr);
}

TEST(ClassName, RunsFromTheLastBlankToTheFirstColons) {
    const std::string longest(127, 'c');
    const struct {
        std::string signature;
        std::string name;
    } rows[] = {
        {"virtual int Class::Function(int)", "Class"},
        {"Class::Class(const char*)", "Class"},
        {"void Outer::Inner::Function()", "Outer"},
        {"std::string Class::Function()", "std"},
        {"::Function()", ""},
        {"int main()", ""},
        {"int " + longest + "::f()", longest},
        {"int " + longest + "d::f()", longest},
    };
    for (const auto &row : rows)
        EXPECT_EQ(std::string(ClassName(row.signature.c_str())), row.name) << row.signature;
}
