#include "Device.h"

#include <gtest/gtest.h>

namespace {

constexpr std::size_t kRecord = Device::kPage + Device::kOob;
constexpr std::size_t kRawPages = 32;

} // namespace

TEST(WriteOob, PutsADumpedChipBackAroundOtherBadBlocks) {
    Device source("1");
    source.UseUp();
    source.File("image", Pattern(3 * Device::kBlock, 1));
    source.Run("write 0 14000 image\n");
    const std::string dump = source.Raw(0, kRawPages) + source.Raw(2 * kRawPages, 2 * kRawPages);

    Device device("3,4");
    device.UseUp();
    device.File("dump", dump);
    const Outcome outcome = device.Run("writeoob 8000 14000 dump\n");
    EXPECT_EQ(outcome.status, 0);
    const std::string bad = "warning : skip bad block at c000\nwarning : skip bad block at 10000\n";
    EXPECT_EQ(outcome.err, "write /tmp/update/dump to flash address 8000\n" + bad +
                               "erase complete\n offset=8000 size=14000\n" + bad +
                               "warning : file read datasize = 0, pending to pagesize = 512\n"
                               "write file complete\n read size = 50688\n");
    EXPECT_EQ(device.Raw(2 * kRawPages, kRawPages) + device.Raw(5 * kRawPages, 2 * kRawPages), dump);
    EXPECT_EQ(outcome.Only({"MEMWRITE"}).front(),
              "MEMWRITE mtd12 start=0x8000 len=512 ooblen=16 data=set oob=set mode=2 = 0");
}

TEST(WriteOob, GivesAShortRecordTheTailOfTheOneBefore) {
    Device device;
    const std::string image = Pattern(kRecord + 100, 2);
    device.File("image", image);
    device.File("first", image.substr(0, 100));
    const std::string warnings = "warning : file read datasize = 100, pending to pagesize = 512\n"
                                 "warning : file read datasize = 0, pending to pagesize = 512\n";
    EXPECT_EQ(device.Run("writeoob 0 4000 image\nwriteoob 4000 4000 first\n").err,
              "write /tmp/update/image to flash address 0\nerase complete\n offset=0 size=4000\n" + warnings +
                  "write file complete\n read size = 628\n"
                  "write /tmp/update/first to flash address 4000\nerase complete\n offset=4000 size=4000\n" +
                  warnings + "write file complete\n read size = 100\n");
    EXPECT_EQ(device.Raw(0, 2), image.substr(0, kRecord) + image.substr(kRecord) + image.substr(100, kRecord - 100));
    EXPECT_EQ(device.Raw(kRawPages, 1), image.substr(0, 100) + std::string(kRecord - 100, '\xFF'));
}

TEST(WriteOob, EndsLikeWriteAtFailuresAndAtTheEndOfTheFile) {
    const std::string erased = "erase complete\n offset=8000 size=4000\n";
    const struct {
        std::string line;
        std::size_t size; ///< of the image
        std::string options, err, percents;
    } rows[] = {
        {"8001 4000 image", kRecord, "", "error : invalid offset=32769, blocksize = 16384\n", ""},
        {"8000 0 image", kRecord, "", "erase complete\n offset=8000 size=0\n", ""},
        {"8000 4000 folder", 0, "", erased + "error : file readsize = -1, pagesize = 512\n", ""},
        {"8000 4000 image", 3 * kRecord, "--fault MEMWRITE:2=EIO", erased + "error : write page return -1\n", ""},
        {"8000 4000 image", (kRawPages + 1) * kRecord, "", erased + "error : file outruns the erased range at c000\n",
         "100\n"},
        {"f8000 8000 image", 2 * kRawPages * kRecord, "", "erase complete\n offset=f8000 size=8000\n", "50\n100\n"},
        {"8000 4000 image", kRawPages * kRecord, "",
         erased + "warning : file read datasize = 0, pending to pagesize = 512\n"
                  "write file complete\n read size = 16896\n",
         "100\n200\n"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        Device device;
        device.Options(Split(row.options));
        device.File("image", Pattern(row.size, 3));
        device.File("folder/file", "");
        device.File("progress_script.sh", "#!/bin/sh\necho $1\n");
        const Outcome outcome = device.Run("writeoob " + row.line + "\n");
        EXPECT_EQ(outcome.err.substr(outcome.err.find('\n') + 1), row.err);
        EXPECT_EQ(outcome.OthersOut(), row.percents);
        EXPECT_EQ(outcome.status, 0);
    }
}

TEST(WriteOob, GivesOobAndPageToKernelsWithoutTheNewerRequest) {
    Device device;
    const std::string image = Pattern(2 * kRecord, 4);
    device.File("image", image);
    device.Options({"--fault", "MEMWRITE=ENOTTY", "--ecc", "chip"});
    const Outcome outcome = device.Run("writeoob 0 4000 image\n");
    EXPECT_EQ(device.Raw(0, 2), image);
    EXPECT_EQ(outcome.Only({"MEMWRITEOOB64", "write"}),
              (std::vector<std::string>{
                  "MEMWRITEOOB64 mtd12 start=0x0 length=16 oob=set = 0", "write mtd12 length=512 = 512",
                  "MEMWRITEOOB64 mtd12 start=0x200 length=16 oob=set = 0", "write mtd12 length=512 = 512"}));
}
