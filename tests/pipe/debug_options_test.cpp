// Debug options: which text switches which flags.
#include <signal.h>
#include <zt/runtime/interrupt.h>

#include <climits>

#include "tests/pipe/debug_flags.h"
#include "tests/support/record.h"
#include "tests/support/tracefile.h"

namespace {

class DebugOptions : public DebugFlagsTest {
  protected:
    /// The whole record of a text that is refused.
    record::Fields refused(const std::string& options)
    {
        record::poison(status);
        EXPECT_EQ(configure(options), status.code);
        return record::fields(status);
    }

    static record::Fields failure(std::uint32_t code, int line, const record::Fields& and_then_set)
    {
        return record::failure(code, "ztpipe(zt_pipe_debug_config):" + std::to_string(line), and_then_set);
    }
};

struct Keyword {
    const char* name;
    int misplaced_not;
    int unknown_category;
};

class DebugKeyword : public DebugOptions, public ::testing::WithParamInterface<Keyword> {};

const std::string everywhere = "global,open,close,read,write";

INSTANTIATE_TEST_SUITE_P(Each, DebugKeyword,
                         ::testing::Values(Keyword{"PARMS", 721, 742}, Keyword{"CLOCKS", 777, 798},
                                           Keyword{"CTRLBLKS", 832, 853}, Keyword{"DEBUG", 887, 908},
                                           Keyword{"EXCEPTIONS", 942, 963}, Keyword{"MEMORY", 998, 1019}),
                         [](const auto& keyword) { return std::string(keyword.param.name); });

}  // namespace

TEST_P(DebugKeyword, AloneIsOnInAllCategories)
{
    EXPECT_EQ(configure(GetParam().name), 0U);
    EXPECT_EQ(on(), GetParam().name + (":" + everywhere));
}

TEST_P(DebugKeyword, WithAListIsOnThereAndForGlobal)
{
    EXPECT_EQ(configure(std::string(GetParam().name) + "='open,write'"), 0U);
    EXPECT_EQ(on(), GetParam().name + std::string(":global,open,write"));
}

TEST_P(DebugKeyword, RefusesAMisplacedNotAtItsFirstLine)
{
    EXPECT_EQ(refused(std::string(GetParam().name) + "='read,not'"),
              failure(10048, GetParam().misplaced_not, {{"msg", "not"}}));
}

TEST_P(DebugKeyword, RefusesAnUnknownCategoryAtItsSecondLine)
{
    EXPECT_EQ(refused(std::string(GetParam().name) + "='rd'"),
              failure(10048, GetParam().unknown_category, {{"msg", "rd"}}));
}

TEST_P(DebugKeyword, ExcludesOff)
{
    EXPECT_EQ(refused(std::string(GetParam().name) + " OFF"),
              failure(11104, 697, {{"sparm[0]", "OFF"}, {"sparm[1]", GetParam().name}}));
}

TEST_F(DebugOptions, OffSwitchesEveryFlagOff)
{
    configure("PARMS MEMORY");
    record::poison(status);
    EXPECT_EQ(configure("OFF"), 0U);
    EXPECT_EQ(record::fields(status), record::cleared());
    EXPECT_EQ(on(), "");
}

TEST_F(DebugOptions, OffWithAFlagFailsAndSwitchesEveryFlagOffAllTheSame)
{
    configure("DEBUG");
    EXPECT_EQ(configure("OFF PARMS"), ZT_PIPE_E_CONFLICT);
    EXPECT_STREQ(status.sparm[1], "PARMS");
    EXPECT_EQ(on(), "");
}

TEST_F(DebugOptions, OffNamesTheFirstOtherFlagInTheOrderOfTheFlags)
{
    EXPECT_EQ(configure("MEMORY EXCEPTIONS='bogus' OFF CLOCKS"), ZT_PIPE_E_CONFLICT);
    EXPECT_STREQ(status.sparm[1], "CLOCKS");
}

TEST_F(DebugOptions, EachTextReplacesTheWholeConfiguration)
{
    configure("PARMS CLOCKS MEMORY='open'");
    EXPECT_EQ(configure("DEBUG='read,write'"), 0U);
    EXPECT_EQ(on(), "DEBUG:global,read,write");
}

TEST_F(DebugOptions, ATextWithoutAKeywordChangesNothing)
{
    configure("PARMS='read'");
    for (const char* empty : {"", " ", ", ,"}) {
        record::poison(status);
        EXPECT_EQ(configure(empty), 0U);
        EXPECT_EQ(record::fields(status), record::cleared());
    }
    EXPECT_EQ(on(), "PARMS:global,read");
}

TEST_F(DebugOptions, NotSwitchesTheCategoriesBehindItOff)
{
    EXPECT_EQ(configure("PARMS='not read'"), 0U);
    EXPECT_EQ(on(), "PARMS:global,open,close,write");
    EXPECT_EQ(configure("PARMS='not global,open close'"), 0U);
    EXPECT_EQ(on(), "PARMS:read,write");
    EXPECT_EQ(configure("PARMS='NOT'"), 0U);
    EXPECT_EQ(on(), "PARMS:" + everywhere);
}

TEST_F(DebugOptions, CategoriesMayBeWrittenInCapitalsAndWithThePrefix)
{
    for (const char* same : {"READ", "Read", "zt_pipe_read", "ZT_PIPE_READ", "' , read, '"}) {
        EXPECT_EQ(configure(std::string("PARMS=") + same), 0U) << same;
        EXPECT_EQ(on(), "PARMS:global,read") << same;
    }
}

TEST_F(DebugOptions, AnEmptyListIsOnForGlobalOnly)
{
    EXPECT_EQ(configure("PARMS='' DEBUG=', '"), 0U);
    EXPECT_EQ(on(), "PARMS:global DEBUG:global");
}

TEST_F(DebugOptions, ThePrefixIsTakenOffOnceAndNeverMakesANot)
{
    EXPECT_EQ(refused("PARMS='zt_pipe_not'"), failure(10048, 742, {{"msg", "not"}}));
    EXPECT_EQ(refused("PARMS='ZT_PIPE_ZT_PIPE_READ'"), failure(10048, 742, {{"msg", "zt_pipe_read"}}));
    EXPECT_EQ(refused("PARMS='zt_pipe_'"), failure(10048, 742, {{"msg", ""}}));
}

TEST_F(DebugOptions, NotTwiceIsMisplaced)
{
    EXPECT_EQ(refused("PARMS='not not'"), failure(10048, 721, {{"msg", "not"}}));
    EXPECT_EQ(on(), "PARMS:" + everywhere);
}

TEST_F(DebugOptions, AFailureLeavesTheFlagsAsFarAsTheParseGot)
{
    configure("MEMORY");
    EXPECT_EQ(configure("PARMS CLOCKS='open,write,bogus,read' DEBUG"), ZT_PIPE_E_DEBUGOPT);
    EXPECT_EQ(on(), "PARMS:" + everywhere + " CLOCKS:global,open,write");
}

TEST_F(DebugOptions, FlagsAreTakenInTheirOrderAndNotInThatOfTheText)
{
    EXPECT_EQ(configure("MEMORY='bad2' CLOCKS='bad1'"), ZT_PIPE_E_DEBUGOPT);
    EXPECT_STREQ(status.msg, "bad1");
}

TEST_F(DebugOptions, WhatTheOptionProcessorRefusesPassesThroughAndChangesNothing)
{
    configure("PARMS='read'");
    EXPECT_EQ(refused("BOGUS"), failure(11201, 669, {{"sparm[0]", "BOGUS"}}));
    EXPECT_EQ(refused("PARMS DEBUG PARMS"), failure(11202, 669, {{"sparm[0]", "PARMS"}}));
    EXPECT_EQ(refused("OFF=read"), failure(11205, 669, {{"sparm[0]", "OFF=read"}}));
    EXPECT_EQ(refused("PARMS='read"), failure(11206, 669, {{"sparm[0]", "'read"}}));
    EXPECT_EQ(on(), "PARMS:global,read");
}

TEST_F(DebugOptions, ANullTextIs10036)
{
    record::poison(status);
    EXPECT_EQ(zt_pipe_debug_config(nullptr, &status), 10036U);
    EXPECT_EQ(record::fields(status),
              failure(10036, 655, {{"sparm[0]", "options"}, {"sparm[1]", "zt_pipe_debug_config"}}));
}

TEST_F(DebugOptions, Of257CharactersAreRefusedAnd256Accepted)
{
    std::string options = "PARMS='read'";
    options.resize(256, ' ');
    EXPECT_EQ(configure(options), 0U);
    EXPECT_EQ(on(), "PARMS:global,read");
    EXPECT_EQ(refused(options + " "),
              failure(10037, 660, {{"sparm[0]", "options"}, {"iparm[0]", "257"}, {"iparm[1]", "256"}}));
    EXPECT_EQ(on(), "PARMS:global,read");
}

TEST_F(DebugOptions, ACategoryNameOf250CharactersIsRefused)
{
    const std::string name(250, 'x');
    EXPECT_EQ(refused("PARMS=" + name), failure(10048, 742, {{"msg", name}}));
}

TEST_F(DebugOptions, WithoutARecordAre10047AndChangeNothing)
{
    configure("PARMS='read'");
    EXPECT_EQ(zt_pipe_debug_config("OFF", nullptr), 10047U);
    EXPECT_EQ(zt_pipe_debug_config(nullptr, nullptr), 10047U);
    EXPECT_EQ(on(), "PARMS:global,read");
}

TEST_F(DebugOptions, LeaveSpareSlotsAndNamesAlone)
{
    Zt_pipe_debug[2].flags[6] = Zt_pipe_debug[2].flags[7] = 5;
    EXPECT_EQ(configure("PARMS='read'"), 0U);
    EXPECT_EQ(on(), "PARMS:global,read slot6:close slot7:close");
    EXPECT_EQ(name(Zt_pipe_debug[2]), "close");
}

TEST_F(DebugOptions, LeaveASplitOfTheApplicationsOwnAlone)
{
    char text[] = "one two";
    strtok(text, " ");
    configure("PARMS='read,write'");
    EXPECT_STREQ(strtok(nullptr, " "), "two");
}

TEST_F(DebugOptions, LeaveAPendingInterruptToWhoeverArmedTheLatch)
{
    zt_sys_arm_interrupt();
    raise(SIGINT);
    EXPECT_EQ(configure("PARMS"), 0U);
    EXPECT_NE(zt_sys_poll_interrupt(1), 0);
    zt_sys_disarm_interrupt();
}

TEST_F(DebugOptions, SwitchTracingWhileTheProgramRuns)
{
    TraceFile trace;
    char byte;
    configure("PARMS='write'");
    zt_pipe_write(-1, &byte, 1, &status);
    configure("EXCEPTIONS='read'");
    zt_pipe_write(-1, &byte, 1, &status);
    zt_pipe_read(-1, &byte, 1, nullptr, &status);
    const Lines lines = trace.lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_TRUE(lines[0].starts_with("-> zt_pipe_write: [-1]")) << lines[0];
    EXPECT_TRUE(lines[1].starts_with("<-*zt_pipe_write: [-1]")) << lines[1];
    EXPECT_TRUE(lines[2].starts_with("<-*zt_pipe_read: [-1]")) << lines[2];
}
