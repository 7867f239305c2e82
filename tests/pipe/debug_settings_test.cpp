// The report of the debug settings.
#include <signal.h>
#include <zt/runtime/interrupt.h>

#include "tests/pipe/debug_flags.h"
#include "tests/support/record.h"
#include "tests/support/tracefile.h"

namespace {

constexpr int reported_flags = 6;
constexpr int room = 512;  // what the header promises to be enough

class DebugSettings : public DebugFlagsTest {
  protected:
    /// The report, written over a text that was there before.
    std::string report()
    {
        char text[room];
        memset(text, '#', sizeof text);
        record::poison(status);
        EXPECT_EQ(zt_pipe_debug_settings(text, &status), 0);
        EXPECT_EQ(record::fields(status), record::cleared());
        return std::string(text, strnlen(text, sizeof text));
    }

    /// Switches a flag on for open, close, read and write as the bits 1, 2, 4 and 8 say.
    static void set(int slot, unsigned bits)
    {
        for (int i = 0; i < 4; ++i) Zt_pipe_debug[i + 1].flags[slot] = (bits >> i) & 1U;
        Zt_pipe_debug[0].flags[slot] = bits != 0;
    }
};

}  // namespace

TEST_F(DebugSettings, WithAllFlagsOffAreEmpty)
{
    EXPECT_EQ(report(), "");
}

TEST_F(DebugSettings, OnEverywhereAreTheBareName)
{
    configure("PARMS");
    EXPECT_EQ(report(), "PARMS ");
}

TEST_F(DebugSettings, OnForTwoAreTheirNames)
{
    configure("PARMS='read,write'");
    EXPECT_EQ(report(), "PARMS='read,write' ");
}

TEST_F(DebugSettings, OnForAllButOneAreNotThatOne)
{
    configure("DEBUG='not open'");
    EXPECT_EQ(report(), "DEBUG='not open' ");
}

TEST_F(DebugSettings, OfSeveralFlagsFollowEachOther)
{
    configure("PARMS EXCEPTIONS='close'");
    EXPECT_EQ(report(), "PARMS EXCEPTIONS='close' ");
}

TEST_F(DebugSettings, DoNotShowAFlagThatIsOnForGlobalOnly)
{
    configure("PARMS='global' DEBUG='not open close read write'");
    EXPECT_EQ(on(), "PARMS:global DEBUG:global");
    EXPECT_EQ(report(), "");
}

TEST_F(DebugSettings, NameTheCategoriesInTheirOrderWhateverThatOfTheText)
{
    configure("PARMS='write,open'");
    EXPECT_EQ(report(), "PARMS='open,write' ");
}

TEST_F(DebugSettings, NameTheFlagsInTheirOrder)
{
    configure("MEMORY EXCEPTIONS DEBUG CTRLBLKS CLOCKS PARMS");
    EXPECT_EQ(report(), "PARMS CLOCKS CTRLBLKS DEBUG EXCEPTIONS MEMORY ");
}

TEST_F(DebugSettings, OfEveryCombinationOfCategories)
{
    const char* const expected[16] = {
        "",
        "MEMORY='open' ",
        "MEMORY='close' ",
        "MEMORY='open,close' ",
        "MEMORY='read' ",
        "MEMORY='open,read' ",
        "MEMORY='close,read' ",
        "MEMORY='not write' ",
        "MEMORY='write' ",
        "MEMORY='open,write' ",
        "MEMORY='close,write' ",
        "MEMORY='not read' ",
        "MEMORY='read,write' ",
        "MEMORY='not close' ",
        "MEMORY='not open' ",
        "MEMORY ",
    };
    for (unsigned bits = 0; bits < 16; ++bits) {
        set(ZT_PIPE_MEMORY, bits);
        EXPECT_EQ(report(), expected[bits]) << bits;
    }
}

TEST_F(DebugSettings, ReadBackGiveTheSameSettings)
{
    for (unsigned bits = 0; bits < 256; ++bits) {
        set(ZT_PIPE_PARMS, bits & 15U);
        set(ZT_PIPE_EXCEPTIONS, bits >> 4U);
        const std::string before = on();
        const std::string text = report();
        if (text.empty()) continue;  // an empty text changes nothing
        EXPECT_EQ(configure(text), 0U) << text << status.what();
        EXPECT_EQ(report(), text);
        // "not" switches "global" on as well, so that what is on stays the same there too.
        EXPECT_EQ(on(), before);
    }
}

TEST_F(DebugSettings, OfTheLongestReportFitTheRoomAndReadBack)
{
    for (int slot = 0; slot < reported_flags; ++slot) set(slot, 10);
    const std::string text = report();
    EXPECT_EQ(text,
              "PARMS='close,write' CLOCKS='close,write' CTRLBLKS='close,write' DEBUG='close,write' "
              "EXCEPTIONS='close,write' MEMORY='close,write' ");
    const std::string before = on();
    EXPECT_EQ(configure(text), 0U) << status.what();
    EXPECT_EQ(on(), before);
}

TEST_F(DebugSettings, CountAnyNumberButZeroAsOnAndIgnoreTheSpareSlots)
{
    set(6, 15);
    set(7, 15);
    Zt_pipe_debug[3].flags[ZT_PIPE_CLOCKS] = 0x80000000U;
    EXPECT_EQ(report(), "CLOCKS='read' ");
}

TEST_F(DebugSettings, ChangeNoFlag)
{
    configure("PARMS='not read' DEBUG");
    const std::string before = on();
    report();
    EXPECT_EQ(on(), before);
}

TEST_F(DebugSettings, InitialiseTheFlagsAtFirstUse)
{
    forget();
    setenv("ZT_PIPE_DEBUG", "PARMS='read' CLOCKS", 1);
    TraceFile trace;
    EXPECT_EQ(report(), "PARMS='read' CLOCKS ");
    EXPECT_EQ(trace.lines(), Lines{"ZT_PIPE_DEBUG:  initializing options [PARMS='read' CLOCKS]"});
    EXPECT_EQ(Zt_pipe_debug_initialized, 1U);
}

TEST_F(DebugSettings, WithoutATextAre10036)
{
    record::poison(status);
    EXPECT_EQ(zt_pipe_debug_settings(nullptr, &status), 10036);
    EXPECT_EQ(record::fields(status),
              record::failure(10036, "ztpipe(zt_pipe_debug_settings):4071",
                              {{"sparm[0]", "text"}, {"sparm[1]", "zt_pipe_debug_settings"}}));
}

TEST_F(DebugSettings, WithoutARecordAre10047AndLeaveTheTextAlone)
{
    char text[] = "as it was";
    EXPECT_EQ(zt_pipe_debug_settings(text, nullptr), 10047);
    EXPECT_EQ(zt_pipe_debug_settings(nullptr, nullptr), 10047);
    EXPECT_STREQ(text, "as it was");
}

TEST_F(DebugSettings, LeaveAPendingInterruptToWhoeverArmedTheLatch)
{
    zt_sys_arm_interrupt();
    raise(SIGINT);
    EXPECT_EQ(report(), "");
    EXPECT_NE(zt_sys_poll_interrupt(1), 0);
    zt_sys_disarm_interrupt();
}
