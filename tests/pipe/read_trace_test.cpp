// What the reads trace, and when.
#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/tracefile.h"
#include "tests/support/transfers.h"

namespace {

using faults::Function;
using pipes::Category;
using pipes::Flag;
using pipes::to_command;
using pipes::to_program;

class ReadTrace : public NothingLeftTest {
  protected:
    int read(int handle, int size, const char* delimiter = nullptr)
    {
        return zt_pipe_read(handle, buffer, size, delimiter, &status);
    }
    int read_unlimited(int handle, int offset, const char* delimiter = nullptr)
    {
        return zt_pipe_read_unlimited(handle, &text, offset, delimiter, &status);
    }

    zt::Status status;
    char buffer[512];
    char* text = nullptr;
};

TEST_F(ReadTrace, ShowsTheArgumentsTheOutcomeAndTheDataUnderParms)
{
    auto pipe = to_program("prints_then_waits 'abc\n'");
    TraceFile trace;
    const Flag parms(Category::read, ZT_PIPE_PARMS);
    read(pipe, 10, "\n");
    EXPECT_EQ(trace.lines(), (Lines{"-> zt_pipe_read: [1] [] [10] [\\n] []",
                                    "<- zt_pipe_read: [1] [see below] [10] [\\n] [0 0 0 ] returned 4",
                                    pipes::dump_of("abc\n")}));
}

TEST_F(ReadTrace, ShowsTheOffsetAndTheNewDataOfAnUnlimitedRead)
{
    auto pipe = to_program("echo_lines");
    pipes::write(pipe, "abc\n");
    read_unlimited(pipe, 0, "\n");
    pipes::write(pipe, "def\n");
    TraceFile trace;
    const Flag parms(Category::read, ZT_PIPE_PARMS);
    read_unlimited(pipe, 4, "\n");
    EXPECT_EQ(trace.lines(),
              (Lines{"-> zt_pipe_read_unlimited: [1] [] [4] [\\n] []",
                     "<- zt_pipe_read_unlimited: [1] [see below] [4] [\\n] [0 0 0 ] returned 4",
                     pipes::dump_of("def\n")}));
}

TEST_F(ReadTrace, ShowsAMissingDelimiterAsNullInBothLines)
{
    auto pipe = to_command("printf abc");
    TraceFile trace;
    const Flag parms(Category::read, ZT_PIPE_PARMS);
    read(pipe, 3);
    read_unlimited(pipe, 0);
    EXPECT_EQ(trace.lines(),
              (Lines{"-> zt_pipe_read: [1] [] [3] [<NULL>] []",
                     "<- zt_pipe_read: [1] [see below] [3] [<NULL>] [0 0 0 ] returned 3",
                     pipes::dump_of("abc"), "-> zt_pipe_read_unlimited: [1] [] [0] [<NULL>] []",
                     "<- zt_pipe_read_unlimited: [1] [see below] [0] [<NULL>] [0 0 0 ] returned 0"}));
}

TEST_F(ReadTrace, CutsALongDelimiter)
{
    auto pipe = to_command("printf abc");
    TraceFile trace;
    const Flag parms(Category::read, ZT_PIPE_PARMS);
    const std::string fits(200, '\x01');
    read(pipe, 1, fits.c_str());
    const std::string too_long(100000, 'x');
    read(pipe, 1, too_long.c_str());
    std::string rendered;
    for (int i = 0; i < 200; ++i) rendered += "\\x01";
    EXPECT_EQ(trace.lines().at(0), "-> zt_pipe_read: [1] [] [1] [" + rendered + "] []");
    EXPECT_EQ(trace.lines().at(3), "-> zt_pipe_read: [1] [] [1] [" + std::string(200, 'x') + "...] []");
}

TEST_F(ReadTrace, UnderExceptionsShowsFailuresAndWarningsOnly)
{
    auto quiet = to_program("prints_then_waits abc");
    auto warned = to_program("prints_then_exits 4 abc");
    TraceFile trace;
    const Flag exceptions(Category::read, ZT_PIPE_EXCEPTIONS);
    read(quiet, 3);
    EXPECT_EQ(trace.lines(), Lines{});
    read(warned, 10);
    EXPECT_EQ(trace.lines(), (Lines{"<- zt_pipe_read: [2] [see below] [10] [<NULL>] [0 10145 0 " +
                                        std::string(status.msg) + "] returned 3",
                                    pipes::dump_of("abc")}));
    trace.empty();
    read(warned, 10);
    EXPECT_EQ(trace.lines(), Lines{"<-*zt_pipe_read: [2] [see below] [10] [<NULL>] [10145 0 0 " +
                                   std::string(status.msg) + "] returned -1"});
    trace.empty();
    read_unlimited(99, 7);
    EXPECT_EQ(trace.lines(), Lines{"<-*zt_pipe_read_unlimited: [99] [see below] [7] [<NULL>] [10138 0 0 ] "
                                   "returned -1"});
}

TEST_F(ReadTrace, UnderDebugSaysHowManyReadsItTook)
{
    auto pipe = to_program("prints_then_waits abcdef");
    TraceFile trace;
    const Flag detail(Category::read, ZT_PIPE_DEBUG_FLAG);
    read(pipe, 1);
    const faults::Plan plan{{.function = Function::read, .nth = 1, .result = 2}};
    read(pipe, 5);
    read(pipe, 0);
    EXPECT_EQ(trace.lines(), (Lines{"   zt_pipe_read: performed 1 read for 1 bytes",
                                    "   zt_pipe_read: performed 2 reads for 5 bytes"}));
}

TEST_F(ReadTrace, DoesNotCountThePassThatSawTheEnd)
{
    auto program = to_program("prints_then_exits 0 abc");
    auto command = to_command("printf abc");
    TraceFile trace;
    const Flag detail(Category::read, ZT_PIPE_DEBUG_FLAG);
    read(program, 10);
    read_unlimited(command, 0);
    read(program, 10);
    read(command, 10);
    EXPECT_EQ(trace.lines(), (Lines{"   zt_pipe_read: performed 1 read for 3 bytes",
                                    "   zt_pipe_read_unlimited: performed 1 read for 3 bytes"}));
}

TEST_F(ReadTrace, CountsARetryAsARead)
{
    auto pipe = to_program("prints_then_waits abc");
    TraceFile trace;
    const Flag detail(Category::read, ZT_PIPE_DEBUG_FLAG);
    const faults::Plan plan{{.function = Function::read, .error = EINTR}};
    read(pipe, 3);
    EXPECT_EQ(trace.lines(), Lines{"   zt_pipe_read: performed 2 reads for 3 bytes"});
}

TEST_F(ReadTrace, ShowsTheRetriesOfAStreamUnderCtrlblks)
{
    auto pipe = to_command("printf abc");
    TraceFile trace;
    const Flag control(Category::read, ZT_PIPE_CTRLBLKS);
    {
        const faults::Plan plan{{.function = Function::fread, .nth = 1, .error = EINTR},
                                {.function = Function::fread, .nth = 2, .error = EINTR},
                                {.function = Function::fread, .nth = 3, .result = 0}};
        EXPECT_EQ(read(pipe, 2), 2);
    }
    const faults::Plan plan{{.function = Function::fread, .error = EINTR}};
    read_unlimited(pipe, 0);
    EXPECT_EQ(trace.lines(), (Lines{"   zt_pipe_read: looping because EINTR (1)",
                                    "   zt_pipe_read: looping because EINTR (2)",
                                    "   zt_pipe_read_unlimited: looping because EINTR (1)"}));
}

TEST_F(ReadTrace, SaysNothingOfRetriesUnderDebugNorOfThoseOfADescriptor)
{
    auto command = to_command("printf abc");
    auto program = to_program("prints_then_waits abc");
    TraceFile trace;
    const faults::Plan plan{{.function = Function::fread, .error = EINTR},
                            {.function = Function::read, .error = EINTR}};
    {
        const Flag detail(Category::read, ZT_PIPE_DEBUG_FLAG);
        read(command, 3);
    }
    const Flag control(Category::read, ZT_PIPE_CTRLBLKS);
    read(program, 3);
    EXPECT_EQ(trace.lines(), Lines{"   zt_pipe_read: performed 2 reads for 3 bytes"});
}

TEST_F(ReadTrace, IsNotWrittenForTheFlagsOfOtherCategories)
{
    auto pipe = to_command("printf abc");
    TraceFile trace;
    const Flag write(Category::write, ZT_PIPE_PARMS);
    const Flag global(Category::global, ZT_PIPE_DEBUG_FLAG);
    const Flag clocks(Category::read, ZT_PIPE_CLOCKS);
    const Flag memory(Category::read, ZT_PIPE_MEMORY);
    const faults::Plan plan{{.function = Function::fread, .error = EINTR}};
    read(pipe, 3);
    read(99, 3);
    EXPECT_EQ(trace.lines(), Lines{});
}

}  // namespace
