// A forked child of a threaded process must not inherit what other threads were in the middle of.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zt/runtime/environment.h>
#include <zt/ztpipe/internal.h>

#include <cstdlib>
#include <future>
#include <thread>

namespace {

// Runs `check` in a forked child and returns its exit code, or -1 when it did not end by itself in time.
template <class Check>
int in_forked_child(Check check)
{
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(10);  // a child that waits for a lock of its parent's threads ends here
        _exit(check());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Another thread that has done `begin` and does `end` when this object goes.
class OtherThread {
  public:
    template <class Begin, class End>
    OtherThread(Begin begin, End end)
        : thread_([=, this] {
              begin();
              begun_.set_value();
              over_.get_future().wait();
              end();
          })
    {
        begun_.get_future().wait();
    }
    ~OtherThread()
    {
        over_.set_value();
        thread_.join();
    }
    OtherThread(const OtherThread&) = delete;
    OtherThread& operator=(const OtherThread&) = delete;

  private:
    std::promise<void> begun_, over_;
    std::thread thread_;
};

TEST(ForkInThreads, AChildFindsTheTableUnlockedThoughAnotherThreadHeldIt)
{
    const OtherThread holder([] { Zt_pipe_mtx.lock(); }, [] { Zt_pipe_mtx.unlock(); });
    const int code = in_forked_child([] {
        zt::Status status;
        zt_pipe* pipe = nullptr;
        return zt_pipe_get_handle(1, &pipe, "routine", &status) == ZT_PIPE_E_HANDLE ? 0 : 1;
    });
    EXPECT_EQ(code, 0);
}

TEST(ForkInThreads, AChildHasTheProcessesOwnEnvironmentThoughAnotherThreadHadItLent)
{
    setenv("ZT_TEST_OWN", "yes", 1);
    const char* const lent[] = {"ZT_TEST_LENT=yes", nullptr};
    char** own = nullptr;
    const OtherThread lender([&] { own = zt_environ_lend(lent); }, [&] { zt_environ_take_back(own); });
    EXPECT_EQ(in_forked_child([] { return getenv("ZT_TEST_OWN") && !getenv("ZT_TEST_LENT") ? 0 : 1; }), 0);
    EXPECT_NE(getenv("ZT_TEST_LENT"), nullptr);
}

}  // namespace
