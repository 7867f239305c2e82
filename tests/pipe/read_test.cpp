// Reading into the caller's buffer, without a delimiter and without interrupts.
#include <gtest/gtest.h>
#include <zt/runtime/text.h>

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

constexpr char routine[] = "zt_pipe_read";

class Read : public NothingLeftTest {
  protected:
    Read()
    {
        record::poison(status);
        std::memset(buffer, '#', sizeof buffer);
    }

    int read(int handle, int size) { return zt_pipe_read(handle, buffer, size, nullptr, &status); }
    record::Fields record() const { return record::fields(status); }
    std::string bytes(size_t count) const { return std::string(buffer, count); }

    zt::Status status;
    char buffer[64];
};

std::string named(const std::string& name_and_arguments)
{
    char text[256];
    return zt_trim_filename(child(name_and_arguments).c_str(), sizeof text, text);
}

TEST_F(Read, OfAProgramThatWritesAbcAndExitsGives3AndItsEndAsAWarning)
{
    auto pipe = to_program("prints_then_exits 0 abc");
    EXPECT_EQ(read(pipe, 10), 3);
    EXPECT_EQ(bytes(4), "abc#") << "no terminator";
    EXPECT_EQ(record(), record::cleared({{"subcode", "10144"},
                                         {"count", "3"},
                                         {"iparm[0]", "0"},
                                         {"sparm[0]", "normally"},
                                         {"msg", named("prints_then_exits 0 abc")}}));
}

TEST_F(Read, OfAProgramThatFailsAfterItsOutputWarnsOfTheError)
{
    auto pipe = to_program("prints_then_exits 5 abc");
    EXPECT_EQ(read(pipe, 10), 3);
    EXPECT_EQ(record(), record::cleared({{"subcode", "10145"},
                                         {"count", "3"},
                                         {"iparm[0]", "5"},
                                         {"sparm[0]", "with an error"},
                                         {"msg", named("prints_then_exits 5 abc")}}));
}

TEST_F(Read, OfACommandThatWritesAbcAndExitsAsksForNoStatus)
{
    auto pipe = to_command("printf abc");
    const faults::Plan counting{};
    EXPECT_EQ(read(pipe, 10), 3);
    EXPECT_EQ(bytes(4), "abc#");
    EXPECT_EQ(record(), record::cleared({{"count", "3"}}));
    EXPECT_EQ(faults::calls(Function::waitpid), 0);
}

TEST_F(Read, OfACommandAtItsEndGives0AndNoWarning)
{
    auto pipe = to_command("exit 3");
    EXPECT_EQ(read(pipe, 10), 0);
    EXPECT_EQ(record(), record::cleared({{"count", "0"}}));
}

TEST_F(Read, OfASilentProgramIsNoFailureWhenItEndsNormally)
{
    auto pipe = to_program("exits_with 0");
    EXPECT_EQ(read(pipe, 10), 0);
    EXPECT_EQ(status.code, 0U);
    EXPECT_EQ(status.subcode, ZT_PIPE_S_NORMAL);
    EXPECT_EQ(status.count, 0);
}

TEST_F(Read, OfASilentProgramIsAFailureWhenItEndsWithAnError)
{
    auto pipe = to_program("exits_with 3");
    EXPECT_EQ(read(pipe, 10), -1);
    EXPECT_EQ(record(), record::cleared({{"code", "10145"},
                                         {"count", "0"},
                                         {"iparm[0]", "3"},
                                         {"sparm[0]", "with an error"},
                                         {"msg", named("exits_with 3")}}));
}

TEST_F(Read, OfASilentProgramIsAFailureWhenASignalEndsIt)
{
    auto pipe = to_program("raises 9");
    EXPECT_EQ(read(pipe, 10), -1);
    EXPECT_EQ(status.code, ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(status.sys_errno, 9U);
}

TEST_F(Read, StopsAtAFullBufferWithoutWaitingForTheChild)
{
    auto pipe = to_program("prints_then_waits abcdef");
    EXPECT_EQ(read(pipe, 4), 4);
    EXPECT_EQ(bytes(5), "abcd#");
    EXPECT_EQ(record(), record::cleared({{"count", "4"}}));
    EXPECT_EQ(read(pipe, 2), 2);
    EXPECT_EQ(bytes(2), "ef") << "the rest comes with the next read";
}

TEST_F(Read, GoesOnAfterShortTransfersUntilTheBufferIsFull)
{
    for (const Function function : {Function::read, Function::fread}) {
        auto pipe = function == Function::read ? to_program("prints_then_waits abcdef")
                                               : to_command("printf abcdefgh");
        const faults::Plan plan{{.function = function, .nth = 1, .result = 1},
                                {.function = function, .nth = 2, .result = 4}};
        EXPECT_EQ(read(pipe, 6), 6);
        EXPECT_EQ(bytes(7), "abcdef#");
        EXPECT_EQ(faults::calls(function), 3);
    }
}

TEST_F(Read, OfSize0Returns0WithoutASystemCall)
{
    auto program = to_program("echo_lines");
    auto command = to_command("cat < /dev/null");
    const faults::Plan counting{};
    EXPECT_EQ(read(program, 0), 0);
    EXPECT_EQ(record(), record::cleared({{"count", "0"}}));
    EXPECT_EQ(read(command, 0), 0);
    EXPECT_EQ(faults::calls(Function::read), 0);
    EXPECT_EQ(faults::calls(Function::fread), 0);
    EXPECT_EQ(faults::calls(Function::waitpid), 0);
}

TEST_F(Read, OfSize0IsStillTraced)
{
    auto pipe = to_program("echo_lines");
    TraceFile trace;
    const Flag parms(Category::read, ZT_PIPE_PARMS);
    read(pipe, 0);
    EXPECT_EQ(trace.lines(), (Lines{"-> zt_pipe_read: [1] [] [0] [<NULL>] []",
                                    "<- zt_pipe_read: [1] [see below] [0] [<NULL>] [0 0 0 ] returned 0"}));
}

TEST_F(Read, AfterTheEndDecodesTheRememberedEnd)
{
    auto pipe = to_program("prints_then_exits 2 abc");
    EXPECT_EQ(read(pipe, 10), 3);
    const faults::Plan counting{};
    EXPECT_EQ(read(pipe, 10), -1);
    EXPECT_EQ(status.code, ZT_PIPE_S_ERROR);
    EXPECT_EQ(faults::calls(Function::waitpid), 0);
}

TEST_F(Read, WaitsForTheEndOfAProgramThatClosedItsOutput)
{
    auto pipe = to_program("closes_stdout 0");
    TraceFile trace;
    const Flag calls(Category::global, ZT_PIPE_PARMS);
    close(pipe->write_fd);  // so that the child ends, at some time
    pipe->write_fd = 0;
    EXPECT_EQ(read(pipe, 10), 0);
    EXPECT_EQ(status.subcode, ZT_PIPE_S_NORMAL);
    EXPECT_EQ(trace.lines().at(0), "-> zt_pipe_status: [1] [true] []");
}

TEST_F(Read, ReportsAnEndWhoseChildIsNotCollected)
{
    auto pipe = to_program("prints_then_exits 0 abc");
    {
        const faults::Plan plan{{.function = Function::waitpid, .result = 1}};
        EXPECT_EQ(read(pipe, 10), 3);
    }
    EXPECT_EQ(status.subcode, ZT_PIPE_E_READ);
    EXPECT_EQ(status.where, at(routine, 2920));
    const faults::Plan plan{{.function = Function::waitpid, .error = ENOLCK, .result = 1}};
    record::poison(status);
    EXPECT_EQ(read(pipe, 10), -1);
    const std::string program = child("prints_then_exits 0 abc");
    char short_program[32];
    zt_trim_filename(program.c_str(), sizeof short_program, short_program);
    EXPECT_EQ(record(), record::failure(ZT_PIPE_E_READ, at(routine, 2920),
                                        {{"sys_errno", std::to_string(ENOLCK)},
                                         {"sys_msg", strerrordesc_np(ENOLCK)},
                                         {"sparm[0]", program},
                                         {"sparm[1]", short_program},
                                         {"msg", program},
                                         {"count", "0"}}));
    EXPECT_EQ(pipe->wait_status, -1);
}

TEST_F(Read, PassesOnThatTheChildCouldNotBeWaitedFor)
{
    auto pipe = to_program("prints_then_exits 0 abc");
    const faults::Plan plan{{.function = Function::waitpid, .from_then_on = true, .error = EINVAL}};
    EXPECT_EQ(read(pipe, 10), 3);
    EXPECT_EQ(status.subcode, ZT_PIPE_E_WAIT);
    EXPECT_EQ(status.where, at("zt_pipe_status", 1490));
    EXPECT_EQ(read(pipe, 10), -1);
    EXPECT_EQ(status.code, ZT_PIPE_E_WAIT);
}

TEST_F(Read, CountsAChildThatWasCollectedElsewhereAsANormalEndFromTheNextReadOn)
{
    auto pipe = to_program("exits_with 3");
    pipes::wait_for_a_child_to_end();
    const faults::Plan plan{{.function = Function::waitpid, .error = ECHILD}};
    EXPECT_EQ(read(pipe, 10), 0);
    EXPECT_EQ(record(), record::cleared({{"count", "0"}}));
    EXPECT_EQ(read(pipe, 10), 0);
    EXPECT_EQ(status.subcode, ZT_PIPE_S_NORMAL);
}

TEST_F(Read, RefusesANullBufferEvenOfSize0)
{
    auto pipe = to_program("echo_lines");
    EXPECT_EQ(zt_pipe_read(pipe, nullptr, 0, "x", &status), -1);
    EXPECT_EQ(record(), record::failure(ZT_PIPE_E_NULLARG, at(routine, 2824),
                                        {{"sparm[0]", "buffer"}, {"sparm[1]", routine}, {"count", "0"}}));
}

TEST_F(Read, RefusesAHandleThatNamesNoPipeInItsOwnName)
{
    for (const int handle : {0, -1, 1, 15, 16, 1000000}) {
        record::poison(status);
        EXPECT_EQ(zt_pipe_read(handle, nullptr, -1, nullptr, &status), -1);
        EXPECT_EQ(record(), record::failure(ZT_PIPE_E_HANDLE, at(routine, 1093),
                                            {{"iparm[0]", std::to_string(handle)}, {"count", "0"}}));
    }
}

TEST_F(Read, IsWhatASignalDuringItIsBookedTo)
{
    auto other = to_program("echo_lines");
    auto pipe = to_program("prints_then_waits abc");
    const faults::Plan plan{{.function = Function::read, .raising = SIGPIPE}};
    EXPECT_EQ(read(pipe, 3), 3);
    EXPECT_EQ(pipe->last_signal, SIGPIPE);
    EXPECT_EQ(other->last_signal, 0);
    EXPECT_EQ(Zt_pipe_current, nullptr);
}

TEST_F(Read, OnAPipeWithoutAChildFailsAsOnABadDescriptor)
{
    const pipes::Pipe pipe("nothing", "");
    const faults::Plan counting{};
    EXPECT_EQ(read(pipe, 10), -1);
    EXPECT_EQ(record(), record::failure(ZT_PIPE_E_READ, at(routine, 2906),
                                        {{"sys_errno", std::to_string(EBADF)},
                                         {"sys_msg", strerrordesc_np(EBADF)},
                                         {"sparm[0]", "nothing"},
                                         {"sparm[1]", "nothing"},
                                         {"msg", "nothing"},
                                         {"count", "0"}}));
    EXPECT_EQ(faults::calls(Function::read), 0) << "the application's own descriptor 0 is none of ours";
}

}  // namespace
