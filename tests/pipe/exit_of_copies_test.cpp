#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zt/runtime/memory.h>
#include <zt/runtime/open_files.h>

#include <cerrno>
#include <climits>
#include <csignal>

#include "tests/support/faults.h"
#include "tests/support/forked_child.h"
#include "tests/support/orphans.h"
#include "tests/support/tracefile.h"
#include "tests/support/transfers.h"

using faults::Function;
using forked::Child;
using forked::say;
using orphans::number_after;

namespace {

// Ends of processes that have a copy of pipes that are another's.
class ExitOfCopies : public ::testing::Test {
  protected:
    void SetUp() override { orphans::adopt(); }
};

void exit_normally()
{
    exit(0);
}

void end_by_term()
{
    raise(SIGTERM);
}

void say_whether_it_lives(int handle)
{
    say(orphans::lives(pipes::block(handle)->pid) ? "lives " : "ended ");
}

// A scenario with a running program and a command that is still owed a line.
struct Owner {
    explicit Owner(const TemporaryFile& file)
    {
        orphans::prepare();
        program = orphans::open_program();
        command = pipes::open("cat >" + file.path(), "COMMAND WRITE");
        pipes::write(command, "once\n");
    }

    void go_on() const
    {
        say_whether_it_lives(program);
        say("command ", static_cast<int>(pipes::close(command)));
    }

    int program, command;
};

void expect_untouched(Child& process, const TemporaryFile& file)
{
    EXPECT_NE(process.said().find("lives command 0 "), std::string::npos) << process.said();
    EXPECT_EQ(process.exit_code(), 0);
    EXPECT_EQ(file.content(), "once\n");
    EXPECT_EQ(orphans::ended_by(number_after("pid ", process.said())), SIGTERM) << "by its owner's own exit";
}

}  // namespace

TEST_F(ExitOfCopies, InAForkedChildNeitherSignalsNorFlushesNorWaits)
{
    for (void (*const end)() : {exit_normally, end_by_term}) {
        const TemporaryFile file;
        Child process([&] {
            const Owner owner(file);
            const pid_t copy = fork();
            if (copy == 0) end();
            waitpid(copy, nullptr, 0);
            owner.go_on();
        });
        expect_untouched(process, file);
    }
}

TEST_F(ExitOfCopies, AfterALaunchThatFailedInTheChildTouchNothingOfTheParents)
{
    const TemporaryFile file;
    Child process([&] {
        const Owner owner(file);
        const pid_t self = getpid();
        Zt_pipe_large_parent = LONG_MAX;  // fork, also in a process that a sanitizer makes large
        const faults::Plan plan{{.function = Function::dup2, .error = EBADF, .in_child = true}};
        zt::Status status;
        const int handle = ZT_PIPE_OPEN("true", "PROGRAM", nullptr, nullptr, &status);
        if (getpid() != self) exit(handle == -1 ? 0 : 1);
        if (pipes::close(handle, "NOKILL") != 0) say("the copy has not ended normally ");
        owner.go_on();
    });
    expect_untouched(process, file);
    EXPECT_EQ(process.said().find("the copy"), std::string::npos);
}

TEST_F(ExitOfCopies, InADaemonCleanUpItsOwnLaterPipes)
{
    for (void (*const end)() : {exit_normally, end_by_term}) {
        const TemporaryFile file, daemons_file;
        Child process([&] {
            const Owner owner(file);
            const pid_t daemon = fork();
            if (daemon == 0) {
                setsid();
                orphans::open_program("own pid ");
                const int command = pipes::open("cat >" + daemons_file.path(), "COMMAND WRITE");
                pipes::write(command, "the daemon's\n");
                end();
            }
            waitpid(daemon, nullptr, 0);
            owner.go_on();
        });
        EXPECT_EQ(orphans::ended_by(number_after("own pid ", process.said())), SIGTERM);
        EXPECT_TRUE(wait_until([&] { return daemons_file.content() == "the daemon's\n"; }));
        expect_untouched(process, file);
    }
}

TEST_F(ExitOfCopies, ClosesTheCopysEndsAndLeavesTheOwners)
{
    const int handle = pipes::open("cat");
    const int read_end = pipes::block(handle)->read_fd, write_end = pipes::block(handle)->write_fd;
    Zt_pipe_current = pipes::block(handle);  // another thread is working on it
    const pid_t copy = fork();
    if (copy == 0) {
        zt_pipe_cleanup(0);
        const bool closed = fcntl(read_end, F_GETFD) < 0 && fcntl(write_end, F_GETFD) < 0;
        _exit(closed && Zt_pipe_current == nullptr ? 0 : 1);
    }
    Zt_pipe_current = nullptr;
    int status = -1;
    EXPECT_EQ(waitpid(copy, &status, 0), copy);
    EXPECT_EQ(status, 0);
    pipes::write(handle, "still there\n");
    EXPECT_EQ(pipes::read_until(handle, "\n"), "still there\n");
    pipes::close(handle);
}

TEST_F(ExitOfCopies, DropsAStreamWithoutAnyDescriptorLeftOver)
{
    const TemporaryFile file;
    const int handle = pipes::open("cat >" + file.path(), "COMMAND WRITE");
    pipes::write(handle, "once\n");
    const pid_t copy = fork();
    if (copy == 0) {
        close(STDIN_FILENO);  // the null device gets the lowest number
        const int end = fileno(pipes::block(handle)->fh);
        zt_pipe_cleanup(0);
        _exit(fcntl(STDIN_FILENO, F_GETFD) < 0 && fcntl(end, F_GETFD) < 0 ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(copy, &status, 0), copy);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(pipes::close(handle), 0u);
    EXPECT_EQ(file.content(), "once\n");
}

TEST_F(ExitOfCopies, GivesBackWhatThePipesTookAndNothingElse)
{
    const long before = zt_heapsize_class(2);
    const int handle = pipes::open("echo text", "COMMAND");
    EXPECT_EQ(pipes::read_all(handle), "text\n");
    const pid_t copy = fork();
    if (copy == 0) {
        close(STDIN_FILENO);
        open("/dev/null", O_RDONLY);  // the lowest number
        zt_pipe_cleanup(0);
        int entries = 0;
        zt_ifile_list(
            6, [](const zt_file_entry*, void* count) { ++*static_cast<int*>(count); }, &entries);
        _exit(zt_heapsize_class(2) == before && entries == 0 && fcntl(STDIN_FILENO, F_GETFD) >= 0 ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(copy, &status, 0), copy);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(pipes::close(handle), 0u);
}

TEST_F(ExitOfCopies, InADaemonWhoseParentHasEndedCleanUpItsOwnLaterPipes)
{
    Child process([] {
        orphans::prepare();
        pipes::open("no child", "");
        if (fork() != 0) _exit(0);
        orphans::open_program();
        exit(0);
    });
    EXPECT_EQ(process.exit_code(), 0);
    EXPECT_EQ(orphans::ended_by(number_after("pid ", process.said())), SIGTERM);
}
