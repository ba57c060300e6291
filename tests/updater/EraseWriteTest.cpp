#include "Device.h"

#include <gtest/gtest.h>

namespace {

using Texts = std::vector<std::string>;

const std::string kErasedBlock(Device::kBlock, '\xFF');
const std::string kUsedBlock(Device::kBlock, '\x5A');
constexpr std::size_t kPages = Device::kBlock / Device::kPage;

} // namespace

TEST(Write, PutsTheFileIntoTheGoodBlocksAndWarnsTwiceOfBadOnes) {
    Device device("5,7");
    device.UseUp();
    const std::string bad = device.Raw(5 * kPages, kPages);
    const std::string image = Pattern(2 * Device::kBlock + 700, 1);
    device.File("big", image);
    const Outcome outcome = device.Run("write 0x10000 0x1c000 big\n");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "write /tmp/update/big to flash address 10000\n"
                           "warning : skip bad block at 14000\n"
                           "warning : skip bad block at 1c000\n"
                           "erase complete\n offset=10000 size=1c000\n"
                           "warning : skip bad block at 14000\n"
                           "warning : skip bad block at 1c000\n"
                           "warning : file readsize = 188, pending to pagesize = 512\n"
                           "write file complete\n read size = 33468\n");
    EXPECT_EQ(device.Flash(0x0c000, Device::kBlock), kUsedBlock);
    EXPECT_EQ(device.Flash(0x10000, Device::kBlock), image.substr(0, Device::kBlock));
    EXPECT_EQ(device.Raw(5 * kPages, kPages), bad);
    EXPECT_EQ(device.Flash(0x18000, Device::kBlock), image.substr(Device::kBlock, Device::kBlock));
    EXPECT_EQ(device.Flash(0x20000, Device::kBlock), image.substr(2 * Device::kBlock) + kErasedBlock.substr(700));
    EXPECT_EQ(device.Flash(0x24000, 2 * Device::kBlock), kErasedBlock + kErasedBlock);
    EXPECT_EQ(device.Flash(0x2c000, Device::kBlock), kUsedBlock);
}

TEST(Write, AsksForOneRawPageARequest) {
    Device device;
    device.File("small", Pattern(513, 2));
    const Outcome outcome = device.Run("write 4000 4000 small\n");
    EXPECT_EQ(outcome.Only({"open", "close", "MEMGETBADBLOCK", "MEMERASE64", "MEMWRITE", "sync"}),
              (Texts{
                  "open mtd12 flags=O_RDWR = 3",
                  "close mtd12 = 0",
                  "open mtd12 flags=O_RDWR = 3",
                  "MEMGETBADBLOCK mtd12 offset=0x4000 = 0",
                  "MEMERASE64 mtd12 start=0x4000 length=0x4000 = 0",
                  "close mtd12 = 0",
                  "open mtd12 flags=O_RDWR = 3",
                  "MEMGETBADBLOCK mtd12 offset=0x4000 = 0",
                  "MEMWRITE mtd12 start=0x4000 len=512 ooblen=0 data=set oob=null mode=2 = 0",
                  "MEMWRITE mtd12 start=0x4200 len=512 ooblen=0 data=set oob=null mode=2 = 0",
                  "close mtd12 = 0",
                  "sync",
                  "sync",
              }));
    EXPECT_EQ(outcome.Count("fsync"), 3U);
}

TEST(Write, EndsAtTheFailureAndTheScriptWithIt) {
    const std::string erased = "erase complete\n offset=10000 size=4000\n";
    const struct {
        std::string line, options, err;
        std::size_t erases, pages; ///< requests that went out
    } rows[] = {
        {"write 10001 4000 image", "", "error : invalid offset=65537, blocksize = 16384\n", 0, 0},
        {"write 10000 4001 image", "", "error : invalid size=16385, blocksize = 16384\n", 0, 0},
        {"write 10000 0 image", "", "erase complete\n offset=10000 size=0\n", 0, 0},
        {"write 10000 8000 image", "--fault MEMGETBADBLOCK:2=EIO",
         "error : fail to check bad block at 14000\nerase complete\n offset=10000 size=8000\n", 1, 0},
        {"write 10000 4000 image", "--fault MEMGETBADBLOCK:2=EIO",
         erased + "error : fail to check bad block at 10000\n", 1, 0},
        {"write 10000 c000 image", "--fault MEMERASE64:2=EIO --fault MEMERASE=EIO",
         "error : erase failed at 14000\nerase complete\n offset=10000 size=c000\n", 3, 0},
        {"write 10000 4000 folder", "", erased + "error : file readsize = -1, pagesize = 512\n", 1, 0},
        {"write 10000 4000 image", "--fault MEMWRITE:3=EIO", erased + "error : write page return -1\n", 1, 3},
        {"write 10000 4000 outruns", "",
         erased + "warning : file readsize = 1, pending to pagesize = 512\n"
                  "error : file outruns the erased range at 14000\n",
         1, 32},
        {"write 10000 4000 image", "--fault open=ENODEV", "error : fail to check bad block at 10000\n" + erased, 0, 0},
        {"write 0 0 image", "--no-sysfs erasesize", "error : unknown flash geometry, blocksize = 0, pagesize = 512\n",
         0, 0},
        {"write 10000 4000 image", "--no-sysfs writesize",
         "error : unknown flash geometry, blocksize = 16384, pagesize = 0\n", 0, 0},
        {"write 10000 4000 image", "--no-sysfs erasesize", "error : invalid offset=65536, blocksize = 0\n", 0, 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line + " " + row.options);
        Device device;
        device.Options(Split(row.options));
        device.File("image", Pattern(2000, 3));
        device.File("outruns", Pattern(Device::kBlock + 1, 3));
        device.File("folder/file", "");
        const Outcome outcome = device.Run(row.line + "\nerase 0 4000\n");
        const Texts words = Split(row.line);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.err, "write /tmp/update/" + words[3] + " to flash address " + words[1] + "\n" + row.err);
        EXPECT_EQ(outcome.Count("MEMERASE64") + outcome.Count("MEMERASE"), row.erases);
        EXPECT_EQ(outcome.Count("MEMWRITE"), row.pages);
        EXPECT_EQ(outcome.Count("sync"), 2U);
    }
}

TEST(Write, EndsWithTheFileWhereverThatIs) {
    const struct {
        const char *script;
        std::size_t size;
        const char *err;
        const char *percents;
    } rows[] = {
        // An empty file at offset 0 reports nothing, elsewhere one block.
        {"write 0 4000 image\nwrite 4000 4000 block", 0, "write file complete\n read size = 0\n", "100\n200\n"},
        {"write 4000 4000 image\nwrite 8000 4000 block", 0, "write file complete\n read size = 0\n", "100\n200\n300\n"},
        // Whole blocks end at the next block's first page and report one more.
        {"write 4000 8000 image", 2 * Device::kBlock, "write file complete\n read size = 32768\n", "50\n100\n150\n"},
        {"write 4000 8000 image", Device::kBlock + 512, "write file complete\n read size = 16896\n", "50\n100\n"},
        // A file that fills the device ends at its bound without a word; so does what is left of a longer one.
        {"write f8000 8000 image", 2 * Device::kBlock, "", "50\n100\n"},
        {"write f8000 8000 image", 2 * Device::kBlock + 1, "", "33\n66\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.script) + " " + std::to_string(row.size));
        Device device;
        device.File("progress_script.sh", "#!/bin/sh\necho $1\n");
        device.File("image", Pattern(row.size, 4));
        device.File("block", Pattern(Device::kBlock, 5));
        const Outcome outcome = device.Run(row.script);
        EXPECT_EQ(outcome.OthersOut(), row.percents);
        std::string first = outcome.err.substr(0, outcome.err.find("write /tmp", 1));
        first.erase(0, first.find("size=") + 5);
        first.erase(0, first.find('\n') + 1);
        EXPECT_EQ(first, row.err);
    }
}

TEST(Write, WorksOnKernelsWithoutTheNewerRequests) {
    for (const char *error : {"ENOTTY", "EOPNOTSUPP"}) {
        Device device("1");
        const std::string image = Pattern(Device::kBlock + 1, 6);
        device.File("image", image);
        device.Options({"--fault", std::string("MEMWRITE=") + error, "--fault", std::string("MEMERASE64=") + error});
        const Outcome outcome = device.Run("write 0 c000 image\n");
        EXPECT_EQ(device.Flash(0, Device::kBlock) + device.Flash(0x8000, 1), image);
        EXPECT_EQ(outcome.Count("MEMERASE"), 2U);
        EXPECT_EQ(outcome.Count("MEMWRITEOOB64"), 0U);
        EXPECT_EQ(outcome.Count("write"), 33U);
    }
}

TEST(Erase, PassesOverBadBlocksAndLetsTheNextLineRunAfterAFailure) {
    const std::string skipped = "warning : skip bad block at 8000\nwarning : skip bad block at c000\n";
    const struct {
        std::string line, options, err;
    } rows[] = {{"erase 0 10000 # two more tokens", "", skipped + "erase complete\n offset=0 size=10000\n"},
                {"erase 8000 8000", "", skipped + "erase complete\n offset=8000 size=8000\n"},
                {"erase 1 4000", "", "error : invalid offset=1, blocksize = 16384\n"},
                {"erase -4000 4000", "",
                 "error : fail to check bad block at ffffc000\nerase complete\n offset=ffffc000 size=4000\n"},
                {"erase fc000 8000", "",
                 "error : fail to check bad block at 100000\nerase complete\n offset=fc000 size=8000\n"},
                {"erase 80000000 4000", "", "error : invalid offset=2147483647, blocksize = 16384\n"},
                {"erase 4000 xyz", "", "erase complete\n offset=4000 size=0\n"},
                {"erase 0 0", "--no-sysfs erasesize", "erase complete\n offset=0 size=0\n"},
                {"erase 0 4000", "--fault MEMERASE64=EIO --fault MEMERASE=EIO",
                 "error : erase failed at 0\nerase complete\n offset=0 size=4000\n"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        Device device("2,3");
        device.Options(Split(row.options));
        const Outcome outcome = device.Run(row.line + "\nincomplete\n");
        const std::string unknown = "Unknown script command incomplete\n";
        EXPECT_EQ(outcome.err, unknown + row.err + unknown);
        EXPECT_EQ(outcome.status, 0);
    }
}
