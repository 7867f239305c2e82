#include "tests/support/tracefile.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>
#include <zt/runtime/trace.h>

TEST(TraceFile, CollectsLinesAndGivesTheVariableBack)
{
    setenv("ZT_TRACE_FILE", "/dev/null", 1);
    {
        TraceFile trace;
        zt_trace_msg("-> %s:", "one");
        zt_trace_msg("<- %s:", "two");
        EXPECT_EQ(trace.lines(), (Lines{"-> one:", "<- two:"}));
        trace.empty();
        EXPECT_EQ(trace.lines(), Lines{});
    }
    EXPECT_STREQ(getenv("ZT_TRACE_FILE"), "/dev/null");
}

TEST(TraceFile, IsRemoved)
{
    std::string path;
    {
        TraceFile trace;
        path = trace.path();
        EXPECT_EQ(access(path.c_str(), F_OK), 0);
    }
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST(TraceOnStandardError, CollectsTheSameLines)
{
    TraceOnStandardError trace;
    zt_trace_msg("   %s: %d", "three", 3);
    EXPECT_EQ(trace.lines(), Lines{"   three: 3"});
}
