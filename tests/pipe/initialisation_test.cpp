// The module sets itself up at the first open.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <zt/runtime/exit_handlers.h>
#include <zt/runtime/memory.h>

#include <algorithm>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/faults.h"
#include "tests/support/forked_child.h"
#include "tests/support/pipes.h"
#include "tests/support/tracefile.h"

using faults::Function;
using faults::Plan;

namespace {

const char version_line[] = "   zt_pipe_init: Version: 10000  Compiled: Dec  4 2010 09:15:44";

/// Each test begins as a process does: no table, no debug flags read. (What is registered stays registered.)
class Initialisation : public ::testing::Test {
  protected:
    void SetUp() override
    {
        begin_anew();
        unsetenv("ZT_PIPE_DEBUG");
    }

    void TearDown() override
    {
        unsetenv("ZT_PIPE_DEBUG");
        zt_pipe_debug_config("OFF", &status);
        zt_pipe_cleanup(0);
    }

    static void begin_anew()
    {
        zt_pipe_cleanup(0);
        Zt_pipe_debug_initialized = 0;
        memset(Zt_pipe_debug, 0, sizeof Zt_pipe_debug);
    }

    static void open_and_close() { pipes::close(pipes::open("no child", "")); }

    zt::Status status;
};

/// An exit function for each number.
template <int>
void exit_function(int)
{
}

template <int... number>
void register_exit_functions(std::integer_sequence<int, number...>)
{
    zt::Status status;
    (zt_atexit(exit_function<number>, "exit_function", "test", "", &status), ...);
}

void handle_interrupt(int) {}

}  // namespace

TEST_F(Initialisation, WaitsForTheFirstOpen)
{
    char byte;
    EXPECT_EQ(zt_pipe_read(1, &byte, 1, nullptr, &status), -1);
    EXPECT_EQ(status.code, ZT_PIPE_E_HANDLE);
    EXPECT_EQ(pipes::close(1), ZT_PIPE_E_HANDLE);
    EXPECT_FALSE(zt_pipe_termination(true, &status));
    EXPECT_EQ(Zt_avail_pipes, 0);
    EXPECT_EQ(Zt_pipes, nullptr);
    EXPECT_EQ(Zt_used_pipes, 1);
    EXPECT_EQ(Zt_pipe_debug_initialized, 0U);
}

TEST_F(Initialisation, MakesATableOf16EmptySlots)
{
    record::poison(status);
    EXPECT_EQ(zt_pipe_init(&status), 0U);
    EXPECT_EQ(record::fields(status), record::cleared());
    EXPECT_EQ(Zt_avail_pipes, 16);
    EXPECT_EQ(Zt_used_pipes, 1);
    EXPECT_TRUE(std::all_of(Zt_pipes, Zt_pipes + 16, [](const zt_pipe* pipe) { return pipe == nullptr; }));
    EXPECT_EQ(zt_heapsize_class(1), 16 * static_cast<int>(sizeof(zt_pipe*)));
}

TEST_F(Initialisation, ReadsTheDebugFlags)
{
    setenv("ZT_PIPE_DEBUG", "PARMS='read'", 1);
    TraceFile trace;
    open_and_close();
    EXPECT_EQ(Zt_pipe_debug_initialized, 1U);
    EXPECT_EQ(Zt_pipe_debug[3].flags[ZT_PIPE_PARMS], 1U);
    EXPECT_STREQ(Zt_pipe_debug[3].name, "read");
}

TEST_F(Initialisation, HappensOnce)
{
    open_and_close();
    zt_pipe** const table = Zt_pipes;
    record::poison(status);
    EXPECT_EQ(zt_pipe_init(&status), 0U);
    EXPECT_EQ(record::fields(status), record::cleared());
    EXPECT_EQ(Zt_pipes, table);
}

TEST_F(Initialisation, WithGlobalDebugWritesTheVersionLineOnce)
{
    setenv("ZT_PIPE_DEBUG", "DEBUG='global'", 1);
    TraceFile trace;
    open_and_close();
    open_and_close();
    EXPECT_EQ(trace.lines(), (Lines{"ZT_PIPE_DEBUG:  initializing options [DEBUG='global']", version_line}));
}

TEST_F(Initialisation, WithoutGlobalDebugWritesNoVersionLine)
{
    setenv("ZT_PIPE_DEBUG", "CLOCKS MEMORY CTRLBLKS EXCEPTIONS", 1);
    TraceFile trace;
    open_and_close();
    EXPECT_EQ(trace.lines(),
              (Lines{"ZT_PIPE_DEBUG:  initializing options [CLOCKS MEMORY CTRLBLKS EXCEPTIONS]"}));
}

TEST_F(Initialisation, HappensOnceWhenThreadsRaceForTheFirstOpen)
{
    setenv("ZT_PIPE_DEBUG", "DEBUG='global'", 1);
    TraceFile trace;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back(open_and_close);
    for (auto& thread : threads) thread.join();
    const Lines lines = trace.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), version_line), 1);
    EXPECT_EQ(Zt_avail_pipes, 16);
    EXPECT_EQ(Zt_used_pipes, 1);
}

TEST_F(Initialisation, HappensAgainAfterTheExitCleanup)
{
    open_and_close();
    zt_pipe_debug_config("DEBUG='global'", &status);
    zt_pipe_cleanup(0);
    EXPECT_EQ(Zt_avail_pipes, 0);
    EXPECT_EQ(Zt_pipes, nullptr);
    TraceFile trace;
    EXPECT_EQ(pipes::open("no child", ""), 1);
    EXPECT_EQ(trace.lines(), (Lines{version_line}));
    EXPECT_EQ(Zt_avail_pipes, 16);
    EXPECT_EQ(Zt_used_pipes, 2);
}

TEST_F(Initialisation, WithoutMemoryForTheTableFailsTheOpenAndIsTriedAgain)
{
    const std::string heap = std::to_string(zt_heapsize());
    {
        Plan plan{{.function = Function::calloc, .error = ENOMEM}};
        EXPECT_EQ(pipes::refused("no child", ""), record::failure(10021, "ztpipe(zt_pipe_init):284",
                                                                  {{"object", "Zt_pipes"},
                                                                   {"iparm[0]", "128"},
                                                                   {"iparm[1]", heap},
                                                                   {"sys_errno", std::to_string(ENOMEM)},
                                                                   {"sys_msg", strerror(ENOMEM)}}));
    }
    EXPECT_EQ(Zt_avail_pipes, 0);
    EXPECT_EQ(Zt_pipe_debug_initialized, 0U) << "nothing else was set up";
    EXPECT_EQ(pipes::open("no child", ""), 1);
}

TEST_F(Initialisation, IsTriedBeforeTheArgumentsAreLookedAt)
{
    EXPECT_EQ(pipes::refused(nullptr, "").at("where"), "ztpipe(zt_ipipe_open):2544");
    EXPECT_EQ(Zt_avail_pipes, 16);
}

TEST_F(Initialisation, InstallsASigpipeHandlerThatStays)
{
    open_and_close();
    struct sigaction action;
    for (int i = 0; i < 3; ++i) {
        raise(SIGPIPE);
        sigaction(SIGPIPE, nullptr, &action);
        EXPECT_NE(action.sa_handler, SIG_DFL);
        EXPECT_NE(action.sa_handler, SIG_IGN);
    }
}

TEST_F(Initialisation, AFailedRegistrationFailsTheOpenAndIsNotTriedAgain)
{
    struct sigaction action;
    sigaction(SIGPIPE, nullptr, &action);
    if (action.sa_handler != SIG_DFL) GTEST_SKIP() << "needs a process of its own";
    forked::Child process([] {
        register_exit_functions(std::make_integer_sequence<int, ZT_EXIT_FUNCTIONS_MAX>());
        zt::Status own;
        forked::say("opened ", ZT_PIPE_OPEN("no child", "", nullptr, nullptr, &own));
        forked::say(own.object);
        forked::say(" slots ", Zt_avail_pipes);
        forked::say("debug ", static_cast<int>(Zt_pipe_debug_initialized));
        forked::say("again ", ZT_PIPE_OPEN("no child", "", nullptr, nullptr, &own));
        struct sigaction now;
        sigaction(SIGPIPE, nullptr, &now);
        forked::say(now.sa_handler == SIG_DFL ? "no handler" : "handler");
    });
    EXPECT_EQ(process.said(), "opened -1 exit functions slots 16 debug 0 again 1 no handler");
}

TEST_F(Initialisation, RegistersACleanupForTheNormalExit)
{
    TraceFile trace;
    forked::Child process([] {
        open_and_close();
        zt::Status own;
        zt_pipe_debug_config("DEBUG='global'", &own);
    });
    EXPECT_EQ(process.exit_code(), 0);
    EXPECT_EQ(trace.lines(),
              (Lines{"-> zt_pipe_cleanup: beginning cleanup processing due to normal termination",
                     "<- zt_pipe_cleanup: completed cleanup processing"}));
}

TEST_F(Initialisation, RegistersItsCleanupForAnInterruptAlthoughTheFirstOpenArmsTheLatch)
{
    TraceFile trace;
    forked::Child process([] {
        signal(SIGINT, SIG_DFL);
        open_and_close();
        zt::Status own;
        zt_pipe_debug_config("DEBUG='global'", &own);
        raise(SIGINT);
    });
    EXPECT_EQ(process.ended_by(), SIGINT);
    EXPECT_EQ(trace.lines(),
              (Lines{"-> zt_pipe_cleanup: beginning cleanup processing due to signal: Interrupt",
                     "<- zt_pipe_cleanup: completed cleanup processing"}));
}

TEST_F(Initialisation, LeavesAnInterruptHandlerOfTheApplicationInPlace)
{
    struct sigaction old;
    sigaction(SIGINT, nullptr, &old);
    signal(SIGINT, handle_interrupt);
    open_and_close();
    struct sigaction now;
    sigaction(SIGINT, &old, &now);
    EXPECT_EQ(now.sa_handler, &handle_interrupt);
}
