// What the operations share.
#include <gtest/gtest.h>
#include <zt/ztpipe/operation.h>

#include <climits>

#include "tests/pipe/debug_flags.h"
#include "tests/pipe/services.h"

TEST(Operation, AParameterHoldsTheLargestNumberForALengthBeyondIt)
{
    EXPECT_EQ(zt::pipe::saturated(0), 0);
    EXPECT_EQ(zt::pipe::saturated(INT_MAX), INT_MAX);
    EXPECT_EQ(zt::pipe::saturated(INT_MAX + 1UL), INT_MAX);
    EXPECT_EQ(zt::pipe::saturated(SIZE_MAX), INT_MAX);
}

TEST_F(DebugFlagsTest, TheReportOfTheSettingsTellsWhyTheFlagsCannotBeInitialised)
{
    forget();
    services::Log log;
    log.fail("zt_pipe_debug_init", 4711);
    char text[64] = "before";
    EXPECT_EQ(zt_pipe_debug_settings(text, &status), 4711);
    EXPECT_EQ(status.code, 4711U);
    EXPECT_STREQ(text, "");
}
