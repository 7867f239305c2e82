#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zt/ztpipe/wiring.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>

#include "tests/support/faults.h"
#include "tests/support/forked_child.h"
#include "tests/support/leftovers.h"
#include "tests/support/record.h"
#include "tests/support/transfers.h"

using faults::Function;
using pipes::at;

namespace {

constexpr char routine[] = "zt_pipe_fork";

// What a forked child saw when it came back from a launch that should have become a program.
struct Returned {
    ubstatus record;
    std::uint32_t code;
    int closes, dups, opens, pid;
};

class Wiring : public NothingLeftTest {
  protected:
    // A sanitizer makes the process large enough for the other road, which wires nothing by calls.
    Wiring() { Zt_pipe_large_parent = LONG_MAX; }

    // Launches with a fault in the child, which sends home what it sees and ends.
    Returned launch_failing(std::uint32_t stderr_mode, const faults::Fault& fault)
    {
        int home[2];
        EXPECT_EQ(::pipe(home), 0);
        zt_pipe pipe{};
        pipe.stderr_mode = stderr_mode;
        strcpy(pipe.program, "true");
        record::poison(status);
        const pid_t parent = getpid();
        {
            const faults::Plan plan{fault};
            const std::uint32_t code = zt_pipe_fork(&pipe, nullptr, nullptr, &status);
            if (getpid() != parent) {
                const Returned seen{status,
                                    code,
                                    faults::calls(Function::close),
                                    faults::calls(Function::dup2),
                                    faults::calls(Function::open),
                                    pipe.pid};
                _exit(::write(home[1], &seen, sizeof seen) == sizeof seen ? 0 : 1);
            }
            EXPECT_EQ(code, 0u) << "the parent's side has worked";
        }
        ::close(home[1]);
        Returned returned{};
        EXPECT_EQ(::read(home[0], &returned, sizeof returned), static_cast<ssize_t>(sizeof returned));
        ::close(home[0]);
        ::close(pipe.read_fd);
        ::close(pipe.write_fd);
        waitpid(pipe.pid, nullptr, 0);
        return returned;
    }

    static record::Fields fields(const Returned& returned)
    {
        zt::Status copy;
        copy.copy(&returned.record);
        return record::fields(copy);
    }

    zt::Status status;
};

record::Fields failure(std::uint32_t code, int line, const char* label)
{
    return record::failure(code, at(routine, line),
                           {{"sys_errno", std::to_string(EBADF)},
                            {"sys_msg", strerror(EBADF)},
                            {"sparm[0]", label},
                            {"sparm[1]", label},
                            {"msg", label}});
}

constexpr std::uint32_t discard = ZT_PIPE_STDERR_DISCARD, combine = ZT_PIPE_STDERR_COMBINE;

struct Call {
    Function function;
    int nth;
    std::uint32_t stderr_mode, code;
    int line;
    const char* label;
    int closes, dups;
};

constexpr Call calls[] = {
    {Function::close, 1, combine, ZT_PIPE_E_FDSETUP, 2340, "fd1[1]", 2, 0},
    {Function::close, 2, combine, ZT_PIPE_E_FDSETUP, 2345, "fd2[0]", 2, 0},
    {Function::close, 3, combine, ZT_PIPE_E_FDSETUP, 2362, "stdin", 3, 0},
    {Function::dup2, 1, combine, ZT_PIPE_E_DUP, 2368, "fd1[0]->stdin", 3, 1},
    {Function::close, 4, combine, ZT_PIPE_E_FDSETUP, 2374, "fd1[0]", 4, 1},
    {Function::close, 5, combine, ZT_PIPE_E_FDSETUP, 2385, "stdout", 5, 1},
    {Function::dup2, 2, combine, ZT_PIPE_E_DUP, 2391, "fd2[1]->stdout", 5, 2},
    {Function::close, 6, combine, ZT_PIPE_E_FDSETUP, 2397, "fd2[1]", 6, 2},
    {Function::close, 7, combine, ZT_PIPE_E_FDSETUP, 2406, "stderr", 7, 2},
    {Function::dup2, 3, combine, ZT_PIPE_E_DUP, 2438, "stdout->stderr", 7, 3},
    {Function::open, 1, discard, ZT_PIPE_E_FDSETUP, 2415, "/dev/null", 7, 2},
    {Function::close, 8, discard, ZT_PIPE_E_FDSETUP, 2428, "/dev/null", 8, 3},
};

}  // namespace

TEST_F(Wiring, ReturnsFromTheLaunchInTheChildAtTheFirstFailingCall)
{
    for (const Call& call : calls) {
        SCOPED_TRACE(call.line);
        const Returned returned = launch_failing(
            call.stderr_mode, {.function = call.function, .nth = call.nth, .error = EBADF, .in_child = true});
        EXPECT_EQ(returned.code, call.code);
        EXPECT_EQ(fields(returned), failure(call.code, call.line, call.label));
        EXPECT_EQ(returned.closes, call.closes);
        EXPECT_EQ(returned.dups, call.dups);
        EXPECT_EQ(returned.pid, 0);
    }
}

TEST_F(Wiring, NamesTheNullDeviceOnlyInTheMessageWhenItCannotBecomeStandardError)
{
    const Returned returned =
        launch_failing(discard, {.function = Function::dup2, .nth = 3, .error = EBADF, .in_child = true});
    EXPECT_EQ(fields(returned), record::failure(ZT_PIPE_E_DUP, at(routine, 2421),
                                                {{"sys_errno", std::to_string(EBADF)},
                                                 {"sys_msg", strerror(EBADF)},
                                                 {"msg", "/dev/null->stderr"}}));
}

TEST_F(Wiring, ReportsTheSecondOfTheParentsEndsWhenNeitherCanBeClosed)
{
    const Returned returned = launch_failing(
        combine, {.function = Function::close, .from_then_on = true, .error = EBADF, .in_child = true});
    EXPECT_EQ(fields(returned), failure(ZT_PIPE_E_FDSETUP, 2345, "fd2[0]"));
    EXPECT_EQ(returned.closes, 2);
}

TEST_F(Wiring, LetsTheOpenFailInTheChildAsItWouldInTheParent)
{
    int home[2];
    ASSERT_EQ(::pipe(home), 0);
    const pid_t parent = getpid();
    int handle;
    {
        const faults::Plan plan{{.function = Function::dup2, .error = EBADF, .in_child = true}};
        handle = ZT_PIPE_OPEN("true", "PROGRAM", nullptr, nullptr, &status);
        if (getpid() != parent) {
            const bool undone = handle == -1 && status.code == ZT_PIPE_E_DUP && Zt_pipe_current == nullptr &&
                                Zt_pipes[1] == nullptr && faults::calls(Function::kill) == 0 &&
                                faults::calls(Function::waitpid) == 0;
            _exit(::write(home[1], undone ? "undone" : "strange", 6) == 6 ? 5 : 1);
        }
    }
    char text[7] = {};
    EXPECT_EQ(::read(home[0], text, 6), 6);
    EXPECT_STREQ(text, "undone");
    ::close(home[0]);
    ::close(home[1]);
    EXPECT_EQ(handle, 1);
    char byte;
    EXPECT_EQ(zt_pipe_read(handle, &byte, 1, nullptr, &status), -1);
    EXPECT_EQ(status.iparm[0], 5) << "the exit code that the copy of this process chose";
    EXPECT_EQ(pipes::close(handle), ZT_PIPE_S_ERROR);
}

TEST_F(Wiring, MakesTheNullDeviceDescriptor2OfADiscardingChild)
{
    const auto listed_with = [](const char* options) {
        const int handle = pipes::open(child("prints_fds"), options);
        const std::string listed = pipes::read_all(handle);
        EXPECT_EQ(pipes::close(handle), 0u);
        return listed;
    };
    const auto lines = [](const std::string& text) { return std::count(text.begin(), text.end(), '\n'); };
    const std::string listed = listed_with("PROGRAM STDERR=DISCARD");
    EXPECT_NE(listed.find("\n2 /dev/null\n"), std::string::npos) << listed;
    EXPECT_EQ(lines(listed), lines(listed_with("PROGRAM"))) << "no other descriptor of the device is left";
}

TEST_F(Wiring, LosesWhatADiscardingChildWritesToStandardError)
{
    const int handle = pipes::open(child("writes_both"), "PROGRAM STDERR=DISCARD");
    EXPECT_EQ(pipes::read_all(handle), "out\n");
    EXPECT_EQ(pipes::close(handle), 0u) << "the child could write both";
}

TEST_F(Wiring, LetsTheParentReadTheErrorsOfACombiningChild)
{
    const int handle = pipes::open(child("writes_both"));
    EXPECT_EQ(pipes::read_all(handle), "out\nerr\n");
    EXPECT_EQ(pipes::close(handle), 0u);
}

TEST_F(Wiring, StartsAnIgnoringChildWithDescriptor2Closed)
{
    const int handle = pipes::open(child("prints_fds"), "PROGRAM STDERR=IGNORE");
    EXPECT_EQ(("\n" + pipes::read_all(handle)).find("\n2 "), std::string::npos);
    EXPECT_EQ(pipes::close(handle), 0u);
}

// No launch gets there by itself: the system gives the read end of a pipe the lower number.
TEST_F(Wiring, LeavesAPipeEndAloneThatIsStandardOutputAlready)
{
    forked::Child process([] {
        zt::pipe::Wires wires;
        if (::pipe(wires.to_child) != 0 || ::pipe(wires.from_child) != 0) abort();
        dup2(wires.from_child[1], STDOUT_FILENO);
        ::close(wires.from_child[1]);
        wires.from_child[1] = STDOUT_FILENO;
        zt_pipe pipe{};
        pipe.stderr_mode = combine;
        zt::Status own;
        zt::pipe::Report report{routine, own};
        const faults::Plan only_counting{};
        zt::pipe::wire_child(report, pipe, wires);
        forked::say("code ", static_cast<int>(own.code));
        forked::say("closes ", faults::calls(Function::close));
        forked::say("dups ", faults::calls(Function::dup2));
        forked::say(fcntl(STDOUT_FILENO, F_GETFD) >= 0 ? "open" : "closed");
    });
    EXPECT_EQ(process.said(), "code 0 closes 5 dups 2 open");
}

TEST_F(Wiring, LeavesAPipeEndAloneThatIsStandardInputAlready)
{
    forked::Child process([] {
        ::close(STDIN_FILENO);
        const int handle = pipes::open("cat");
        pipes::write(handle, "through\n");
        forked::say(pipes::read_until(handle, "\n").c_str());
        forked::say("code ", static_cast<int>(pipes::close(handle, "NOKILL")));
    });
    EXPECT_EQ(process.said(), "through\ncode 0 ");
}
