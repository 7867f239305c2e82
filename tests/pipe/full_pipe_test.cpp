// A COMMAND pipe that takes nothing at the moment, and signals that arrive while somebody waits for it.
#include <gtest/gtest.h>
#include <poll.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>

#include "tests/support/faults.h"
#include "tests/support/forked_child.h"
#include "tests/support/leftovers.h"
#include "tests/support/record.h"
#include "tests/support/tracefile.h"
#include "tests/support/transfers.h"
#include "tests/support/waiting.h"

namespace {

using faults::Function;
using pipes::at;

constexpr char routine[] = "zt_pipe_write";

std::atomic<int> alarms{0};

void count_alarm(int)
{
    ++alarms;
}

/// What SIGALRM and SIGINT do while this object lives.
class Counted {
  public:
    explicit Counted(int flags)
    {
        alarms = 0;
        struct sigaction action = {};
        action.sa_handler = count_alarm;
        action.sa_flags = flags;
        sigaction(SIGALRM, &action, &alarm_before_);
        sigaction(SIGINT, &action, &interrupt_before_);
    }
    ~Counted()
    {
        sigaction(SIGALRM, &alarm_before_, nullptr);
        sigaction(SIGINT, &interrupt_before_, nullptr);
    }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

  private:
    struct sigaction alarm_before_, interrupt_before_;
};

/// A command that reads nothing before it is told to, with as much written to it as goes in: one more write
/// waits, and so does a close.
class FullPipe : public NothingLeftTest {
  protected:
    void SetUp() override
    {
        if (forked::handlers_come_late) GTEST_SKIP() << "the handlers would not run while a write waits";
        unlink(go_.path().c_str());
        ASSERT_EQ(mkfifo(go_.path().c_str(), 0600), 0);
        handle_ = pipes::open("read go <" + go_.path() + "; cat >" + output_.path(), "COMMAND WRITE");
        fill();
    }

    std::FILE* stream() const { return pipes::block(handle_)->fh; }

    int write()
    {
        record::poison(status);
        chunk_[0] = static_cast<char>('a' + writes_++ % 26);
        const int written = zt_pipe_write(handle_, chunk_.data(), static_cast<int>(chunk_.size()), &status);
        if (written > 0) accepted_ += chunk_;
        return written;
    }

    void let_it_read() const { std::ofstream(go_.path()) << "go\n"; }

    /// Does this while the test waits in the action.
    void meanwhile(const std::function<void(pthread_t)>& disturb, const std::function<void()>& action)
    {
        returned_ = false;
        const pthread_t self = pthread_self();
        const pid_t id = forked::thread_id();
        std::thread other([=, this] {
            EXPECT_TRUE(wait_until([=, this] { return returned_ || forked::sleeps(id); }));
            disturb(self);
        });
        action();
        returned_ = true;
        other.join();
    }

    /// Sends a signal again and again until the action is over.
    void interrupt(int signo, const std::function<void()>& action)
    {
        const auto send = [=, this](pthread_t waiting) {
            return wait_until([=, this] {
                if (!returned_) pthread_kill(waiting, signo);
                return returned_.load();
            });
        };
        meanwhile([=](pthread_t waiting) { EXPECT_TRUE(send(waiting)); }, action);
    }

    /// Sends a few signals, sees them handled, and only then lets the command read.
    void signal_and_let_it_read(const std::function<void()>& action)
    {
        const auto disturb = [this](pthread_t waiting) {
            for (int sent = 1; sent <= 3; ++sent) {
                pthread_kill(waiting, SIGALRM);
                EXPECT_TRUE(wait_until([=] { return alarms >= sent; }));
            }
            let_it_read();
        };
        meanwhile(disturb, action);
    }

    void expect_all_accepted_to_arrive()
    {
        EXPECT_EQ(pipes::close(handle_), 0u);
        EXPECT_TRUE(output_.content() == accepted_)
            << "of " << accepted_.size() << " bytes arrived " << output_.content().size();
    }

    zt::Status status;
    int handle_ = -1;
    TemporaryFile output_;
    std::string accepted_;
    std::atomic<bool> returned_{false};

  private:
    void fill()
    {
        pollfd end{fileno(stream()), POLLOUT, 0};
        while (poll(&end, 1, 0) > 0 || __fpending(stream()) + chunk_.size() <= __fbufsize(stream()))
            ASSERT_EQ(write(), static_cast<int>(chunk_.size()));
    }

    TemporaryFile go_;
    std::string chunk_ = std::string(3000, '.');
    int writes_ = 0;
};

TEST_F(FullPipe, LetsAWriteWaitThroughSignalsWhoseHandlersRestartIt)
{
    const Counted counted(SA_RESTART);
    signal_and_let_it_read([this] { EXPECT_EQ(write(), 3000) << status.what(); });
    expect_all_accepted_to_arrive();
}

TEST_F(FullPipe, LetsAWriteGoWithASignalWhoseHandlerDoesNotRestartItAndLosesNothing)
{
    const Counted counted(0);
    interrupt(SIGALRM, [this] { EXPECT_EQ(write(), -1); });
    EXPECT_EQ(record::fields(status), record::failure(ZT_PIPE_E_INTERRUPTED, at(routine, 3227)));
    let_it_read();
    EXPECT_EQ(write(), 3000);
    expect_all_accepted_to_arrive();
}

TEST_F(FullPipe, LetsAWriteGoWithAnInterruptAndLosesNothing)
{
    const Counted counted(SA_RESTART);
    interrupt(SIGINT, [this] { EXPECT_EQ(write(), -1); });
    EXPECT_EQ(status.code, ZT_PIPE_E_INTERRUPTED);
    let_it_read();
    expect_all_accepted_to_arrive();
}

TEST_F(FullPipe, IsWaitedForByACloseWhateverSignalsCome)
{
    const Counted counted(0);
    signal_and_let_it_read([this] { expect_all_accepted_to_arrive(); });
}

TEST_F(FullPipe, IsWaitedForByTheCleanupAtExit)
{
    meanwhile([this](pthread_t) { let_it_read(); }, [] { zt_pipe_cleanup(0); });
    EXPECT_TRUE(output_.content() == accepted_);
}

// One thread at a time is what the header asks for: two lose nothing all the same.
TEST_F(FullPipe, GetsOnceWhatTwoThreadsWrite)
{
    std::atomic<pid_t> other_id{0};
    std::thread other([&] {
        const std::string bytes(3000, 'O');
        zt::Status other_status;
        other_id = forked::thread_id();
        EXPECT_EQ(zt_pipe_write(handle_, bytes.data(), 3000, &other_status), 3000);
    });
    const auto disturb = [&](pthread_t) {
        EXPECT_TRUE(wait_until([&] { return other_id != 0 && forked::sleeps(other_id); }));
        let_it_read();
    };
    meanwhile(disturb, [this] { EXPECT_EQ(write(), 3000); });
    other.join();
    EXPECT_EQ(pipes::close(handle_), 0u);
    std::string text = output_.content();
    EXPECT_EQ(std::erase(text, 'O'), 3000u);
    EXPECT_TRUE(text == accepted_);
}

// ------------------------------------------------------------------------------------- writing out in parts

class WritingOut : public NothingLeftTest {
  protected:
    WritingOut() { pipes::write(pipe, "abcdef"); }

    int write_more()
    {
        record::poison(status);
        return zt_pipe_write(pipe, more.data(), static_cast<int>(more.size()), &status);
    }

    zt::Status status;
    TemporaryFile file;
    pipes::Pipe pipe = pipes::to_command("cat >" + file.path(), "WRITE");
    const std::string more = std::string(4095, 'x');
};

TEST_F(WritingOut, GoesOnAfterAPart)
{
    {
        const faults::Plan plan{{.function = Function::write, .result = 2}};
        EXPECT_EQ(write_more(), 4095);
        EXPECT_EQ(faults::calls(Function::write), 2);
    }
    EXPECT_EQ(pipe.close(), 0);
    EXPECT_EQ(file.content(), "abcdef" + more);
}

TEST_F(WritingOut, TriesAgainWhenNothingWasTaken)
{
    {
        const faults::Plan plan{{.function = Function::write, .error = EINTR, .result = 0}};
        EXPECT_EQ(write_more(), 4095);
        EXPECT_EQ(faults::calls(Function::write), 2);
    }
    EXPECT_EQ(pipe.close(), 0);
    EXPECT_EQ(file.content(), "abcdef" + more);
}

TEST_F(WritingOut, KeepsWhatAnInterruptedWriteHasLeft)
{
    for (const int error : {EINTR, EAGAIN}) {
        const faults::Plan plan{{.function = Function::write, .result = 2},
                                {.function = Function::write, .nth = 2, .error = error}};
        EXPECT_EQ(write_more(), -1);
        EXPECT_EQ(record::fields(status), record::failure(ZT_PIPE_E_INTERRUPTED, at(routine, 3227)));
    }
    EXPECT_EQ(__fpending(pipe->fh), 2u);
    EXPECT_EQ(write_more(), 4095);
    EXPECT_EQ(pipe.close(), 0);
    EXPECT_EQ(file.content(), "abcdef" + more);
}

TEST_F(WritingOut, ReportsAFailureOnceAndNotAgainByTheClose)
{
    {
        const faults::Plan plan{{.function = Function::write, .error = EIO}};
        EXPECT_EQ(write_more(), -1);
        EXPECT_EQ(status.where, at(routine, 3231));
        EXPECT_EQ(status.sys_errno, static_cast<std::uint32_t>(EIO));
    }
    EXPECT_EQ(pipe.close(), 0);
    EXPECT_EQ(file.content(), "");
}

TEST_F(WritingOut, IsLeftToTheStreamAsLongAsItsBufferHasRoom)
{
    const faults::Plan counting{};
    const std::string rest(4096 - 6, 'x');
    pipes::write(pipe, rest);
    EXPECT_EQ(faults::calls(Function::write), 0);
    EXPECT_EQ(__fpending(pipe->fh), 4096u);
    pipes::write(pipe, "!");
    EXPECT_EQ(faults::calls(Function::write), 1);
    EXPECT_EQ(__fpending(pipe->fh), 1u);
    pipes::write(pipe, std::string(4096, 'y'));
    EXPECT_EQ(faults::calls(Function::write), 2);
    pipe.close();
}

}  // namespace
