// What happens under the handle table's lock, and which places in the source the allocator is told.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "tests/pipe/services.h"
#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/pipes.h"

using faults::Function;
using faults::Plan;
using services::Lines;
using services::Log;

namespace {

const char* const two_variables[] = {"A=1", "B=2", nullptr};

class TableLock : public NothingLeftTest {
  protected:
    TableLock() { Zt_pipe_large_parent = LONG_MAX; }

    zt::Status status;
};

/// The allocator's account shows them, so people search for them.
class AllocationPlaces : public TableLock {};

}  // namespace

TEST_F(TableLock, IsHeldForTheWholeOfAnAssignment)
{
    zt_pipe block{};
    Log log;
    int times = 0;
    log.at_unlock = [&] {
        ++times;
        EXPECT_EQ(block.handle, 1U);
        EXPECT_EQ(Zt_pipes[1], &block);
        EXPECT_EQ(Zt_used_pipes, 2);
    };
    EXPECT_EQ(zt_pipe_assign_handle(&block, &status), 0U);
    EXPECT_EQ(times, 1);
    EXPECT_EQ(log.calls(), (Lines{"lock", "unlock"}));
    Zt_pipes[1] = nullptr;
    Zt_used_pipes = 1;
}

TEST_F(TableLock, IsHeldWhileTheTableGrowsAndWhileThatFails)
{
    zt_pipe block{};
    Zt_used_pipes = Zt_avail_pipes;
    const std::string growth = "zt_mem_irecalloc(1, " + std::to_string(Zt_avail_pipes + 16) + ", 8, " +
                               std::to_string(Zt_avail_pipes) + ", ztpipe, 1057)";
    {
        Log log;
        EXPECT_EQ(zt_pipe_assign_handle(&block, &status), 0U);
        EXPECT_EQ(log.calls(), (Lines{"lock", growth, "unlock"}));
    }
    Zt_pipes[1] = nullptr;
    Zt_used_pipes = Zt_avail_pipes;
    zt_pipe** const table = Zt_pipes;
    {
        Log log;
        const Plan plan{{.function = Function::realloc, .error = ENOMEM}};
        EXPECT_EQ(zt_pipe_assign_handle(&block, &status), ZT_PIPE_E_NOMEM);
        EXPECT_EQ(log.calls().size(), 4U);
        EXPECT_EQ(log.calls().back(), "unlock") << "after the record was filled";
        EXPECT_EQ(log.calls().at(2), "zt_hostname_r");
    }
    Zt_pipes = table;
    Zt_used_pipes = 1;
}

TEST_F(TableLock, IsHeldForTheWholeOfALookup)
{
    const int handle = pipes::open("no child", "");
    zt_pipe* found = nullptr;
    {
        Log log;
        log.at_unlock = [&] { EXPECT_EQ(found, Zt_pipes[handle]); };
        EXPECT_EQ(zt_pipe_get_handle(handle, &found, "caller", &status), 0U);
        EXPECT_EQ(log.calls(), (Lines{"lock", "unlock"}));
    }
    {
        Log log;
        log.at_unlock = [&] { EXPECT_EQ(status.iparm[0], 99); };
        EXPECT_EQ(zt_pipe_get_handle(99, &found, "caller", &status), ZT_PIPE_E_HANDLE);
        EXPECT_EQ(log.calls(), (Lines{"lock", "zt_hostname_r", "unlock"}));
    }
    pipes::close(handle);
}

TEST_F(TableLock, IsGivenBackByAShellLaunchAfterItsEnvironment)
{
    zt_pipe pipe{};
    strcpy(pipe.program, "true");
    Log log;
    EXPECT_EQ(zt_pipe_popen(&pipe, nullptr, two_variables, &status), 0U);
    EXPECT_EQ(log.calls(), (Lines{"lock", "zt_environ_lend", "zt_environ_take_back", "unlock"}));
    pclose(pipe.fh);
}

TEST_F(TableLock, IsGivenBackByAShellLaunchThatFailedAfterItsEnvironment)
{
    zt_pipe pipe{};
    strcpy(pipe.program, "true");
    char** const own = environ;
    Log log;
    log.at_unlock = [=] { EXPECT_EQ(environ, own); };
    const Plan plan{{.function = Function::popen, .error = EMFILE}};
    EXPECT_EQ(zt_pipe_popen(&pipe, nullptr, two_variables, &status), ZT_PIPE_E_START);
    EXPECT_EQ(log.calls(),
              (Lines{"lock", "zt_environ_lend", "zt_environ_take_back", "unlock", "zt_hostname_r"}));
}

TEST_F(TableLock, IsAllThatAShellLaunchTakesWithoutAnEnvironment)
{
    zt_pipe pipe{};
    strcpy(pipe.program, "true");
    Log log;
    EXPECT_EQ(zt_pipe_popen(&pipe, nullptr, nullptr, &status), 0U);
    EXPECT_EQ(log.calls(), (Lines{"lock", "unlock"}));
    pclose(pipe.fh);
}

TEST_F(AllocationPlaces, OfALaunchAreItsOwn)
{
    const std::string block = "zt_mem_icalloc(2, 1, " + std::to_string(sizeof(zt_pipe)) + ", ztpipe, 2557)";
    Log log;
    const int handle = pipes::open("sort -r", "PROGRAM", nullptr, two_variables);
    EXPECT_EQ(log.calls("zt_mem_"),
              (Lines{block, "zt_mem_icalloc(2, 3, 8, ztpipe, 2257)", "zt_mem_ifree(2, ztpipe, 2466)",
                     "zt_mem_ifree(2, ztpipe, 2755)"}));
    pipes::close(handle);
}

TEST_F(AllocationPlaces, OfAnUndoneOpenTellWhetherThereWasAHandle)
{
    {
        Log log;
        pipes::refused("true", "BOGUS");
        EXPECT_EQ(log.calls("zt_ipipe_close"), Lines{"zt_ipipe_close(1, ztpipe, 2780)"});
        EXPECT_EQ(log.calls("zt_mem_ifree"), Lines{"zt_mem_ifree(2, ztpipe, 3684)"});
    }
    zt_pipe** const table = Zt_pipes;
    const int slots = Zt_avail_pipes;
    Zt_used_pipes = slots;
    {
        Log log;
        const Plan plan{{.function = Function::realloc, .error = ENOMEM}};
        pipes::refused("true", "COMMAND");
        EXPECT_EQ(log.calls("zt_ipipe_close"), Lines{});
        EXPECT_EQ(log.calls("zt_mem_ifree"), Lines{"zt_mem_ifree(2, ztpipe, 2785)"});
    }
    Zt_pipes = table;
    Zt_used_pipes = 1;
}

TEST_F(AllocationPlaces, OfACloseAreItsOwnAndTheBlockIsFreedUnderTheLock)
{
    const int handle = pipes::open("echo text", "PROGRAM");
    char* text = nullptr;
    ASSERT_EQ(zt_pipe_read_unlimited(handle, &text, 0, nullptr, &status), 5);
    Log log;
    pipes::close(handle);
    EXPECT_EQ(log.calls("zt_mem_ifree"),
              (Lines{"zt_mem_ifree(2, ztpipe, 3679)", "zt_mem_ifree(2, ztpipe, 3684)"}));
    const Lines& calls = log.calls();
    const auto block = std::find(calls.begin(), calls.end(), "zt_mem_ifree(2, ztpipe, 3684)");
    ASSERT_GT(calls.end() - block, 1);
    EXPECT_EQ(*(block - 1), "lock");
    EXPECT_EQ(*(block + 1), "unlock");
}
