#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tests/support/closing.h"
#include "tests/support/faults.h"
#include "tests/support/tracefile.h"

using faults::Function;
using pipes::at;
using pipes::Category;
using pipes::Flag;

using CloseCommand = CloseTest;

TEST_F(CloseCommand, CountsANormalEndAsSuccess)
{
    EXPECT_EQ(close(pipes::open("true", "COMMAND")), 0u);
    EXPECT_EQ(fields(), record::cleared({{"iparm[0]", "0"}}));
}

TEST_F(CloseCommand, SaysWithWhichCodeTheShellEnded)
{
    EXPECT_EQ(close(pipes::open("exit 42", "COMMAND")), ZT_PIPE_S_ERROR);
    EXPECT_EQ(
        fields(),
        record::cleared(
            {{"code", "10145"}, {"iparm[0]", "42"}, {"sparm[0]", "with an error"}, {"msg", "exit 42"}}));
}

TEST_F(CloseCommand, SaysWhichSignalEndedTheShell)
{
    EXPECT_EQ(close(pipes::open("kill -9 $$", "COMMAND")), ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(fields(), record::cleared({{"code", "10147"},
                                         {"sys_errno", "9"},
                                         {"iparm[0]", "9"},
                                         {"sparm[0]", "abnormally"},
                                         {"msg", "kill -9 $$"}}));
}

TEST_F(CloseCommand, CutsALongProgramTextToFitTheMessage)
{
    EXPECT_EQ(close(pipes::open("exit 1; " + std::string(300, 'x'), "COMMAND")), ZT_PIPE_S_ERROR);
    EXPECT_EQ(strlen(status.msg), 255u);
}

TEST_F(CloseCommand, CallsACommandThatIsNotFoundAnEndWithAnErrorAndCode127)
{
    EXPECT_EQ(close(pipes::open("no_such_command_at_all", "COMMAND STDERR=DISCARD")), ZT_PIPE_S_ERROR);
    EXPECT_EQ(status.iparm[0], 127);
    EXPECT_STREQ(status.where, "");
}

// The value as pclose returns it: no real wait status looks like that.
TEST_F(CloseCommand, CallsItNotStartedWhenPcloseReturnsExactly127)
{
    const int handle = pipes::open("true", "COMMAND");
    const faults::Plan plan{{.function = Function::pclose, .error = ENOMEM, .result = 127}};
    EXPECT_EQ(close(handle), ZT_PIPE_E_START);
    EXPECT_EQ(fields(), errno_report(ZT_PIPE_E_START, 3582, ENOMEM, "true"));
    EXPECT_EQ(pipes::block(handle), nullptr);
}

TEST_F(CloseCommand, ReportsAStreamThatCannotBeClosedAndReleasesThePipe)
{
    const int handle = pipes::open("true", "COMMAND");
    const faults::Plan plan{{.function = Function::pclose, .error = EIO}};
    EXPECT_EQ(close(handle), ZT_PIPE_E_CLOSE);
    EXPECT_EQ(fields(), errno_report(ZT_PIPE_E_CLOSE, 3576, EIO, "true"));
    EXPECT_EQ(pipes::block(handle), nullptr);
}

TEST_F(CloseCommand, ReportsNothingWhenSomebodyElseHasCollectedTheShell)
{
    const int handle = pipes::open("exit 3", "COMMAND");
    const faults::Plan plan{{.function = Function::pclose, .error = ECHILD}};
    EXPECT_EQ(close(handle), 0u);
    EXPECT_EQ(fields(), record::cleared());
    EXPECT_EQ(pipes::block(handle), nullptr);
}

TEST_F(CloseCommand, RefusesNowaitAndLeavesThePipeUsableForASecondClose)
{
    const TemporaryFile file;
    const int handle = pipes::open("cat >" + file.path(), "COMMAND WRITE");
    EXPECT_EQ(close(handle, "NOWAIT"), ZT_PIPE_E_MUSTWAIT);
    EXPECT_EQ(fields(), record::failure(ZT_PIPE_E_MUSTWAIT, at(routine, 3540),
                                        {{"msg", "Must WAIT for a COMMAND pipe"}}));
    EXPECT_EQ(Zt_pipe_current, nullptr);
    pipes::write(handle, "written after that");
    EXPECT_EQ(close(handle), 0u);
    EXPECT_EQ(file.content(), "written after that");
}

TEST_F(CloseCommand, ReportsThatTheShellHasGoneBeforeItGotWhatWasWritten)
{
    const int handle = pipes::open("true", "COMMAND WRITE");
    pipes::wait_for_a_child_to_end();
    pipes::write(handle, "x");
    EXPECT_EQ(close(handle), ZT_PIPE_E_CLOSE);
    EXPECT_EQ(fields(), errno_report(ZT_PIPE_E_CLOSE, 3576, EPIPE, "true"));
    EXPECT_EQ(pipes::block(handle), nullptr);
}

TEST_F(CloseCommand, SaysHowTheShellEndedRatherThanThatItDidNotGetWhatWasWritten)
{
    const int handle = pipes::open("exit 3", "COMMAND WRITE");
    pipes::wait_for_a_child_to_end();
    pipes::write(handle, "x");
    EXPECT_EQ(close(handle), ZT_PIPE_S_ERROR);
    EXPECT_EQ(status.iparm[0], 3);
}

// The line that the close writes first is when the interrupt arrives.
TEST_F(CloseCommand, ReportsAnInterruptInsteadOfTheRefusedNowaitAndLeavesThePipeOpen)
{
    const TemporaryFile file;
    const int handle = pipes::open("cat >" + file.path(), "COMMAND WRITE");
    {
        const TraceFile trace;
        const Flag flag{Category::close, ZT_PIPE_PARMS};
        const faults::Plan plan{{.function = Function::write, .raising = SIGINT}};
        EXPECT_EQ(close(handle, "NOWAIT"), ZT_PIPE_E_INTERRUPTED);
        EXPECT_TRUE(plan.fired());
    }
    EXPECT_EQ(status.where, at(routine, 3694));
    pipes::write(handle, "written after that");
    EXPECT_EQ(close(handle), 0u);
    EXPECT_EQ(file.content(), "written after that");
}

TEST_F(CloseCommand, IsNotChangedByNokill)
{
    const faults::Plan only_counting{};
    EXPECT_EQ(close(pipes::open("cat; exit 4", "COMMAND WRITE"), "NOKILL"), ZT_PIPE_S_ERROR);
    EXPECT_EQ(status.iparm[0], 4);
    EXPECT_EQ(faults::calls(Function::kill), 0);
}

TEST_F(CloseCommand, WaitsForTheShellAndNeverKillsIt)
{
    const TemporaryFile file;
    const int handle = pipes::open("cat; echo done >" + file.path(), "COMMAND WRITE");
    const faults::Plan only_counting{};
    EXPECT_EQ(close(handle), 0u);
    EXPECT_EQ(file.content(), "done\n");
    EXPECT_EQ(faults::calls(Function::kill), 0);
}

TEST_F(CloseCommand, TracesWhatPcloseReturned)
{
    const int handle = pipes::open("exit 3", "COMMAND");
    char stream[32];
    snprintf(stream, sizeof stream, "%p", static_cast<void*>(pipes::block(handle)->fh));
    const TraceFile trace;
    const Flag flag{Category::close, ZT_PIPE_DEBUG_FLAG};
    close(handle);
    EXPECT_EQ(trace.lines(), (Lines{std::string("   zt_ipipe_close: pclose of 'exit 3 2>&1' fh ") + stream +
                                    ", returned 768"}));
}

TEST_F(CloseCommand, TracesAPcloseThatFailed)
{
    const int handle = pipes::open("true", "COMMAND");
    char stream[32];
    snprintf(stream, sizeof stream, "%p", static_cast<void*>(pipes::block(handle)->fh));
    const TraceFile trace;
    const Flag flag{Category::close, ZT_PIPE_DEBUG_FLAG};
    const faults::Plan plan{{.function = Function::pclose, .error = EIO}};
    close(handle);
    EXPECT_EQ(trace.lines(), (Lines{std::string("   zt_ipipe_close: pclose of 'true 2>&1' fh ") + stream +
                                    " failed, returned -1: " + strerror(EIO)}));
}
