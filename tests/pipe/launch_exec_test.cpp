#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zt/runtime/memory.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/record.h"
#include "tests/support/transfers.h"

using faults::Function;
using pipes::at;

namespace {

constexpr char routine[] = "zt_pipe_fork";

// The launcher works on a block of the test's own, without an open around it.
class LaunchExec : public NothingLeftTest {
  protected:
    LaunchExec()
    {
        Zt_pipe_large_parent = LONG_MAX;  // the road of fork, also in a process that a sanitizer makes large
        pipe.handle = 7;
        pipe.stderr_mode = ZT_PIPE_STDERR_COMBINE;
        record::poison(status);
    }

    std::uint32_t launch(const std::string& program, const char* const* argv = nullptr,
                         const char* const* envp = nullptr)
    {
        strcpy(pipe.program, program.c_str());
        return zt_pipe_fork(&pipe, argv, envp, &status);
    }

    // Everything that the child writes; then its end is collected.
    std::string output()
    {
        close(pipe.write_fd);
        std::string text;
        char byte;
        while (read(pipe.read_fd, &byte, 1) == 1) text += byte;
        close(pipe.read_fd);
        waitpid(pipe.pid, &wait_status, 0);
        return text;
    }

    record::Fields failure(std::uint32_t code, int line, const char* subject, int error)
    {
        return record::failure(code, at(routine, line),
                               {{"sys_errno", std::to_string(error)},
                                {"sys_msg", strerror(error)},
                                {"sparm[0]", subject},
                                {"sparm[1]", subject},
                                {"msg", subject}});
    }

    zt_pipe pipe{};
    zt::Status status;
    int wait_status = -1;
};

// The kernel's name of what a descriptor leads to.
std::string target(int fd)
{
    char text[256] = {};
    return readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), text, sizeof text - 1) > 0 ? text : "";
}

// The four descriptors of a launch, and which of them are open when the next one is about to be closed.
int launched[4];
char open_before_close[4][5];
int closes_seen = 0;

void look_what_is_open(int)
{
    if (closes_seen == 4) return;
    char* open = open_before_close[closes_seen++];
    for (const int fd : launched) *open++ = fcntl(fd, F_GETFD) >= 0 ? 'o' : '-';
}

}  // namespace

TEST_F(LaunchExec, UsesGivenWordsAsTheyAreAndAllocatesNothing)
{
    const char* const argv[] = {"/bin/cat", nullptr};
    {
        const faults::Plan only_counting{};
        EXPECT_EQ(launch("a name for messages", argv), 0u);
        EXPECT_EQ(faults::calls(Function::malloc), 0);
        EXPECT_EQ(faults::calls(Function::calloc), 0);
        EXPECT_EQ(faults::calls(Function::realloc), 0);
    }
    EXPECT_STREQ(pipe.cmdline, "/bin/cat");
    EXPECT_EQ(write(pipe.write_fd, "through cat", 11), 11);
    EXPECT_EQ(output(), "through cat");
}

TEST_F(LaunchExec, GivesTheProgramItsNameAsTheFirstWord)
{
    const std::string file = child("prints_words");
    const char* const argv[] = {file.c_str(), "a b", "", nullptr};
    EXPECT_EQ(launch("words", argv), 0u);
    EXPECT_EQ(output(), "|" + file + "|\n|a b|\n||\n");
}

TEST_F(LaunchExec, SplitsTheProgramTextIntoWords)
{
    EXPECT_EQ(launch(child("prints_words one 'two three'")), 0u);
    EXPECT_EQ(pipe.cmdline, child("prints_words"));
    EXPECT_EQ(pipe.program, child("prints_words one 'two three'"));
    EXPECT_EQ(output(), "|" + child("prints_words") + "|\n|one|\n|two three|\n");
}

TEST_F(LaunchExec, KeepsBothEndsThePidAndNoStreamEvenForAPipeThatIsOnlyRead)
{
    EXPECT_EQ(launch("true"), 0u);
    EXPECT_EQ(record::fields(status), record::cleared());
    EXPECT_GT(pipe.pid, 0);
    EXPECT_GT(pipe.read_fd, 0);
    EXPECT_GT(pipe.write_fd, 0);
    EXPECT_EQ(pipe.fh, nullptr);
    EXPECT_EQ(output(), "");
}

TEST_F(LaunchExec, LeavesTheChildOfBothPipesNothingButItsStandardStreams)
{
    EXPECT_EQ(launch(child("prints_fds")), 0u);
    const std::string input = target(pipe.write_fd), from_child = target(pipe.read_fd);
    std::string listed;
    const std::string text = output();
    for (size_t from = 0, end; (end = text.find('\n', from)) != std::string::npos; from = end + 1) {
        const std::string line = text.substr(from, end - from);
        if (line.ends_with(" " + input)) listed += line[0] + std::string(" in,");
        if (line.ends_with(" " + from_child)) listed += line[0] + std::string(" out,");
    }
    EXPECT_EQ(listed, "0 in,1 out,2 out,");
}

TEST_F(LaunchExec, SetsNoCloseOnExecFlagAndClosesNothingElse)
{
    EXPECT_EQ(launch("cat"), 0u);
    EXPECT_EQ(fcntl(pipe.read_fd, F_GETFD), 0);
    EXPECT_EQ(fcntl(pipe.write_fd, F_GETFD), 0);
    zt_pipe later{};
    strcpy(later.program, child("prints_fds").c_str());
    const zt_pipe first = pipe;
    pipe = later;
    EXPECT_EQ(launch(later.program), 0u);
    EXPECT_NE(output().find("\n" + std::to_string(first.write_fd) + " " + target(first.write_fd) + "\n"),
              std::string::npos);
    pipe = first;
    EXPECT_EQ(output(), "");
}

TEST_F(LaunchExec, GivesTheChildExactlyTheEnvironmentAndKeepsItsOwn)
{
    char** const own = environ;
    const char* const envp[] = {"A=1", "B=two", nullptr};
    EXPECT_EQ(launch(child("prints_env"), nullptr, envp), 0u);
    EXPECT_EQ(environ, own);
    EXPECT_EQ(output(), "A=1\nB=two\n");
}

TEST_F(LaunchExec, SearchesTheProgramOnTheChildsPath)
{
    const char* const envp[] = {"PATH=" ZT_TEST_CHILDREN_DIR, nullptr};
    EXPECT_EQ(launch("prints_env", nullptr, envp), 0u);
    EXPECT_EQ(output(), "PATH=" ZT_TEST_CHILDREN_DIR "\n");
}

TEST_F(LaunchExec, LetsTheChildInheritWithoutAnEnvironmentOfItsOwn)
{
    EXPECT_EQ(launch(child("prints_env PATH")), 0u);
    EXPECT_EQ(output(), std::string(getenv("PATH")) + "\n");
}

TEST_F(LaunchExec, SucceedsForAProgramThatDoesNotExistAndTheChildEndsWith127)
{
    EXPECT_EQ(launch("/no/such/program"), 0u);
    EXPECT_EQ(output(), "");
    EXPECT_TRUE(WIFEXITED(wait_status));
    EXPECT_EQ(WEXITSTATUS(wait_status), 127);
}

TEST_F(LaunchExec, TakesNoLock)
{
    Zt_pipe_mtx.lock();
    EXPECT_EQ(launch("true"), 0u);
    Zt_pipe_mtx.unlock();
    EXPECT_EQ(output(), "");
}

TEST_F(LaunchExec, ReportsThatThereIsNoMemoryForTheWords)
{
    const faults::Plan plan{{.function = Function::malloc, .from_then_on = true, .error = ENOMEM},
                            {.function = Function::calloc, .from_then_on = true, .error = ENOMEM}};
    EXPECT_EQ(launch("sort -r"), ZT_PIPE_E_NOMEM);
    EXPECT_EQ(record::fields(status), record::failure(ZT_PIPE_E_NOMEM, at(routine, 2259),
                                                      {{"sys_errno", std::to_string(ENOMEM)},
                                                       {"sys_msg", strerror(ENOMEM)},
                                                       {"object", "pargv"},
                                                       {"iparm[0]", "24"},
                                                       {"iparm[1]", std::to_string(zt_heapsize())}}));
    EXPECT_EQ(faults::calls(Function::pipe), 0);
}

TEST_F(LaunchExec, ReportsAFirstPipeThatCannotBeMadeAndTriesNoSecond)
{
    const faults::Plan plan{{.function = Function::pipe, .error = EMFILE}};
    EXPECT_EQ(launch("sort -r"), ZT_PIPE_E_FDSETUP);
    EXPECT_EQ(record::fields(status), failure(ZT_PIPE_E_FDSETUP, 2282, "sort -r", EMFILE));
    EXPECT_EQ(faults::calls(Function::pipe), 1);
    EXPECT_EQ(faults::calls(Function::fork), 0);
}

TEST_F(LaunchExec, LeavesTheFirstPipeOpenWhenTheSecondCannotBeMade)
{
    const faults::Plan plan{{.function = Function::pipe, .nth = 2, .error = ENFILE}};
    EXPECT_EQ(launch("sort -r"), ZT_PIPE_E_FDSETUP);
    EXPECT_EQ(record::fields(status), failure(ZT_PIPE_E_FDSETUP, 2282, "sort -r", ENFILE));
    leftovers.allow_descriptors(2);
}

TEST_F(LaunchExec, ReportsAFailedForkAndClosesBothPipes)
{
    const faults::Plan plan{{.function = Function::fork, .error = EAGAIN}};
    EXPECT_EQ(launch("sort -r"), ZT_PIPE_E_FORK);
    EXPECT_EQ(record::fields(status), failure(ZT_PIPE_E_FORK, 2292, "sort -r", EAGAIN));
    EXPECT_LT(pipe.pid, 0);
    EXPECT_EQ(pipe.read_fd, 0);
    EXPECT_EQ(pipe.write_fd, 0);
    EXPECT_EQ(faults::calls(Function::close), 4);
}

TEST_F(LaunchExec, ClosesBothPipesAfterAFailedForkInTheOrderInWhichTheyWereMade)
{
    int first[2], second[2];  // the numbers that the launch gets too
    ASSERT_TRUE(::pipe(first) == 0 && ::pipe(second) == 0);
    std::copy_n(first, 2, launched);
    std::copy_n(second, 2, launched + 2);
    for (const int fd : launched) ::close(fd);
    signal(SIGUSR1, look_what_is_open);
    const faults::Plan plan{
        {.function = Function::fork, .error = EAGAIN},
        {.function = Function::close, .from_then_on = true, .raising = SIGUSR1},
    };
    EXPECT_EQ(launch("sort -r"), ZT_PIPE_E_FORK);
    signal(SIGUSR1, SIG_DFL);
    EXPECT_EQ((std::vector<std::string>(open_before_close, open_before_close + 4)),
              (std::vector<std::string>{"oooo", "-ooo", "--oo", "---o"}));
}

TEST_F(LaunchExec, ReportsTheChildsEndThatCannotBeClosedAlthoughTheChildRuns)
{
    const struct {
        int nth, line;
        const char* label;
    } cases[] = {{1, 2320, "fd1[0]"}, {2, 2325, "fd2[1]"}};
    for (const auto& [nth, line, label] : cases) {
        SCOPED_TRACE(label);
        record::poison(status);
        {
            const faults::Plan plan{{.function = Function::close, .nth = nth, .error = EIO}};
            EXPECT_EQ(launch("echo alive"), ZT_PIPE_E_FDSETUP);
            EXPECT_EQ(faults::calls(Function::close), 2);
        }
        EXPECT_EQ(record::fields(status), failure(ZT_PIPE_E_FDSETUP, line, label, EIO));
        EXPECT_EQ(output(), "alive\n");
    }
}

TEST_F(LaunchExec, RefusesAFileNameThatDoesNotFit)
{
    const std::string file(1025, 'f');
    const char* const argv[] = {file.c_str(), nullptr};
    EXPECT_EQ(launch("long", argv), ZT_PIPE_E_TOOLONG);
    EXPECT_EQ(record::fields(status),
              record::failure(ZT_PIPE_E_TOOLONG, at(routine, 4021),
                              {{"sparm[0]", "argv[0]"}, {"iparm[0]", "1025"}, {"iparm[1]", "1024"}}));
}

TEST_F(LaunchExec, RefusesAProgramTextWithoutWords)
{
    EXPECT_EQ(launch("   "), ZT_PIPE_E_NOPROGRAM);
    EXPECT_EQ(record::fields(status), record::failure(ZT_PIPE_E_NOPROGRAM, at(routine, 4022)));
}

TEST_F(LaunchExec, IsUndoneByTheOpenWhenItFailsWithTheChildRunning)
{
    zt::Status of_open;
    const faults::Plan plan{{.function = Function::close, .error = EIO}};
    EXPECT_EQ(ZT_PIPE_OPEN("cat", "PROGRAM", nullptr, nullptr, &of_open), -1);
    EXPECT_EQ(of_open.code, ZT_PIPE_E_FDSETUP);
    EXPECT_STREQ(of_open.msg, "fd1[0]");
}
