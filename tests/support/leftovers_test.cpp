#include "tests/support/leftovers.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zt/runtime/memory.h>
#include <zt/ztpipe/internal.h>

TEST(Leftovers, AreNoneWhenNothingHappened)
{
    Leftovers leftovers;
    EXPECT_EQ(leftovers.found(), Leftovers::none);
}

TEST(Leftovers, ShowAnOpenDescriptorUnlessItIsAllowed)
{
    Leftovers leftovers;
    const int fd = open("/dev/null", O_RDONLY);
    EXPECT_EQ(leftovers.found().size(), 2U);
    leftovers.allow_descriptors(1);
    EXPECT_EQ(leftovers.found(), Leftovers::none);
    close(fd);
    EXPECT_EQ(leftovers.found().size(), 1U) << "an allowed leak that does not happen is shown too";
}

TEST(Leftovers, ShowAChildAndDoNotCollectIt)
{
    Leftovers leftovers;
    const pid_t pid = fork();
    if (pid == 0) _exit(0);
    EXPECT_EQ(leftovers.found(), (std::vector<std::string>{"+ children: some", "- children: none"}));
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
    EXPECT_EQ(leftovers.found(), Leftovers::none);
}

TEST(Leftovers, ShowMemoryOfAPipe)
{
    Leftovers leftovers;
    void* block = zt_mem_icalloc(2, 1, 5, 0, __FILE__, __LINE__);
    EXPECT_EQ(leftovers.found(),
              (std::vector<std::string>{"+ bytes of class 2: 5", "- bytes of class 2: 0"}));
    zt_mem_ifree(2, block, __FILE__, __LINE__);
}

TEST(Leftovers, ShowTheActionOfSigintAndTheEnvironment)
{
    Leftovers leftovers;
    struct sigaction old;
    sigaction(SIGINT, nullptr, &old);
    signal(SIGINT, SIG_IGN);
    EXPECT_EQ(leftovers.found().size(), 2U);
    sigaction(SIGINT, &old, nullptr);
    setenv("ZT_TEST_LEFT", "1", 1);
    EXPECT_EQ(leftovers.found(), (std::vector<std::string>{"+ environment ZT_TEST_LEFT=1"}));
    unsetenv("ZT_TEST_LEFT");
}

TEST(Leftovers, ShowAPipeThatIsStillOpen)
{
    Leftovers::settle();
    Leftovers leftovers;
    zt::Status status;
    const int handle = ZT_PIPE_OPEN("true", "COMMAND", nullptr, nullptr, &status);
    ASSERT_GT(handle, 0) << status.what();
    EXPECT_GT(leftovers.found().size(), 4U);
    EXPECT_EQ(ZT_PIPE_CLOSE(handle, "", &status), 0) << status.what();
    EXPECT_EQ(leftovers.found(), Leftovers::none);
}

class NothingLeft : public NothingLeftTest {};

TEST_F(NothingLeft, HoldsForTheFirstOpenOfAProcess)
{
    zt::Status status;
    const int handle = ZT_PIPE_OPEN("true", "PROGRAM", nullptr, nullptr, &status);
    ASSERT_GT(handle, 0) << status.what();
    EXPECT_EQ(ZT_PIPE_CLOSE(handle, "NOKILL", &status), 0) << status.what();
}
