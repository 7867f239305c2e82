// Too little of something: a clean code, nothing lost, and everything works again afterwards.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "tests/support/faults.h"
#include "tests/support/forked_child.h"
#include "tests/support/leftovers.h"
#include "tests/support/limit.h"
#include "tests/support/tracefile.h"
#include "tests/support/transfers.h"

using faults::Function;
using forked::Child;
using forked::say;
using pipes::at;

namespace {

class Scarcity : public NothingLeftTest {};

int lowest_free_descriptor()
{
    const int fd = dup(STDIN_FILENO);
    close(fd);
    return fd;
}

// Opens with room for so many more descriptors; the code of the open.
std::uint32_t open_with_room_for(int descriptors, const char* options, zt::Status& status)
{
    const int room = lowest_free_descriptor() + descriptors;
    const Limit limit{RLIMIT_NOFILE, static_cast<rlim_t>(room)};
    EXPECT_EQ(ZT_PIPE_OPEN("cat", options, nullptr, nullptr, &status), -1);
    return status.code;
}

void expect_that_all_works()
{
    const int handle = pipes::open("echo hello", "COMMAND");
    EXPECT_EQ(pipes::read_all(handle), "hello\n");
    EXPECT_EQ(pipes::close(handle), 0U);
}

rlim_t addresses_in_use()
{
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace

TEST_F(Scarcity, OfDescriptorsRefusesAProgram)
{
    zt::Status status;
    EXPECT_EQ(open_with_room_for(0, "PROGRAM", status), ZT_PIPE_E_FDSETUP);
    EXPECT_EQ(status.sys_errno, static_cast<std::uint32_t>(EMFILE));
    EXPECT_STREQ(status.where, at("zt_pipe_fork", 2282).c_str());
    expect_that_all_works();
}

// The first pipe's descriptors stay open when only the second one is refused: known and accepted.
TEST_F(Scarcity, OfDescriptorsForTheSecondPipeLeavesTheFirst)
{
    zt::Status status;
    const int first = lowest_free_descriptor();
    EXPECT_EQ(open_with_room_for(2, "PROGRAM", status), ZT_PIPE_E_FDSETUP);
    EXPECT_EQ(status.sys_errno, static_cast<std::uint32_t>(EMFILE));
    EXPECT_EQ(close(first), 0);
    EXPECT_EQ(close(first + 1), 0);
}

TEST_F(Scarcity, OfDescriptorsRefusesACommand)
{
    zt::Status status;
    EXPECT_EQ(open_with_room_for(1, "COMMAND", status), ZT_PIPE_E_START);
    EXPECT_EQ(status.sys_errno, static_cast<std::uint32_t>(EMFILE));
    EXPECT_STREQ(status.where, at("zt_pipe_popen", 2014).c_str());
    expect_that_all_works();
}

TEST_F(Scarcity, OfTheSystemsFilesRefusesAProgramToo)
{
    zt::Status status;
    {
        const faults::Plan plan{{.function = Function::pipe, .error = ENFILE}};
        EXPECT_EQ(ZT_PIPE_OPEN("cat", "PROGRAM", nullptr, nullptr, &status), -1);
    }
    EXPECT_EQ(status.code, ZT_PIPE_E_FDSETUP);
    EXPECT_EQ(status.sys_errno, static_cast<std::uint32_t>(ENFILE));
    expect_that_all_works();
}

// The superuser is never refused, so that another user is needed. popen keeps the reason to itself: ENOMEM.
TEST_F(Scarcity, OfProcessesRefusesBothKinds)
{
    if (getuid() != 0) GTEST_SKIP() << "only the superuser can become another user";
    Child process([] {
        constexpr uid_t nobody = 65534;
        Zt_pipe_large_parent = LONG_MAX;  // fork, also in a process that a sanitizer makes large
        if (setuid(nobody) != 0) return;
        zt::Status status;
        const Limit limit{RLIMIT_NPROC, 0};
        ZT_PIPE_OPEN("cat", "PROGRAM", nullptr, nullptr, &status);
        say("program ", static_cast<int>(status.code));
        say("", static_cast<int>(status.sys_errno));
        ZT_PIPE_OPEN("cat", "COMMAND", nullptr, nullptr, &status);
        say("command ", static_cast<int>(status.code));
    });
    EXPECT_EQ(process.said(), "program 10137 " + std::to_string(EAGAIN) + " command 10100 ");
}

TEST_F(Scarcity, OfMemoryDeliversTheCountWithTheWarningAndNoText)
{
    if (!addresses_can_be_limited) GTEST_SKIP() << "a sanitizer needs its addresses";
    Child process([] {
        const int handle = pipes::open("head -c 200000000 /dev/zero");
        zt::Status status;
        char* text = nullptr;
        {
            const Limit limit{RLIMIT_AS, addresses_in_use() + (16U << 20)};
            zt_pipe_read_unlimited(handle, &text, 0, nullptr, &status);
        }
        say(status.count > 0 && text == nullptr ? "short " : "enough ", static_cast<int>(status.subcode));
        pipes::close(handle);
        say("works ", pipes::read_all(pipes::open("echo hello", "COMMAND")) == "hello\n" ? 1 : 0);
    });
    EXPECT_EQ(process.said(), "short 10021 works 1 ");
}

TEST_F(Scarcity, OfDiskUnderTheTraceSendsItsLinesToStandardError)
{
    const TraceOnStandardError standard_error;
    setenv("ZT_TRACE_FILE", "/dev/full", 1);
    {
        const pipes::Flag flag{pipes::Category::open, ZT_PIPE_PARMS};
        expect_that_all_works();
    }
    unsetenv("ZT_TRACE_FILE");
    EXPECT_EQ(standard_error.lines().front(), "-> zt_ipipe_open: [echo hello] [COMMAND] [] []");
}

// Which of the standard streams are closed: 1 for input, 2 for output, 4 for errors, added up.
class ClosedStreams : public ::testing::TestWithParam<int> {};

// A launch lays the pipes over the standard streams and closes those first. That fails where one is closed,
// unless a pipe has taken its place, as the first pipe does with the input. The forked child then comes back
// from the open with 10135, and an application that compares getpid() ends it.
TEST_P(ClosedStreams, LetAProgramStartOnlyWhereNothingButTheInputIsClosed)
{
    const int closed = GetParam();
    Child process([=] {
        Zt_pipe_large_parent = LONG_MAX;
        for (int fd = 0; fd <= 2; ++fd)
            if ((closed >> fd & 1) != 0) close(fd);
        const pid_t parent = getpid();
        zt::Status status;
        const int handle = ZT_PIPE_OPEN("echo hello", "PROGRAM", nullptr, nullptr, &status);
        if (getpid() != parent) _exit(status.code == ZT_PIPE_E_FDSETUP ? 77 : 78);
        char text[10];
        say("read ", zt_pipe_read(handle, text, 6, nullptr, &status));
        say("close ", ZT_PIPE_CLOSE(handle, "NOKILL", &status));
        if (status.code == ZT_PIPE_S_ERROR) say("with ", status.iparm[0]);
    });
    EXPECT_EQ(process.said(), closed <= 1 ? "read 6 close 0 " : "read -1 close 10145 with 77 ");
}

TEST_P(ClosedStreams, MakeNoDifferenceToACommand)
{
    const int closed = GetParam();
    Child process([=] {
        for (int fd = 0; fd <= 2; ++fd)
            if ((closed >> fd & 1) != 0) close(fd);
        zt::Status status;
        const int handle = ZT_PIPE_OPEN("echo hello", "COMMAND", nullptr, nullptr, &status);
        char text[10];
        say("read ", zt_pipe_read(handle, text, 10, nullptr, &status));
        say("close ", ZT_PIPE_CLOSE(handle, "", &status));
    });
    EXPECT_EQ(process.said(), "read 6 close 0 ");
}

INSTANTIATE_TEST_SUITE_P(Each, ClosedStreams, ::testing::Range(0, 8));
