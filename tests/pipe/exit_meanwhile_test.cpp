// What an operation finds when the process has begun to end in another thread while it was at work.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zt/runtime/exit_handlers.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "tests/support/faults.h"
#include "tests/support/forked_child.h"
#include "tests/support/leftovers.h"
#include "tests/support/orphans.h"
#include "tests/support/transfers.h"

using faults::Function;
using forked::say;

namespace {

// A handler does on the thread itself what another thread would do at this moment.
class Meanwhile {
  public:
    explicit Meanwhile(void (*happens)(int)) : before_(signal(SIGUSR1, happens)) {}
    ~Meanwhile() { signal(SIGUSR1, before_); }
    Meanwhile(const Meanwhile&) = delete;
    Meanwhile& operator=(const Meanwhile&) = delete;

  private:
    void (*const before_)(int);
};

void clean_up(int)
{
    zt_pipe_cleanup(0);
}

int handle_of_the_next;

void clean_up_and_open(int)
{
    zt_pipe_cleanup(0);
    handle_of_the_next = pipes::open("no child", "");
}

std::atomic<bool> exit_is_wanted{false}, exit_has_begun{false}, thread_is_done{false};

void want_exit(int)
{
    exit_is_wanted = true;
    forked::comes_true([] { return exit_has_begun.load(); });
}

void wait_for_the_thread(int)
{
    exit_has_begun = true;
    forked::comes_true([] { return thread_is_done.load(); });
}

void poll_and_read(int handle)
{
    zt::Status status;
    char byte;
    say("read ", zt_pipe_read(handle, &byte, 1, nullptr, &status));
    say("code ", static_cast<int>(status.code));
}

class ExitMeanwhile : public NothingLeftTest {
  protected:
    // The table is gone then, or a new one is there: neither is the pipe's. Its child is left to be collected
    // by the process's end.
    static void close_while(void (*happens)(int), int handle)
    {
        const pid_t pid = pipes::block(handle)->pid;
        const Meanwhile meanwhile(happens);
        const faults::Plan plan{{.function = Function::kill, .raising = SIGUSR1}};
        EXPECT_EQ(pipes::close(handle), ZT_PIPE_S_ABNORMAL);
        EXPECT_TRUE(plan.fired());
        EXPECT_EQ(faults::calls(Function::kill), 2) << "by the close and by the cleanup";
        EXPECT_EQ(orphans::ended_by(pid), SIGTERM);
    }
};

class ExitMeanwhileInAProcess : public ::testing::Test {
  protected:
    void SetUp() override { orphans::adopt(); }
};

}  // namespace

TEST_F(ExitMeanwhile, ACloseFreesTheBlockThatTheCleanupHasLeftToIt)
{
    close_while(clean_up, pipes::open_lasting());
    EXPECT_EQ(Zt_pipes, nullptr);
}

TEST_F(ExitMeanwhile, ACloseLeavesAloneWhatHasItsHandleInANewTable)
{
    close_while(clean_up_and_open, pipes::open_lasting());
    ASSERT_EQ(handle_of_the_next, 1);
    EXPECT_EQ(Zt_used_pipes, 2);
    EXPECT_EQ(pipes::close(1), 0U);
}

TEST_F(ExitMeanwhile, ACloseLeavesAloneANewTableThatDoesNotReachToItsHandle)
{
    for (int handle = 1; handle <= 16; ++handle) pipes::open("no child", "");
    const int last = pipes::open_lasting();
    ASSERT_EQ(last, 17);
    close_while(clean_up_and_open, last);
    EXPECT_EQ(Zt_used_pipes, 2);
    EXPECT_EQ(pipes::close(1), 0U);
}

TEST_F(ExitMeanwhileInAProcess, AnOpenEndsTheChildThatItHasJustStartedAndFails)
{
    forked::Child process([] {
        orphans::prepare();
        Leftovers::settle();
        const Meanwhile meanwhile(clean_up);
        const faults::Plan plan{{.function = Function::close, .raising = SIGUSR1}};
        zt::Status status;
        say("result ", ZT_PIPE_OPEN(child("never_reads").c_str(), "PROGRAM", nullptr, nullptr, &status));
        say("code ", static_cast<int>(status.code));
        say("kills ", faults::calls(Function::kill));
        say("pid ", faults::last_child());
    });
    const std::string said = process.said();
    EXPECT_EQ(said.find("result -1 code 10138 kills 2 "), 0U) << said;
    EXPECT_EQ(orphans::ended_by(orphans::number_after("pid ", said)), SIGTERM);
}

TEST_F(ExitMeanwhileInAProcess, AnOpenEndsItsChildAlsoBeforeTheCleanupHasComeToIt)
{
    forked::Child process([] {
        orphans::prepare();
        // Behind the cleanup: the open's block is left to the process's end, for which a leak check does not
        // wait.
        atexit([] { _exit(0); });
        const int handle = orphans::open_program("first ");
        zt::Status status;
        zt_atexit(wait_for_the_thread, "wait_for_the_thread", "test", "", &status);
        const Meanwhile meanwhile(want_exit);
        std::thread([handle] {
            zt::Status record;
            const faults::Plan plan{{.function = Function::close, .raising = SIGUSR1}};
            say("result ", ZT_PIPE_OPEN(child("never_reads").c_str(), "PROGRAM", nullptr, nullptr, &record));
            say("kills ", faults::calls(Function::kill));
            say("pid ", faults::last_child());
            poll_and_read(handle);
            thread_is_done = true;
            forked::comes_true([] { return false; });
        }).detach();
        forked::comes_true([] { return exit_is_wanted.load(); });
    });
    const std::string said = process.said();
    EXPECT_NE(said.find("result -1 kills 1 pid "), std::string::npos) << said;
    EXPECT_NE(said.find("read -1 code 10138 "), std::string::npos) << said;
    EXPECT_EQ(process.exit_code(), 0);
    EXPECT_EQ(orphans::ended_by(orphans::number_after("first ", said)), SIGTERM);
    EXPECT_EQ(orphans::ended_by(orphans::number_after(" pid ", said)), SIGTERM);
}

TEST_F(ExitMeanwhileInAProcess, ASignalsCleanupDoesNotFlushTheStreamThatItHasInterruptedAWriteOf)
{
    for (const bool busy : {false, true}) {
        forked::Child process([busy] {
            const int command = pipes::open("cat >&" + std::to_string(forked::to_parent), "COMMAND WRITE");
            pipes::write(command, "buffered");
            pipes::block(command)->busy = busy ? 1 : 0;
            raise(SIGTERM);
        });
        EXPECT_EQ(process.said(), busy ? "" : "buffered");
        EXPECT_EQ(process.ended_by(), SIGTERM);
    }
}

TEST_F(ExitMeanwhileInAProcess, ASignalsCleanupPassesOverAStreamWithoutADescriptor)
{
    forked::Child process([] {
        const int command = pipes::open("cat", "COMMAND WRITE");
        pipes::write(command, "buffered");
        ::close(fileno(pipes::block(command)->fh));
        raise(SIGTERM);
    });
    EXPECT_EQ(process.ended_by(), SIGTERM);
}

TEST_F(ExitMeanwhileInAProcess, ACopyDropsItsStreamAlsoWhereTheNullDeviceCannotBeOpened)
{
    forked::Child process([] {
        const int command = pipes::open("cat >&" + std::to_string(forked::to_parent), "COMMAND WRITE");
        pipes::write(command, "once ");
        const faults::Plan plan{{.function = Function::open, .error = ENFILE, .in_child = true}};
        const pid_t copy = fork();
        if (copy == 0) {
            zt_pipe_cleanup(0);
            _exit(0);
        }
        waitpid(copy, nullptr, 0);
        say(plan.fired() ? "fired " : "not fired ");
        pipes::close(command);
    });
    EXPECT_EQ(process.said(), "fired once ");
}
