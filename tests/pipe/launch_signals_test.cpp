#include <gtest/gtest.h>
#include <sys/mman.h>
#include <zt/runtime/signals.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/transfers.h"

using faults::Function;

namespace {

// What a child says about the signals that it started with.
class SignalsOf {
  public:
    explicit SignalsOf(const char* options) : text_(output(options)) {}

    bool blocked(int signo) const { return has("SigBlk:", signo); }
    bool ignored(int signo) const { return has("SigIgn:", signo); }

  private:
    static std::string output(const char* options)
    {
        const int handle = pipes::open(child("prints_signals"), options);
        std::string text = pipes::read_all(handle);
        EXPECT_EQ(pipes::close(handle), 0u);
        return text;
    }

    bool has(const char* field, int signo) const
    {
        const size_t found = text_.find(field);
        if (found == std::string::npos) ADD_FAILURE() << field << " is missing in " << text_;
        const auto bits = strtoull(text_.c_str() + found + 7, nullptr, 16);
        return ((bits >> (signo - 1)) & 1U) != 0;
    }

    std::string text_;
};

// A signal's action for the length of a scope.
class Action {
  public:
    Action(int signo, void (*handler)(int)) : signo_(signo)
    {
        struct sigaction action = {};
        action.sa_handler = handler;
        sigaction(signo, &action, &before_);
    }
    ~Action() { sigaction(signo_, &before_, nullptr); }
    Action(const Action&) = delete;
    Action& operator=(const Action&) = delete;

  private:
    int signo_;
    struct sigaction before_;
};

class BlockedSignal {
  public:
    explicit BlockedSignal(int signo)
    {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, signo);
        pthread_sigmask(SIG_BLOCK, &set, &before_);
    }
    ~BlockedSignal() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    BlockedSignal(const BlockedSignal&) = delete;
    BlockedSignal& operator=(const BlockedSignal&) = delete;

  private:
    sigset_t before_;
};

// Shared with forked children, which would count there too.
std::atomic<int>& handled()
{
    static void* const page =
        mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *static_cast<std::atomic<int>*>(page);
}

void count_signal(int)
{
    ++handled();
}

class LaunchSignals : public NothingLeftTest {
  protected:
    // The road of fork, also in a process that a sanitizer makes large.
    LaunchSignals() { Zt_pipe_large_parent = LONG_MAX; }
};

}  // namespace

TEST_F(LaunchSignals, StartTheProgramWithTheParentsMask)
{
    EXPECT_FALSE(SignalsOf("PROGRAM").blocked(SIGUSR1));
    const BlockedSignal usr1(SIGUSR1);
    const SignalsOf signals("PROGRAM");
    EXPECT_TRUE(signals.blocked(SIGUSR1));
    EXPECT_FALSE(signals.blocked(SIGTERM));
}

TEST_F(LaunchSignals, LeaveTheParentsMaskAsItWas)
{
    const auto mask = [] {
        sigset_t now;
        pthread_sigmask(SIG_SETMASK, nullptr, &now);
        std::string bits;
        for (int signo = 1; signo < NSIG; ++signo) bits += sigismember(&now, signo) == 1 ? '1' : '0';
        return bits;
    };
    const BlockedSignal usr2(SIGUSR2);
    const std::string before = mask();
    EXPECT_EQ(pipes::close(pipes::open("true"), "NOKILL"), 0u);
    EXPECT_EQ(mask(), before);
}

TEST_F(LaunchSignals, StartTheProgramWithSigpipeAtItsDefaultEvenWhereTheParentIgnoresIt)
{
    EXPECT_FALSE(SignalsOf("PROGRAM").ignored(SIGPIPE));
    const Action ignoring(SIGPIPE, SIG_IGN);
    EXPECT_FALSE(SignalsOf("PROGRAM").ignored(SIGPIPE));
}

TEST_F(LaunchSignals, StartEveryChildWithSigintAtItsDefault)
{
    EXPECT_FALSE(SignalsOf("PROGRAM").ignored(SIGINT));
    EXPECT_FALSE(SignalsOf("COMMAND").ignored(SIGINT));
}

TEST_F(LaunchSignals, LeaveSigintIgnoredInTheChildWhereTheApplicationIgnoresIt)
{
    const Action ignoring(SIGINT, SIG_IGN);
    EXPECT_TRUE(SignalsOf("PROGRAM").ignored(SIGINT));
    EXPECT_TRUE(SignalsOf("COMMAND").ignored(SIGINT));
}

TEST_F(LaunchSignals, LeaveFatalSignalsIgnoredInTheChildWhereTheApplicationIgnoresThem)
{
    for (const int signo : {SIGHUP, SIGQUIT, SIGTERM, SIGUSR1}) {
        EXPECT_FALSE(SignalsOf("PROGRAM").ignored(signo)) << signo;
        const Action ignoring(signo, SIG_IGN);
        EXPECT_TRUE(SignalsOf("PROGRAM").ignored(signo)) << signo;
    }
}

// Raised in the child between fork and exec, where the parent's handler must not run: the program's own
// action, the default, gets it.
TEST_F(LaunchSignals, NeverRunTheParentsHandlersInTheChild)
{
    const Action counting(SIGUSR1, count_signal);
    const faults::Plan plan{{.function = Function::dup2, .in_child = true, .raising = SIGUSR1}};
    const int handle = pipes::open("true");
    zt::Status status;
    char byte;
    EXPECT_EQ(zt_pipe_read(handle, &byte, 1, nullptr, &status), -1);
    EXPECT_TRUE(plan.fired());
    EXPECT_EQ(status.code, ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(status.iparm[0], SIGUSR1);
    EXPECT_EQ(handled(), 0);
    EXPECT_EQ(pipes::close(handle), ZT_PIPE_S_ABNORMAL);
}

TEST_F(LaunchSignals, DeliverInTheParentWhatCameDuringTheFork)
{
    const Action counting(SIGUSR1, count_signal);
    const faults::Plan plan{{.function = Function::fork, .raising = SIGUSR1}};
    const int handle = pipes::open("cat");
    EXPECT_EQ(handled(), 1);
    EXPECT_EQ(pipes::close(handle, "NOKILL"), 0u);
}
