#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "tests/support/closing.h"
#include "tests/support/faults.h"
#include "tests/support/tracefile.h"

using faults::Function;
using pipes::at;
using pipes::Category;
using pipes::Flag;

using CloseProgram = CloseTest;

TEST_F(CloseProgram, KillsARunningChildAtOnceWaitsAndSaysSo)
{
    const int handle = pipes::open_lasting();
    const pid_t pid = pipes::block(handle)->pid;
    EXPECT_EQ(close(handle), ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(fields(), killed(child("never_reads")));
    EXPECT_EQ(pipes::block(handle), nullptr);
    EXPECT_EQ(waitpid(pid, nullptr, 0), -1) << "it is collected";
}

TEST_F(CloseProgram, CountsAChildThatItHadToKillAsEndedBySignal15WhateverTheWaitFound)
{
    const std::string program = "sh -c 'trap \"exit 0\" TERM; echo ready; while :; do sleep 0.01; done'";
    const int handle = pipes::open(program);
    EXPECT_EQ(pipes::read_until(handle, "ready\n"), "ready\n");
    EXPECT_EQ(close(handle), ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(fields(), killed(program));
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
    const int handle = pipes::open_lasting();
    const pid_t pid = pipes::block(handle)->pid;
    EXPECT_EQ(close(handle, "NOKILL NOWAIT"), 0u);
    EXPECT_EQ(fields(), record::cleared());
    EXPECT_EQ(pipes::block(handle), nullptr);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "it runs";
    end(pid);
}

TEST_F(CloseProgram, KillsWithNowaitButLeavesTheChildUncollected)
{
    const int handle = pipes::open_lasting();
    const pid_t pid = pipes::block(handle)->pid;
    EXPECT_EQ(close(handle, "NOWAIT"), ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(fields(), killed(child("never_reads")));
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

TEST_F(CloseProgram, CountsAChildThatSomebodyElseCollectedAsEndedNormally)
{
    const int handle = pipes::open(child("exits_with 3"));
    collect(pipes::block(handle)->pid);
    const faults::Plan only_counting{};
    EXPECT_EQ(close(handle), 0u);
    EXPECT_EQ(faults::calls(Function::kill), 0) << "its number may be another process's by now";
}

TEST_F(CloseProgram, TracesTheKillByTheFileThatWasExecuted)
{
    const TraceFile trace;
    const Flag flag{Category::close, ZT_PIPE_DEBUG_FLAG};
    const int first = pipes::open_lasting(" words"), first_pid = pipes::block(first)->pid;
    close(first);
    const int second = pipes::open_lasting(" words"), second_pid = pipes::block(second)->pid;
    {
        const faults::Plan plan{{.function = Function::kill, .error = EPERM}};
        close(second, "NOWAIT");
    }
    end(second_pid);
    const auto line = [](pid_t pid, const char* outcome) {
        return "   zt_ipipe_close: kill of '" + child("never_reads") + "' pid " + std::to_string(pid) + ": " +
               outcome;
    };
    EXPECT_EQ(trace.lines(), (Lines{line(first_pid, "successful"), line(second_pid, strerror(EPERM))}));
}
