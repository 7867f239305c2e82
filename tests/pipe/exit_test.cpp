#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zt/runtime/exit_handlers.h>
#include <zt/runtime/memory.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <fstream>
#include <thread>

#include "tests/support/faults.h"
#include "tests/support/forked_child.h"
#include "tests/support/orphans.h"
#include "tests/support/tracefile.h"
#include "tests/support/transfers.h"
#include "tests/support/waiting.h"

using faults::Function;
using forked::Child;
using forked::say;
using orphans::number_after;
using pipes::Category;
using pipes::Flag;

namespace {

class Exit : public ::testing::Test {
  protected:
    void SetUp() override { orphans::adopt(); }
};

void on(int signo, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(signo, &action, nullptr);
}

void say_mine(int)
{
    say("mine ");
}

int heap_at_the_signal;

void say_what_was_freed(int)
{
    say("freed ", heap_at_the_signal - zt_heapsize());
}

[[noreturn]] void wait_for_the_end()
{
    say("ready ");
    for (;;) pause();
}

}  // namespace

TEST_F(Exit, WaitsForCommandsAndTellsProgramsToEnd)
{
    const TemporaryFile file;
    Child process([&] {
        orphans::prepare();
        orphans::open_program();
        pipes::write(pipes::open("cat >" + file.path(), "COMMAND WRITE"), "still buffered");
        exit(3);
    });
    EXPECT_EQ(process.exit_code(), 3);
    EXPECT_EQ(file.content(), "still buffered");
    EXPECT_EQ(orphans::ended_by(number_after("pid ", process.said())), SIGTERM);
}

TEST_F(Exit, ByAFatalSignalTellsProgramsToEndAndEndsByThatVerySignal)
{
    for (const int signo : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGXCPU}) {
        SCOPED_TRACE(strsignal(signo));
        Child process([] {
            orphans::prepare();
            orphans::open_program();
            wait_for_the_end();
        });
        ASSERT_TRUE(process.has_said("ready "));
        process.kill(signo);
        EXPECT_EQ(process.ended_by(), signo);
        EXPECT_EQ(orphans::ended_by(number_after("pid ", process.said())), SIGTERM);
    }
}

// The signal may have interrupted the allocator. The function stands before the cleanup, so it runs after it.
TEST_F(Exit, ByAFatalSignalFreesNothing)
{
    Child process([] {
        orphans::prepare();
        zt::Status status;
        zt_atexit(say_what_was_freed, "say_what_was_freed", "test", "", &status);
        char* text = nullptr;
        zt_pipe_read_unlimited(pipes::open("echo text", "PROGRAM"), &text, 0, nullptr, &status);
        heap_at_the_signal = zt_heapsize();
        raise(SIGTERM);
    });
    EXPECT_EQ(process.ended_by(), SIGTERM);
    EXPECT_EQ(process.said(), "freed 0 ");
}

TEST_F(Exit, ByAFatalSignalSendsOutWhatACommandIsStillOwed)
{
    const TemporaryFile file;
    Child process([&] {
        orphans::prepare();
        pipes::write(pipes::open("cat >" + file.path(), "COMMAND WRITE"), "still buffered");
        wait_for_the_end();
    });
    ASSERT_TRUE(process.has_said("ready "));
    process.kill(SIGTERM);
    EXPECT_EQ(process.ended_by(), SIGTERM);
    EXPECT_TRUE(wait_until([&] { return file.content() == "still buffered"; }));
}

TEST_F(Exit, ByAFatalSignalDoesNotWaitUntilACommandTakesWhatItIsOwed)
{
    const TemporaryFile go;
    unlink(go.path().c_str());
    ASSERT_EQ(mkfifo(go.path().c_str(), 0600), 0);
    Child process([&] {
        orphans::prepare();
        const int handle = pipes::open("read go <" + go.path(), "COMMAND WRITE");
        pollfd end{fileno(pipes::block(handle)->fh), POLLOUT, 0};
        while (poll(&end, 1, 0) > 0) pipes::write(handle, std::string(4096, 'x'));
        wait_for_the_end();
    });
    ASSERT_TRUE(process.has_said("ready "));
    process.kill(SIGTERM);
    EXPECT_EQ(process.ended_by(), SIGTERM);
    std::ofstream(go.path()) << "go\n";
}

// The flag would be the other's, too, who has a copy of the descriptor.
TEST_F(Exit, ByAFatalSignalDoesNotMakeAPipeNonBlockingThatIsOnlyRead)
{
    Child process([] {
        orphans::prepare();
        const int end = fileno(pipes::block(pipes::open("yes", "COMMAND"))->fh);
        const pid_t owner = getpid();
        if (fork() == 0) {
            say("ready ");
            const bool outlived = forked::comes_true([=] { return getppid() != owner; });
            say(outlived && (fcntl(end, F_GETFL) & O_NONBLOCK) == 0 ? "blocking " : "non-blocking ");
            _exit(0);
        }
        for (;;) pause();
    });
    ASSERT_TRUE(process.has_said("ready "));
    process.kill(SIGTERM);
    EXPECT_EQ(process.ended_by(), SIGTERM);
    EXPECT_EQ(process.said(), "ready blocking ");
}

TEST_F(Exit, ByAFatalSignalInTheMiddleOfAReadTellsTheProgramToEnd)
{
    Child process([] {
        orphans::prepare();
        const int handle = orphans::open_program();
        say("ready ");
        pipes::read_until(handle, "never comes");
    });
    ASSERT_TRUE(process.has_said("ready "));
    process.kill(SIGTERM);
    EXPECT_EQ(process.ended_by(), SIGTERM);
    EXPECT_EQ(orphans::ended_by(number_after("pid ", process.said())), SIGTERM);
}

// The signal arrives when the child is about to exist and its number is stored nowhere yet.
TEST_F(Exit, ByAFatalSignalDuringTheForkFindsTheChild)
{
    const TraceFile trace;
    Child process([] {
        orphans::prepare();
        pipes::open("no child", "");
        const Flag flag{Category::close, ZT_PIPE_DEBUG_FLAG};
        Zt_pipe_large_parent = LONG_MAX;  // fork, also in a process that a sanitizer makes large
        const faults::Plan plan{{.function = Function::fork, .raising = SIGTERM}};
        orphans::open_program();
    });
    EXPECT_EQ(process.ended_by(), SIGTERM);
    const std::string text = trace.content();
    EXPECT_NE(text.find(": successful"), std::string::npos) << text;
    EXPECT_EQ(orphans::ended_by(number_after("' pid ", text)), SIGTERM);
}

TEST_F(Exit, InAThreadWhileAnotherReadsTellsTheProgramToEnd)
{
    Child process([] {
        orphans::prepare();
        const int handle = orphans::open_program();
        std::thread([=] { pipes::read_until(handle, "never comes"); }).detach();
        std::atomic_ref busy(pipes::block(handle)->busy);
        say(wait_until([&] { return busy == 1; }) ? "busy " : "idle ");
        exit(7);
    });
    EXPECT_EQ(process.exit_code(), 7);
    EXPECT_NE(process.said().find("busy "), std::string::npos);
    EXPECT_EQ(orphans::ended_by(number_after("pid ", process.said())), SIGTERM);
}

TEST_F(Exit, LeavesAHandlerThatTheApplicationInstalledBeforeTheFirstOpen)
{
    for (const int signo : {SIGTERM, SIGINT, SIGHUP}) {
        Child process([=] {
            orphans::prepare();
            on(signo, say_mine);
            const int handle = orphans::open_program();
            raise(signo);
            say(orphans::lives(pipes::block(handle)->pid) ? "lives " : "ended ");
        });
        EXPECT_NE(process.said().find("mine lives "), std::string::npos) << process.said();
        EXPECT_EQ(process.exit_code(), 0);
        EXPECT_EQ(orphans::ended_by(number_after("pid ", process.said())), SIGTERM);
    }
}

TEST_F(Exit, LeavesAHandlerThatTheApplicationInstallsLater)
{
    for (const int signo : {SIGTERM, SIGINT}) {
        Child process([=] {
            orphans::prepare();
            orphans::open_program();
            on(signo, say_mine);
            pipes::close(pipes::open("true", "COMMAND"));
            raise(signo);
        });
        EXPECT_NE(process.said().find("mine "), std::string::npos) << process.said();
        EXPECT_EQ(process.exit_code(), 0);
        EXPECT_EQ(orphans::ended_by(number_after("pid ", process.said())), SIGTERM);
    }
}

TEST_F(Exit, LeavesAnIgnoredSignalIgnored)
{
    for (const int signo : {SIGHUP, SIGINT}) {
        Child process([=] {
            orphans::prepare();
            on(signo, SIG_IGN);
            const int handle = orphans::open_program();
            raise(signo);
            say(orphans::lives(pipes::block(handle)->pid) ? "lives " : "ended ");
        });
        EXPECT_NE(process.said().find("lives "), std::string::npos) << process.said();
        EXPECT_EQ(process.exit_code(), 0);
        EXPECT_EQ(orphans::ended_by(number_after("pid ", process.said())), SIGTERM);
    }
}

TEST_F(Exit, ByACrashLeavesEverythingAndWritesTwoLines)
{
    const struct {
        int signo;
        const char* words;
    } crashes[] = {{SIGSEGV, "Segmentation fault"}, {SIGABRT, "Aborted"}};
    for (const auto& crash : crashes) {
        const TraceFile trace;
        Child process([&] {
            orphans::prepare();
            orphans::open_program();
            const Flag flag{Category::global, ZT_PIPE_DEBUG_FLAG};
            raise(crash.signo);
        });
        EXPECT_EQ(process.ended_by(), crash.signo);
        EXPECT_EQ(trace.lines(),
                  (Lines{std::string("-> zt_pipe_cleanup: beginning cleanup processing due to signal: ") +
                             crash.words,
                         "<- zt_pipe_cleanup: completed cleanup processing"}));
        const pid_t program = number_after("pid ", process.said());
        EXPECT_TRUE(orphans::lives(program));
        orphans::end(program);
    }
}
