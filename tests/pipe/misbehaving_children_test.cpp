// Children that do not do what a child should, and what their parent sees of it.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/transfers.h"
#include "tests/support/waiting.h"

using faults::Function;
using pipes::Pipe;
using pipes::to_program;
using pipes::wait_for_a_child_to_end;

namespace {

class MisbehavingChild : public NothingLeftTest {
  protected:
    int read(int handle, int size)
    {
        char buffer[100];
        return zt_pipe_read(handle, buffer, size, nullptr, &status);
    }
    int close(Pipe& pipe, const char* options = "")
    {
        const int code = ZT_PIPE_CLOSE(pipe, options, &status);
        pipe.close();  // finds a handle that is free
        return code;
    }

    zt::Status status;
};

// Does something else as soon as a condition holds, while the test waits in an operation.
template <class Condition, class Action>
std::jthread as_soon_as(Condition condition, Action action)
{
    return std::jthread([=] {
        EXPECT_TRUE(wait_until(condition));
        action();
    });
}

bool is_pending(pid_t pid, int signo)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("ShdPnd:"))
            return (std::stoull(line.substr(7), nullptr, 16) >> (signo - 1) & 1) != 0;
    return false;
}

Pipe to_shell(const std::string& script)
{
    return Pipe("sh -c \"" + script + "\"", "PROGRAM");
}

}  // namespace

TEST_F(MisbehavingChild, ThatClosesItsOutputAndLivesOnIsWaitedForByARead)
{
    Pipe pipe = to_program("closes_stdout");
    const pid_t pid = pipe->pid;
    const std::string output = "/proc/" + std::to_string(pid) + "/fd/1";
    const auto killer =
        as_soon_as([=] { return access(output.c_str(), F_OK) != 0; }, [=] { kill(pid, SIGKILL); });
    EXPECT_EQ(read(pipe, 10), -1);
    EXPECT_EQ(status.code, ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(status.sys_errno, static_cast<std::uint32_t>(SIGKILL));
}

TEST_F(MisbehavingChild, ThatClosesItsInputAndLivesOnIsWaitedForByAWrite)
{
    Pipe pipe = to_program("closes_stdin");
    EXPECT_EQ(pipes::read_until(pipe, "\n"), "closed\n");
    zt_pipe* const block = pipes::block(pipe);
    const pid_t pid = block->pid;
    const auto killer = as_soon_as([=] { return std::atomic_ref(block->last_signal) == SIGPIPE; },
                                   [=] { kill(pid, SIGKILL); });
    EXPECT_EQ(zt_pipe_write(pipe, "hello", 5, &status), -1);
    EXPECT_EQ(status.code, ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(status.sys_errno, static_cast<std::uint32_t>(SIGKILL));
}

TEST_F(MisbehavingChild, ThatWritesForeverIsReadAsFarAsOneLikesAndEndsAtTheClose)
{
    Pipe pipe = to_program("writes_forever");
    std::string text(1000000, ' ');
    EXPECT_EQ(zt_pipe_read(pipe, text.data(), 1000000, nullptr, &status), 1000000);
    EXPECT_EQ(text.substr(999996), "y\ny\n");
    // By the closed pipe or by SIGTERM, whatever comes first.
    EXPECT_EQ(close(pipe), static_cast<int>(ZT_PIPE_S_ABNORMAL));
}

TEST_F(MisbehavingChild, ThatNeverReadsTakesWhatThePipeHoldsAndThenAnInterruptEndsTheWrite)
{
    Pipe pipe = to_program("never_reads");
    EXPECT_EQ(pipes::read_until(pipe, "\n"), "ready\n");
    const std::string full(65536, 'x');
    EXPECT_EQ(zt_pipe_write(pipe, full.data(), 65536, &status), 65536) << status.what();

    struct sigaction none = {}, before;
    none.sa_handler = [](int) {};
    sigaction(SIGINT, &none, &before);
    std::atomic<bool> over{false};
    std::thread interrupter([&] {
        while (!over) kill(getpid(), SIGINT), std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    EXPECT_EQ(zt_pipe_write(pipe, "more", 4, &status), -1);
    over = true;
    interrupter.join();
    sigaction(SIGINT, &before, nullptr);
    EXPECT_EQ(status.code, ZT_PIPE_E_INTERRUPTED);
    EXPECT_EQ(close(pipe), static_cast<int>(ZT_PIPE_S_ABNORMAL));
}

// The close sends SIGTERM and waits. The child ends a moment after its input, with a code of its own; a child
// that the close had to signal counts as ended by that signal all the same.
TEST_F(MisbehavingChild, ThatIgnoresSigtermIsWaitedForByTheClose)
{
    Pipe pipe = to_shell("trap '' TERM; echo ready; read x; sleep 0.3; exit 5");
    EXPECT_EQ(pipes::read_until(pipe, "\n"), "ready\n");
    const pid_t pid = pipe->pid;
    EXPECT_EQ(close(pipe), static_cast<int>(ZT_PIPE_S_ABNORMAL));
    EXPECT_EQ(status.sys_errno, static_cast<std::uint32_t>(SIGTERM));
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1) << "it is not collected";
}

TEST_F(MisbehavingChild, ThatIgnoresSigtermIsLeftRunningByNowait)
{
    Pipe pipe = to_shell("trap '' TERM; echo ready; while :; do sleep 0.1; done");
    EXPECT_EQ(pipes::read_until(pipe, "\n"), "ready\n");
    const pid_t pid = pipe->pid;
    EXPECT_EQ(close(pipe, "NOWAIT"), static_cast<int>(ZT_PIPE_S_ABNORMAL));
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "it has ended";
    kill(pid, SIGKILL);
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST_F(MisbehavingChild, ThatLeavesItsOutputToAGrandchildIsReadUntilThatEnds)
{
    Pipe pipe = to_shell("sleep 1000 & echo \\$!; exit 3");
    const pid_t grandchild = std::atoi(pipes::read_until(pipe, "\n").c_str());
    ASSERT_GT(grandchild, 0);
    wait_for_a_child_to_end();
    const auto killer = as_soon_as([] { return true; }, [=] { kill(grandchild, SIGKILL); });
    EXPECT_EQ(read(pipe, 10), -1);
    EXPECT_EQ(status.code, ZT_PIPE_S_ERROR);
    EXPECT_EQ(status.iparm[0], 3);
}

TEST_F(MisbehavingChild, ThatLeavesItsOutputToAGrandchildIsClosedWithoutWaitingForThat)
{
    Pipe pipe = to_shell("sleep 1000 & echo \\$!; exit 3");
    const pid_t grandchild = std::atoi(pipes::read_until(pipe, "\n").c_str());
    ASSERT_GT(grandchild, 0);
    wait_for_a_child_to_end();
    EXPECT_EQ(close(pipe), static_cast<int>(ZT_PIPE_S_ERROR));
    EXPECT_EQ(kill(grandchild, 0), 0) << "the grandchild is nobody's to end";
    kill(grandchild, SIGKILL);
}

TEST_F(MisbehavingChild, ThatIsStoppedAnswersWhenItIsContinued)
{
    Pipe pipe = to_program("echo_lines");
    const pid_t pid = pipe->pid;
    kill(pid, SIGSTOP);
    pipes::write(pipe, "hello\n");
    kill(pid, SIGCONT);
    EXPECT_EQ(pipes::read_until(pipe, "\n"), "hello\n");
}

TEST_F(MisbehavingChild, ThatIsStoppedKeepsTheCloseWaitingUntilItIsContinued)
{
    Pipe pipe = to_program("never_reads");
    EXPECT_EQ(pipes::read_until(pipe, "\n"), "ready\n");
    const pid_t pid = pipe->pid;
    kill(pid, SIGSTOP);
    siginfo_t stopped;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &stopped, WSTOPPED | WNOWAIT), 0);
    const auto waker = as_soon_as([=] { return is_pending(pid, SIGTERM); }, [=] { kill(pid, SIGCONT); });
    EXPECT_EQ(close(pipe), static_cast<int>(ZT_PIPE_S_ABNORMAL));
    EXPECT_EQ(status.sys_errno, static_cast<std::uint32_t>(SIGTERM));
}

TEST_F(MisbehavingChild, ThatIsKilledInATransferStillDeliversWhatItWrote)
{
    Pipe pipe = to_program("prints_then_waits hello");
    EXPECT_EQ(pipes::read_until(pipe, "hel"), "hel");
    kill(pipe->pid, SIGKILL);
    char* text = nullptr;
    EXPECT_EQ(zt_pipe_read_unlimited(pipe, &text, 0, nullptr, &status), 2);
    EXPECT_STREQ(text, "lo");
    EXPECT_EQ(status.subcode, ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(status.sys_errno, static_cast<std::uint32_t>(SIGKILL));
}

TEST_F(MisbehavingChild, ThatSomebodyElseCollectedCountsAsEndedNormally)
{
    Pipe pipe = to_program("exits_with 3");
    EXPECT_EQ(waitpid(pipe->pid, nullptr, 0), pipe->pid);
    EXPECT_EQ(read(pipe, 10), 0);
    EXPECT_EQ(status.code, 0U);
    EXPECT_EQ(close(pipe), 0);
}

// Its number may be another process's by now.
TEST_F(MisbehavingChild, ThatIsCollectedIsNeverSentASignal)
{
    for (const bool by_somebody_else : {true, false}) {
        Pipe pipe = to_program("exits_with 3");
        if (by_somebody_else)
            waitpid(pipe->pid, nullptr, 0);
        else
            read(pipe, 10);
        const faults::Plan counting{};
        close(pipe);
        EXPECT_EQ(faults::calls(Function::kill), 0);
    }
}
