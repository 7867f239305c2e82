// Writing to a child that has gone or does not listen, and writes that fail.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zt/runtime/text.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

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

std::string trimmed(const std::string& program, size_t width)
{
    char text[256];
    return zt_trim_filename(program.c_str(), width, text);
}

class BrokenWrite : public NothingLeftTest {
  protected:
    BrokenWrite() { record::poison(status); }

    record::Fields record() const { return record::fields(status); }

    static record::Fields failed(int line, const std::string& program, int error)
    {
        return record::failure(ZT_PIPE_E_WRITE, at(routine, line),
                               {{"sys_errno", std::to_string(error)},
                                {"sys_msg", strerrordesc_np(error)},
                                {"sparm[0]", program},
                                {"sparm[1]", trimmed(program, 32)},
                                {"msg", program}});
    }

    zt::Status status;
};

volatile pid_t victim;

void end_victim(int)
{
    kill(victim, SIGKILL);
}

/// SIGUSR1 ends the pipe's child, so that a plan can let it end in the middle of a call.
class EndedBySigusr1 {
  public:
    explicit EndedBySigusr1(const zt_pipe* pipe)
    {
        victim = pipe->pid;
        struct sigaction action = {};
        action.sa_handler = end_victim;
        sigaction(SIGUSR1, &action, &before_);
    }
    ~EndedBySigusr1() { sigaction(SIGUSR1, &before_, nullptr); }
    EndedBySigusr1(const EndedBySigusr1&) = delete;
    EndedBySigusr1& operator=(const EndedBySigusr1&) = delete;

  private:
    struct sigaction before_;
};

TEST_F(BrokenWrite, ToAProgramThatHasExitedReportsItsNormalEndAsAFailure)
{
    auto pipe = to_program("exits_with 0");
    pipes::wait_for_a_child_to_end();
    TraceFile trace;
    const Flag detail(Category::write, ZT_PIPE_DEBUG_FLAG);
    EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), -1);
    EXPECT_EQ(record(), record::cleared({{"code", "10144"},
                                         {"iparm[0]", "0"},
                                         {"sparm[0]", "normally"},
                                         {"msg", trimmed(child("exits_with 0"), 256)}}));
    EXPECT_EQ(pipe->last_signal, SIGPIPE);
    EXPECT_EQ(trace.lines(), Lines{"   zt_pipe_write: SIGPIPE has occurred, so forcing wait"});
}

TEST_F(BrokenWrite, ToAProgramThatEndedWithAnErrorReportsThat)
{
    auto pipe = to_program("exits_with 7");
    pipes::wait_for_a_child_to_end();
    EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), -1);
    EXPECT_EQ(status.code, ZT_PIPE_S_ERROR);
    EXPECT_EQ(status.iparm[0], 7);
    EXPECT_STREQ(status.sparm[0], "with an error");
}

TEST_F(BrokenWrite, ToAProgramThatASignalEndedReportsThat)
{
    auto pipe = to_program("raises 9");
    pipes::wait_for_a_child_to_end();
    EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), -1);
    EXPECT_EQ(status.code, ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(status.sys_errno, 9U);
    EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), -1);
    EXPECT_EQ(status.code, ZT_PIPE_S_ABNORMAL) << "the end is remembered";
}

TEST_F(BrokenWrite, WaitsForAProgramThatClosedItsInputButLivesOn)
{
    auto pipe = to_program("closes_stdin");
    pipes::read_until(pipe, "closed\n");
    const EndedBySigusr1 ended(pipe.operator->());
    TraceFile trace;
    const Flag calls(Category::global, ZT_PIPE_PARMS);
    const faults::Plan plan{{.function = Function::waitpid, .raising = SIGUSR1}};
    EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), -1);
    EXPECT_EQ(status.code, ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(status.sys_errno, static_cast<std::uint32_t>(SIGKILL));
    EXPECT_EQ(trace.lines().at(0), "-> zt_pipe_status: [1] [true] []");
}

TEST_F(BrokenWrite, WaitsAgainAfterAnEarlierSigpipe)
{
    auto pipe = to_program("never_reads");
    {
        const faults::Plan plan{{.function = Function::write, .raising = SIGPIPE}};
        EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), 1);
    }
    const EndedBySigusr1 ended(pipe.operator->());
    const faults::Plan plan{{.function = Function::write, .error = EIO},
                            {.function = Function::waitpid, .raising = SIGUSR1}};
    EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), -1);
    EXPECT_EQ(status.code, ZT_PIPE_S_ABNORMAL);
}

TEST_F(BrokenWrite, OnlyPollsARunningProgramWithoutASigpipe)
{
    auto pipe = to_program("never_reads");
    const Flag calls(Category::global, ZT_PIPE_PARMS);
    const Flag detail(Category::write, ZT_PIPE_DEBUG_FLAG);
    for (const int last_signal : {0, SIGHUP, SIGPIPE - 1, SIGPIPE + 1}) {
        pipe->last_signal = last_signal;
        TraceFile trace;
        {
            const faults::Plan plan{{.function = Function::write, .error = EIO}};
            EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), -1);
            EXPECT_EQ(faults::calls(Function::waitpid), 1);
        }
        EXPECT_EQ(record(), failed(3267, child("never_reads"), EIO));
        EXPECT_EQ(trace.lines(), (Lines{"-> zt_pipe_status: [1] [false] []",
                                        "<- zt_pipe_status: [1] [false] [0 0 0 ] returned 0"}));
        EXPECT_EQ(pipe->wait_status, -1);
    }
}

TEST_F(BrokenWrite, ThatFallsShortGoesByWhatErrnoHolds)
{
    auto pipe = to_program("never_reads");
    for (const auto& [error, expected] :
         {std::pair{ENOSPC, failed(3267, child("never_reads"), ENOSPC)},
          {EINTR, record::failure(ZT_PIPE_E_INTERRUPTED, at(routine, 3244))},
          {EAGAIN, record::failure(ZT_PIPE_E_INTERRUPTED, at(routine, 3244))}}) {
        record::poison(status);
        const faults::Plan plan{{.function = Function::write, .error = error, .result = 2}};
        EXPECT_EQ(zt_pipe_write(pipe, "abc", 3, &status), -1);
        EXPECT_EQ(record(), expected);
        EXPECT_EQ(faults::calls(Function::write), 1) << "no retry";
    }
}

TEST_F(BrokenWrite, ToAFullPipeThatMayNotBlockIsInterrupted)
{
    auto pipe = to_program("never_reads");
    fcntl(pipe->write_fd, F_SETFL, O_NONBLOCK);
    const std::string much(1 << 20, 'x');
    errno = 0;
    EXPECT_EQ(zt_pipe_write(pipe, much.data(), 1 << 20, &status), -1);  // short: the pipe's capacity went out
    EXPECT_EQ(zt_pipe_write(pipe, much.data(), 1 << 20, &status), -1);
    EXPECT_EQ(status.code, ZT_PIPE_E_INTERRUPTED);
    EXPECT_EQ(status.where, at(routine, 3244));
}

TEST_F(BrokenWrite, WithAPendingInterruptIsInterruptedWhateverTheError)
{
    auto pipe = to_program("never_reads");
    const faults::Plan plan{{.function = Function::write, .error = EIO, .raising = SIGINT}};
    EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), -1);
    EXPECT_EQ(record(), record::failure(ZT_PIPE_E_INTERRUPTED, at(routine, 3244)));
    EXPECT_EQ(faults::calls(Function::waitpid), 0);
}

TEST_F(BrokenWrite, PassesOnThatTheChildCouldNotBeAskedFor)
{
    auto pipe = to_program("never_reads");
    const faults::Plan plan{{.function = Function::write, .error = EIO},
                            {.function = Function::waitpid, .error = EINVAL}};
    EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), -1);
    EXPECT_EQ(record(), record::failure(ZT_PIPE_E_WAIT, at("zt_pipe_status", 1490),
                                        {{"sys_errno", std::to_string(EINVAL)},
                                         {"sys_msg", strerrordesc_np(EINVAL)},
                                         {"sparm[0]", child("never_reads")},
                                         {"sparm[1]", trimmed(child("never_reads"), 32)},
                                         {"msg", child("never_reads")}}));
}

TEST_F(BrokenWrite, ToAChildThatWasCollectedElsewhereKnowsNoEndToReportTheFirstTime)
{
    auto pipe = to_program("exits_with 3");
    pipes::wait_for_a_child_to_end();
    const faults::Plan plan{{.function = Function::waitpid, .error = ECHILD}};
    EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), 1);
    EXPECT_EQ(record(), record::cleared());
    EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), -1);
    EXPECT_EQ(status.code, ZT_PIPE_S_NORMAL) << "from then on it counts as a normal end";
}

TEST_F(BrokenWrite, PassesOnThatTheChildIsStillActive)
{
    auto pipe = to_program("never_reads");
    pipe->last_signal = SIGPIPE;
    const faults::Plan plan{{.function = Function::write, .error = EIO},
                            {.function = Function::waitpid, .result = 0}};
    EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), -1);
    EXPECT_EQ(record(), record::failure(ZT_PIPE_E_ACTIVE, at("zt_pipe_status", 1502),
                                        {{"msg", "program still active"}}));
}

// -------------------------------------------------------------------------------------------- COMMAND pipes

TEST_F(BrokenWrite, ToACommandThatHasGoneSucceedsWhileTheStreamBuffersIt)
{
    auto pipe = to_command("true", "WRITE");
    pipes::wait_for_a_child_to_end();
    EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), 1);
    const std::string much(1 << 20, 'x');
    EXPECT_EQ(zt_pipe_write(pipe, much.data(), 1 << 20, &status), -1);
    EXPECT_EQ(record(), failed(3231, "true", EPIPE));
    EXPECT_EQ(pipe->last_signal, SIGPIPE);
}

TEST_F(BrokenWrite, ToACommandIsInterruptedByEintrAndEagain)
{
    auto pipe = to_command("cat", "WRITE");
    for (const int error : {EINTR, EAGAIN}) {
        record::poison(status);
        const faults::Plan plan{{.function = Function::fwrite, .error = error, .result = 1}};
        EXPECT_EQ(zt_pipe_write(pipe, "\n\n", 2, &status), -1);
        EXPECT_EQ(record(), record::failure(ZT_PIPE_E_INTERRUPTED, at(routine, 3227)));
        EXPECT_EQ(faults::calls(Function::fwrite), 1) << "no retry";
    }
}

TEST_F(BrokenWrite, ToACommandWithAPendingInterruptIsInterruptedWhateverTheError)
{
    auto pipe = to_command("cat", "WRITE");
    const faults::Plan plan{{.function = Function::fwrite, .error = EIO, .raising = SIGINT}};
    EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), -1);
    EXPECT_EQ(record(), record::failure(ZT_PIPE_E_INTERRUPTED, at(routine, 3227)));
}

TEST_F(BrokenWrite, ToACommandThatIsReadFails)
{
    auto pipe = to_command("cat < /dev/null");
    EXPECT_EQ(zt_pipe_write(pipe, "x", 1, &status), -1);
    EXPECT_EQ(record(), failed(3231, "cat < /dev/null", EBADF));
}

}  // namespace
