// Keeping the exit functions out of a few instructions.
#include <errno.h>
#include <gtest/gtest.h>
#include <tests/runtime/exit_functions.h>

#include <cstdlib>

using namespace exit_functions;
using forked::Child;

TEST(ExitHold, FunctionItselfMayHold)
{
    Child child([] {
        register_function([](int signo) {
            zt_exit_hold_state hold;
            zt_exit_hold(&hold);
            zt_exit_release(&hold);
            say("held:", signo);
        });
        raise(SIGTERM);
    });
    EXPECT_EQ(child.said(), "held:15 ");
    EXPECT_EQ(child.ended_by(), SIGTERM);
}

namespace {

void be_ended_while_another_thread_holds()
{
    register_function(first);
    const pid_t main_thread = forked::thread_id();
    std::thread([=] {
        zt_exit_hold_state hold;
        zt_exit_hold(&hold);
        say("held ");
        step = 1;
        forked::comes_true([=] { return forked::blocks(main_thread, SIGTERM); });
        say("released ");
        zt_exit_release(&hold);
        for (;;) pause();
    }).detach();
    wait_for_step(1);
    raise(SIGTERM);
}

}  // namespace

TEST(ExitHold, HoldOfAnotherThreadDelaysTheFunctions)
{
    Child child(be_ended_while_another_thread_holds);
    EXPECT_EQ(child.said(), "held released first:15 ");
    EXPECT_EQ(child.ended_by(), SIGTERM);
}

TEST(ExitHold, ChildForkedWithinAHoldCountsItsOwnHoldsOnly)
{
    Child child([] {
        zt_exit_hold_state hold;
        zt_exit_hold(&hold);
        const pid_t pid = fork();
        zt_exit_release(&hold);
        if (pid == 0) be_ended_while_another_thread_holds();
        waitpid(pid, nullptr, 0);
    });
    EXPECT_EQ(child.said(), "held released first:15 ");
}

TEST(ExitHold, HoldThatIsNeverReleasedDoesNotKeepTheProcess)
{
    Child child([] {
        register_function(first);
        std::thread([] {
            zt_exit_hold_state hold;
            zt_exit_hold(&hold);
            step = 1;
            for (;;) pause();
        }).detach();
        wait_for_step(1);
        raise(SIGTERM);
    });
    EXPECT_EQ(child.said(), "first:15 ");
    EXPECT_EQ(child.ended_by(), SIGTERM);
}

TEST(ExitHold, SignalForAThreadThatHoldsComesAtTheRelease)
{
    Child child([] {
        register_function(first);
        zt_exit_hold_state outer;
        zt_exit_hold_state inner;
        zt_exit_hold(&outer);
        zt_exit_hold(&inner);
        raise(SIGTERM);
        zt_exit_release(&inner);
        say("still held ");
        errno = 77;
        zt_exit_release(&outer);
        say("went on ");
    });
    EXPECT_EQ(child.said(), "still held first:15 ");
    EXPECT_EQ(child.ended_by(), SIGTERM);
}

TEST(ExitHold, HoldKeepsErrnoAndRestoresTheMask)
{
    Child child([] {
        sigset_t before;
        sigemptyset(&before);
        sigaddset(&before, SIGUSR1);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        errno = 77;
        zt_exit_hold_state hold;
        zt_exit_hold(&hold);
        zt_exit_release(&hold);
        say("", errno);
        sigset_t after;
        pthread_sigmask(SIG_SETMASK, nullptr, &after);
        say("", sigismember(&after, SIGUSR1));
        say("", sigismember(&after, SIGUSR2));
    });
    EXPECT_EQ(child.said(), "77 1 0 ");
}
