#include <errno.h>
#include <gtest/gtest.h>
#include <tests/support/forked_child.h>
#include <zt/runtime/interrupt.h>

#include <atomic>
#include <thread>

using forked::Child;
using forked::say;

namespace {

std::atomic<int> handled{0};

void count_interrupt(int)
{
    ++handled;
}

void on_interrupt(void (*handler)(int), int flags = 0)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGUSR2);
    sigaction(SIGINT, &action, nullptr);
}

struct sigaction action_now()
{
    struct sigaction now;
    sigaction(SIGINT, nullptr, &now);
    return now;
}

}  // namespace

TEST(Interrupt, ArmedLatchRemembersAnInterruptUntilItIsCleared)
{
    Child child([] {
        zt_sys_arm_interrupt();
        say("", zt_sys_poll_interrupt(0));
        raise(SIGINT);
        say("", zt_sys_poll_interrupt(0));
        say("", zt_sys_poll_interrupt(0));
        say("", zt_sys_poll_interrupt(1));
        say("", zt_sys_poll_interrupt(1));
        say("", zt_sys_poll_interrupt(0));
        zt_sys_disarm_interrupt();
    });
    EXPECT_EQ(child.said(), "0 1 1 1 0 0 ");
    EXPECT_EQ(child.exit_code(), 0);
}

TEST(Interrupt, AnotherArmedStretchForgetsTheEarlierOne)
{
    Child child([] {
        zt_sys_arm_interrupt();
        raise(SIGINT);
        zt_sys_disarm_interrupt();
        say("", zt_sys_poll_interrupt(0));
        zt_sys_arm_interrupt();
        say("", zt_sys_poll_interrupt(1));
        zt_sys_disarm_interrupt();
    });
    EXPECT_EQ(child.said(), "0 0 ");
    EXPECT_EQ(child.exit_code(), 0);
}

TEST(Interrupt, BlockedReadComesBackWhenAnInterruptArrives)
{
    Child child([] {
        zt_sys_arm_interrupt();
        say("ready ");
        char byte;
        const ssize_t got = read(forked::from_parent, &byte, 1);
        say(got < 0 && errno == EINTR ? "EINTR " : "other ");
        say("", zt_sys_poll_interrupt(1));
        zt_sys_disarm_interrupt();
        _exit(0);
    });
    ASSERT_TRUE(child.has_said("ready"));
    // Whether it blocks yet cannot be seen for sure, so the interrupt comes again until it does.
    EXPECT_TRUE(forked::comes_true([&] {
        child.kill(SIGINT);
        return child.has_ended();
    }));
    EXPECT_EQ(child.said().substr(0, 14), "ready EINTR 1 ");
}

TEST(Interrupt, DisarmingRestoresHandlerFlagsAndMask)
{
    Child child([] {
        on_interrupt(count_interrupt, SA_RESTART | SA_NODEFER);
        zt_sys_arm_interrupt();
        say("", action_now().sa_handler == count_interrupt);
        say("", (action_now().sa_flags & SA_RESTART) != 0);
        zt_sys_disarm_interrupt();
        const struct sigaction now = action_now();
        say("", now.sa_handler == count_interrupt);
        say("", (now.sa_flags & (SA_RESTART | SA_NODEFER)) == (SA_RESTART | SA_NODEFER));
        say("", sigismember(&now.sa_mask, SIGUSR2));
        raise(SIGINT);
        say("", handled);
    });
    EXPECT_EQ(child.said(), "0 0 1 1 1 1 ");
}

TEST(Interrupt, DefaultActionEndsTheProcessAgainAfterDisarming)
{
    Child child([] {
        zt_sys_arm_interrupt();
        zt_sys_disarm_interrupt();
        raise(SIGINT);
    });
    EXPECT_EQ(child.ended_by(), SIGINT);
}

TEST(Interrupt, ArmingsNest)
{
    Child child([] {
        zt_sys_arm_interrupt();
        zt_sys_arm_interrupt();
        raise(SIGINT);
        zt_sys_arm_interrupt();
        say("", zt_sys_poll_interrupt(1));
        zt_sys_disarm_interrupt();
        zt_sys_disarm_interrupt();
        raise(SIGINT);
        say("", zt_sys_poll_interrupt(1));
        zt_sys_disarm_interrupt();
        raise(SIGINT);
    });
    EXPECT_EQ(child.said(), "1 1 ");
    EXPECT_EQ(child.ended_by(), SIGINT);
}

TEST(Interrupt, ArmingsOfThreadsCount)
{
    Child child([] {
        std::atomic<int> step{0};
        std::thread other([&] {
            zt_sys_arm_interrupt();
            step = 1;
            while (step != 2) std::this_thread::yield();
            zt_sys_poll_interrupt(1);
            zt_sys_disarm_interrupt();
        });
        while (step != 1) std::this_thread::yield();
        zt_sys_arm_interrupt();
        zt_sys_disarm_interrupt();
        raise(SIGINT);
        say("", zt_sys_poll_interrupt(0));
        step = 2;
        other.join();
        say("", action_now().sa_handler == SIG_DFL);
    });
    EXPECT_EQ(child.said(), "1 1 ");
    EXPECT_EQ(child.exit_code(), 0);
}

TEST(Interrupt, IgnoredInterruptStaysIgnoredAndSoItIsForChildren)
{
    Child child([] {
        on_interrupt(SIG_IGN);
        zt_sys_arm_interrupt();
        say("", action_now().sa_handler == SIG_IGN);
        raise(SIGINT);
        say("", zt_sys_poll_interrupt(0));
        say("", zt_sys_poll_interrupt(1));
        if (fork() == 0) {
            dup2(forked::to_parent, 1);
            execlp("grep", "grep", "^SigIgn:", "/proc/self/status", nullptr);
            _exit(1);
        }
        ::wait(nullptr);
        zt_sys_disarm_interrupt();
        say("", action_now().sa_handler == SIG_IGN);
    });
    const std::string said = child.said();
    EXPECT_EQ(said.substr(0, 14), "1 0 0 SigIgn:\t") << said;
    EXPECT_TRUE(forked::has_signal(strtoull(said.c_str() + 14, nullptr, 16), SIGINT)) << said;
    EXPECT_EQ(said.substr(said.size() - 3), "\n1 ");
}

TEST(Interrupt, ActionThatSomebodyInstalledMeanwhileIsKept)
{
    Child child([] {
        zt_sys_arm_interrupt();
        on_interrupt(count_interrupt);
        zt_sys_disarm_interrupt();
        raise(SIGINT);
        say("", handled);
    });
    EXPECT_EQ(child.said(), "1 ");
    EXPECT_EQ(child.exit_code(), 0);
}

TEST(Interrupt, InterruptAfterTheLastPollIsDeliveredAtDisarming)
{
    Child child([] {
        on_interrupt(count_interrupt);
        zt_sys_arm_interrupt();
        zt_sys_poll_interrupt(1);
        raise(SIGINT);
        say("", handled);
        zt_sys_disarm_interrupt();
        say("", handled);
        zt_sys_arm_interrupt();
        zt_sys_poll_interrupt(1);
        zt_sys_disarm_interrupt();
        say("", handled);
    });
    EXPECT_EQ(child.said(), "0 1 1 ");
}

TEST(Interrupt, InterruptAfterTheLastPollEndsAProcessThatDoesNotHandleIt)
{
    Child child([] {
        zt_sys_arm_interrupt();
        zt_sys_poll_interrupt(1);
        raise(SIGINT);
        say("alive");
        zt_sys_disarm_interrupt();
        say(" and on");
    });
    EXPECT_EQ(child.said(), "alive");
    EXPECT_EQ(child.ended_by(), SIGINT);
}

TEST(Interrupt, OuterStretchStillSeesWhatCameAfterAnInnerPoll)
{
    Child child([] {
        zt_sys_arm_interrupt();
        zt_sys_arm_interrupt();
        zt_sys_poll_interrupt(1);
        raise(SIGINT);
        zt_sys_disarm_interrupt();
        say("", zt_sys_poll_interrupt(1));
        zt_sys_disarm_interrupt();
    });
    EXPECT_EQ(child.said(), "1 ");
    EXPECT_EQ(child.exit_code(), 0);
}

TEST(Interrupt, StretchThatNeverClearedDropsItsInterrupt)
{
    Child child([] {
        on_interrupt(count_interrupt);
        zt_sys_arm_interrupt();
        raise(SIGINT);
        zt_sys_poll_interrupt(0);
        zt_sys_disarm_interrupt();
        say("", handled);
    });
    EXPECT_EQ(child.said(), "0 ");
}

TEST(Interrupt, DisarmingWithoutArmingIsIgnored)
{
    Child child([] {
        zt_sys_disarm_interrupt();
        zt_sys_arm_interrupt();
        raise(SIGINT);
        say("", zt_sys_poll_interrupt(1));
        zt_sys_disarm_interrupt();
        zt_sys_disarm_interrupt();
        say("", action_now().sa_handler == SIG_DFL);
    });
    EXPECT_EQ(child.said(), "1 1 ");
}

TEST(Interrupt, ActionIsReadAndReplacedThroughAnArmedLatch)
{
    Child child([] {
        on_interrupt(count_interrupt);
        zt_sys_arm_interrupt();
        struct sigaction replacement = {};
        replacement.sa_handler = SIG_IGN;
        struct sigaction old;
        say("", zt_sys_interrupt_action(&replacement, &old));
        say("", old.sa_handler == count_interrupt);
        raise(SIGINT);
        say("", zt_sys_poll_interrupt(1));
        zt_sys_interrupt_action(nullptr, &old);
        say("", old.sa_handler == SIG_IGN);
        zt_sys_disarm_interrupt();
        say("", action_now().sa_handler == SIG_IGN);
    });
    EXPECT_EQ(child.said(), "0 1 1 1 1 ");
}

TEST(Interrupt, ActionIsThePlainOneWhileTheLatchDoesNotStand)
{
    Child child([] {
        struct sigaction replacement = {};
        replacement.sa_handler = count_interrupt;
        struct sigaction old;
        zt_sys_interrupt_action(&replacement, &old);
        say("", old.sa_handler == SIG_DFL);
        say("", action_now().sa_handler == count_interrupt);
        zt_sys_arm_interrupt();
        on_interrupt(SIG_DFL);
        zt_sys_interrupt_action(&replacement, &old);
        say("", old.sa_handler == SIG_DFL);
        say("", action_now().sa_handler == count_interrupt);
        zt_sys_disarm_interrupt();
        say("", action_now().sa_handler == count_interrupt);
    });
    EXPECT_EQ(child.said(), "1 1 1 1 1 ");
}

TEST(Interrupt, LatchThatSomebodySavedAndPutBackGivesWayAtTheNextStretch)
{
    Child child([] {
        on_interrupt(count_interrupt);
        zt_sys_arm_interrupt();
        const struct sigaction saved = action_now();
        zt_sys_disarm_interrupt();
        sigaction(SIGINT, &saved, nullptr);
        raise(SIGINT);  // must come back, and is reported by the next operation
        zt_sys_arm_interrupt();
        say("", zt_sys_poll_interrupt(1));
        zt_sys_disarm_interrupt();
        say("", action_now().sa_handler == count_interrupt);
    });
    EXPECT_EQ(child.said(), "1 1 ");
}

TEST(Interrupt, ForkedChildHasNoArmingsOfOtherThreads)
{
    Child child([] {
        std::atomic<int> step{0};
        std::thread other([&] {
            zt_sys_arm_interrupt();
            step = 1;
            while (step != 2) std::this_thread::yield();
            zt_sys_poll_interrupt(1);
            zt_sys_disarm_interrupt();
        });
        while (step != 1) std::this_thread::yield();
        const pid_t pid = fork();
        if (pid == 0) {
            say("", action_now().sa_handler == SIG_DFL);
            zt_sys_arm_interrupt();
            raise(SIGINT);
            say("", zt_sys_poll_interrupt(1));
            zt_sys_disarm_interrupt();
            say("", action_now().sa_handler == SIG_DFL);
            _exit(0);
        }
        waitpid(pid, nullptr, 0);
        say("", action_now().sa_handler == SIG_DFL);
        step = 2;
        other.join();
    });
    EXPECT_EQ(child.said(), "1 1 1 0 ");
    EXPECT_EQ(child.exit_code(), 0);
}

TEST(Interrupt, ForkedChildKeepsItsOwnArmingWithoutTheParentsInterrupt)
{
    Child child([] {
        zt_sys_arm_interrupt();
        raise(SIGINT);
        const pid_t pid = fork();
        if (pid == 0) {
            say("", zt_sys_poll_interrupt(1));
            raise(SIGINT);
            say("", zt_sys_poll_interrupt(1));
            zt_sys_disarm_interrupt();
            say("", action_now().sa_handler == SIG_DFL);
            _exit(0);
        }
        waitpid(pid, nullptr, 0);
        say("", zt_sys_poll_interrupt(1));
        zt_sys_disarm_interrupt();
    });
    EXPECT_EQ(child.said(), "0 1 1 1 ");
}

TEST(Interrupt, ErrnoSurvives)
{
    Child child([] {
        errno = 77;
        zt_sys_arm_interrupt();
        raise(SIGINT);
        zt_sys_poll_interrupt(1);
        raise(SIGINT);
        on_interrupt(count_interrupt);
        zt_sys_disarm_interrupt();
        zt_sys_disarm_interrupt();
        say("", errno);
    });
    EXPECT_EQ(child.said(), "77 ");
}

TEST(Interrupt, NoInterruptIsLostOrDoubledBetweenOperationsOfManyThreads)
{
    Child child([] {
        on_interrupt(count_interrupt);
        std::atomic<bool> stop{false};
        std::atomic<int> seen{0};
        const auto operate = [&] {
            while (!stop) {
                zt_sys_arm_interrupt();
                seen += zt_sys_poll_interrupt(1);
                zt_sys_disarm_interrupt();
            }
        };
        std::thread first(operate);
        std::thread second(operate);
        int sent = 0;
        do {
            ++sent;
            kill(getpid(), SIGINT);
        } while (forked::comes_true([&] { return seen + handled == sent; }) && sent < 2000);
        stop = true;
        first.join();
        second.join();
        say("", sent);
        say("", seen + handled);
        say("", action_now().sa_handler == count_interrupt);
    });
    EXPECT_EQ(child.said(), "2000 2000 1 ");
    EXPECT_EQ(child.exit_code(), 0);
}
