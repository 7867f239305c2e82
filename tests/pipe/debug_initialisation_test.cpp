// The debug flags before and at their first use, and what ZT_PIPE_DEBUG makes of them.
#include "tests/pipe/debug_flags.h"
#include "tests/support/record.h"
#include "tests/support/tracefile.h"

namespace {

/// Each test begins with flags that nothing has initialised.
class DebugInitialisation : public DebugFlagsTest {
  protected:
    void SetUp() override { forget(); }

    /// Initialises with this value of ZT_PIPE_DEBUG, which must never fail.
    void initialise(const std::string& value)
    {
        setenv("ZT_PIPE_DEBUG", value.c_str(), 1);
        record::poison(status);
        EXPECT_EQ(zt_pipe_debug_init(&status), 0U);
        EXPECT_EQ(record::fields(status), record::cleared());
    }

    static std::string initialising(const std::string& value)
    {
        return "ZT_PIPE_DEBUG:  initializing options [" + value + "]";
    }

    static std::string warning(const std::string& value)
    {
        return "ZT_PIPE_DEBUG:  WARNING: invalid options [" + value + "]";
    }

    TraceFile trace;
};

}  // namespace

TEST_F(DebugInitialisation, NamesTheFiveCategoriesAndSwitchesEverySlotOff)
{
    memset(Zt_pipe_debug, 0x5a, sizeof Zt_pipe_debug);
    EXPECT_EQ(zt_pipe_debug_init(&status), 0U);
    EXPECT_EQ(Zt_pipe_debug_initialized, 1U);
    EXPECT_EQ(on(), "");
    const char* const names[] = {"global", "open", "close", "read", "write"};
    for (int i = 0; i < 5; ++i) {
        char padded[32] = {};
        strcpy(padded, names[i]);
        EXPECT_EQ(memcmp(Zt_pipe_debug[i].name, padded, sizeof padded), 0) << names[i];
    }
    EXPECT_EQ(trace.lines(), Lines{});
}

TEST_F(DebugInitialisation, WithAnEmptyVariableSwitchesNothingOnAndTracesNothing)
{
    initialise("");
    EXPECT_EQ(on(), "");
    EXPECT_EQ(trace.lines(), Lines{});
}

TEST_F(DebugInitialisation, AppliesTheVariableAndSaysSoWhateverTheFlags)
{
    initialise("CLOCKS='open'");
    EXPECT_EQ(on(), "CLOCKS:global,open");
    EXPECT_EQ(trace.lines(), Lines{initialising("CLOCKS='open'")});
}

TEST_F(DebugInitialisation, HappensOnce)
{
    initialise("CLOCKS='open'");
    initialise("MEMORY");
    EXPECT_EQ(on(), "CLOCKS:global,open");
    EXPECT_EQ(trace.lines().size(), 1U);
}

TEST_F(DebugInitialisation, WithABogusCategoryWarnsAndKeepsWhatWasSet)
{
    initialise("PARMS='bogus'");
    EXPECT_EQ(on(), "PARMS:global");
    EXPECT_EQ(trace.lines(), (Lines{initialising("PARMS='bogus'"), warning("PARMS='bogus'")}));
}

TEST_F(DebugInitialisation, WithAnUnknownKeywordWarnsAndSwitchesNothingOn)
{
    initialise("BOGUS PARMS");
    EXPECT_EQ(on(), "");
    EXPECT_EQ(trace.lines(), (Lines{initialising("BOGUS PARMS"), warning("BOGUS PARMS")}));
}

TEST_F(DebugInitialisation, CutsALongVariableToItsFirst256Characters)
{
    std::string value = "PARMS='read'";
    value.resize(256, ' ');
    initialise(value + "BOGUS");
    EXPECT_EQ(on(), "PARMS:global,read");
    EXPECT_EQ(trace.lines(), Lines{initialising(value)});
}

TEST_F(DebugInitialisation, CutsAlsoInTheMiddleOfAWord)
{
    std::string value(250, ' ');
    value += "MEMORYBOGUS";
    initialise(value);
    EXPECT_EQ(on(), "MEMORY:global,open,close,read,write");
}

TEST_F(DebugInitialisation, ComesBeforeTheFirstConfigurationWhichReplacesIt)
{
    setenv("ZT_PIPE_DEBUG", "MEMORY", 1);
    EXPECT_EQ(configure("PARMS='read'"), 0U);
    EXPECT_EQ(on(), "PARMS:global,read");
    EXPECT_EQ(trace.lines(), Lines{initialising("MEMORY")});
}

TEST_F(DebugInitialisation, ABadVariableDoesNotFailTheFirstConfiguration)
{
    setenv("ZT_PIPE_DEBUG", "BOGUS", 1);
    EXPECT_EQ(configure("PARMS='read'"), 0U);
    EXPECT_EQ(on(), "PARMS:global,read");
}

TEST_F(DebugInitialisation, IsNotMadeByAConfigurationThatNamesNoFlagOrFails)
{
    setenv("ZT_PIPE_DEBUG", "MEMORY", 1);
    EXPECT_EQ(configure(""), 0U);
    EXPECT_NE(configure("BOGUS"), 0U);
    EXPECT_NE(zt_pipe_debug_config(nullptr, &status), 0U);
    EXPECT_EQ(Zt_pipe_debug_initialized, 0U);
    EXPECT_EQ(trace.lines(), Lines{});
}

TEST_F(DebugInitialisation, BeforeItEveryFlagIsOffAndNothingIsTraced)
{
    setenv("ZT_PIPE_DEBUG", "PARMS", 1);
    char byte;
    EXPECT_EQ(zt_pipe_read(1, &byte, 1, nullptr, &status), -1);
    EXPECT_EQ(trace.lines(), Lines{});
}
