#include "SNandUtil.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <mtd/mtd-user.h>

// Runs inside the simulated device, on its chip of 64 blocks: what no script line can ask for.

namespace {

constexpr int kWholeFlash = 12;
constexpr int kPage = 512;
constexpr int kOob = 16;
constexpr int kPagesPerBlock = 32;
/// The first page whose byte offset is 0x80000000.
constexpr int kUnreachable = 0x400000;

/// Takes what an operation prints on standard error.
template <typename Call> std::string Said(Call call) {
    testing::internal::CaptureStderr();
    call();
    return testing::internal::GetCapturedStderr();
}

} // namespace

TEST(SNandUtil, TellsTheGeometryAndNothingOfADeviceThatIsNotThere) {
    const SNandUtil nand(kWholeFlash);
    EXPECT_EQ(nand.m_nTotalSize, 0x100000);
    EXPECT_EQ(nand.m_nEraseSize, 0x4000);
    EXPECT_EQ(nand.m_nWriteSize, kPage);
    EXPECT_EQ(nand.m_nOobSize, kOob);
    EXPECT_GE(nand.m_nFd, 0);
    EXPECT_EQ(Said([] {
                  SNandUtil none(-1);
                  EXPECT_EQ(none.m_nFd, -1);
                  EXPECT_EQ(none.m_nTotalSize | none.m_nEraseSize | none.m_nWriteSize | none.m_nOobSize, 0);
                  EXPECT_LT(none.IsBlockBad(0), 0);
              }),
              "");
}

TEST(SNandUtil, ReachesBlocksIn64BitsAndPagesIn32) {
    SNandUtil nand(kWholeFlash);
    std::vector<char> page(kPage, 'x');
    for (const int number : {kUnreachable, -1}) {
        EXPECT_EQ(nand.WritePage(number, page.data(), kPage), -1);
        EXPECT_EQ(nand.ReadPage(number, page.data()), -1);
        EXPECT_EQ(nand.WritePageWithOob(number, page.data(), kPage, nullptr, 0, MTD_OPS_RAW), -1);
    }
    EXPECT_EQ(nand.EraseBlock(0x40000), -1); // begins at 4 GiB: the older request is not made
    EXPECT_EQ(errno, EINVAL);
    EXPECT_LT(nand.IsBlockBad(0x40000), 0);
}

TEST(SNandUtil, WritesAndReadsPagesAndOob) {
    SNandUtil nand(kWholeFlash);
    ASSERT_EQ(nand.EraseBlock(1), 0);
    std::vector<char> data(kPage);
    for (int i = 0; i < kPage; ++i)
        data[static_cast<std::size_t>(i)] = static_cast<char>(i * 7);
    std::vector<char> read(kPage);
    EXPECT_EQ(nand.WritePage(kPagesPerBlock, data.data(), kPage), kPage);
    EXPECT_EQ(nand.ReadPage(kPagesPerBlock, read.data()), kPage);
    EXPECT_EQ(read, data);
    EXPECT_EQ(nand.WritePage(kPagesPerBlock + 1, data.data(), kPage - 1), -1); // no whole sub-page
    EXPECT_EQ(nand.ReadPage(64 * kPagesPerBlock, read.data()), -1);            // the end of the device

    const std::string oob = "a page's own OOB";
    std::vector<char> back(kOob);
    EXPECT_EQ(nand.WriteOOB(kPagesPerBlock + 2, oob.data()), 0);
    EXPECT_EQ(nand.ReadOOB(kPagesPerBlock + 2, back.data()), 0);
    EXPECT_EQ(std::string(back.begin(), back.end()), oob);
    EXPECT_EQ(Said([&] { EXPECT_NE(nand.WriteOOB(64 * kPagesPerBlock, oob.data()), 0); }),
              "[WriteOOB] ioctl failed,\n");
    EXPECT_EQ(Said([&] { EXPECT_NE(nand.ReadOOB(64 * kPagesPerBlock, back.data()), 0); }), "[ReadOOB] ioctl failed,\n");
}

/// Run on a device whose kernel lacks MEMWRITE.
TEST(OldKernel, GetsNothingForANullPointerNorMoreThanAPage) {
    SNandUtil nand(kWholeFlash);
    ASSERT_EQ(nand.EraseBlock(2), 0);
    constexpr int kFirst = 2 * kPagesPerBlock;
    const std::string oob = "a page's own OOB";
    std::vector<char> back(kOob);
    EXPECT_EQ(nand.WritePageWithOob(kFirst, nullptr, kPage, oob.data(), kOob, MTD_OPS_RAW), 0);
    EXPECT_EQ(nand.ReadOOB(kFirst, back.data()), 0);
    EXPECT_EQ(std::string(back.begin(), back.end()), oob);

    const std::vector<char> data(kPage + 1, 'd');
    EXPECT_EQ(nand.WritePageWithOob(64 * kPagesPerBlock - 1, data.data(), kPage + 1, nullptr, 0, MTD_OPS_RAW), -1);
}
