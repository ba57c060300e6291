#include "Device.h"

#include <gtest/gtest.h>

TEST(Script, SaysWhatALineLacksAndGoesOn) {
    const struct {
        const char *script;
        const char *err;
    } rows[] = {
        // The count names unknown commands before any line runs.
        {"WRITE 0 4000 image\nerase 0 4000\n", "Unknown script command WRITE 0 4000 image\n"
                                               "Unknown script command WRITE 0 4000 image\n"
                                               "erase complete\n offset=0 size=4000\n"},
        {"write 0 4000\nwriteoob 0 4000\nerase 0\nsetenv a\nubiformat /dev/mtd9\nerase 0 4000",
         "incomplete script command write 0 4000\n"
         "incomplete script command writeoob 0 4000\n"
         "incomplete script command erase 0\n"
         "incomplete script command setenv a\n"
         "incomplete script command ubiformat /dev/mtd9\n"
         "erase complete\n offset=0 size=4000\n"},
        {"write 0 4000 missing\nubiformat /dev/mtd9 ../missing\nwriteoob 0 4000 /missing\n",
         "/tmp/update/missing doesn't exist\n"
         "/tmp/update/../missing doesn't exist\n"
         "/tmp/update//missing doesn't exist\n"},
        // All line ends, all blanks, comments with a '#' anywhere in the first token.
        {"\n\r\r\n \t \v\f\r# erase 0 4000\rera#se 0 4000\n\terase\v0x0\f+4000 # two\r\n",
         "erase complete\n offset=0 size=4000\n"},
        {" \n\r", ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.script);
        Device device;
        const Outcome outcome = device.Run(row.script);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.err, row.err);
        EXPECT_EQ(outcome.Count("sync"), 2U);
    }
}

TEST(Script, IsRefusedWholeBeforeAnyFlashIsTouched) {
    std::string fits;
    for (int i = 0; i < 16; ++i)
        fits += std::string(254, '#') + "\n";
    fits += "erase 0 4000\n\n\n";
    const std::string line = "\r\n\nerase 0 4000 ";
    const struct {
        std::string script;
        int status;
        std::string err;
    } rows[] = {
        {"", 255, ""},
        {std::string("\0erase 0 4000\n", 14), 255, ""},
        {fits, 0, "erase complete\n offset=0 size=4000\n"},
        {fits + "\n", 255, "error : script of 4096 characters, the limit is 4095\n"},
        {line + std::string(242, 'x'), 0, "erase complete\n offset=0 size=4000\n"},
        {line + std::string(243, 'x'), 255, "error : script line 3 of 256 characters, the limit is 255\n"},
        // A refused script is not counted either: nothing names its unknown command.
        {"unknown\r" + line + std::string(243, 'x'), 255,
         "error : script line 4 of 256 characters, the limit is 255\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.script.size());
        Device device;
        const Outcome outcome = device.Run(row.script);
        EXPECT_EQ(outcome.status, row.status);
        EXPECT_EQ(outcome.err, row.err);
        EXPECT_EQ(outcome.Count("MEMERASE64") == 0, row.status != 0);
        EXPECT_EQ(outcome.Count("open") == 0, row.status != 0);
        EXPECT_EQ(outcome.Count("sync"), row.status == 0 ? 2U : 0U);
    }
}

TEST(Script, CountsTheBlocksThatItsLinesReport) {
    constexpr std::size_t kRawBlock = 32 * (Device::kPage + Device::kOob);
    // Each script begins with a plain write of one block, which reports two: the first percentages tell the count.
    const struct {
        const char *line;
        std::size_t size; ///< of the image
        int count;
    } rows[] = {
        {"write 0 0 image", 3 * Device::kBlock, 3},
        {"write 0 0 image", 3 * Device::kBlock + 1, 4},
        {"write 0 0 image", 0, 0},
        {"writeoob 0 0 image", 2 * kRawBlock, 2},
        {"writeoob 0 0 image", 2 * kRawBlock - 1, 1},
        {"ubiformat /no/device image", Device::kBlock + 1, 2},
        {"setenv a b c", 0, 0},
        {"setenv 4001 c001 c d", 0, 3},
        {"erase 0 40000 image", Device::kBlock, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        Device device;
        device.File("image", Pattern(row.size, 1));
        device.File("block", Pattern(Device::kBlock, 2));
        device.File("progress_script.sh", "#!/bin/sh\necho $1\n");
        const Outcome outcome = device.Run("write 0 4000 block\n" + std::string(row.line) + "\n");
        const std::string expected =
            std::to_string(100 / (row.count + 1)) + "\n" + std::to_string(200 / (row.count + 1)) + "\n";
        EXPECT_EQ(outcome.OthersOut().substr(0, expected.size()), expected);
    }
}

TEST(Script, NamesAreAppendedToItsFolderUnchanged) {
    Device device;
    device.File("sub/image", "abc");
    EXPECT_EQ(device.Run("write 0 4000 ./sub/../sub/image\n").err.substr(0, 56),
              "write /tmp/update/./sub/../sub/image to flash address 0\n");
    EXPECT_EQ(device.Flash(0, 3), "abc");
}

TEST(Script, TakesTheFirstDeviceWhoseLineHoldsAll) {
    const struct {
        std::vector<std::string> table;
        const char *device;
    } rows[] = {
        {{"0:boot", "3:install", "12:all"}, "mtd3"},
        {{"0:boot", "112:wall"}, "mtd112"},
        {{"0:boot", "1:ALL"}, "mtd0"},
    };
    for (const auto &row : rows) {
        Device device;
        for (const std::string &entry : row.table)
            device.Options({"--mtd", entry});
        const Outcome outcome = device.Run("erase 0 4000\n");
        ASSERT_FALSE(outcome.trace.empty());
        EXPECT_EQ(outcome.Only({"open"}).front(), std::string("open ") + row.device + " flags=O_RDWR = 3");
        EXPECT_EQ(outcome.Count("MEMERASE64"), 1U);
    }
}
