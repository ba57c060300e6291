#include "mtd/MtdDevice.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/ioctl.h>
#include <mtd/mtd-user.h>
#include <string>
#include <vector>

namespace {

constexpr std::int64_t kBlock = 0x4000;
constexpr std::int64_t kPage = 512;
constexpr std::int64_t kOob = 16;
constexpr std::int64_t kSize = 3 * kBlock;
constexpr NandGeometry kFlash = {5 * kBlock, kBlock, kPage, kOob};

struct PowerIsOff {
    std::uint64_t offset;
};

/// Surroundings that write down what they are told.
class Notebook : public ChangeListener {
public:
    void Note(std::uint64_t offset, const char *text) override { notes += std::to_string(offset) + " " + text + "\n"; }
    Extent BeginChange(std::uint64_t) override { return ++changes == cutAtChange ? Extent::FirstHalf : Extent::Whole; }
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

    /// A request about one place of the device: a block, a page or its OOB, or a byte of a block.
    int Ask(unsigned long request, std::uint64_t at) {
        const auto shortAt = static_cast<std::uint32_t>(at);
        const std::uint64_t spare = Address(oob.data());
        switch (request) {
        case MEMGETBADBLOCK:
        case MEMSETBADBLOCK:
            return Request(request, static_cast<loff_t>(at));
        case MEMERASE64:
            return Request(request, erase_info_user64{at, kBlock});
        case MEMWRITE:
            return WritePage(at, kPage, 0, MTD_OPS_RAW);
        case MEMREAD:
            return Request(request, mtd_read_req{at, kPage, 0, Address(buffer.data()), 0, MTD_OPS_RAW, {}, {}});
        case MEMWRITEOOB64:
        case MEMREADOOB64:
            return Request(request, mtd_oob_buf64{at, 0, kOob, spare});
        case MEMWRITEOOB:
        case MEMREADOOB:
            return Request(request, mtd_oob_buf{shortAt, kOob, oob.data()});
        default:
            return Request(request, erase_info_user{shortAt, kBlock});
        }
    }

    static std::uint64_t Address(const void *data) { return reinterpret_cast<std::uintptr_t>(data); }
    const std::uint8_t *OobOfPage(std::uint32_t page) { return chip.Cells(kBlock / kPage + page) + kPage; }

    std::vector<std::uint8_t> cells = std::vector<std::uint8_t>(kFlash.RawSize());
    std::vector<std::uint8_t> pages = std::vector<std::uint8_t>(kFlash.Pages());
    std::vector<std::uint8_t> blocks = std::vector<std::uint8_t>(kFlash.Blocks());
    NandChip chip = NandChip(kFlash, Ecc::Host, {cells.data(), pages.data(), blocks.data()});
    Notebook events;
    MtdCounters counters = {};
    PageCache cache = {{PageCache::kNone}, {0}};
    MtdDevice device = MtdDevice(chip, events, {kBlock, kSize, counters, cache});
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
    } rows[] = {{0, 2 * kBlock, 0},
                {0, kPage, -EINVAL},
                {kPage, kBlock, -EINVAL},
                {kBlock, 2 * kBlock, -EIO},
                {kBlock, 0, 0},
                {0, kSize + kBlock, -EINVAL},
                {1, 0, 0},
                {kSize, 0, -EINVAL},
                {UINT64_MAX, 2, -EINVAL}};
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
    // Half a page with OOB bytes: those of the other half's ECC stay erased.
    EXPECT_EQ(WritePage(7 * kPage + kPage / 2, kPage / 2, kOob, MTD_OPS_PLACE_OOB), 0);
    EXPECT_EQ(oobText(7).substr(0, 3), untouched.substr(0, 3));
    EXPECT_EQ(oobText(7).substr(8), all.substr(8));
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
        {MEMWRITEOOB64, kSize - kPage, 0, 0},
        {MEMWRITEOOB64, kSize, 0, -EINVAL},
        {MEMREADOOB64, kSize + 1, 0, -EINVAL},
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

TEST_F(MtdDeviceTest, EveryRequestEndsWithTheDevice) {
    const struct {
        unsigned long request;
        std::uint64_t last; ///< the last place that is on the device
        int there;          ///< what the request gives at that place
    } rows[] = {
        {MEMGETBADBLOCK, kSize - 1, 1},   {MEMSETBADBLOCK, kSize - kBlock, 0}, {MEMERASE64, kSize - kBlock, -EIO},
        {MEMERASE, kSize - kBlock, -EIO}, {MEMLOCK, kSize - kBlock, -524},     {MEMUNLOCK, kSize - kBlock, -524},
        {MEMWRITE, kSize - kPage, 0},     {MEMREAD, kSize - kPage, 0},         {MEMWRITEOOB64, kSize - kPage, 0},
        {MEMREADOOB64, kSize - kPage, 0}, {MEMWRITEOOB, kSize - kPage, 0},     {MEMREADOOB, kSize - kPage, 0}};
    for (const auto &row : rows) {
        EXPECT_EQ(Ask(row.request, row.last), row.there) << std::hex << row.request;
        EXPECT_EQ(Ask(row.request, kSize), -EINVAL) << std::hex << row.request;
        EXPECT_EQ(Ask(row.request, kSize + kBlock), -EINVAL) << std::hex << row.request;
    }
}

TEST_F(MtdDeviceTest, RequestsThatNeedTheRightToWriteAreRefusedWithoutIt) {
    const struct {
        int result;
        std::vector<unsigned long> requests;
    } rows[] = {
        {-EPERM,
         {MEMERASE, MEMERASE64, MEMWRITE, MEMWRITEOOB, MEMWRITEOOB64, MEMLOCK, MEMUNLOCK, MEMSETBADBLOCK, OTPLOCK,
          OTPERASE}},
        {-EFAULT,
         {MEMGETBADBLOCK, MEMREAD, MEMREADOOB, MEMREADOOB64, MEMGETINFO, MEMGETREGIONCOUNT, MEMGETREGIONINFO,
          MEMISLOCKED, MEMGETOOBSEL, ECCGETLAYOUT, ECCGETSTATS, OTPSELECT}},
        {-EINVAL, {OTPGETREGIONCOUNT, OTPGETREGIONINFO}},
        {0, {MTDFILEMODE}},
        {-ENOTTY, {_IO('M', 99)}},
    };
    for (const auto &row : rows) {
        for (const unsigned long request : row.requests)
            EXPECT_EQ(device.Request(readOnly, request, nullptr), row.result) << std::hex << request;
    }
}

TEST_F(MtdDeviceTest, OobIsReadFromAColumnAndByMode) {
    for (std::uint8_t i = 0; i < kOob; ++i)
        oob[i] = static_cast<std::uint8_t>(0x40 + i);
    ASSERT_EQ(Request(MEMWRITEOOB, mtd_oob_buf{kPage, kOob, oob.data()}), 0);
    const auto read = [this](auto request, unsigned long number) {
        std::fill(oob.begin(), oob.end(), std::uint8_t{0xEE});
        const int result = device.Request(file, number, &request);
        return result != 0 ? std::to_string(result) : std::string(oob.begin(), std::find(oob.begin(), oob.end(), 0xEE));
    };
    const std::uint64_t spare = Address(oob.data());
    EXPECT_EQ(read(mtd_oob_buf64{kPage + 4, 0, 3, spare}, MEMREADOOB64), "DEF");
    EXPECT_EQ(read(mtd_oob_buf{kPage + 13, 3, oob.data()}, MEMREADOOB), "MNO");
    EXPECT_EQ(read(mtd_oob_buf64{kPage + 13, 0, 4, spare}, MEMREADOOB64), "-22");
    EXPECT_EQ(read(mtd_oob_buf64{kPage + kOob, 0, 1, spare}, MEMREADOOB64), "-22");
    EXPECT_EQ(read(mtd_read_req{kPage, 0, 3, 0, spare, MTD_OPS_AUTO_OOB, {}, {}}, MEMREAD), "HIJ");
    EXPECT_EQ(read(mtd_read_req{kPage, 0, 2, 0, spare, MTD_OPS_PLACE_OOB, {}, {}}, MEMREAD), "@A");
    EXPECT_EQ(read(mtd_read_req{kPage, 0, 2, 0, spare, 3, {}, {}}, MEMREAD), "-524");
    EXPECT_EQ(read(mtd_read_req{kSize, 0, 2, 0, spare, MTD_OPS_PLACE_OOB, {}, {}}, MEMREAD), "-22");
    // The old request stores its count in place of the start, the new one in the length.
    mtd_oob_buf old = {kPage, 5, oob.data()};
    ASSERT_EQ(device.Request(file, MEMREADOOB, &old), 0);
    EXPECT_EQ(old.start, 5U);
}

TEST_F(MtdDeviceTest, PageReadsTellTheWorkOfTheEcc) {
    std::fill(buffer.begin(), buffer.end(), std::uint8_t{0xFF});
    buffer[0] = 0xFE;           // looks like one turned bit
    buffer[kPage + 256] = 0xFC; // like damage
    ASSERT_EQ(WritePage(0, 2 * kPage, 0, MTD_OPS_RAW), 0);
    const std::uint64_t data = Address(buffer.data());
    mtd_read_req request = {0, 2 * kPage, 2 * kOob, data, Address(oob.data()), MTD_OPS_PLACE_OOB, {}, {}};
    EXPECT_EQ(device.Request(file, MEMREAD, &request), -EBADMSG);
    EXPECT_EQ((std::vector<std::uint64_t>{request.start, request.len, request.ooblen}),
              (std::vector<std::uint64_t>{2 * kPage, 2 * kPage, 2 * kOob}));
    EXPECT_EQ((std::vector<std::uint32_t>{request.ecc_stats.corrected_bitflips, request.ecc_stats.uncorrectable_errors,
                                          request.ecc_stats.max_bitflips}),
              (std::vector<std::uint32_t>{1, 1, 1}));
    EXPECT_EQ(buffer[0], 0xFF);
    EXPECT_EQ(Request(MEMREAD, mtd_read_req{0, kPage, 0, data, 0, MTD_OPS_PLACE_OOB, {}, {}}), -EUCLEAN);
    EXPECT_EQ(Request(MEMREAD, mtd_read_req{0, kPage, 0, data, 0, MTD_OPS_RAW, {}, {}}), 0);
    EXPECT_EQ(buffer[0], 0xFE);
    EXPECT_EQ(Request(MEMREAD, mtd_read_req{0, kPage, 0, 0, 0, MTD_OPS_RAW, {}, {}}), 0);
    EXPECT_EQ(counters.corrected, 2U);
    EXPECT_EQ(counters.failed, 1U);

    // Small pages: the rest of a page that was read in part comes from the kernel's memory, uncounted. Any write takes
    // that memory, one of a part of another page too.
    const auto correctedAfterReadOf10 = [this](std::int64_t position) {
        file.position = position;
        EXPECT_EQ(device.Read(file, buffer.data(), 10), 10);
        return counters.corrected.load();
    };
    EXPECT_EQ(correctedAfterReadOf10(0), 3U);
    EXPECT_EQ(correctedAfterReadOf10(10), 3U);
    EXPECT_EQ(WritePage(0, kPage, 0, MTD_OPS_RAW), 0);
    EXPECT_EQ(correctedAfterReadOf10(0), 4U);
    EXPECT_EQ(WritePage(8 * kPage, kPage / 2, 0, MTD_OPS_RAW), 0);
    EXPECT_EQ(correctedAfterReadOf10(0), 5U);
}

/// The argument of MTDFILEMODE, a number in place of an address.
void *FileMode(std::uintptr_t mode) {
    return reinterpret_cast<void *>(mode); // NOLINT(performance-no-int-to-ptr)
}

TEST_F(MtdDeviceTest, RawFilesReadAndWriteWithoutEcc) {
    std::fill(buffer.begin(), buffer.end(), std::uint8_t{0xFF});
    buffer[0] = 0xFE;
    ASSERT_EQ(device.Request(file, MTDFILEMODE, FileMode(MTD_FILE_MODE_RAW)), 0);
    ASSERT_EQ(device.Write(file, buffer.data(), kPage), kPage);
    EXPECT_EQ(*OobOfPage(0), 0xFF);
    file.position = 0;
    EXPECT_EQ(device.Read(file, buffer.data(), kPage), kPage);
    EXPECT_EQ(buffer[0], 0xFE);
    EXPECT_EQ(counters.corrected, 0U);
    // The change of the mode goes back to the start, a refused one to the normal mode as well.
    EXPECT_EQ(device.Request(file, MTDFILEMODE, FileMode(MTD_FILE_MODE_OTP_USER)), -EOPNOTSUPP);
    EXPECT_EQ(file.position, 0);
    EXPECT_EQ(device.Read(file, buffer.data(), kPage), kPage);
    EXPECT_EQ(counters.corrected, 1U);
    EXPECT_EQ(device.Request(file, MTDFILEMODE, reinterpret_cast<void *>(4)), -EINVAL);
    EXPECT_EQ(Request(OTPSELECT, int{MTD_OTP_FACTORY}), -EOPNOTSUPP);
    EXPECT_EQ(Request(OTPSELECT, int{MTD_OTP_OFF}), 0);
    EXPECT_EQ(Request(OTPSELECT, 9), -EINVAL);
}

TEST_F(MtdDeviceTest, MarksBlocksBadOnceAndCountsEachRequest) {
    ASSERT_EQ(WritePage(kPage, kPage, 0, MTD_OPS_RAW), 0);
    EXPECT_EQ(Request(MEMSETBADBLOCK, loff_t{0}), 0);
    EXPECT_TRUE(chip.IsBad(1));
    EXPECT_EQ(OobOfPage(0)[5], 0);
    EXPECT_EQ(chip.Cells(kBlock / kPage + 1)[0], 0xFF); // erased first
    EXPECT_EQ(events.changes, 3);
    EXPECT_EQ(Request(MEMSETBADBLOCK, loff_t{0}), 0);
    EXPECT_EQ(events.changes, 3);
    EXPECT_EQ(counters.badBlocks, 2U);
    // An offset inside the block marks that page, and nothing is erased.
    EXPECT_EQ(Request(MEMSETBADBLOCK, loff_t{2 * kBlock + kPage}), 0);
    EXPECT_TRUE(chip.IsBad(3));
    EXPECT_EQ(Request(MEMSETBADBLOCK, loff_t{-1}), -EINVAL);
    EXPECT_EQ(Request(MEMERASE64, erase_info_user64{0, kBlock}), -EIO);
}

TEST_F(MtdDeviceTest, TellsSizesAndOobLayout) {
    using Numbers = std::vector<std::uint32_t>;
    mtd_info_user info = {};
    ASSERT_EQ(device.Request(file, MEMGETINFO, &info), 0);
    EXPECT_EQ((Numbers{info.type, info.flags, info.size, info.erasesize, info.writesize, info.oobsize}),
              (Numbers{MTD_NANDFLASH, MTD_WRITEABLE, kSize, kBlock, kPage, kOob}));
    nand_ecclayout_user layout = {};
    ASSERT_EQ(device.Request(file, ECCGETLAYOUT, &layout), 0);
    EXPECT_EQ(Numbers(layout.eccpos, layout.eccpos + layout.eccbytes), (Numbers{0, 1, 2, 3, 6, 7}));
    EXPECT_EQ((Numbers{layout.oobavail, layout.oobfree[0].offset, layout.oobfree[0].length}), (Numbers{8, 8, 8}));
    nand_oobinfo places = {};
    ASSERT_EQ(device.Request(file, MEMGETOOBSEL, &places), 0);
    EXPECT_EQ((Numbers{places.useecc, places.eccbytes, places.eccpos[4], places.oobfree[0][0], places.oobfree[0][1]}),
              (Numbers{2, 6, 6, 8, 8}));
}
