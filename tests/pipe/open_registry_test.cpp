// The entry of a pipe in the open-file registry: made by the open, removed by the close that has made one.
#include <gtest/gtest.h>
#include <signal.h>
#include <zt/runtime/open_files.h>

#include <climits>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/pipes.h"

using faults::Function;
using faults::Plan;

namespace {

constexpr int pipe_entry = 6;

/// Another thread's pipe may get the address of a block that is about to be freed: here its entry comes
/// before.
const void* shared_address;

void enter_the_others(int)
{
    shared_address = Zt_pipes[1];
    zt_ifile_add_entry(pipe_entry, "the other's", Zt_pipes[1], 0, "other.cpp", 1);
}

class OpenRegistry : public NothingLeftTest {
  protected:
    void SetUp() override { signal(SIGUSR1, enter_the_others); }

    void TearDown() override
    {
        EXPECT_EQ(zt_ifile_del_entry(pipe_entry, shared_address), 1) << "the other's entry has gone";
        signal(SIGUSR1, SIG_DFL);
        NothingLeftTest::TearDown();
    }
};

}  // namespace

TEST_F(OpenRegistry, LosesNoEntryOfAnotherPipeToAnOpenThatFailed)
{
    Plan plan{{.function = Function::popen, .error = EMFILE, .raising = SIGUSR1}};
    EXPECT_EQ(pipes::refused("true", "COMMAND").at("code"), "10100");
    EXPECT_EQ(zt_ifile_count(pipe_entry), 1);
}

TEST_F(OpenRegistry, WithoutMemoryForTheEntryIsNoFailureAndLosesNoOther)
{
    int handle;
    {
        // The program's words come before the entry; so does the control block.
        Plan plan{{.function = Function::fork, .raising = SIGUSR1},
                  {.function = Function::calloc, .nth = 4, .from_then_on = true, .error = ENOMEM}};
        Zt_pipe_large_parent = LONG_MAX;
        handle = pipes::open(child("exits_with 0"));
        EXPECT_TRUE(plan.fired());
    }
    EXPECT_EQ(zt_ifile_count(pipe_entry), 1) << "only the other's";
    EXPECT_EQ(pipes::read_all(handle), "");
    pipes::close(handle);
    EXPECT_EQ(zt_ifile_count(pipe_entry), 1);
}
