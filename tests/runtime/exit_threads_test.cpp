// What several threads see of an end of the process.
#include <gtest/gtest.h>
#include <tests/runtime/exit_functions.h>

#include <cstdlib>

using namespace exit_functions;
using forked::Child;

TEST(ExitThreads, InSignalIsToldOnTheThreadThatRunsThemAndOnlyThere)
{
    Child by_signal([] {
        std::thread([] {
            step = 1;
            wait_for_step(2);
            say("other:", zt_exit_in_signal());
            step = 3;
            for (;;) pause();
        }).detach();
        wait_for_step(1);
        register_function([](int) {
            say("function:", zt_exit_in_signal());
            step = 2;
            wait_for_step(3);
        });
        say("before:", zt_exit_in_signal());
        raise(SIGTERM);
    });
    Child by_exit([] { register_function([](int) { say("function:", zt_exit_in_signal()); }); });
    EXPECT_EQ(by_signal.said(), "before:0 function:1 other:0 ");
    EXPECT_EQ(by_exit.said(), "function:0 ");
}

TEST(ExitThreads, OtherThreadsAreToldThatTheExitHasBegun)
{
    const auto ask = [](int) {
        say("here:", zt_exit_elsewhere());
        std::thread([] { say("elsewhere:", zt_exit_elsewhere()); }).join();
    };
    Child child([=] {
        ask(0);
        register_function(ask);
    });
    EXPECT_EQ(child.said(), "here:0 elsewhere:0 here:0 elsewhere:1 ");
    EXPECT_EQ(child.exit_code(), 0);
}

TEST(ExitThreads, SignalWhileExitRunsThemRunsTheRestAndEndsTheProcess)
{
    Child child([] {
        register_function(first);
        register_function([](int signo) {
            say("begun:", signo);
            raise(SIGTERM);
            say("went on ");
        });
        exit(0);
    });
    EXPECT_EQ(child.said(), "begun:0 first:15 ");
    EXPECT_EQ(child.ended_by(), SIGTERM);
}

TEST(ExitThreads, SignalOnAnotherThreadWhileExitRunsThemEndsTheProcess)
{
    Child child([] {
        register_function(first);
        register_function([](int signo) {
            say("begun:", signo);
            step = 1;
            wait_for_step(2);  // never: the process ends first
            say("went on ");
        });
        std::thread([] {
            wait_for_step(1);
            pthread_kill(pthread_self(), SIGHUP);
        }).detach();
        exit(0);
    });
    EXPECT_EQ(child.said(), "begun:0 first:1 ");
    EXPECT_EQ(child.ended_by(), SIGHUP);
}

TEST(ExitThreads, CrashInsideAFunctionEndsTheProcessAtOnce)
{
    Child aborting([] {
        register_function(first);
        register_function([](int) { abort(); });
        raise(SIGTERM);
    });
    EXPECT_EQ(aborting.said(), "");
    EXPECT_EQ(aborting.ended_by(), SIGABRT);
    Child faulting([] {
        register_function(first);
        register_function([](int) { touch_forbidden_page(); });
        raise(SIGTERM);
    });
    EXPECT_EQ(faulting.said(), "");
    EXPECT_EQ(faulting.ended_by(), SIGSEGV);
}

namespace {

void say_when_other_thread_is_parked(int signo)
{
    step = 1;
    if (forked::comes_true([] { return forked::is_parked(other_thread); })) say("parked:", signo);
}

}  // namespace

TEST(ExitThreads, SecondSignalOnAnotherThreadStopsThatThread)
{
    Child child([] {
        start_other_thread([] { raise(SIGHUP); });
        register_function(say_when_other_thread_is_parked);
        raise(SIGTERM);
    });
    EXPECT_EQ(child.said(), "parked:15 ");
    EXPECT_EQ(child.ended_by(), SIGTERM);
}

TEST(ExitThreads, CrashOnAnotherThreadDoesNotCutTheFunctionsShort)
{
    Child child([] {
        start_other_thread(touch_forbidden_page);
        register_function(say_when_other_thread_is_parked);
        raise(SIGTERM);
    });
    EXPECT_EQ(child.said(), "parked:15 ");
    EXPECT_EQ(child.ended_by(), SIGTERM);
}

TEST(ExitThreads, ExitOnAnotherThreadWaitsForTheSignalToEndTheProcess)
{
    Child child([] {
        start_other_thread([] { exit(5); });
        register_function(first);
        register_function(say_when_other_thread_is_parked);
        raise(SIGTERM);
    });
    EXPECT_EQ(child.said(), "parked:15 first:15 ");
    EXPECT_EQ(child.ended_by(), SIGTERM);
}

TEST(ExitThreads, HoldDoesNotReturnOnceASignalEndsTheProcess)
{
    Child child([] {
        start_other_thread([] {
            zt_exit_hold_state hold;
            zt_exit_hold(&hold);
        });
        register_function(say_when_other_thread_is_parked);
        raise(SIGTERM);
    });
    EXPECT_EQ(child.said(), "parked:15 ");
    EXPECT_EQ(child.ended_by(), SIGTERM);
}
