#include "Device.h"

#include <gtest/gtest.h>

namespace {

constexpr const char *kSeal = R"(
import sys, zlib, struct
area = sys.argv[1].encode().replace(b"|", b"\0")
area += bytes(int(sys.argv[2]) - 4 - len(area))
sys.stdout.buffer.write(struct.pack("<I", zlib.crc32(area)) + area)
)";

/// Builds a block with a valid CRC of the entries, which '|' parts, by python3's own CRC-32.
std::string WithCrc(const std::string &entries, std::size_t size) {
    const Outcome block = RunProgram({"python3", "-c", kSeal, entries, std::to_string(size)});
    EXPECT_EQ(block.err, "");
    return block.out;
}

constexpr const char *kEntries = "a=1|b=2|boot=run x; y=z";

/// Chips that keep their own ECC: a raw `write` is readable on them.
void UseChipEcc(Device &device) { device.Options({"--ecc", "chip"}); }

} // namespace

TEST(SetEnv, ChangesAndAddsVariablesOfASealedBlock) {
    Device device;
    UseChipEcc(device);
    device.File("env", WithCrc(kEntries, 2 * Device::kBlock));
    device.File("progress_script.sh", "#!/bin/sh\necho $1\n");
    const Outcome outcome = device.Run("write 8000 8000 env\nsetenv 8000 8000 b new=value\nsetenv 8000 8000 c 3\n");
    EXPECT_EQ(device.Flash(0x8000, 2 * Device::kBlock),
              WithCrc("a=1|b=new=value|boot=run x; y=z|c=3", 2 * Device::kBlock));
    EXPECT_EQ(outcome.err.substr(outcome.err.find("write b")), "write b = new=value to env\nwrite c = 3 to env\n");
    EXPECT_EQ(outcome.OthersOut(), "16\n33\n50\n66\n83\n100\n116\n");
    EXPECT_EQ(outcome.Count("read"), 2U * 64);
    EXPECT_EQ(outcome.Count("write"), 2U * 64);
}

TEST(SetEnv, StartsAnEmptyEnvironmentOnErasedFlash) {
    Device device;
    device.Run("setenv 4000 4000 n v\n");
    EXPECT_EQ(device.Flash(0x4000, Device::kBlock), WithCrc("n=v", Device::kBlock));
    // What the kernel's own ECC protects reads back: the second line sees the first one's.
    device.Run("setenv 4000 4000 m w\n");
    EXPECT_EQ(device.Flash(0x4000, Device::kBlock), WithCrc("n=v|m=w", Device::kBlock));
}

TEST(SetEnv, ReadsAcrossBadBlocksAndWritesAroundThem) {
    const std::string old = WithCrc(kEntries, 2 * Device::kBlock);
    const std::string changed = WithCrc("a=1|b=2|boot=run x; y=z|n=v", 2 * Device::kBlock);
    {
        // Nothing but the bad block: read, rebuilt, written nowhere.
        Device device("2");
        UseChipEcc(device);
        device.Run("# none\n");
        const std::string before = device.Raw(64, 32);
        const Outcome outcome = device.Run("setenv 8000 4000 n v\n");
        EXPECT_EQ(outcome.err, "warning : skip bad block at 8000\nwrite n = v to env\n");
        EXPECT_EQ(outcome.Count("read"), 32U);
        EXPECT_EQ(outcome.Count("MEMERASE64"), 0U);
        EXPECT_EQ(device.Raw(64, 32), before);
    }
    {
        Device device("3");
        UseChipEcc(device);
        device.File("env", old.substr(0, Device::kBlock));
        const Outcome outcome = device.Run("write 8000 4000 env\nsetenv 8000 8000 n v\n");
        EXPECT_EQ(outcome.err.substr(outcome.err.rfind("warning")),
                  "warning : skip bad block at c000\nwrite n = v to env\n");
        EXPECT_EQ(device.Flash(0x8000, Device::kBlock), changed.substr(0, Device::kBlock));
    }
    {
        // The bad block's bytes count as the block's first half: erased flash, so the list is empty.
        Device device("2");
        UseChipEcc(device);
        device.Run("setenv 8000 8000 n v\n");
        EXPECT_EQ(device.Flash(0xc000, Device::kBlock), WithCrc("n=v", 2 * Device::kBlock).substr(0, Device::kBlock));
    }
}

TEST(SetEnv, SaysWhatFailedAndLetsTheNextLineRun) {
    const struct {
        std::string place, options, err;
        int whole; ///< blocks of the range that were rewritten; -1: nothing was erased
    } rows[] = {
        {"8001 8000", "", "error : invalid offset=32769, blocksize = 16384\n", -1},
        {"8000 8001", "", "error : invalid size=32769, blocksize = 16384\n", -1},
        {"8000 0", "", "error : invalid size=0, blocksize = 16384\n", -1},
        {"8000 -8000", "", "error : invalid size=-32768, blocksize = 16384\n", -1},
        {"fc000 8000", "", "error : read failed at 100000\n", -1},
        {"8000 7fffc000", "", "error : read failed at 100000\n", -1},
        {"8000 8000", "--fault read:5=EIO", "error : read failed at 8800\n", -1},
        {"8000 8000", "--fault open=ENODEV", "error : read failed at 8000\n", -1},
        {"0 0", "--no-sysfs writesize", "error : unknown flash geometry, blocksize = 16384, pagesize = 0\n", -1},
        {"0 0", "--no-sysfs erasesize", "error : unknown flash geometry, blocksize = 0, pagesize = 512\n", -1},
        {"8000 8000", "--fault MEMGETBADBLOCK:2=EIO", "error : fail to check bad block at c000\n", 1},
        {"8000 8000", "--fault MEMERASE64:2=EIO --fault MEMERASE=EIO", "error : erase failed at c000\n", 1},
        {"8000 8000", "--fault write:34=EIO", "error : write page return -1\n", 1},
    };
    const std::string old = WithCrc(kEntries, 2 * Device::kBlock);
    const std::string changed = WithCrc(std::string(kEntries) + "|n=v", 2 * Device::kBlock);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.place + " " + row.err);
        Device device;
        UseChipEcc(device);
        device.File("env", old);
        device.Run("write 8000 8000 env\n");
        device.Options(Split(row.options));
        const Outcome outcome = device.Run("setenv " + row.place + " n v\nsetenv 1 0 m w\n");
        const std::string err = row.err + "write n = v to env\nerror : ";
        EXPECT_EQ(outcome.err.substr(0, err.size()), err);
        EXPECT_EQ(outcome.status, 0);
        const std::string &first = row.whole < 0 ? old : changed;
        EXPECT_EQ(device.Flash(0x8000, Device::kBlock), first.substr(0, Device::kBlock));
        if (row.whole < 0) {
            EXPECT_EQ(device.Flash(0xc000, Device::kBlock), old.substr(Device::kBlock));
        }
    }
}

TEST(SetEnv, TouchesNothingWhenTheVariableDoesNotFit) {
    Device device;
    UseChipEcc(device);
    const std::string old = WithCrc("big=" + std::string(16300, 'x') + "|a=1", Device::kBlock);
    device.File("env", old);
    const std::string value(80, 'v');
    const Outcome outcome = device.Run("write 0 4000 env\nsetenv 0 4000 n " + value + "\n");
    EXPECT_EQ(outcome.err.substr(outcome.err.find("error")),
              "error : environment of 16384 bytes is full, n not set\nwrite n = " + value + " to env\n");
    EXPECT_EQ(device.Flash(0, Device::kBlock), old);
}

TEST(SetEnv, HandsTheShortFormToTheDevicesOwnToolWithinACommandsLength) {
    Device device;
    device.File("/bin/bootvars", "#!/bin/sh\necho \"bootvars $*\"\nexit 1\n");
    const std::string fits(236, 'v');
    const Outcome outcome =
        device.Run("setenv side b #\nsetenv a b # x\nsetenv n " + fits + "\nsetenv n " + fits + "w\n");
    // One word behind the value stays short; two make it the long form.
    EXPECT_EQ(outcome.OthersOut(), "bootvars -s side b\nbootvars -s n " + fits + "\n");
    EXPECT_EQ(outcome.err, "write side = b to env\nerror : invalid offset=10, blocksize = 16384\nwrite # = x to env\n"
                           "write n = " +
                               fits + " to env\nerror : command too long: /bin/bootvars -s n " + fits +
                               "w\nwrite n = " + fits + "w to env\n");
    EXPECT_EQ(outcome.status, 0);
}
