#include <errno.h>
#include <gtest/gtest.h>
#include <tests/runtime/exit_functions.h>
#include <zt/runtime/interrupt.h>
#include <zt/runtime/memory.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

using namespace exit_functions;
using forked::Child;

TEST(ExitHandlers, FunctionsRunOnceAtNormalExitTheLastRegisteredFirst)
{
    Child child([] {
        register_function(first);
        register_function(second);
        register_function(third);
        exit(3);
    });
    EXPECT_EQ(child.said(), "third:0 second:0 first:0 ");
    EXPECT_EQ(child.exit_code(), 3);
}

TEST(ExitHandlers, FunctionsRunWhenAThreadExits)
{
    Child child([] {
        register_function(first);
        std::thread([] { exit(4); }).join();
    });
    EXPECT_EQ(child.said(), "first:0 ");
    EXPECT_EQ(child.exit_code(), 4);
}

TEST(ExitHandlers, QuickEndsRunNothing)
{
    Child quick([] {
        register_function(first);
        quick_exit(0);
    });
    Child abrupt([] {
        register_function(first);
        _exit(0);
    });
    EXPECT_EQ(quick.said(), "");
    EXPECT_EQ(abrupt.said(), "");
}

TEST(ExitHandlers, EveryFatalSignalRunsThemAndStillEndsTheProcess)
{
    const auto check = [](int signo) {
        Child child([] {
            register_function(first);
            register_function(second);
            say("ready ");
            for (;;) pause();
        });
        ASSERT_TRUE(child.has_said("ready"));
        child.kill(signo);
        const std::string number = std::to_string(signo);
        EXPECT_EQ(child.said(), "ready second:" + number + " first:" + number + " ");
        EXPECT_EQ(child.ended_by(), signo);
    };
    for (const int signo : zt::asynchronous_fatal_signals) check(signo);
    for (const int signo : zt::crash_signals) check(signo);
}

TEST(ExitHandlers, FaultAndAbortRunThemAndEndTheProcessByTheirSignal)
{
    Child fault([] {
        register_function(first);
        touch_forbidden_page();
    });
    Child aborted([] {
        register_function(first);
        abort();
    });
    EXPECT_EQ(fault.said(), "first:" + std::to_string(SIGSEGV) + " ");
    EXPECT_EQ(fault.ended_by(), SIGSEGV);
    EXPECT_EQ(aborted.said(), "first:" + std::to_string(SIGABRT) + " ");
    EXPECT_EQ(aborted.ended_by(), SIGABRT);
}

TEST(ExitHandlers, FunctionThatWaitsStaysRegisteredOnceInItsPlace)
{
    Child child([] {
        register_function(first);
        register_function(second);
        register_function(first);
    });
    EXPECT_EQ(child.said(), "second:0 first:0 ");
}

TEST(ExitHandlers, FunctionRegisteredWhileFunctionsRunRunsToo)
{
    Child child([] {
        register_function(first);
        register_function([](int) {
            say("registering ");
            register_function(third);
        });
    });
    EXPECT_EQ(child.said(), "registering third:0 first:0 ");
}

TEST(ExitHandlers, StaticDestructorsMayRegisterAfterTheFunctionsHaveRun)
{
    Child child([] {
        std::atexit([] {
            say("destructor ");
            register_function(first);
        });
        register_function(first);
    });
    EXPECT_EQ(child.said(), "first:0 destructor first:0 ");
    EXPECT_EQ(child.exit_code(), 0);
}

TEST(ExitHandlers, HandlerOfTheApplicationIsKept)
{
    Child child([] {
        on(SIGTERM, applications_own);
        on(SIGINT, applications_own);
        on(SIGSEGV, applications_own);
        register_function(first);
        raise(SIGTERM);
        raise(SIGINT);
        raise(SIGSEGV);
        say("exit ");
    });
    EXPECT_EQ(child.said(), "application:15 application:2 application:11 exit first:0 ");
}

TEST(ExitHandlers, HandlerInstalledLaterIsKeptByTheNextRegistration)
{
    Child child([] {
        register_function(first);
        on(SIGTERM, applications_own);
        register_function(second);
        raise(SIGTERM);
    });
    EXPECT_EQ(child.said(), "application:15 second:0 first:0 ");
}

TEST(ExitHandlers, IgnoredSignalStaysIgnored)
{
    Child child([] {
        on(SIGHUP, SIG_IGN);
        on(SIGINT, SIG_IGN);
        register_function(first);
        raise(SIGHUP);
        raise(SIGINT);
        say("", has_handler(SIGHUP, SIG_IGN) && has_handler(SIGINT, SIG_IGN));
    });
    EXPECT_EQ(child.said(), "1 first:0 ");
}

TEST(ExitHandlers, RegistrationUnderAnArmedLatchSeesTheRealInterruptAction)
{
    Child child([] {
        zt_sys_arm_interrupt();
        register_function(first);
        raise(SIGINT);
        say("remembered:", zt_sys_poll_interrupt(1));
        zt_sys_disarm_interrupt();
        raise(SIGINT);
    });
    EXPECT_EQ(child.said(), "remembered:1 first:2 ");
    EXPECT_EQ(child.ended_by(), SIGINT);

    Child handling([] {
        on(SIGINT, applications_own);
        zt_sys_arm_interrupt();
        register_function(first);
        zt_sys_disarm_interrupt();
        raise(SIGINT);
    });
    EXPECT_EQ(handling.said(), "application:2 first:0 ");
}

TEST(ExitHandlers, ArmedLatchDoesNotStopAnotherFatalSignal)
{
    Child child([] {
        register_function(first);
        zt_sys_arm_interrupt();
        raise(SIGTERM);
    });
    EXPECT_EQ(child.said(), "first:15 ");
    EXPECT_EQ(child.ended_by(), SIGTERM);
}

TEST(ExitHandlers, FunctionsOfASignalFindTheLatchOutOfTheirWay)
{
    Child child([] {
        register_function([](int) {
            struct sigaction before;
            struct sigaction armed;
            sigaction(SIGINT, nullptr, &before);
            zt_sys_arm_interrupt();
            sigaction(SIGINT, nullptr, &armed);
            zt_sys_disarm_interrupt();
            say("same:", before.sa_handler == armed.sa_handler);
        });
        raise(SIGTERM);
    });
    EXPECT_EQ(child.said(), "same:1 ");
    EXPECT_EQ(child.ended_by(), SIGTERM);
}

TEST(ExitHandlers, MissingFunctionOrRecordIsRefused)
{
    zt::Status status;
    EXPECT_EQ(zt_atexit(nullptr, "f", "test", "", &status), 10036u);
    EXPECT_EQ(status.code, 10036u);
    EXPECT_EQ(status.subcode, 0u);
    EXPECT_EQ(status.sys_errno, 0u);
    EXPECT_STREQ(status.sparm[0], "function");
    EXPECT_STREQ(status.sparm[1], "zt_atexit");
    EXPECT_STREQ(status.where, "exit_handlers(zt_atexit):24");
    EXPECT_STRNE(status.host, "");
    Child child([] {
        say("", static_cast<int>(zt_atexit(first, "first", "test", "", nullptr)));
        say("", static_cast<int>(zt_atexit(nullptr, nullptr, nullptr, nullptr, nullptr)));
    });
    EXPECT_EQ(child.said(), "10047 10047 ");
}

template <int number>
void numbered(int)
{
    say("", number);
}

template <int... numbers>
void register_numbered(std::integer_sequence<int, numbers...>)
{
    (register_function(numbered<numbers>), ...);
}

TEST(ExitHandlers, FullTableIsRefusedAndTheOthersStillRun)
{
    Child child([] {
        register_numbered(std::make_integer_sequence<int, ZT_EXIT_FUNCTIONS_MAX>());
        register_function(numbered<5>);  // has its place already
        zt::Status status;
        errno = 77;
        const bool refused = zt_atexit(first, "first", "test", "", &status) == 10021;
        const bool errno_kept = errno == 77;
        const bool filled = refused && status.code == 10021 && status.subcode == 0 &&
                            status.sys_errno == ENOMEM && status.iparm[0] == 8 &&
                            status.iparm[1] == zt_heapsize() &&
                            strcmp(status.object, "exit functions") == 0 &&
                            strcmp(status.sys_msg, "Cannot allocate memory") == 0 && status.host[0] != '\0' &&
                            strcmp(status.where, "exit_handlers(zt_atexit):31") == 0 &&
                            strcmp(status.sparm[0], "first") == 0 && strcmp(status.sparm[1], "test") == 0;
        say("filled:", filled);
        say("errno:", errno_kept);
    });
    std::string expected = "filled:1 errno:1 ";
    for (int number = ZT_EXIT_FUNCTIONS_MAX - 1; number >= 0; --number) {
        expected += std::to_string(number) + " ";
    }
    EXPECT_EQ(child.said(), expected);
}

TEST(ExitHandlers, ForkedChildEndsByItselfWithoutTouchingItsParent)
{
    Child child([] {
        register_function(first);
        zt_exit_hold_state hold;
        zt_exit_hold(&hold);
        const pid_t pid = fork();
        zt_exit_release(&hold);
        if (pid == 0) {
            raise(SIGTERM);
            _exit(1);
        }
        int wait_status = 0;
        waitpid(pid, &wait_status, 0);
        say("child by:", WTERMSIG(wait_status));
    });
    EXPECT_EQ(child.said(), "first:15 child by:15 first:0 ");
    EXPECT_EQ(child.exit_code(), 0);
}

TEST(ExitHandlers, ForkedChildDoesNotInheritAnEndThatWasUnderWay)
{
    if (forked::handlers_come_late) GTEST_SKIP() << "handlers come late under this sanitizer";
    Child child([] {
        // The other thread forks while this one is ending the process.
        start_other_thread([] {
            const pid_t pid = fork();
            if (pid == 0) {
                register_function(first);
                zt_exit_hold_state hold;
                zt_exit_hold(&hold);
                zt_exit_release(&hold);
                raise(SIGHUP);
            }
            int wait_status = 0;
            waitpid(pid, &wait_status, 0);
            say("child by:", WTERMSIG(wait_status));
            step = 2;
        });
        register_function([](int) {
            step = 1;
            wait_for_step(2);
        });
        raise(SIGTERM);
    });
    EXPECT_EQ(child.said().substr(0, 19), "first:1 child by:1 ");
    EXPECT_EQ(child.ended_by(), SIGTERM);
}

TEST(ExitHandlers, RacingRegistrationsAllStand)
{
    Child child([] {
        std::thread one([] { register_numbered(std::make_integer_sequence<int, 16>()); });
        std::thread two([] { register_numbered(std::make_integer_sequence<int, 32>()); });
        one.join();
        two.join();
    });
    std::string said = child.said();
    EXPECT_EQ(std::count(said.begin(), said.end(), ' '), 32);
}
