// Which handle a pipe gets, and which handles name a pipe.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <zt/runtime/memory.h>

#include <climits>
#include <set>
#include <thread>
#include <vector>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/pipes.h"
#include "tests/support/tracefile.h"

using faults::Function;
using faults::Plan;

namespace {

const int used_before_anything = Zt_used_pipes;

/// Each test begins and ends with a table of 16 slots without a pipe.
class HandleTable : public NothingLeftTest {
  protected:
    void SetUp() override
    {
        zt_pipe_cleanup(0);
        ASSERT_EQ(zt_pipe_init(&status), 0U);
    }

    void TearDown() override
    {
        for (const int handle : handles) pipes::close(handle);
        NothingLeftTest::TearDown();
    }

    /// Opens pipes without a child.
    void open(int count)
    {
        for (int i = 0; i < count; ++i) handles.push_back(pipes::open("no child", ""));
    }

    std::uint32_t look_up(int handle)
    {
        return zt_pipe_get_handle(handle, &found, "zt_pipe_caller", &status);
    }

    zt::Status status;
    std::vector<int> handles;
    zt_pipe* found = nullptr;
};

}  // namespace

TEST(HandleTableOfAnApplication, CountsTheSlotThatIsNeverUsedFromItsStartOn)
{
    EXPECT_EQ(used_before_anything, 1);
}

TEST_F(HandleTable, HandlesCountFromOneAndAreTheSlotsOfTheirBlocks)
{
    open(3);
    EXPECT_EQ(handles, (std::vector<int>{1, 2, 3}));
    for (const int handle : handles) EXPECT_EQ(Zt_pipes[handle]->handle, static_cast<std::uint32_t>(handle));
    EXPECT_EQ(Zt_pipes[0], nullptr);
    EXPECT_EQ(Zt_used_pipes, 4) << "slot 0 counts as used";
}

TEST_F(HandleTable, AfterClosingHandleThreeOfFiveTheNextOpenGetsThreeAgain)
{
    open(5);
    EXPECT_EQ(pipes::close(3), 0U);
    EXPECT_EQ(Zt_pipes[3], nullptr);
    EXPECT_EQ(Zt_used_pipes, 5);
    EXPECT_EQ(pipes::open("no child", ""), 3);
}

TEST_F(HandleTable, TheLowestFreeHandleIsTakenFirst)
{
    open(5);
    pipes::close(4);
    pipes::close(2);
    EXPECT_EQ(pipes::open("no child", ""), 2);
    EXPECT_EQ(pipes::open("no child", ""), 4);
}

TEST_F(HandleTable, TheSixteenthOpenGrowsTheTableTo32Slots)
{
    open(15);
    EXPECT_EQ(Zt_avail_pipes, 16);
    EXPECT_EQ(Zt_used_pipes, 16);
    const std::vector<zt_pipe*> before(Zt_pipes, Zt_pipes + 16);
    open(1);
    EXPECT_EQ(handles.back(), 16);
    EXPECT_EQ(Zt_avail_pipes, 32);
    EXPECT_EQ(Zt_used_pipes, 17);
    EXPECT_EQ(std::vector<zt_pipe*>(Zt_pipes, Zt_pipes + 16), before);
    for (int slot = 17; slot < 32; ++slot) EXPECT_EQ(Zt_pipes[slot], nullptr) << slot;
}

TEST_F(HandleTable, GrowsBy16WheneverItIsFull)
{
    open(32);
    EXPECT_EQ(handles.back(), 32);
    EXPECT_EQ(Zt_avail_pipes, 48);
    EXPECT_EQ(zt_heapsize_class(1), 48 * static_cast<int>(sizeof(zt_pipe*)));
}

TEST_F(HandleTable, AnAssignmentClearsTheRecordAndWritesTheHandle)
{
    zt_pipe block{};
    record::poison(status);
    EXPECT_EQ(zt_pipe_assign_handle(&block, &status), 0U);
    EXPECT_EQ(record::fields(status), record::cleared());
    EXPECT_EQ(block.handle, 1U);
    EXPECT_EQ(Zt_pipes[1], &block);
    Zt_pipes[1] = nullptr;
    Zt_used_pipes = 1;
}

TEST_F(HandleTable, AGoodLookupGivesTheBlockAndLeavesTheRecordToItsCaller)
{
    open(2);
    record::poison(status);
    EXPECT_EQ(look_up(2), status.code);
    EXPECT_EQ(found, Zt_pipes[2]);
    EXPECT_TRUE(record::is_still_poisoned(status));
}

TEST_F(HandleTable, ZeroAndNegativeHandlesAreBad)
{
    open(1);
    for (const int handle : {0, -1, INT_MIN}) {
        EXPECT_EQ(look_up(handle), ZT_PIPE_E_HANDLE) << handle;
        EXPECT_EQ(status.iparm[0], handle);
    }
}

TEST_F(HandleTable, HandlesBeyondTheTableAreBad)
{
    for (const int handle : {16, 17, INT_MAX}) EXPECT_EQ(look_up(handle), ZT_PIPE_E_HANDLE) << handle;
}

TEST_F(HandleTable, ABadHandleFillsItsFieldsAndNoOther)
{
    record::poison(status);
    record::Fields expected = record::fields(status);
    const record::Fields failure = record::failure(10138, "ztpipe(zt_pipe_caller):1093");
    for (const char* name : {"code", "subcode", "sys_errno", "where", "host"})
        expected[name] = failure.at(name);
    expected["iparm[0]"] = "7";
    EXPECT_EQ(look_up(7), ZT_PIPE_E_HANDLE);
    EXPECT_EQ(record::fields(status), expected);
}

TEST_F(HandleTable, ALookupOutOfRangeLeavesThePointerAndAFreeSlotNullsIt)
{
    zt_pipe block{};
    found = &block;
    for (const int handle : {-1, 0, 16}) look_up(handle);
    EXPECT_EQ(found, &block);
    look_up(5);
    EXPECT_EQ(found, nullptr);
}

TEST_F(HandleTable, AClosedHandleIsBad)
{
    open(1);
    pipes::close(1);
    EXPECT_EQ(look_up(1), ZT_PIPE_E_HANDLE);
}

TEST_F(HandleTable, AFailedGrowthReports10021AndLosesTheTableButNotItsSize)
{
    open(15);
    zt_pipe block{};
    zt_pipe** const table = Zt_pipes;
    record::poison(status);
    {
        Plan plan{{.function = Function::realloc, .error = ENOMEM}};
        EXPECT_EQ(zt_pipe_assign_handle(&block, &status), ZT_PIPE_E_NOMEM);
    }
    EXPECT_EQ(record::fields(status), record::failure(10021, "ztpipe(zt_pipe_assign_handle):1059",
                                                      {{"object", "Zt_pipes"},
                                                       {"iparm[0]", "256"},
                                                       {"iparm[1]", std::to_string(zt_heapsize())},
                                                       {"sys_errno", std::to_string(ENOMEM)},
                                                       {"sys_msg", strerror(ENOMEM)}}));
    EXPECT_EQ(Zt_pipes, nullptr);
    EXPECT_EQ(Zt_avail_pipes, 16);
    EXPECT_EQ(Zt_used_pipes, 16);
    EXPECT_EQ(block.handle, 0U);
    Zt_pipes = table;
}

TEST_F(HandleTable, ALostTableFailsLookupsAndOperationsCleanly)
{
    open(1);
    zt_pipe** const table = Zt_pipes;
    Zt_pipes = nullptr;
    record::poison(status);
    EXPECT_EQ(zt_pipe_write(1, "x", 1, &status), -1);
    EXPECT_EQ(record::fields(status),
              record::failure(10138, "ztpipe(zt_pipe_write):4081", {{"iparm[0]", "1"}}));
    zt_pipe block{};
    EXPECT_EQ(zt_pipe_assign_handle(&block, &status), ZT_PIPE_E_NOMEM);
    EXPECT_STREQ(status.where, "ztpipe(zt_pipe_assign_handle):4082");
    Zt_pipes = table;
}

TEST_F(HandleTable, AnOpenAfterAFailedGrowthStartsANewTable)
{
    open(15);
    zt_pipe** const table = Zt_pipes;
    {
        Plan plan{{.function = Function::realloc, .error = ENOMEM}};
        EXPECT_EQ(pipes::refused("no child", "").at("where"), "ztpipe(zt_pipe_assign_handle):1059");
    }
    EXPECT_EQ(pipes::open("no child", ""), 1);
    EXPECT_EQ(pipes::close(1), 0U);
    zt_mem_ifree(1, Zt_pipes, __FILE__, __LINE__);
    Zt_pipes = table;
    Zt_avail_pipes = 16;
}

TEST_F(HandleTable, ThreadsThatOpenAtTheSameTimeGetDifferentHandles)
{
    constexpr int threads = 4;
    constexpr int each = 25;
    std::vector<int> opened[threads];
    std::vector<std::thread> running;
    for (auto& own : opened)
        running.emplace_back([&own] {
            for (int i = 0; i < each; ++i) own.push_back(pipes::open("no child", ""));
        });
    for (auto& thread : running) thread.join();
    std::set<int> all;
    for (const auto& own : opened) all.insert(own.begin(), own.end());
    EXPECT_EQ(all.size(), static_cast<std::size_t>(threads * each));
    EXPECT_EQ(*all.rbegin(), threads * each) << "no slot was left out";
    handles.assign(all.begin(), all.end());
}

TEST_F(HandleTable, APipeIsBusyDuringItsOperationsOnly)
{
    open(1);
    const zt_pipe& pipe = *Zt_pipes[1];
    EXPECT_EQ(pipe.busy, 0);
    zt_pipe_write(1, nullptr, 1, &status);
    EXPECT_EQ(pipe.busy, 0) << "after a write that failed before it began";
    zt_pipe_read(1, nullptr, 1, nullptr, &status);
    EXPECT_EQ(pipe.busy, 0) << "after a read that failed before it began";
    zt_ipipe_close(1, nullptr, &status, __FILE__, __LINE__);
    EXPECT_EQ(pipe.busy, 0) << "after a close that failed before it began";
}

TEST_F(HandleTable, TheCurrentPipeIsSetDuringOpenAndCloseAndNullBetweenThem)
{
    int handle;
    {
        Plan plan{{.function = Function::pipe, .raising = SIGPIPE}};
        handle = pipes::open(child("echo_lines"));
    }
    EXPECT_EQ(pipes::block(handle)->last_signal, SIGPIPE) << "the handler found the pipe being opened";
    EXPECT_EQ(Zt_pipe_current, nullptr);

    zt_pipe_debug_config("DEBUG=global", &status);
    TraceFile trace;
    const std::string pid = std::to_string(pipes::block(handle)->pid);
    {
        Plan plan{{.function = Function::close, .raising = SIGPIPE}};
        pipes::close(handle);
    }
    EXPECT_EQ(trace.lines().at(0),
              "   zt_pipe_signal: signal SIGPIPE: pid " + pid + " (" + child("echo_lines") + ")");
    EXPECT_EQ(Zt_pipe_current, nullptr);
    zt_pipe_debug_config("OFF", &status);
}
