#include "MemoryChip.h"
#include "UbiCases.h"

#include "base/TempFolder.h"
#include "ubi/UbiAttach.h"
#include "ubi/UbiImage.h"
#include "verdict/Verdict.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr UbiGeometry kUbiGeometry = kUbiChip;

/// The images of make-images, made once.
const Bytes &Image(const std::string &name) {
    static const TempFolder folder;
    static std::map<std::string, Bytes> images;
    if (images.empty() && std::system((MAKE_UBI_IMAGES " '" + folder.File("") + "' >/dev/null 2>&1").c_str()) != 0)
        throw std::runtime_error("make-images failed");
    Bytes &image = images[name];
    if (image.empty()) {
        std::ifstream file(folder.File(name + ".ubi"), std::ios::binary);
        image.assign(std::istreambuf_iterator<char>(file), {});
    }
    return image;
}

Bytes Image(const std::string &name, std::vector<UbiPatch> patches) {
    return Patched(Image(name), {"", name, std::move(patches), 0, false, 0, ""});
}

ImagePebs Pebs(const Bytes &image) { return ImagePebs(image.data(), image.size(), kUbiGeometry.pebSize, 128); }
UbiAttachment Attach(const Bytes &image) { return AttachUbi(Pebs(image), kUbiGeometry, {2048, 20}); }

std::uint32_t Sum(const UbiPebs &pebs) {
    return pebs.bad + pebs.used + pebs.free + pebs.erase + pebs.corrupted + pebs.alien;
}

TEST(Ubi, EachCaseIsAttachedOrRefusedAsByTheKernel) {
    // Where each page has its ECC, it makes no difference that the chip computes it, and that is faster.
    std::map<std::pair<int, Ecc>, std::unique_ptr<MemoryChip>> chips;
    for (const UbiCase &ubiCase : kUbiCases) {
        SCOPED_TRACE(ubiCase.name);
        const PartitionCase &partition = kUbiPartitions.at(static_cast<std::size_t>(ubiCase.partition));
        const Ecc ecc = ubiCase.isRaw ? Ecc::Host : Ecc::Chip;
        auto &chip = chips[{ubiCase.partition, ecc}];
        if (chip == nullptr) {
            chip = std::make_unique<MemoryChip>(partition.pebs, ecc);
            for (const std::uint32_t peb : partition.badPebs)
                chip->chip.MarkBad(peb);
        }
        MemoryChip &memory = *chip;
        memory.Erase();
        memory.Write(Patched(Image(ubiCase.image), ubiCase), !ubiCase.isRaw);
        const UbiAttachment attachment = memory.Attach();
        EXPECT_EQ(attachment.error, ubiCase.error) << attachment.reason;
        EXPECT_NE(attachment.reason.find(ubiCase.reason), std::string::npos) << attachment.reason;
        EXPECT_EQ(attachment.IsAttached(), attachment.reason.empty());
        EXPECT_TRUE(!attachment.IsAttached() || Sum(attachment.pebs) == partition.pebs);
    }
}

TEST(Ubi, TellsVolumesReserveAndRoomOfAWholeImage) {
    MemoryChip memory(128);
    memory.chip.MarkBad(4);
    memory.Write(Image("two"));
    const UbiAttachment ubi = memory.Attach();
    ASSERT_TRUE(ubi.IsAttached()) << ubi.reason;
    EXPECT_EQ(std::make_tuple(ubi.pebs.bad, ubi.pebs.used, ubi.pebs.empty), std::make_tuple(1U, 7U, 120U));
    EXPECT_EQ(std::make_tuple(ubi.wantedForBad, ubi.reservedForBad, ubi.available, ubi.SpareBlocks()),
              std::make_tuple(39U, 39U, 0U, 39U));
    EXPECT_EQ(ubi.imageSequence, 305419896U);
    ASSERT_EQ(ubi.volumes.size(), 2U);
    const UbiVolume &rootfs = ubi.volumes[0];
    EXPECT_EQ(rootfs.name, "rootfs");
    EXPECT_TRUE(rootfs.isAutoresized);
    EXPECT_EQ(rootfs.tablePebs, 8U);
    // 128, without the bad one, the volume table, 4 of the other volume, 2 of UBI itself and the reserve.
    EXPECT_EQ(rootfs.reservedPebs, 128U - 1 - 2 - 4 - 2 - 39);
    EXPECT_EQ(rootfs.lebs.size(), 3U);
    EXPECT_EQ(rootfs.lebs.at(2).peb, 5U);
    const UbiVolume &data = ubi.volumes[1];
    EXPECT_TRUE(data.isStatic);
    EXPECT_EQ(data.reservedPebs, 4U);
    EXPECT_EQ(data.dataBytes, 200000U);
    EXPECT_TRUE(DamagedLebs(data, memory.Pebs(), kUbiGeometry).empty());
}

TEST(Ubi, CountsThePebsForBadBlocksOverTheWholeChip) {
    const struct {
        std::uint64_t blocks;
        std::uint32_t per1024;
        std::uint32_t limit;
    } rows[] = {{2048, 20, 40}, {1024, 20, 20}, {1000, 20, 20}, {1025, 20, 21}, {64, 20, 2}, {2048, 0, 0}, {0, 20, 0}};
    for (const auto &row : rows)
        EXPECT_EQ((UbiSettings{row.blocks, row.per1024}.BadPebLimit()), row.limit) << row.blocks;
}

TEST(Ubi, SortsDamagedPebsAsTheKernelDoes) {
    const struct {
        const char *name;
        std::uint32_t used, erase, corrupted, alien;
        bool isTableRepaired;
    } rows[] = {
        {"ec-crc", 7, 121, 0, 0, false},        {"vid-crc", 6, 121, 1, 0, false},
        {"both-headers", 6, 122, 0, 0, false},  {"record-crc", 7, 121, 0, 0, true},
        {"newer-twin", 6, 122, 0, 0, false},    {"sealed-vid-vol-id-gone", 6, 122, 0, 0, false},
        {"foreign-delete", 7, 121, 0, 0, true}, {"foreign-preserve", 7, 120, 0, 1, true},
        {"table-tail", 7, 121, 0, 0, true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const auto named = [&](const UbiCase &ubiCase) { return ubiCase.name == row.name; };
        const auto found = std::find_if(kUbiCases.begin(), kUbiCases.end(), named);
        ASSERT_NE(found, kUbiCases.end());
        MemoryChip memory(128);
        memory.Write(Patched(Image(found->image), *found));
        const UbiAttachment ubi = memory.Attach();
        EXPECT_EQ(
            std::make_tuple(ubi.pebs.used, ubi.pebs.erase, ubi.pebs.corrupted, ubi.pebs.alien, ubi.isTableRepaired),
            std::make_tuple(row.used, row.erase, row.corrupted, row.alien, row.isTableRepaired));
    }
}

TEST(Ubi, FindsWhatIsWrongWithTheContentsOfVolumes) {
    Bytes image = Image("two");
    image[5UL * 131072 + 2048 + 100] ^= 0x80; // static volume, LEB 0
    MemoryChip memory(128);
    memory.Write(image);
    const Bytes zeros(kUbiGeometry.pageSize, 0);
    NandChip::PageProgram program;
    program.data = zeros.data();
    program.length = kUbiGeometry.pageSize;
    memory.chip.Program(3 * 64 + 10, program); // dynamic volume, LEB 1
    const UbiAttachment ubi = memory.Attach();
    ASSERT_TRUE(ubi.IsAttached()) << ubi.reason;
    EXPECT_EQ(DamagedLebs(ubi.volumes[1], memory.Pebs(), kUbiGeometry), (std::vector<std::uint32_t>{0}));
    EXPECT_EQ(UnreadableLebs(ubi.volumes[0], memory.Pebs(), kUbiGeometry), (std::vector<std::uint32_t>{1}));
    EXPECT_EQ(ubi.pebs.unsound, 0U);
    memory.chip.Program(3 * 64, program);
    EXPECT_EQ(memory.Attach().pebs.unsound, 1U);
}

TEST(Ubi, ReadsTheSuperblockOfUbifs) {
    const auto problem = [](const char *name) {
        const ImagePebs pebs = Pebs(Image(name));
        const UbiAttachment ubi = AttachUbi(pebs, kUbiGeometry, {2048, 20});
        const auto super = ReadUbifs(ubi.volumes.at(0), pebs, kUbiGeometry);
        return super ? super->Problem(ubi.volumes[0], kUbiGeometry) : "none";
    };
    EXPECT_EQ(problem("files"), "");
    EXPECT_EQ(problem("subless"), "it is made with -e 126976 and needs 129024");
    EXPECT_EQ(problem("two"), "none");
}

TEST(Ubi, LooksAtAnImageByItself) {
    const struct {
        const char *name;
        bool isUbi, fits, isWhole;
        std::uint32_t vidHeaderOffset, dataOffset, pebSize;
    } rows[] = {
        {"two", true, true, true, 512, 2048, 131072},
        {"page-headers", true, false, true, 2048, 4096, 131072},
        {"large-pages", true, false, true, 1024, 4096, 131072},
        {"small-blocks", true, false, true, 512, 2048, 65536},
        {"noise", false, false, false, 0, 0, 0},
        {"erased", false, false, true, 0, 0, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const Bytes &bytes = Image(row.name);
        const UbiImage image = ReadUbiImage(bytes.data(), bytes.size(), kUbiGeometry);
        EXPECT_EQ(std::make_tuple(image.isUbi, FitsChip(image, kUbiGeometry), image.isWhole),
                  std::make_tuple(row.isUbi, row.fits, row.isWhole));
        EXPECT_EQ(std::make_tuple(image.vidHeaderOffset, image.dataOffset, image.pebSize.value_or(0)),
                  std::make_tuple(row.vidHeaderOffset, row.dataOffset, row.pebSize));
    }
    Bytes torn = Image("two");
    torn[4UL * 131072] ^= 0x01;
    EXPECT_EQ(ReadUbiImage(torn.data(), torn.size(), kUbiGeometry).damagedPebs, (std::vector<std::uint32_t>{4}));
}

TEST(Ubi, RefusesTheVolumeTableThatPanicsTheKernel) {
    const Bytes third = Image("two", {{UbiPlace::VidHeader, 1, 15, 0x03, true}});
    EXPECT_EQ(Attach(third).reason, "the volume table has a LEB that isn't 0 or 1");
}

TEST(Ubi, FindsGapsBetweenTheLebsOfAVolume) {
    UbiVolume volume;
    EXPECT_TRUE(MissingLebs(volume).empty());
    for (const std::uint32_t number : {1U, 2U, 5U})
        volume.lebs[number];
    EXPECT_EQ(MissingLebs(volume), (std::vector<std::uint32_t>{0, 3, 4}));
}

/// The kinds of findings about one script line that left `written` on the partition of /dev/mtd9, 128 of 160 blocks,
/// and touched no other block; none at all when `written` is empty.
std::string Told(const std::string &line, const Bytes &image, const Bytes &written, Ecc ecc = Ecc::Host,
                 bool withEcc = true) {
    constexpr std::uint32_t kFirstBlock = 32;
    MemoryChip memory(160, ecc);
    memory.Erase();
    memory.chip.ForgetMarks();
    for (std::uint32_t block = kFirstBlock; !written.empty() && block < memory.geometry.Blocks(); ++block)
        memory.chip.Erase(block);
    memory.Write(written, withEcc, kFirstBlock);
    RunRecord record;
    record.script = line + "\n";
    record.devices = {{0, "all", 0, memory.geometry.size},
                      {8, "tiny", 0, 3UL * kUbiGeometry.pebSize},
                      {9, "opt", std::uint64_t{kFirstBlock} * kUbiGeometry.pebSize, 128UL * kUbiGeometry.pebSize}};
    record.files = {{"one", static_cast<std::int64_t>(image.size())}};
    record.contents["one"].assign(image.begin(), image.end());
    record.out = "prepare ubi ...\nexecute /bin/sh status 0\nexecute /tmp/update/ubiformat status 0\n"
                 "running update script /u/flashrig.script\n";
    const std::string device = line.substr(line.find(' ') + 1, 9);
    record.err = line[0] == 'u' ? "ubiformat /u/one to <MTD> " + device + "\n"
                                : "write /u/one to flash address 400000\nerase complete\n offset=400000 size=1000000\n"
                                  "write file complete\n read size = 1\n";
    std::string kinds;
    for (const Finding &finding : Judge(RunFacts(record, memory.chip)).findings)
        kinds += finding.severity == Severity::Note ? "" : finding.kind + " ";
    return kinds;
}

TEST(Ubi, IsJudgedBeforeAndAfterTheRun) {
    const std::string format = "ubiformat /dev/mtd9 one";
    const std::string write = "write 400000 1000000 one";
    const Bytes two = Image("two");
    const Bytes twins = Image("two", {{UbiPlace::VidHeader, 3, 15, 0x01, true}});
    const Bytes marked = Image("two", {{UbiPlace::Record, 0, 13, 0x01, true}, {UbiPlace::Record, 1, 13, 0x01, true}});
    Bytes gap = two;
    std::fill_n(gap.begin() + 3L * kUbiGeometry.pebSize + 512, 64, 0xFF);
    const Bytes torn(two.begin(), two.end() - 2048);
    const Bytes tornInHeader(two.begin(), two.end() - kUbiGeometry.pebSize + 512);
    Bytes wrongData = two;
    wrongData[5UL * kUbiGeometry.pebSize + 2048] ^= 0x01;
    const Bytes noise = Image("noise");
    EXPECT_EQ(Told(format, two, two), "");
    EXPECT_EQ(Told(format, two, {}), "ubi-untouched ");
    EXPECT_EQ(Told(format, two, noise), "ubi-refused ");
    EXPECT_EQ(Told(format, noise, noise), "not-ubi ");
    EXPECT_EQ(Told("ubiformat /dev/mtd5 one", two, {}), "not-mtd ");
    EXPECT_EQ(Told("ubiformat /dev/mtd5 one", twins, {}), "not-mtd ubi-damaged-image ");
    EXPECT_EQ(Told("ubiformat /dev/mtd8 one", two, two), "other-device ubi-too-large ubi-damaged-image ubi-untouched ");
    EXPECT_EQ(Told(format, Image("page-headers"), two), "ubi-geometry ");
    EXPECT_EQ(Told(format, Image("small-blocks"), two), "ubi-geometry ");
    EXPECT_EQ(Told(format, torn, two), "ubi-length ");
    EXPECT_EQ(Told(format, tornInHeader, tornInHeader), "ubi-length ubi-missing-lebs ubi-damaged-volume ");
    EXPECT_EQ(Told(format, twins, twins), "ubi-damaged-image ubi-refused ");
    EXPECT_EQ(Told(format, gap, gap), "ubi-missing-lebs ");
    EXPECT_EQ(Told(format, Image("subless"), Image("subless")), "ubifs-mismatch ");
    EXPECT_EQ(Told(format, two, marked), "ubi-update-marker ");
    EXPECT_EQ(Told(format, two, wrongData), "ubi-damaged-volume ");
    EXPECT_EQ(Told(format, Image("big"), Image("big")), "ubi-reserve ");
    EXPECT_EQ(Told(format, two, Image("two", {{UbiPlace::VidHeader, 3, 63, 0x01, false}})), "ubi-corrupted spoiled ");
    // A raw write leaves ECC only on a chip that computes it.
    EXPECT_EQ(Told(write, Image("page-headers"), Image("page-headers"), Ecc::Chip), "");
    EXPECT_EQ(Told(write, two, two, Ecc::Host, false), "ubi-refused missing-ecc ");
    EXPECT_EQ(Told(write, two, two), "missing-ecc ") << "a kernel without MEMWRITE adds the ECC";
    EXPECT_EQ(Told(write, Image("page-files"), Image("page-files"), Ecc::Chip), "ubifs-free-space ");
    EXPECT_EQ(Told(write, noise, noise, Ecc::Host, false), "") << "other images are not UBI's";
}

TEST(Ubi, TellsWhatAPartitionLostAgainstAnother) {
    const auto attach = [](const std::string &image, const std::vector<UbiPatch> &patches) {
        return Attach(Image(image, patches));
    };
    const UbiAttachment two = attach("two", {});
    const auto inBoth = [](std::uint32_t offset, std::uint8_t flipped) {
        return std::vector<UbiPatch>{{UbiPlace::Record, 0, offset, flipped, true},
                                     {UbiPlace::Record, 1, offset, flipped, true}};
    };
    EXPECT_EQ(AttachmentLoss(two, two), "");
    EXPECT_EQ(AttachmentLoss(two, attach("two", {{UbiPlace::EcHeader, 3, 15, 0xFF, true}})), "");
    EXPECT_EQ(AttachmentLoss(two, attach("noise", {})), "the kernel does not attach it: there is no volume table");
    EXPECT_EQ(AttachmentLoss(attach("noise", {}), two), "") << "nothing was there to lose";
    EXPECT_EQ(AttachmentLoss(two, attach("two", inBoth(16, 0x20))), "volume \"rootfs\" is lost");
    EXPECT_EQ(AttachmentLoss(two, attach("two", inBoth(13, 0x01))), "an update of volume \"rootfs\" was interrupted");
    EXPECT_EQ(AttachmentLoss(two, attach("two", {{UbiPlace::VidHeader, 4, 63, 1, false}})),
              "volume \"rootfs\" has other LEBs");
    EXPECT_EQ(AttachmentLoss(attach("erased", {}), two), "there are other volumes");
}

} // namespace
