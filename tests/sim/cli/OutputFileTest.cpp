#include "cli/OutputFile.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace fs = std::filesystem;

TEST(OutputFile, IsEmptiedAtOnceAndHoldsWhatWasSaved) {
    const fs::path path = fs::path(testing::TempDir()) / ("output" + std::to_string(getpid()));
    std::ofstream(path) << "an earlier report";
    {
        OutputFile file(path, "report");
        EXPECT_TRUE(file.IsWanted());
        EXPECT_EQ(fs::file_size(path), 0U);
        file.Save("text\n");
        EXPECT_EQ(fs::file_size(path), 5U) << "without waiting for the end of the program";
    }
    fs::remove(path);
    EXPECT_FALSE(OutputFile("", "report").IsWanted());
}

TEST(OutputFile, FailuresNameTheFile) {
    EXPECT_THROW(OutputFile("/nowhere/report", "report"), std::runtime_error);
    OutputFile full("/dev/full", "trace");
    try {
        full.Save("text");
        FAIL() << "nothing was written";
    } catch (const std::runtime_error &failure) {
        EXPECT_STREQ(failure.what(), "can't write the trace to /dev/full");
    }
}

TEST(OutputFile, ReplacesNoInputAndNoOtherOutput) {
    EXPECT_NO_THROW(CheckOutputs({"", "/etc/passwd"}, {"", "a", "b", "/dev/null", "/dev/null"}));
    EXPECT_THROW(CheckOutputs({"", "/etc/passwd"}, {"/etc/../etc/passwd"}), std::invalid_argument);
    EXPECT_THROW(CheckOutputs({"missing"}, {"./missing"}), std::invalid_argument);
    EXPECT_THROW(CheckOutputs({}, {"a", "b", "./a"}), std::invalid_argument);
}
