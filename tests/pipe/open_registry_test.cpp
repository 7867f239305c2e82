// The entry of a pipe in the open-file registry: made by the open, removed by the close that has made one.
#include <gtest/gtest.h>
#include <zt/runtime/open_files.h>

#include <climits>

#include "tests/pipe/services.h"
#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/pipes.h"

using faults::Function;
using faults::Plan;

namespace {

constexpr int pipe_entry = 6;

/// Another thread's pipe may get the address of a block that is about to be freed: here its entry comes
/// before.
class OpenRegistry : public NothingLeftTest {
  protected:
    void SetUp() override
    {
        log_.at_unlock = [this] {
            if (shared_address_ != nullptr || Zt_pipes[1] == nullptr) return;
            shared_address_ = Zt_pipes[1];
            zt_ifile_add_entry(pipe_entry, "the other's", Zt_pipes[1], 0, "other.cpp", 1);
        };
    }

    void TearDown() override
    {
        EXPECT_EQ(zt_ifile_del_entry(pipe_entry, shared_address_), 1) << "the other's entry has gone";
        NothingLeftTest::TearDown();
    }

  private:
    services::Log log_;
    const void* shared_address_ = nullptr;
};

}  // namespace

TEST_F(OpenRegistry, LosesNoEntryOfAnotherPipeToAnOpenThatFailed)
{
    Plan plan{{.function = Function::popen, .error = EMFILE}};
    EXPECT_EQ(pipes::refused("true", "COMMAND").at("code"), "10100");
    EXPECT_EQ(zt_ifile_count(pipe_entry), 1);
}

TEST_F(OpenRegistry, WithoutMemoryForTheEntryIsNoFailureAndLosesNoOther)
{
    int handle;
    {
        // Before it come the control block, the other's entry and the program's words.
        Plan plan{{.function = Function::calloc, .nth = 4, .from_then_on = true, .error = ENOMEM}};
        Zt_pipe_large_parent = LONG_MAX;
        handle = pipes::open(child("exits_with 0"));
        EXPECT_TRUE(plan.fired());
    }
    EXPECT_EQ(zt_ifile_count(pipe_entry), 1) << "only the other's";
    EXPECT_EQ(pipes::read_all(handle), "");
    pipes::close(handle);
    EXPECT_EQ(zt_ifile_count(pipe_entry), 1);
}
