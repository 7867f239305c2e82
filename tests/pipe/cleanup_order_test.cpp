// In which order the cleanup ends children that may hold each other's pipes open, and how long it waits.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/orphans.h"
#include "tests/support/tracefile.h"
#include "tests/support/transfers.h"

using faults::Function;
using pipes::Category;
using pipes::Flag;

namespace {

volatile int told_before_the_first_shell;

void note_how_many_were_told(int)
{
    if (told_before_the_first_shell < 0) told_before_the_first_shell = faults::calls(Function::kill);
}

class CleanupOrder : public ::testing::Test {
  protected:
    CleanupOrder()
    {
        Leftovers::settle();
        told_before_the_first_shell = -1;
        signal(SIGUSR1, note_how_many_were_told);
    }

    ~CleanupOrder()
    {
        signal(SIGUSR1, SIG_DFL);
        for (const pid_t pid : programs_) waitpid(pid, nullptr, 0);
    }

    /// A program that only a signal ends. It holds a copy of the end of every pipe that is open now.
    void open_program()
    {
        const int handle = pipes::open_lasting();
        programs_.push_back(pipes::block(handle)->pid);
    }

    /// A command that never ends as long as somebody may read what it writes.
    static void open_endless() { pipes::open("yes", "COMMAND"); }

    /// How many programs were told to end before a shell was waited for.
    static int clean_up()
    {
        const faults::Plan plan{{.function = Function::pclose, .from_then_on = true, .raising = SIGUSR1}};
        zt_pipe_cleanup(0);
        return told_before_the_first_shell;
    }

    /// Ends what the cleanup was kept from ending.
    void end_programs() const
    {
        for (const pid_t pid : programs_) kill(pid, SIGKILL);
    }

    static int waits() { return faults::calls(Function::poll); }

  private:
    std::vector<pid_t> programs_;
};

TEST_F(CleanupOrder, TellsAProgramToEndBeforeItWaitsForAShellThatReads)
{
    pipes::open("cat >/dev/null", "COMMAND WRITE");
    open_program();
    EXPECT_EQ(clean_up(), 1);
    EXPECT_EQ(waits(), 0);
}

TEST_F(CleanupOrder, TellsAProgramToEndBeforeItWaitsForAShellThatDoesNotStopWriting)
{
    open_endless();
    open_program();
    EXPECT_EQ(clean_up(), 1);
    EXPECT_EQ(waits(), 1);
}

TEST_F(CleanupOrder, TellsAProgramToEndOnlyOnceForAllShells)
{
    open_endless();
    open_endless();
    pipes::open("cat >/dev/null", "COMMAND WRITE");
    open_program();
    const faults::Plan plan{{.function = Function::poll, .from_then_on = true, .result = 0}};
    zt_pipe_cleanup(0);
    EXPECT_EQ(waits(), 1);
}

TEST_F(CleanupOrder, LeavesAProgramAloneWhileItWaitsForAShellWhoseOutputHasEnded)
{
    const int command = pipes::open("true", "COMMAND");
    open_program();
    pipes::read_all(command);
    EXPECT_EQ(clean_up(), 0);
}

TEST_F(CleanupOrder, DoesNotWaitForAShellsOutputWhenNoProgramIsOpen)
{
    for (int i = 0; i < 3; ++i) open_endless();
    pipes::open("no child", "");
    EXPECT_EQ(clean_up(), 0);
    EXPECT_EQ(waits(), 0);
}

TEST_F(CleanupOrder, DoesNotWaitForAShellsOutputWhenTheOnlyProgramComesFirst)
{
    open_program();
    open_endless();
    EXPECT_EQ(clean_up(), 1) << "in its turn";
    EXPECT_EQ(waits(), 0);
}

TEST_F(CleanupOrder, TellsProgramsToEndInTheirTurnWhenThereIsNoShell)
{
    open_program();
    open_program();
    clean_up();
    EXPECT_EQ(faults::calls(Function::kill), 2);
    EXPECT_EQ(waits(), 0);
}

TEST_F(CleanupOrder, DoesNotSignalAProgramThatHasBeenCollected)
{
    pipes::open("cat >/dev/null", "COMMAND WRITE");
    const int ended = pipes::open(child("exits_with 3"));
    pipes::wait_for_a_child_to_end();
    zt::Status status;
    EXPECT_EQ(zt_pipe_write(ended, "x", 1, &status), -1);
    ASSERT_NE(pipes::block(ended)->wait_status, -1);
    clean_up();
    EXPECT_EQ(faults::calls(Function::kill), 0);
}

TEST_F(CleanupOrder, ClosesTheEndsOfAProgramThatItTellsToEndAndNeverDescriptor0)
{
    pipes::open("cat >/dev/null", "COMMAND WRITE");
    open_program();
    zt_pipe* const program = pipes::block(2);
    const int read_end = program->read_fd;
    close(program->write_fd);
    program->write_fd = 0;
    close(STDIN_FILENO);
    ASSERT_EQ(open("/dev/null", O_RDONLY), STDIN_FILENO);
    clean_up();
    EXPECT_EQ(fcntl(read_end, F_GETFD), -1);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), 0);
}

TEST_F(CleanupOrder, LeavesTheProgramsOfTheProcessThatForkedThisOne)
{
    const int first = pipes::open("no child", "");
    const int program = pipes::open_lasting();
    pipes::close(first);
    const pid_t copy = fork();
    if (copy == 0) {
        pipes::open("cat >/dev/null", "COMMAND WRITE");
        pipes::open("yes", "COMMAND");
        _exit(clean_up() == 0 && waits() == 0 ? 0 : 1);
    }
    int word = -1;
    EXPECT_EQ(waitpid(copy, &word, 0), copy);
    EXPECT_EQ(word, 0);
    EXPECT_TRUE(orphans::lives(pipes::block(program)->pid));
    pipes::close(program);
}

TEST_F(CleanupOrder, DoesNotWaitForAShellOfTheProcessThatForkedThisOne)
{
    const int command = pipes::open("yes", "COMMAND");
    const pid_t copy = fork();
    if (copy == 0) {
        open_program();
        clean_up();
        _exit(waits());
    }
    int word = -1;
    EXPECT_EQ(waitpid(copy, &word, 0), copy);
    EXPECT_EQ(word, 0);
    pipes::close(command);
}

TEST_F(CleanupOrder, GoesThroughATableThatHasGrown)
{
    constexpr int count = 40;
    const TemporaryFile file;
    for (int i = 1; i < count; ++i) pipes::open("no child", "");
    pipes::write(pipes::open("cat >" + file.path(), "COMMAND WRITE"), "still buffered");
    open_program();
    ASSERT_GT(Zt_avail_pipes, count);
    TraceFile trace;
    const Flag flag{Category::close, ZT_PIPE_PARMS};
    clean_up();
    int handle = 0;
    for (const std::string& line : trace.lines())
        if (line.starts_with("->")) {
            ++handle;
            EXPECT_EQ(line.find("-> zt_ipipe_close: [" + std::to_string(handle) + "] "), 0u) << line;
        }
    EXPECT_EQ(handle, count + 1);
    EXPECT_EQ(file.content(), "still buffered");
    EXPECT_EQ(Zt_pipes, nullptr);
    EXPECT_EQ(Zt_avail_pipes, 0);
    EXPECT_EQ(Zt_used_pipes, 1);
}

// -------------------------------------------------------------------------------- while other threads work

/// As if another thread were in the middle of an operation on the pipe.
zt_pipe& busy(int handle)
{
    zt_pipe& pipe = *pipes::block(handle);
    pipe.busy = 1;
    return pipe;
}

using CleanupOfBusyPipes = CleanupOrder;

TEST_F(CleanupOfBusyPipes, TellsOnlyAProgramToEndThatIsRunning)
{
    busy(pipes::open("no child", ""));
    busy(pipes::open("true", "COMMAND"));
    busy(pipes::open("not started yet", "")).mode = ZT_PIPE_MODE_PROGRAM;
    zt_pipe& collected = busy(pipes::open("no child", ""));
    collected.mode = ZT_PIPE_MODE_PROGRAM;
    collected.pid = 1;
    collected.wait_status = 0;
    open_program();
    busy(5);
    {
        const faults::Plan plan{{.function = Function::kill, .from_then_on = true, .error = EPERM}};
        zt_pipe_cleanup(0);
    }
    EXPECT_EQ(faults::calls(Function::kill), 1);
    EXPECT_EQ(faults::calls(Function::pclose), 0);
    EXPECT_EQ(Zt_pipes, nullptr);
    end_programs();
}

int opened_meanwhile;
pid_t program_opened_meanwhile;

void open_one_more(int)
{
    opened_meanwhile = pipes::open_lasting();
    program_opened_meanwhile = pipes::block(opened_meanwhile)->pid;
}

TEST_F(CleanupOfBusyPipes, TellsAProgramToEndThatWasOpenedWhereTheCleanupHadPassed)
{
    if (forked::handlers_come_late) GTEST_SKIP() << "a program started in a handler has all signals blocked";
    pipes::open("no child", "");
    pipes::open("true", "COMMAND");
    signal(SIGUSR1, open_one_more);
    clean_up();
    EXPECT_EQ(opened_meanwhile, 1);
    EXPECT_EQ(orphans::ended_by(program_opened_meanwhile), SIGTERM);
    EXPECT_EQ(Zt_pipes, nullptr);
}

}  // namespace
