#include <fcntl.h>
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

constexpr char routine[] = "zt_ipipe_close";

class CloseProgram : public NothingLeftTest {
  protected:
    std::uint32_t close(int handle, const char* options = "")
    {
        record::poison(status);
        return static_cast<std::uint32_t>(ZT_PIPE_CLOSE(handle, options, &status));
    }

    record::Fields fields() const { return record::fields(status); }

    zt::Status status;
};

// A child that has ended and is not collected yet.
int open_ended(const char* name_and_arguments)
{
    const int handle = pipes::open(child(name_and_arguments));
    pipes::wait_for_a_child_to_end();
    return handle;
}

record::Fields killed_by_the_close(const std::string& program)
{
    return record::failure(ZT_PIPE_S_ABNORMAL, at(routine, 3647), {{"sys_errno", "15"}, {"msg", program}});
}

record::Fields errno_report(std::uint32_t code, int line, int error, const char* program,
                            const char* in = routine)
{
    return record::failure(code, at(in, line),
                           {{"sys_errno", std::to_string(error)},
                            {"sys_msg", strerror(error)},
                            {"sparm[0]", program},
                            {"sparm[1]", program},
                            {"msg", program}});
}

int collect(pid_t pid)
{
    int word = -1;
    EXPECT_EQ(waitpid(pid, &word, 0), pid) << "nobody else has collected it";
    return word;
}

}  // namespace

TEST_F(CloseProgram, KillsARunningChildAtOnceWaitsAndSaysSo)
{
    const std::string program = child("never_reads");
    const int handle = pipes::open(program);
    const pid_t pid = pipes::block(handle)->pid;
    EXPECT_EQ(close(handle), ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(fields(), killed_by_the_close(program));
    EXPECT_EQ(pipes::block(handle), nullptr);
    EXPECT_EQ(waitpid(pid, nullptr, 0), -1) << "it is collected";
}

TEST_F(CloseProgram, CountsAChildThatItHadToKillAsEndedBySignal15WhateverTheWaitFound)
{
    const std::string program = child("ignores_term");
    const int handle = pipes::open(program);
    EXPECT_EQ(pipes::read_until(handle, "ready\n"), "ready\n");
    EXPECT_EQ(close(handle), ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(fields(), killed_by_the_close(program));
}

TEST_F(CloseProgram, SucceedsForAChildThatThePollFindsEndedNormally)
{
    const faults::Plan only_counting{};
    EXPECT_EQ(close(open_ended("exits_with 0")), 0u);
    EXPECT_EQ(fields(), record::cleared());
    EXPECT_EQ(faults::calls(Function::kill), 0);
}

TEST_F(CloseProgram, SucceedsForAChildThatWasCollectedEarlierAndDoesNotWaitAgain)
{
    const int handle = pipes::open(child("exits_with 0"));
    EXPECT_EQ(pipes::read_all(handle), "");
    const faults::Plan only_counting{};
    EXPECT_EQ(close(handle), 0u);
    EXPECT_EQ(fields(), record::cleared());
    EXPECT_EQ(faults::calls(Function::waitpid), 0);
    EXPECT_EQ(faults::calls(Function::kill), 0);
}

TEST_F(CloseProgram, SaysHowAnEndedChildEnded)
{
    EXPECT_EQ(close(open_ended("exits_with 3")), ZT_PIPE_S_ERROR);
    record::Fields expected =
        record::cleared({{"code", "10145"}, {"sparm[0]", "with an error"}, {"msg", child("exits_with 3")}});
    const auto with_iparm = [&](const char* value) {
        // A whole record is copied over the caller's, words that nobody set included.
        for (int i = 0; i < ZT_STATUS_PARMS; ++i) expected["iparm[" + std::to_string(i) + "]"] = "0";
        expected["count"] = "0";
        expected["iparm[0]"] = value;
        return expected;
    };
    EXPECT_EQ(fields(), with_iparm("3"));
}

TEST_F(CloseProgram, SaysHowAChildThatAReadHasCollectedEnded)
{
    const int handle = pipes::open(child("raises 9"));
    char byte;
    EXPECT_EQ(zt_pipe_read(handle, &byte, 1, nullptr, &status), -1);
    EXPECT_EQ(close(handle), ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(status.sys_errno, 9u);
    EXPECT_EQ(status.iparm[0], 9);
    EXPECT_EQ(status.msg, child("raises 9"));
}

TEST_F(CloseProgram, BlocksWithNokillUntilTheChildEndsByItself)
{
    const faults::Plan only_counting{};
    EXPECT_EQ(close(pipes::open("cat"), "NOKILL"), 0u);
    EXPECT_EQ(close(pipes::open("sh -c 'cat; exit 4'"), "NOKILL"), ZT_PIPE_S_ERROR);
    EXPECT_EQ(status.iparm[0], 4);
    EXPECT_EQ(faults::calls(Function::kill), 0);
}

TEST_F(CloseProgram, LeavesTheChildRunningWithNokillAndNowait)
{
    const int handle = pipes::open(child("never_reads"));
    const pid_t pid = pipes::block(handle)->pid;
    EXPECT_EQ(close(handle, "NOKILL NOWAIT"), 0u);
    EXPECT_EQ(fields(), record::cleared());
    EXPECT_EQ(pipes::block(handle), nullptr);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "it runs";
    EXPECT_EQ(kill(pid, SIGKILL), 0);
    collect(pid);
}

TEST_F(CloseProgram, KillsWithNowaitButLeavesTheChildUncollected)
{
    const std::string program = child("never_reads");
    const int handle = pipes::open(program);
    const pid_t pid = pipes::block(handle)->pid;
    EXPECT_EQ(close(handle, "NOWAIT"), ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(fields(), killed_by_the_close(program));
    const int word = collect(pid);
    EXPECT_TRUE(WIFSIGNALED(word) && WTERMSIG(word) == SIGTERM);
}

TEST_F(CloseProgram, SaysWithNowaitHowAnEndedChildEnded)
{
    EXPECT_EQ(close(open_ended("exits_with 3"), "NOWAIT"), ZT_PIPE_S_ERROR);
    EXPECT_EQ(status.iparm[0], 3);
}

TEST_F(CloseProgram, ClosesBothDescriptorsOnceAndWaitsOnlyOnceForAnEndedChild)
{
    const int handle = open_ended("exits_with 0");
    const faults::Plan only_counting{};
    EXPECT_EQ(close(handle), 0u);
    EXPECT_EQ(faults::calls(Function::close), 2);
    EXPECT_EQ(faults::calls(Function::waitpid), 1);
}

TEST_F(CloseProgram, NeverClosesADescriptorNumbered0)
{
    const int handle = pipes::open("cat");
    zt_pipe& block = *pipes::block(handle);
    EXPECT_EQ(::close(block.read_fd), 0);
    EXPECT_EQ(::close(block.write_fd), 0);
    block.read_fd = block.write_fd = 0;
    const faults::Plan only_counting{};
    EXPECT_EQ(close(handle, "NOKILL"), 0u);
    EXPECT_EQ(faults::calls(Function::close), 0);
    EXPECT_GE(fcntl(0, F_GETFD), 0);
}

TEST_F(CloseProgram, ReportsADescriptorThatCannotBeClosedAndReleasesThePipe)
{
    const struct {
        int nth;
        bool both;
        int line;
    } cases[] = {{1, false, 3601}, {2, false, 3609}, {1, true, 3609}};
    for (const auto& [nth, both, line] : cases) {
        const int handle = pipes::open("cat");
        const faults::Plan plan{
            {.function = Function::close, .nth = nth, .from_then_on = both, .error = EIO}};
        EXPECT_EQ(close(handle, "NOKILL"), ZT_PIPE_E_CLOSE);
        EXPECT_EQ(fields(), errno_report(ZT_PIPE_E_CLOSE, line, EIO, "cat"));
        EXPECT_EQ(pipes::block(handle), nullptr);
    }
}

TEST_F(CloseProgram, KeepsAnEarlierReportWhenTheChildHadToBeKilled)
{
    const int handle = pipes::open("cat");
    const faults::Plan plan{{.function = Function::close, .error = EIO}};
    EXPECT_EQ(close(handle), ZT_PIPE_E_CLOSE);
    EXPECT_EQ(fields(), errno_report(ZT_PIPE_E_CLOSE, 3601, EIO, "cat"));
}

TEST_F(CloseProgram, ReportsAFailedKillInsteadOfAFailedClose)
{
    const int handle = pipes::open("cat");
    const faults::Plan plan{{.function = Function::close, .error = EIO},
                            {.function = Function::kill, .error = EPERM}};
    EXPECT_EQ(close(handle), ZT_PIPE_E_KILL);
    EXPECT_EQ(fields(), errno_report(ZT_PIPE_E_KILL, 3636, EPERM, "cat"));
    EXPECT_EQ(pipes::block(handle), nullptr);
}

TEST_F(CloseProgram, ReportsTheChildsEndInsteadOfAFailedClose)
{
    const int handle = open_ended("exits_with 3");
    const faults::Plan plan{{.function = Function::close, .from_then_on = true, .error = EIO}};
    EXPECT_EQ(close(handle), ZT_PIPE_S_ERROR);
    EXPECT_STREQ(status.where, "");
    EXPECT_STREQ(status.sys_msg, "");
}

TEST_F(CloseProgram, KeepsAFailedCloseWhenTheChildEndedNormally)
{
    const int handle = open_ended("exits_with 0");
    const faults::Plan plan{{.function = Function::close, .error = EIO}};
    EXPECT_EQ(close(handle), ZT_PIPE_E_CLOSE);
}

TEST_F(CloseProgram, ReportsAFailedWaitInsteadOfAFailedClose)
{
    for (const auto& [error, code] : {std::pair{EINVAL, ZT_PIPE_E_WAIT}, {0, ZT_PIPE_E_ACTIVE}}) {
        const int handle = pipes::open("cat");
        const pid_t pid = pipes::block(handle)->pid;
        faults::Fault failed_wait{.function = Function::waitpid, .nth = 2, .error = error};
        if (error == 0) failed_wait.result = 0;
        {
            const faults::Plan plan{{.function = Function::close, .error = EIO}, failed_wait};
            EXPECT_EQ(close(handle, "NOKILL"), code);
        }
        EXPECT_EQ(status.where, at("zt_pipe_status", error != 0 ? 1490 : 1502));
        EXPECT_EQ(pipes::block(handle), nullptr);
        collect(pid);
    }
}

TEST_F(CloseProgram, DropsAFailedWaitAfterAKill)
{
    const int handle = pipes::open("cat");
    const pid_t pid = pipes::block(handle)->pid;
    {
        const faults::Plan plan{{.function = Function::waitpid, .nth = 2, .error = EINVAL}};
        EXPECT_EQ(close(handle), ZT_PIPE_S_ABNORMAL);
    }
    EXPECT_EQ(fields(), killed_by_the_close("cat"));
    collect(pid);
}

TEST_F(CloseProgram, CountsAChildThatSomebodyElseCollectedAsEndedNormally)
{
    const int handle = pipes::open(child("exits_with 3"));
    collect(pipes::block(handle)->pid);
    const faults::Plan only_counting{};
    EXPECT_EQ(close(handle), 0u);
    EXPECT_EQ(faults::calls(Function::kill), 0) << "its number may be another process's by now";
}

TEST_F(CloseProgram, ReportsAnInterruptInsteadOfTheKilledChild)
{
    const int handle = pipes::open("cat");
    const faults::Plan plan{{.function = Function::kill, .raising = SIGINT}};
    EXPECT_EQ(close(handle), ZT_PIPE_E_INTERRUPTED);
    EXPECT_EQ(status.where, at(routine, 3694));
    EXPECT_EQ(status.sys_errno, 0u);
    EXPECT_EQ(pipes::block(handle), nullptr);
}

TEST_F(CloseProgram, TracesTheKillByTheFileThatWasExecuted)
{
    const TraceFile trace;
    const Flag flag{Category::close, ZT_PIPE_DEBUG_FLAG};
    const int first = pipes::open("cat -u"), first_pid = pipes::block(first)->pid;
    close(first);
    const int second = pipes::open("cat -u"), second_pid = pipes::block(second)->pid;
    const faults::Plan plan{{.function = Function::kill, .error = EPERM}};
    close(second);
    const auto line = [](pid_t pid, const char* outcome) {
        return "   zt_ipipe_close: kill of 'cat' pid " + std::to_string(pid) + ": " + outcome;
    };
    EXPECT_EQ(trace.lines(), (Lines{line(first_pid, "successful"), line(second_pid, strerror(EPERM))}));
}
