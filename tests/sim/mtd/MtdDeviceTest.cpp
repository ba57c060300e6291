#include "mtd/MtdDevice.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/ioctl.h>
#include <mtd/mtd-user.h>
#include <string>

namespace {

constexpr std::int64_t kBlock = 0x4000;
constexpr std::int64_t kPage = 512;
constexpr std::int64_t kOob = 16;
constexpr std::int64_t kSize = 3 * kBlock;
constexpr NandGeometry kGeometry = {5 * kBlock, kBlock, kPage, kOob};

struct PowerIsOff {
    std::uint64_t offset;
};

/// Surroundings that write down what they are told.
class Notebook : public FlashEvents {
public:
    void Note(std::uint64_t offset, const char *text) override { notes += std::to_string(offset) + " " + text + "\n"; }
    Extent BeginChange() override { return ++changes == cutAtChange ? Extent::FirstHalf : Extent::Whole; }
    [[noreturn]] void PowerOff(std::uint64_t offset) override { throw PowerIsOff{offset}; }

    std::string notes;
    int changes = 0;
    int cutAtChange = 0;
};

/// A device over blocks 1 to 3 of a chip of five; the device's block 2 is bad. Seeks, bad blocks and permissions are in
/// the list of requests that the board makes of the real kernel.
class MtdDeviceTest : public testing::Test {
protected:
    MtdDeviceTest() {
        chip.Format();
        chip.MarkBad(3);
    }

    template <typename Structure> int Request(unsigned long request, Structure structure) {
        return device.Request(file, request, &structure);
    }

    int WritePage(std::uint64_t start, std::uint64_t length, std::uint64_t oobLength, std::uint8_t mode) {
        return Request(MEMWRITE, mtd_write_req{start,
                                               length,
                                               oobLength,
                                               length != 0 ? Address(buffer.data()) : 0,
                                               oobLength != 0 ? Address(oob.data()) : 0,
                                               mode,
                                               {}});
    }

    static std::uint64_t Address(const void *data) { return reinterpret_cast<std::uintptr_t>(data); }
    const std::uint8_t *OobOfPage(std::uint32_t page) { return chip.Cells(kBlock / kPage + page) + kPage; }

    std::vector<std::uint8_t> cells = std::vector<std::uint8_t>(kGeometry.RawSize());
    std::vector<std::uint8_t> pages = std::vector<std::uint8_t>(kGeometry.Pages());
    std::vector<std::uint8_t> blocks = std::vector<std::uint8_t>(kGeometry.Blocks());
    NandChip chip = NandChip(kGeometry, Ecc::Host, {cells.data(), pages.data(), blocks.data()});
    Notebook events;
    MtdDevice device = MtdDevice(chip, events, kBlock, kSize);
    OpenFile file = {0, 0, O_RDWR};
    OpenFile readOnly = {0, 0, O_RDONLY};
    std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(kSize, 0x11);
    std::vector<std::uint8_t> oob = std::vector<std::uint8_t>(5000, 0x22);
};

} // namespace

TEST_F(MtdDeviceTest, ReadAndWriteEndWithTheDevice) {
    const struct {
        std::int64_t position;
        std::size_t length;
        std::int64_t written, read;
    } rows[] = {
        {0, 3 * kPage, 3 * kPage, 3 * kPage},
        {kPage / 2, kPage, kPage, kPage},
        {1, kPage, -EINVAL, kPage},
        {2 * kPage, 100, -EINVAL, 100},
        {kSize - kPage, 2 * kPage, kPage, kPage},
        {kSize, kPage, -ENOSPC, 0},
        {0, 0, 0, 0},
        {0, SIZE_MAX, -EFAULT, -EFAULT},
    };
    for (const auto &row : rows) {
        OpenFile here = {row.position, 0, O_RDWR};
        EXPECT_EQ(device.Write(here, buffer.data(), row.length), row.written) << row.position;
        EXPECT_EQ(here.position, row.position + std::max<std::int64_t>(row.written, 0));
        here.position = row.position;
        EXPECT_EQ(device.Read(here, buffer.data(), row.length), row.read) << row.position;
        EXPECT_EQ(here.position, row.position + std::max<std::int64_t>(row.read, 0));
    }
    EXPECT_EQ(device.Write(readOnly, buffer.data(), kPage), -EBADF);
    EXPECT_EQ(device.Read(file, nullptr, kPage), -EFAULT);
}

TEST_F(MtdDeviceTest, ErasesWholeGoodBlocks) {
    const struct {
        std::uint64_t start, length;
        int result;
    } rows[] = {
        {0, 2 * kBlock, 0},         {0, kPage, -EINVAL},          {kPage, kBlock, -EINVAL},
        {2 * kBlock, kBlock, -EIO}, {kBlock, 2 * kBlock, -EIO},   {kBlock, 0, 0},
        {kSize, kBlock, -EINVAL},   {0, kSize + kBlock, -EINVAL}, {1, 0, 0},
        {kSize, 0, -EINVAL},        {UINT64_MAX, 2, -EINVAL},
    };
    for (const auto &row : rows)
        EXPECT_EQ(Request(MEMERASE64, erase_info_user64{row.start, row.length}), row.result) << row.start;
    EXPECT_EQ(events.changes, 3);
    EXPECT_EQ(Request(MEMERASE, erase_info_user{kBlock, kBlock}), 0);
    EXPECT_EQ(chip.Mark(0), BlockMark::Untouched);
    chip.MakeWeakBlock(1);
    EXPECT_EQ(Request(MEMERASE, erase_info_user{0, kBlock}), -EIO);
}

TEST_F(MtdDeviceTest, PageWritesFollowTheKernelsChecks) {
    const struct {
        std::uint64_t start, length, oobLength;
        std::uint8_t mode;
        int result, changes;
    } rows[] = {
        {0, kPage, 0, MTD_OPS_RAW, 0, 1},
        {kPage, kPage, kOob, MTD_OPS_RAW, 0, 1},
        {2 * kPage, 2 * kPage, 2 * kOob, MTD_OPS_RAW, 0, 2},
        {4 * kPage, kPage, 8, MTD_OPS_AUTO_OOB, 0, 1},
        {5 * kPage, 0, kOob, MTD_OPS_PLACE_OOB, 0, 1},
        {5 * kPage, 0, kOob + 1, MTD_OPS_PLACE_OOB, -EINVAL, 0},
        {5 * kPage, 0, 0, MTD_OPS_RAW, 0, 0},
        {6 * kPage, kPage / 2, 0, MTD_OPS_RAW, 0, 1},
        {6 * kPage, kPage / 4, 0, MTD_OPS_RAW, -EINVAL, 0},
        {6 * kPage, kPage, 0, 7, -524, 0},
        {kBlock - kPage, 2 * kPage, 0, MTD_OPS_RAW, 0, 2},
        {kSize - kPage, 2 * kPage, 0, MTD_OPS_RAW, -EINVAL, 0},
        {0xFFFFFFFF80000000, kPage, 0, MTD_OPS_RAW, -EINVAL, 0},
    };
    for (const auto &row : rows) {
        events.changes = 0;
        EXPECT_EQ(WritePage(row.start, row.length, row.oobLength, row.mode), row.result) << row.start;
        EXPECT_EQ(events.changes, row.changes) << row.start;
    }
    const std::string untouched(16, '\xFF'), all(16, '\x22');
    const auto oobText = [&](std::uint32_t page) { return std::string(OobOfPage(page), OobOfPage(page) + kOob); };
    EXPECT_EQ(oobText(0), untouched);
    EXPECT_EQ(oobText(3), all);
    EXPECT_EQ(oobText(4).substr(8), all.substr(8));
    EXPECT_EQ(oobText(5), all);
    EXPECT_EQ(events.notes, "");
    EXPECT_EQ(WritePage(0, kPage, 0, MTD_OPS_PLACE_OOB), 0);
    buffer[0] = 0xFF;
    EXPECT_EQ(WritePage(0, kPage, 0, MTD_OPS_RAW), 0);
    EXPECT_EQ(events.notes, "16384 programmed over unerased bits\n");
}

TEST_F(MtdDeviceTest, OobRequestsStayOnOnePageToWriteAndMayReadSeveral) {
    const struct {
        unsigned long request;
        std::uint64_t start;
        std::uint32_t length;
        int result;
    } rows[] = {
        {MEMWRITEOOB64, kPage, kOob, 0},
        {MEMWRITEOOB64, 2 * kPage + 4, kOob - 4, 0},
        {MEMWRITEOOB64, 3 * kPage + 4, kOob, -EINVAL},
        {MEMWRITEOOB64, 3 * kPage, 2 * kOob, -EINVAL},
        {MEMWRITEOOB64, kSize, kOob, -EINVAL},
        {MEMREADOOB64, kPage, 2 * kOob, 0},
        {MEMREADOOB64, kSize - kPage, 2 * kOob, -EINVAL},
        {MEMREADOOB64, 0, 4097, -EINVAL},
        {MEMREADOOB64, 0xFFFFFFFF80000000, kOob, -EINVAL},
    };
    for (const auto &row : rows)
        EXPECT_EQ(Request(row.request, mtd_oob_buf64{row.start, 0, row.length, Address(oob.data())}), row.result);
    const std::string expected = std::string(kOob, '\x22') + std::string(4, '\xFF') + std::string(kOob - 4, '\x22');
    EXPECT_EQ(std::string(oob.begin(), oob.begin() + 2 * kOob), expected);
    EXPECT_EQ(Request(MEMWRITEOOB64, mtd_oob_buf64{0, 0, kOob, 0}), -EFAULT);
    EXPECT_EQ(Request(MEMREADOOB64, mtd_oob_buf64{0, 0, kOob, 0}), -EFAULT);
}

TEST_F(MtdDeviceTest, NormalReadOfARawPageSucceedsAndIsNoted) {
    WritePage(0, kPage, 0, MTD_OPS_RAW);
    buffer[0] = 0xFE;
    WritePage(kPage, kPage, 0, MTD_OPS_RAW);
    EXPECT_EQ(device.Read(file, buffer.data(), 3 * kPage), 3 * kPage);
    EXPECT_EQ(events.notes, "16896 read without valid ECC\n");
}

TEST_F(MtdDeviceTest, PowerCutLeavesHalfAChange) {
    WritePage(kBlock - kPage, kPage, 0, MTD_OPS_RAW);
    events.cutAtChange = 2;
    EXPECT_THROW(WritePage(0, kPage, kOob, MTD_OPS_RAW), PowerIsOff);
    const std::uint8_t *page = chip.Cells(kBlock / kPage);
    EXPECT_EQ(std::string(page, page + kPage), std::string(kPage / 2, '\x11') + std::string(kPage / 2, '\xFF'));
    EXPECT_EQ(*OobOfPage(0), 0xFF);
    events.cutAtChange = 3;
    EXPECT_THROW(Request(MEMERASE, erase_info_user{0, kBlock}), PowerIsOff);
    EXPECT_EQ(page[0], 0xFF);
    EXPECT_EQ(*chip.Cells(2 * kBlock / kPage - 1), 0x11);
}
