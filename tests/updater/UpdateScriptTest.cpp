#include "UpdateScript.h"

#include <gtest/gtest.h>

TEST(Progress, IsTheWholePercentageOfTheCountInThirtyTwoBits) {
    UpdateScript script("no/such.script", nullptr, false);
    EXPECT_EQ(script.m_sScriptDir, "no/");
    EXPECT_EQ(script.m_nTotalBlock, 0);
    const struct {
        int total;
        int written; ///< before the report
        int percent;
    } rows[] = {
        {3, 0, 33},
        {3, 2, 100},
        {3, 3, 133},
        {3, -8, -233},
        {200, 0, 0},
        {0, 5, 77},
        // 100 times the blocks wraps as the device's own product does.
        {1, 21474836, -2147483596},
        {1, 0x7FFFFFFF, 0},
        {-1, -2, 100},
    };
    for (const auto &row : rows) {
        script.m_nTotalBlock = row.total;
        script.m_nBlockWritten = row.written;
        script.m_nLastPercent = 77;
        script.IncBlockWritten();
        EXPECT_EQ(script.m_nLastPercent, row.percent) << row.total << " " << row.written;
    }
    script.m_nTotalBlock = 0;
    script.m_nBlockWritten = 1;
    script.IncBlockWritten();
    EXPECT_EQ(script.m_nBlockWritten, 2);
}

TEST(Progress, IsNotTellableByACommandThatWouldBeCutAndSaysSoOnce) {
    const std::string notify = ": " + std::string(251, 'n');
    UpdateScript script("no such script", notify.c_str(), false);
    EXPECT_EQ(script.m_sScriptDir, "./");
    script.m_nTotalBlock = 20;
    testing::internal::CaptureStderr();
    for (int i = 0; i < 3; ++i)
        script.IncBlockWritten();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "error : command too long: " + notify + " 10\n");
    EXPECT_EQ(script.m_nLastPercent, 15);
}
