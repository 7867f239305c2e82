#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/record.h"
#include "tests/support/tracefile.h"
#include "tests/support/transfers.h"

using faults::Function;
using pipes::Category;
using pipes::Flag;

namespace {

using PipeSignal = NothingLeftTest;

const Lines normal_end = {"-> zt_pipe_cleanup: beginning cleanup processing due to normal termination",
                          "<- zt_pipe_cleanup: completed cleanup processing"};

// The cleanup as the end of the process would call it. It frees the table, so that what it leaves cannot be
// compared with what was there.
class Cleanup : public ::testing::Test {
  protected:
    Cleanup() { Leftovers::settle(); }

    static int collect(pid_t pid)
    {
        int word = -1;
        EXPECT_EQ(waitpid(pid, &word, 0), pid) << "the cleanup does not wait for it";
        return word;
    }
};

bool ended_by_term(int word)
{
    return WIFSIGNALED(word) && WTERMSIG(word) == SIGTERM;
}

}  // namespace

TEST_F(PipeSignal, OfUnknownOriginOnlyWritesALine)
{
    const int handle = pipes::open("cat");
    raise(SIGPIPE);
    const TraceFile trace;
    {
        const Flag flag{Category::global, ZT_PIPE_DEBUG_FLAG};
        raise(SIGPIPE);
    }
    EXPECT_EQ(trace.lines(), (Lines{"   zt_pipe_signal: signal SIGPIPE: unknown origin"}));
    EXPECT_EQ(pipes::block(handle)->last_signal, 0);
    EXPECT_EQ(Zt_pipe_current, nullptr);
    EXPECT_EQ(pipes::close(handle, "NOKILL"), 0u);
}

TEST_F(PipeSignal, DuringAWriteIsRememberedForTheRestOfThePipesLife)
{
    const int handle = pipes::open(child("exits_with 3"));
    pipes::wait_for_a_child_to_end();
    zt::Status status;
    EXPECT_EQ(zt_pipe_write(handle, "x", 1, &status), -1);
    EXPECT_EQ(status.code, ZT_PIPE_S_ERROR);
    EXPECT_EQ(pipes::block(handle)->last_signal, SIGPIPE);
    char byte;
    EXPECT_EQ(zt_pipe_read(handle, &byte, 1, nullptr, &status), -1);
    EXPECT_EQ(zt_pipe_write(handle, "", 0, &status), 0);
    EXPECT_EQ(pipes::block(handle)->last_signal, SIGPIPE);
    EXPECT_EQ(pipes::close(handle), ZT_PIPE_S_ERROR);
}

TEST_F(PipeSignal, NamesThePipeThatIsWorkedOn)
{
    const int handle = pipes::open("cat");
    const int other = pipes::open("no child", "");
    const std::string pid = std::to_string(pipes::block(handle)->pid);
    const TraceFile trace;
    {
        const Flag flag{Category::global, ZT_PIPE_DEBUG_FLAG};
        Zt_pipe_current = pipes::block(handle);
        zt_pipe_signal(SIGPIPE);
        zt_pipe_signal(SIGHUP);
        Zt_pipe_current = nullptr;
    }
    EXPECT_EQ(trace.lines(), (Lines{"   zt_pipe_signal: signal SIGPIPE: pid " + pid + " (cat)",
                                    "   zt_pipe_signal: signal SIGHUP: pid " + pid + " (cat)"}));
    EXPECT_EQ(pipes::block(handle)->last_signal, SIGHUP);
    EXPECT_EQ(pipes::block(other)->last_signal, 0);
    EXPECT_EQ(pipes::close(other), 0u);
    EXPECT_EQ(pipes::close(handle, "NOKILL"), 0u);
}

TEST_F(PipeSignal, IsBookedToThePipeThatIsBeingClosed)
{
    const int handle = pipes::open_lasting();
    const std::string pid = std::to_string(pipes::block(handle)->pid);
    const TraceFile trace;
    const Flag flag{Category::global, ZT_PIPE_DEBUG_FLAG};
    const faults::Plan plan{{.function = Function::kill, .raising = SIGPIPE}};
    EXPECT_EQ(pipes::close(handle), ZT_PIPE_S_ABNORMAL);
    const Lines lines = trace.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "   zt_pipe_signal: signal SIGPIPE: pid " + pid + " (" + child("never_reads") + ")"),
              1);
}

TEST_F(PipeSignal, FindsItsHandlerAgainAfterEachDelivery)
{
    const TraceFile trace;
    const Flag flag{Category::global, ZT_PIPE_DEBUG_FLAG};
    for (int i = 0; i < 3; ++i) raise(SIGPIPE);
    EXPECT_EQ(trace.lines().size(), 3u);
}

TEST_F(Cleanup, AtNormalTerminationWaitsForCommandsAndTellsProgramsToEnd)
{
    const TemporaryFile file;
    const int program = pipes::open_lasting();
    const pid_t pid = pipes::block(program)->pid;
    const int command = pipes::open("cat >" + file.path(), "COMMAND WRITE");
    pipes::open("no child", "");
    pipes::write(command, "still buffered");
    const faults::Plan only_counting{};
    zt_pipe_cleanup(0);
    EXPECT_EQ(faults::calls(Function::pclose), 1);
    EXPECT_EQ(faults::calls(Function::kill), 1);
    EXPECT_EQ(file.content(), "still buffered");
    EXPECT_EQ(Zt_pipes, nullptr);
    EXPECT_EQ(Zt_avail_pipes, 0);
    EXPECT_EQ(Zt_used_pipes, 1);
    EXPECT_TRUE(ended_by_term(collect(pid)));
    EXPECT_EQ(Leftovers().found(), Leftovers::none);
}

TEST_F(Cleanup, ClosesCommandsWithoutOptionsAndOthersWithNowait)
{
    const pid_t pid = pipes::block(pipes::open_lasting())->pid;
    pipes::open("true", "COMMAND");
    pipes::open("no child", "");
    const TraceFile trace;
    const Flag flag{Category::close, ZT_PIPE_PARMS};
    zt_pipe_cleanup(0);
    Lines entries;
    for (const std::string& line : trace.lines())
        if (line.starts_with("->")) entries.push_back(line);
    EXPECT_EQ(entries, (Lines{"-> zt_ipipe_close: [1] [NOWAIT] []", "-> zt_ipipe_close: [2] [] []",
                              "-> zt_ipipe_close: [3] [NOWAIT] []"}));
    collect(pid);
}

TEST_F(Cleanup, TakesANegativeNumberForNormalTermination)
{
    const pid_t pid = pipes::block(pipes::open_lasting())->pid;
    const TraceFile trace;
    {
        const Flag flag{Category::global, ZT_PIPE_DEBUG_FLAG};
        zt_pipe_cleanup(-1);
    }
    const Lines lines = trace.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ((Lines{lines.front(), lines.back()}), normal_end);
    EXPECT_EQ(Zt_avail_pipes, 0);
    collect(pid);
}

TEST_F(Cleanup, WithoutOpenPipesFreesTheTable)
{
    ASSERT_NE(Zt_pipes, nullptr);
    const TraceFile trace;
    {
        const Flag flag{Category::global, ZT_PIPE_DEBUG_FLAG};
        zt_pipe_cleanup(0);
    }
    EXPECT_EQ(trace.lines(), normal_end);
    EXPECT_EQ(Zt_pipes, nullptr);
    EXPECT_EQ(Zt_avail_pipes, 0);
}

TEST_F(Cleanup, MakesTheNextOpenSetTheModuleUpAgain)
{
    zt_pipe_cleanup(0);
    zt_pipe_cleanup(0);
    const int handle = pipes::open("echo again", "COMMAND");
    EXPECT_EQ(handle, 1);
    EXPECT_EQ(Zt_avail_pipes, 16);
    EXPECT_EQ(pipes::read_all(handle), "again\n");
    EXPECT_EQ(pipes::close(handle), 0u);
}

TEST_F(Cleanup, SaysThatThereIsNoTableWhereThatWasLost)
{
    zt_pipe_cleanup(0);
    Zt_avail_pipes = 16;
    zt_pipe_cleanup(0);
    EXPECT_EQ(Zt_avail_pipes, 0);
}

TEST_F(Cleanup, ClosesEverythingForASignalThatIsSafe)
{
    const pid_t pid = pipes::block(pipes::open_lasting())->pid;
    const TraceFile trace;
    {
        const Flag flag{Category::global, ZT_PIPE_DEBUG_FLAG};
        zt_pipe_cleanup(SIGTERM);
    }
    EXPECT_EQ(trace.lines().front(),
              "-> zt_pipe_cleanup: beginning cleanup processing due to signal: Terminated");
    EXPECT_EQ(trace.lines().back(), normal_end[1]);
    EXPECT_EQ(Zt_avail_pipes, 0);
    collect(pid);
}

TEST_F(Cleanup, LeavesEverythingOpenForASignalThatIsNotSafe)
{
    const int handle = pipes::open("cat");
    const TraceFile trace;
    {
        const Flag flag{Category::global, ZT_PIPE_DEBUG_FLAG};
        zt_pipe_cleanup(SIGSEGV);
    }
    EXPECT_EQ(trace.lines(),
              (Lines{"-> zt_pipe_cleanup: beginning cleanup processing due to signal: Segmentation fault",
                     normal_end[1]}));
    EXPECT_EQ(Zt_avail_pipes, 16);
    pipes::write(handle, "still here\n");
    EXPECT_EQ(pipes::read_until(handle, "\n"), "still here\n");
    EXPECT_EQ(pipes::close(handle, "NOKILL"), 0u);
}

TEST_F(Cleanup, IgnoresWhatTheClosesReport)
{
    const pid_t pid = pipes::block(pipes::open_lasting())->pid;
    pipes::open("exit 3", "COMMAND");
    {
        const faults::Plan plan{{.function = Function::kill, .error = EPERM},
                                {.function = Function::pclose, .error = EIO}};
        zt_pipe_cleanup(0);
    }
    EXPECT_EQ(Zt_avail_pipes, 0);
    kill(pid, SIGKILL);
    collect(pid);
}
