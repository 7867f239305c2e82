#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/record.h"
#include "tests/support/tracefile.h"
#include "tests/support/transfers.h"

using faults::Function;
using pipes::Category;
using pipes::Flag;

namespace {

class LaunchTrace : public NothingLeftTest {
  protected:
    LaunchTrace()
    {
        Zt_pipe_large_parent = LONG_MAX;  // the road of fork, also in a process that a sanitizer makes large
        pipe.handle = 7;
        pipe.stderr_mode = ZT_PIPE_STDERR_COMBINE;
    }

    // The file's name would show up as a change of the environment otherwise.
    Lines popen_lines(const char* program)
    {
        const TraceFile trace;
        strcpy(pipe.program, program);
        zt_pipe_popen(&pipe, nullptr, nullptr, &status);
        if (pipe.fh != nullptr) pclose(pipe.fh);
        return trace.lines();
    }

    Lines fork_lines(const char* program, const char* const* argv = nullptr)
    {
        const TraceFile trace;
        strcpy(pipe.program, program);
        if (zt_pipe_fork(&pipe, argv, nullptr, &status) != 0) return trace.lines();
        close(pipe.read_fd);
        close(pipe.write_fd);
        waitpid(pipe.pid, nullptr, 0);
        return trace.lines();
    }

    zt_pipe pipe{};
    zt::Status status;
};

}  // namespace

TEST_F(LaunchTrace, ShowsNothingWithoutItsFlags)
{
    const Flag others[] = {{Category::open, ZT_PIPE_EXCEPTIONS}, {Category::global, ZT_PIPE_PARMS}};
    EXPECT_EQ(popen_lines("true"), Lines{});
    EXPECT_EQ(fork_lines("true"), Lines{});
}

TEST_F(LaunchTrace, ShowsTheCommandAndItsStreamBetweenEntryAndExit)
{
    const Flag flags[] = {{Category::open, ZT_PIPE_PARMS}, {Category::open, ZT_PIPE_DEBUG_FLAG}};
    const Lines lines = popen_lines("true");
    char stream[64];
    snprintf(stream, sizeof stream, "%p", static_cast<void*>(pipe.fh));
    EXPECT_EQ(lines, (Lines{"-> zt_pipe_popen: [7] [] [] []", "   zt_pipe_popen: p->program: true 2>&1",
                            std::string("   zt_pipe_popen: popen of 'true 2>&1' as fh ") + stream,
                            "<- zt_pipe_popen: [7] [] [] [0 0 0 ] returned 0"}));
}

TEST_F(LaunchTrace, ShowsAFailedPopenBeforeTheExitLine)
{
    const Flag flags[] = {{Category::open, ZT_PIPE_PARMS}, {Category::open, ZT_PIPE_DEBUG_FLAG}};
    const faults::Plan plan{{.function = Function::popen, .error = EMFILE}};
    EXPECT_EQ(popen_lines("cat"),
              (Lines{"-> zt_pipe_popen: [7] [] [] []", "   zt_pipe_popen: p->program: cat 2>&1",
                     std::string("   zt_pipe_popen: popen of 'cat 2>&1' failed: ") + strerror(EMFILE),
                     "<-*zt_pipe_popen: [7] [] [] [10100 0 24 cat] returned 10100"}));
}

TEST_F(LaunchTrace, ShowsEachWordOfAProgramAndWhatBothProcessesDo)
{
    const Flag flag{Category::open, ZT_PIPE_DEBUG_FLAG};
    Lines lines = fork_lines("sort -r");
    ASSERT_EQ(lines.size(), 6u);
    std::sort(lines.begin() + 4, lines.end());  // one of the parent, one of the child
    EXPECT_EQ(lines, (Lines{"   zt_pipe_fork: argv:", "      0: |sort|", "      1: |-r|",
                            "   zt_pipe_fork: opening pipes",
                            "   zt_pipe_fork: duping and pushing pipes to stdin, stdout, stderr",
                            "   zt_pipe_fork: forked as pid " + std::to_string(pipe.pid)}));
}

TEST_F(LaunchTrace, ShowsTheLaunchersEntryAndExit)
{
    const Flag flag{Category::open, ZT_PIPE_PARMS};
    EXPECT_EQ(fork_lines("true"),
              (Lines{"-> zt_pipe_fork: [7] [] [] []", "<- zt_pipe_fork: [7] [] [] [0 0 0 ] returned 0"}));
}

TEST_F(LaunchTrace, SaysNothingOfAProgramThatDoesNotExist)
{
    const Flag flag{Category::open, ZT_PIPE_PARMS};
    EXPECT_EQ(fork_lines("/no/such/program"),
              (Lines{"-> zt_pipe_fork: [7] [] [] []", "<- zt_pipe_fork: [7] [] [] [0 0 0 ] returned 0"}));
}

TEST_F(LaunchTrace, ShowsAFailedForkAfterItsReport)
{
    const Flag flags[] = {{Category::open, ZT_PIPE_PARMS}, {Category::open, ZT_PIPE_DEBUG_FLAG}};
    const faults::Plan plan{{.function = Function::fork, .error = EAGAIN}};
    const char* const argv[] = {"cat", nullptr};
    EXPECT_EQ(fork_lines("cat", argv),
              (Lines{"-> zt_pipe_fork: [7] [] [] []", "   zt_pipe_fork: argv:", "      0: |cat|",
                     "   zt_pipe_fork: opening pipes",
                     std::string("   zt_pipe_fork: fork failed: ") + strerror(EAGAIN),
                     "<-*zt_pipe_fork: [7] [] [] [10137 0 11 cat] returned 10137"}));
}

TEST_F(LaunchTrace, ShowsTheExitOfAChildThatCannotBeWired)
{
    const Flag flag{Category::open, ZT_PIPE_PARMS};
    const faults::Plan plan{{.function = Function::dup2, .error = EBUSY, .in_child = true}};
    const TraceFile trace;
    strcpy(pipe.program, "true");
    const pid_t parent = getpid();
    zt_pipe_fork(&pipe, nullptr, nullptr, &status);
    if (getpid() != parent) _exit(0);
    close(pipe.read_fd);
    close(pipe.write_fd);
    waitpid(pipe.pid, nullptr, 0);
    Lines lines = trace.lines();
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (Lines{"-> zt_pipe_fork: [7] [] [] []", "<- zt_pipe_fork: [7] [] [] [0 0 0 ] returned 0",
                            "<-*zt_pipe_fork: [7] [] [] [10136 0 16 fd1[0]->stdin] returned 10136"}));
}
