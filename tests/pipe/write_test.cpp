// Writing to a child that takes what it gets.
#include <gtest/gtest.h>
#include <stdio_ext.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/record.h"
#include "tests/support/tracefile.h"
#include "tests/support/transfers.h"

namespace {

using faults::Function;
using pipes::at;
using pipes::Category;
using pipes::Flag;
using pipes::to_command;
using pipes::to_program;

constexpr char routine[] = "zt_pipe_write";

class Write : public NothingLeftTest {
  protected:
    Write() { record::poison(status); }

    record::Fields record() const { return record::fields(status); }

    zt::Status status;
};

TEST_F(Write, DeliversTheBytesToAProgramsInputInOneCall)
{
    auto pipe = to_program("echo_lines");
    const faults::Plan counting{};
    EXPECT_EQ(zt_pipe_write(pipe, "hello\n", 6, &status), 6);
    EXPECT_EQ(faults::calls(Function::write), 1);
    EXPECT_EQ(pipes::read_until(pipe, "\n"), "hello\n");
}

TEST_F(Write, DeliversBytesOfEveryValue)
{
    auto pipe = pipes::Pipe("cat", "PROGRAM");
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
    EXPECT_EQ(zt_pipe_write(pipe, bytes.data(), 256, &status), 256);
    char back[256];
    EXPECT_EQ(zt_pipe_read(pipe, back, 256, nullptr, &status), 256);
    EXPECT_EQ(std::string(back, 256), bytes);
}

TEST_F(Write, ClearsTheRecordAndLeavesTheCountAlone)
{
    auto pipe = to_program("echo_lines");
    zt_pipe_write(pipe, "x", 1, &status);
    EXPECT_EQ(record(), record::cleared());
}

TEST_F(Write, HandsACommandsBytesToItsStreamWithoutFlushingThem)
{
    TemporaryFile file;
    auto pipe = to_command("cat > " + file.path(), "WRITE");
    EXPECT_EQ(zt_pipe_write(pipe, "hello\n", 6, &status), 6);
    EXPECT_EQ(record(), record::cleared());
    EXPECT_EQ(__fpending(pipe->fh), 6U);
    EXPECT_EQ(pipe.close(), 0);
    EXPECT_EQ(file.content(), "hello\n");
}

TEST_F(Write, OfLengthZeroReturns0AndWritesNothing)
{
    auto program = to_program("echo_lines");
    auto command = to_command("cat", "WRITE");
    const faults::Plan counting{};
    EXPECT_EQ(zt_pipe_write(program, "x", 0, &status), 0);
    EXPECT_EQ(record(), record::cleared());
    EXPECT_EQ(zt_pipe_write(command, "x", 0, &status), 0);
    EXPECT_EQ(faults::calls(Function::write), 0);
    EXPECT_EQ(faults::calls(Function::fwrite), 0);
    command.close();
}

TEST_F(Write, OfLengthZeroDumpsAnEmptyBuffer)
{
    auto pipe = to_program("echo_lines");
    TraceFile trace;
    const Flag parms(Category::write, ZT_PIPE_PARMS);
    zt_pipe_write(pipe, "x", 0, &status);
    EXPECT_EQ(trace.lines(), (Lines{"-> zt_pipe_write: [1] [see below] [0] []",
                                    "<- zt_pipe_write: [1] [] [0] [0 0 0 ] returned 0"}));
}

TEST_F(Write, TracesTheArgumentsTheDataAndTheOutcomeUnderParms)
{
    auto pipe = to_program("echo_lines");
    TraceFile trace;
    const Flag parms(Category::write, ZT_PIPE_PARMS);
    zt_pipe_write(pipe, "abc\n", 4, &status);
    EXPECT_EQ(trace.lines(), (Lines{"-> zt_pipe_write: [1] [see below] [4] []", pipes::dump_of("abc\n"),
                                    "<- zt_pipe_write: [1] [] [4] [0 0 0 ] returned 4"}));
}

TEST_F(Write, DumpsTheDataBeforeItIsWritten)
{
    auto pipe = to_program("echo_lines");
    TraceFile trace;
    const Flag parms(Category::write, ZT_PIPE_PARMS);
    const Flag signals(Category::global, ZT_PIPE_DEBUG_FLAG);
    const faults::Plan plan{{.function = Function::write, .nth = 3, .raising = SIGPIPE}};
    zt_pipe_write(pipe, "abc\n", 4, &status);
    ASSERT_EQ(trace.lines().size(), 4U);
    EXPECT_EQ(trace.lines()[1], pipes::dump_of("abc\n"));
    EXPECT_TRUE(trace.lines()[2].starts_with("   zt_pipe_signal: signal SIGPIPE")) << trace.lines()[2];
}

TEST_F(Write, TracesOnlyTheExitOfAFailureUnderExceptions)
{
    auto pipe = to_program("echo_lines");
    TraceFile trace;
    const Flag exceptions(Category::write, ZT_PIPE_EXCEPTIONS);
    zt_pipe_write(pipe, "abc\n", 4, &status);
    EXPECT_EQ(trace.lines(), Lines{});
    zt_pipe_write(pipe, nullptr, 4, &status);
    EXPECT_EQ(trace.lines(), Lines{"<-*zt_pipe_write: [1] [] [4] [10036 0 0 ] returned -1"});
}

TEST_F(Write, TracesTheInterruptThatReplacedItsOutcome)
{
    auto pipe = to_program("echo_lines");
    TraceFile trace;
    const Flag exceptions(Category::write, ZT_PIPE_EXCEPTIONS);
    const faults::Plan plan{{.function = Function::write, .raising = SIGINT}};
    zt_pipe_write(pipe, "abc\n", 4, &status);
    EXPECT_EQ(trace.lines(), Lines{"<-*zt_pipe_write: [1] [] [4] [10132 0 0 ] returned -1"});
}

TEST_F(Write, IsNotTracedByTheFlagsOfOtherCategories)
{
    auto pipe = to_program("echo_lines");
    TraceFile trace;
    const Flag open(Category::open, ZT_PIPE_PARMS);
    const Flag read(Category::read, ZT_PIPE_PARMS);
    const Flag global(Category::global, ZT_PIPE_PARMS);
    const Flag own(Category::write, ZT_PIPE_CLOCKS);
    zt_pipe_write(pipe, "x", 1, &status);
    zt_pipe_write(pipe, nullptr, 1, &status);
    EXPECT_EQ(trace.lines(), Lines{});
}

TEST_F(Write, RefusesANullBufferEvenForNoBytes)
{
    auto pipe = to_program("echo_lines");
    EXPECT_EQ(zt_pipe_write(pipe, nullptr, 0, &status), -1);
    EXPECT_EQ(record(), record::failure(ZT_PIPE_E_NULLARG, at(routine, 3207),
                                        {{"sparm[0]", "buffer"}, {"sparm[1]", routine}}));
}

TEST_F(Write, RefusesAHandleThatNamesNoPipeInItsOwnName)
{
    for (const int handle : {0, -1, 1, 15, 16, 17, 1000000}) {
        record::poison(status);
        EXPECT_EQ(zt_pipe_write(handle, nullptr, -1, &status), -1);
        EXPECT_EQ(record(), record::failure(ZT_PIPE_E_HANDLE, at(routine, 1093),
                                            {{"iparm[0]", std::to_string(handle)}}));
    }
}

TEST_F(Write, IsWhatASignalDuringItIsBookedTo)
{
    auto other = to_program("echo_lines");
    auto pipe = to_program("echo_lines");
    const faults::Plan plan{{.function = Function::write, .raising = SIGPIPE}};
    EXPECT_EQ(zt_pipe_write(pipe, "x\n", 2, &status), 2);
    EXPECT_EQ(Zt_pipe_current, nullptr);
    EXPECT_EQ(pipe->last_signal, SIGPIPE);
    EXPECT_EQ(other->last_signal, 0);
    EXPECT_EQ(zt_pipe_write(pipe, "y\n", 2, &status), 2);
    EXPECT_EQ(pipe->last_signal, SIGPIPE) << "it stays for the rest of the pipe's life";
}

TEST_F(Write, ThatWasInterruptedIsAFailureAlthoughTheBytesArrived)
{
    auto pipe = to_program("echo_lines");
    {
        const faults::Plan plan{{.function = Function::write, .raising = SIGINT}};
        EXPECT_EQ(zt_pipe_write(pipe, "x\n", 2, &status), -1);
    }
    EXPECT_EQ(record(), record::failure(ZT_PIPE_E_INTERRUPTED, at(routine, 3278)));
    EXPECT_EQ(zt_pipe_write(pipe, "", 0, &status), 0) << "the interrupt is consumed";
    EXPECT_EQ(pipes::read_until(pipe, "\n"), "x\n");
}

TEST_F(Write, OnAPipeWithoutAChildFailsAsOnABadDescriptor)
{
    const pipes::Pipe pipe("nothing", "");
    const faults::Plan counting{};
    EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), -1);
    EXPECT_EQ(record(), record::failure(ZT_PIPE_E_WRITE, at(routine, 3267),
                                        {{"sys_errno", std::to_string(EBADF)},
                                         {"sys_msg", strerrordesc_np(EBADF)},
                                         {"sparm[0]", "nothing"},
                                         {"sparm[1]", "nothing"},
                                         {"msg", "nothing"}}));
    EXPECT_EQ(faults::calls(Function::write), 0) << "the application's own descriptor 0 is none of ours";
    EXPECT_EQ(zt_pipe_write(pipe, "x", 0, &status), 0);
}

}  // namespace
