#include "tests/support/faults.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

using faults::Function;
using faults::Plan;

namespace {

struct Pipe {
    int end[2];
    Pipe()
    {
        if (pipe(end) != 0) abort();
    }
    ~Pipe()
    {
        close(end[0]);
        close(end[1]);
    }
};

bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

/// What a forked child finds out about itself, as its exit code.
template <class Body>
int in_child(Body body)
{
    const pid_t pid = fork();
    if (pid == 0) _exit(body());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Starts a program and waits for it; the result is that of posix_spawnp.
int spawn_true()
{
    char program[] = "true";
    char* words[] = {program, nullptr};
    pid_t pid;
    const int error = posix_spawnp(&pid, program, nullptr, nullptr, words, environ);
    if (error == 0) waitpid(pid, nullptr, 0);
    return error;
}

volatile sig_atomic_t last_signal;

}  // namespace

TEST(Faults, LeaveEveryCallAloneWithoutAPlan)
{
    Pipe pipe;
    char byte = 0;
    EXPECT_EQ(write(pipe.end[1], "x", 1), 1);
    EXPECT_EQ(read(pipe.end[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(faults::calls(Function::write), 0);
}

TEST(Faults, FailTheNthCallOnceWithItsErrno)
{
    Pipe pipe;
    Plan plan{{.function = Function::write, .nth = 2, .error = EIO}};
    EXPECT_EQ(write(pipe.end[1], "x", 1), 1);
    EXPECT_FALSE(plan.fired());
    errno = 0;
    EXPECT_EQ(write(pipe.end[1], "x", 1), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(write(pipe.end[1], "x", 1), 1);
    EXPECT_TRUE(plan.fired());
    EXPECT_EQ(faults::calls(Function::write), 3);
    EXPECT_EQ(faults::calls(Function::read), 0);
}

TEST(Faults, FailEveryCallFromTheNthOn)
{
    Plan plan{{.function = Function::dup2, .nth = 2, .from_then_on = true, .error = EMFILE}};
    EXPECT_EQ(dup2(1, 1), 1);
    EXPECT_EQ(dup2(1, 1), -1);
    EXPECT_EQ(dup2(1, 1), -1);
}

TEST(Faults, AreGoneWithThePlan)
{
    {
        Plan plan{{.function = Function::dup2, .from_then_on = true, .error = EMFILE}};
    }
    EXPECT_EQ(dup2(1, 1), 1);
}

TEST(Faults, LeaveErrnoAloneWhereNothingFails)
{
    Plan plan{};
    errno = ENOTTY;
    EXPECT_EQ(dup2(1, 1), 1);
    EXPECT_EQ(errno, ENOTTY);
}

TEST(Faults, CloseReallyAlthoughTheCloseFails)
{
    Pipe pipe;
    const int fd = dup(pipe.end[0]);
    Plan plan{{.function = Function::close, .error = EIO}};
    EXPECT_EQ(close(fd), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_FALSE(is_open(fd));
}

TEST(Faults, WriteTheShortPartReally)
{
    Pipe pipe;
    Plan plan{{.function = Function::write, .result = 2}};
    EXPECT_EQ(write(pipe.end[1], "abcd", 4), 2);
    char buffer[8];
    EXPECT_EQ(read(pipe.end[0], buffer, sizeof buffer), 2);
}

TEST(Faults, ReadTheShortPartAndLeaveTheRest)
{
    Pipe pipe;
    char buffer[8];
    ASSERT_EQ(write(pipe.end[1], "abcd", 4), 4);
    Plan plan{{.function = Function::read, .result = 3}};
    EXPECT_EQ(read(pipe.end[0], buffer, sizeof buffer), 3);
    EXPECT_EQ(read(pipe.end[0], buffer, sizeof buffer), 1);
}

TEST(Faults, ReportEndOfDataWhenTheResultIsZero)
{
    Pipe pipe;
    char byte;
    Plan plan{{.function = Function::read, .result = 0}};
    EXPECT_EQ(read(pipe.end[0], &byte, 1), 0);
}

TEST(Faults, MarkTheStreamWhoseReadFailedUntilItIsCleared)
{
    FILE* stream = tmpfile();
    char byte;
    {
        Plan plan{{.function = Function::fread, .error = EINTR}};
        EXPECT_EQ(fread(&byte, 1, 1, stream), 0U);
        EXPECT_EQ(errno, EINTR);
        EXPECT_NE(ferror(stream), 0);
        EXPECT_EQ(ferror(stdin), 0);
        clearerr(stream);
        EXPECT_EQ(ferror(stream), 0);
        EXPECT_EQ(faults::calls(Function::clearerr), 1);
    }
    fclose(stream);
}

TEST(Faults, LetAStreamReturnNothingWithoutErrorOrEnd)
{
    FILE* stream = tmpfile();
    char byte;
    Plan plan{{.function = Function::fread, .from_then_on = true, .result = 0}};
    EXPECT_EQ(fread(&byte, 1, 1, stream), 0U);
    EXPECT_EQ(ferror(stream), 0);
    EXPECT_EQ(feof(stream), 0);
    fclose(stream);
}

TEST(Faults, CollectTheShellAlthoughPcloseFails)
{
    FILE* stream = popen("exit 3", "r");
    ASSERT_NE(stream, nullptr);
    {
        Plan plan{{.function = Function::pclose, .error = ECHILD}};
        EXPECT_EQ(pclose(stream), -1);
        EXPECT_EQ(errno, ECHILD);
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(Faults, ReturnARawWaitStatusFromPclose)
{
    FILE* stream = popen("exit 3", "r");
    Plan plan{{.function = Function::pclose, .result = 127}};
    EXPECT_EQ(pclose(stream), 127);
}

TEST(Faults, CollectTheChildThatWaitpidDenies)
{
    const pid_t pid = fork();
    if (pid == 0) _exit(0);
    int status;
    Plan plan{{.function = Function::waitpid, .error = ECHILD}};
    EXPECT_EQ(waitpid(pid, &status, 0), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(waitpid(pid, &status, 0), -1) << "the real call must find no child any more";
}

TEST(Faults, RefuseWhatTheSystemRefuses)
{
    Plan plan{{.function = Function::fork, .error = EAGAIN}, {.function = Function::pipe, .error = EMFILE},
              {.function = Function::open, .error = ENOENT}, {.function = Function::execvp, .error = E2BIG},
              {.function = Function::kill, .error = EPERM},  {.function = Function::popen, .error = ENOMEM},
              {.function = Function::feof, .result = 1},     {.function = Function::ferror, .result = 1}};
    int ends[2];
    char* words[] = {nullptr};
    EXPECT_EQ(fork(), -1);
    EXPECT_EQ(pipe(ends), -1);
    EXPECT_EQ(open("/dev/null", O_RDONLY), -1);
    EXPECT_EQ(execvp("true", words), -1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(kill(getpid(), SIGKILL), -1);
    EXPECT_EQ(popen("true", "r"), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(feof(stdin), 1);
    EXPECT_EQ(ferror(stdin), 1);
}

TEST(Faults, RefuseMemoryAndLeaveTheOldBlock)
{
    // Volatile: the compiler knows these calls, and would know better than the fake what they return.
    char* volatile block = static_cast<char*>(malloc(4));
    block[0] = 'x';
    Plan plan{{.function = Function::malloc, .error = ENOMEM},
              {.function = Function::calloc, .error = ENOMEM},
              {.function = Function::realloc, .error = ENOMEM}};
    void* volatile none = malloc(4);
    EXPECT_EQ(none, nullptr);
    none = calloc(1, 4);
    EXPECT_EQ(none, nullptr);
    none = realloc(block, 8);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(block[0], 'x');
    free(block);
}

TEST(Faults, HappenOnlyInTheForkedChildWhenPlannedThere)
{
    Plan plan{{.function = Function::dup2, .nth = 2, .error = EBUSY, .in_child = true}};
    EXPECT_EQ(dup2(1, 1), 1);
    EXPECT_EQ(dup2(1, 1), 1);
    EXPECT_EQ(in_child([] { return dup2(1, 1) == 1 && dup2(1, 1) == -1 && errno == EBUSY ? 0 : 1; }), 0);
    EXPECT_TRUE(plan.fired()) << "the planner must hear of it";
}

TEST(Faults, DoNotHappenInTheForkedChildOtherwise)
{
    Plan plan{{.function = Function::dup2, .from_then_on = true, .error = EBUSY}};
    EXPECT_EQ(in_child([] { return dup2(1, 1) == 1 ? 0 : 1; }), 0);
    EXPECT_FALSE(plan.fired());
}

TEST(Faults, KeepPosixSpawnFromWhatIsPlannedForAFork)
{
    {
        Plan plan{{.function = Function::fork, .nth = 2, .error = EAGAIN}};
        EXPECT_EQ(spawn_true(), 0);
        EXPECT_EQ(spawn_true(), EAGAIN);
        EXPECT_FALSE(plan.fired()) << "left for the fork";
        EXPECT_EQ(fork(), -1);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_EQ(spawn_true(), 0);
        EXPECT_EQ(faults::calls(Function::posix_spawnp), 3);
        EXPECT_EQ(faults::calls(Function::fork), 1);
    }
    Plan plan{{.function = Function::dup2, .error = EBUSY, .in_child = true}};
    EXPECT_EQ(spawn_true(), EBUSY);
    EXPECT_EQ(in_child([] { return dup2(1, 1) == -1 ? 0 : 1; }), 0);
}

TEST(Faults, KnowTheChildThatWasStartedLast)
{
    Plan plan{};
    EXPECT_EQ(faults::last_child(), 0);
    const pid_t forked = fork();
    if (forked == 0) _exit(0);
    EXPECT_EQ(faults::last_child(), forked);
    waitpid(forked, nullptr, 0);
    EXPECT_EQ(spawn_true(), 0);
    EXPECT_NE(faults::last_child(), forked);
    EXPECT_EQ(kill(faults::last_child(), 0), -1) << "waited for";
}

TEST(Faults, RaiseASignalPlannedForAForkInPosixSpawn)
{
    signal(SIGINT, [](int signo) { last_signal = signo; });
    Plan plan{{.function = Function::fork, .raising = SIGINT}};
    EXPECT_EQ(spawn_true(), 0);
    EXPECT_EQ(last_signal, SIGINT);
    EXPECT_TRUE(plan.fired());
    signal(SIGINT, SIG_DFL);
}

TEST(Faults, RaiseASignalInsideTheCallAndGoOn)
{
    Pipe pipe;
    signal(SIGINT, [](int signo) { last_signal = signo; });
    Plan plan{{.function = Function::write, .raising = SIGINT}};
    EXPECT_EQ(write(pipe.end[1], "x", 1), 1);
    EXPECT_EQ(last_signal, SIGINT);
    signal(SIGINT, SIG_DFL);
}

TEST(Faults, RaiseASignalAndFail)
{
    Pipe pipe;
    signal(SIGPIPE, [](int signo) { last_signal = signo; });
    Plan plan{{.function = Function::write, .error = EPIPE, .raising = SIGPIPE}};
    EXPECT_EQ(write(pipe.end[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(last_signal, SIGPIPE);
    signal(SIGPIPE, SIG_DFL);
}
