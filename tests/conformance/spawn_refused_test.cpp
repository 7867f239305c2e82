// posix_spawn either starts the program or does nothing. Whatever it refuses for, the launch goes on with
// fork and the pipes it has, as if nothing had been tried.
#include <cerrno>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/parent_size.h"
#include "tests/support/pipes.h"

using faults::Function;

class SpawnRefused : public NothingLeftTest, public testing::WithParamInterface<int> {
  protected:
    void SetUp() override { Zt_pipe_large_parent = always_large; }
};

TEST_P(SpawnRefused, GoesOnWithForkAndTheSamePipes)
{
    int handle;
    {
        const faults::Plan plan{{.function = Function::posix_spawnp, .error = GetParam()}};
        handle = pipes::open("cat -u");
        EXPECT_EQ(faults::calls(Function::posix_spawnp), 1);
        EXPECT_EQ(faults::calls(Function::fork), 1);
        EXPECT_EQ(faults::calls(Function::pipe), 2);
    }
    pipes::write(handle, "hello\n");
    EXPECT_EQ(pipes::read_until(handle, "\n"), "hello\n");
    EXPECT_EQ(pipes::close(handle, "NOKILL"), 0U);
}

INSTANTIATE_TEST_SUITE_P(With, SpawnRefused,
                         testing::Values(E2BIG, EAGAIN, EBADF, EINTR, EMFILE, ENOENT, ENOMEM),
                         [](const auto& each) { return std::string(strerrorname_np(each.param)); });
