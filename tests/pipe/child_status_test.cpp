#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/record.h"
#include "tests/support/tracefile.h"
#include "tests/support/transfers.h"

using faults::Function;
using pipes::at;
using pipes::Category;
using pipes::Flag;

namespace {

constexpr char routine[] = "zt_pipe_status";

class ChildStatus : public NothingLeftTest {
  protected:
    int poll(int handle) { return ask(handle, false); }
    int wait(int handle) { return ask(handle, true); }

    int ask(int handle, bool wait_for_it)
    {
        record::poison(status);
        return zt_pipe_status(handle, wait_for_it, &status);
    }

    zt::Status status;
};

record::Fields ended(std::uint32_t code, const char* how, int number, int error, const std::string& program)
{
    return record::cleared({{"code", std::to_string(code)},
                            {"sys_errno", std::to_string(error)},
                            {"iparm[0]", std::to_string(number)},
                            {"sparm[0]", how},
                            {"msg", program}});
}

record::Fields wait_failure(int error, const char* program)
{
    return record::failure(ZT_PIPE_E_WAIT, at(routine, 1490),
                           {{"sys_errno", std::to_string(error)},
                            {"sys_msg", strerror(error)},
                            {"sparm[0]", program},
                            {"sparm[1]", program},
                            {"msg", program}});
}

}  // namespace

TEST_F(ChildStatus, DoesNothingForACommandWhateverItsShellDoes)
{
    const int handle = pipes::open("exit 3", "COMMAND");
    pipes::wait_for_a_child_to_end();
    EXPECT_EQ(poll(handle), 0);
    EXPECT_EQ(record::fields(status), record::cleared());
    EXPECT_EQ(wait(handle), 0);
    EXPECT_EQ(record::fields(status), record::cleared());
    EXPECT_EQ(pipes::block(handle)->wait_status, -1);
    EXPECT_EQ(pipes::close(handle), ZT_PIPE_S_ERROR);
}

TEST_F(ChildStatus, PollsARunningChildWithSuccessAndKeepsItUncollected)
{
    const int handle = pipes::open("cat");
    EXPECT_EQ(poll(handle), 0);
    EXPECT_EQ(record::fields(status), record::cleared());
    EXPECT_EQ(pipes::block(handle)->wait_status, -1);
    EXPECT_EQ(pipes::close(handle, "NOKILL"), 0u);
}

TEST_F(ChildStatus, SaysHowAChildEndedWithoutCallingThatAFailure)
{
    const std::string normal = child("exits_with 0"), error = child("exits_with 3"),
                      killed = child("raises 9");
    const struct {
        std::string program;
        record::Fields expected;
        std::uint32_t closed;
    } cases[] = {{normal, ended(ZT_PIPE_S_NORMAL, "normally", 0, 0, normal), 0},
                 {error, ended(ZT_PIPE_S_ERROR, "with an error", 3, 0, error), ZT_PIPE_S_ERROR},
                 {killed, ended(ZT_PIPE_S_ABNORMAL, "abnormally", 9, 9, killed), ZT_PIPE_S_ABNORMAL}};
    for (const auto& [program, expected, closed] : cases) {
        const int handle = pipes::open(program);
        EXPECT_EQ(wait(handle), 0);
        EXPECT_EQ(record::fields(status), expected);
        EXPECT_EQ(pipes::close(handle), closed);
    }
}

TEST_F(ChildStatus, FindsAnEndedChildByPolling)
{
    const int handle = pipes::open(child("exits_with 3"));
    pipes::wait_for_a_child_to_end();
    EXPECT_EQ(poll(handle), 0);
    EXPECT_EQ(status.code, ZT_PIPE_S_ERROR);
    EXPECT_EQ(pipes::close(handle), ZT_PIPE_S_ERROR);
}

TEST_F(ChildStatus, CollectsAChildOnceAndSaysTheSameEveryTime)
{
    const int handle = pipes::open(child("exits_with 3"));
    const faults::Plan only_counting{};
    EXPECT_EQ(wait(handle), 0);
    const record::Fields first = record::fields(status);
    const int word = pipes::block(handle)->wait_status;
    EXPECT_EQ(faults::calls(Function::waitpid), 1);
    EXPECT_EQ(poll(handle), 0);
    EXPECT_EQ(wait(handle), 0);
    EXPECT_EQ(record::fields(status), first);
    EXPECT_EQ(faults::calls(Function::waitpid), 1);
    EXPECT_EQ(pipes::block(handle)->wait_status, word);
    EXPECT_EQ(pipes::close(handle), ZT_PIPE_S_ERROR);
}

TEST_F(ChildStatus, CutsALongProgramTextToFitTheMessage)
{
    const int handle = pipes::open(child("exits_with 0 ") + std::string(300, 'x'));
    EXPECT_EQ(wait(handle), 0);
    EXPECT_EQ(status.code, ZT_PIPE_S_NORMAL);
    EXPECT_EQ(strlen(status.msg), 255u);
    EXPECT_EQ(pipes::close(handle), 0u);
}

TEST_F(ChildStatus, RefusesABadHandleInItsOwnName)
{
    for (const int handle : {-1, 0, 5, 1000}) {
        EXPECT_EQ(wait(handle), static_cast<int>(ZT_PIPE_E_HANDLE));
        EXPECT_EQ(record::fields(status), record::failure(ZT_PIPE_E_HANDLE, at(routine, 1093),
                                                          {{"iparm[0]", std::to_string(handle)}}));
    }
}

TEST_F(ChildStatus, CountsAChildThatSomebodyElseCollectedAsEndedNormally)
{
    const int handle = pipes::open(child("exits_with 3"));
    ASSERT_EQ(waitpid(pipes::block(handle)->pid, nullptr, 0), pipes::block(handle)->pid);
    EXPECT_EQ(wait(handle), 0);
    EXPECT_EQ(record::fields(status), record::cleared());
    EXPECT_EQ(pipes::block(handle)->wait_status, 0);
    EXPECT_EQ(wait(handle), 0);
    EXPECT_EQ(record::fields(status), ended(ZT_PIPE_S_NORMAL, "normally", 0, 0, child("exits_with 3")));
    EXPECT_EQ(pipes::close(handle), 0u);
}

TEST_F(ChildStatus, ReportsAWaitThatFails)
{
    const int handle = pipes::open("cat");
    {
        const faults::Plan plan{{.function = Function::waitpid, .error = EINTR}};
        EXPECT_EQ(wait(handle), static_cast<int>(ZT_PIPE_E_WAIT));
    }
    EXPECT_EQ(record::fields(status), wait_failure(EINTR, "cat"));
    EXPECT_EQ(pipes::block(handle)->wait_status, -1);
    EXPECT_EQ(pipes::close(handle, "NOKILL"), 0u);
}

TEST_F(ChildStatus, ReportsAProgramThatIsStillActiveAfterABlockingWait)
{
    const int handle = pipes::open("cat");
    {
        const faults::Plan plan{{.function = Function::waitpid, .result = 0}};
        EXPECT_EQ(wait(handle), static_cast<int>(ZT_PIPE_E_ACTIVE));
    }
    EXPECT_EQ(record::fields(status),
              record::failure(ZT_PIPE_E_ACTIVE, at(routine, 1502), {{"msg", "program still active"}}));
    EXPECT_EQ(pipes::block(handle)->wait_status, -1);
    EXPECT_EQ(pipes::close(handle, "NOKILL"), 0u);
}

TEST_F(ChildStatus, CollectsAgainAfterAWordThatIsNoEnd)
{
    const int handle = pipes::open("cat");
    const int stopped = (SIGSTOP << 8) | 0x7f;
    pipes::block(handle)->wait_status = stopped;
    EXPECT_EQ(poll(handle), 0);
    EXPECT_EQ(record::fields(status), record::cleared());
    EXPECT_EQ(pipes::block(handle)->wait_status, -1);
    EXPECT_EQ(pipes::close(handle, "NOKILL"), 0u);
}

TEST_F(ChildStatus, TracesACallThatFoundTheChildsEndAsASuccess)
{
    const int handle = pipes::open(child("exits_with 3"));
    const std::string pid = std::to_string(pipes::block(handle)->pid), program = child("exits_with 3");
    {
        const TraceFile trace;
        const Flag flags[] = {{Category::global, ZT_PIPE_PARMS}, {Category::global, ZT_PIPE_DEBUG_FLAG}};
        wait(handle);
        EXPECT_EQ(trace.lines(),
                  (Lines{"-> zt_pipe_status: [1] [true] []",
                         "   zt_pipe_status: waitpid on pid " + pid + ", status 768, returned " + pid,
                         "<- zt_pipe_status: [1] [true] [10145 0 0 " + program + "] returned 0"}));
    }
    EXPECT_EQ(pipes::close(handle), ZT_PIPE_S_ERROR);
}

TEST_F(ChildStatus, TracesAPollAndAWaitThatFails)
{
    const int handle = pipes::open("cat");
    const std::string pid = std::to_string(pipes::block(handle)->pid);
    {
        const TraceFile trace;
        const Flag flags[] = {{Category::global, ZT_PIPE_PARMS}, {Category::global, ZT_PIPE_DEBUG_FLAG}};
        const faults::Plan plan{{.function = Function::waitpid, .nth = 2, .error = EINVAL}};
        poll(handle);
        wait(handle);
        EXPECT_EQ(
            trace.lines(),
            (Lines{"-> zt_pipe_status: [1] [false] []",
                   "   zt_pipe_status: waitpid on pid " + pid + ", status -1, returned 0",
                   "<- zt_pipe_status: [1] [false] [0 0 0 ] returned 0", "-> zt_pipe_status: [1] [true] []",
                   "   zt_pipe_status: waitpid on pid " + pid +
                       " failed, status -1, returned -1: " + strerror(EINVAL),
                   "<-*zt_pipe_status: [1] [true] [10143 0 22 cat] returned 10143"}));
    }
    EXPECT_EQ(pipes::close(handle, "NOKILL"), 0u);
}

TEST_F(ChildStatus, TracesOnlyInTheGlobalCategory)
{
    const int handle = pipes::open("cat");
    {
        const TraceFile trace;
        const Flag flags[] = {{Category::close, ZT_PIPE_PARMS}, {Category::close, ZT_PIPE_DEBUG_FLAG}};
        poll(handle);
        EXPECT_EQ(trace.lines(), Lines{});
    }
    EXPECT_EQ(pipes::close(handle, "NOKILL"), 0u);
}
