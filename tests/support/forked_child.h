// A scenario in a process of its own: it may be ended by a signal, and what it says comes back by a pipe.
#ifndef ZT_TESTS_SUPPORT_FORKED_CHILD_H
#define ZT_TESTS_SUPPORT_FORKED_CHILD_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zt/runtime/signals.h>

#include <chrono>
#include <cstdlib>
#include <string>

namespace forked {

constexpr auto deadline = std::chrono::seconds(30);

#if defined(__SANITIZE_THREAD__)
#define FORKED_UNDER_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define FORKED_UNDER_THREAD_SANITIZER 1
#endif
#endif

/// ThreadSanitizer runs a handler only when the thread makes its next call that it knows: a read that the
/// system restarts, or a child forked from several threads, may never get there.
#ifdef FORKED_UNDER_THREAD_SANITIZER
inline constexpr bool handlers_come_late = true;
#else
inline constexpr bool handlers_come_late = false;
#endif

inline int to_parent = -1;    // in the child
inline int from_parent = -1;  // in the child

/// Child side, async-signal-safe: sends a text to the parent.
inline void say(const char* text)
{
    const size_t length = strlen(text);
    if (write(to_parent, text, length) != static_cast<ssize_t>(length)) _exit(99);
}

/// Child side, async-signal-safe: sends a text and a small number.
inline void say(const char* text, int number)
{
    char line[128];
    snprintf(line, sizeof line, "%s%d ", text, number);
    say(line);
}

/// Child side: blocks until the parent says go.
inline void wait_for_go()
{
    char byte;
    while (read(from_parent, &byte, 1) < 0) {
    }
}

/// Waits for a condition; false when it did not come true in time. Async-signal-safe where the condition is.
template <class Condition>
bool comes_true(Condition condition)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    for (int round = 0; !condition(); ++round) {
        if (std::chrono::steady_clock::now() > end) return false;
        const timespec a_moment = {0, round < 1000 ? 0 : 1000000};
        nanosleep(&a_moment, nullptr);
    }
    return true;
}

inline pid_t thread_id()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

/// The bits that the system shows for a thread of this process: "SigBlk", "SigPnd".
inline unsigned long long signal_bits(pid_t thread, const char* field)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/self/task/%d/status", thread);
    char text[4096] = {};
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    const ssize_t got = read(fd, text, sizeof text - 1);
    close(fd);
    const char* const found = got > 0 ? strstr(text, field) : nullptr;
    return found ? strtoull(found + strlen(field) + 1, nullptr, 16) : 0;
}

inline bool has_signal(unsigned long long bits, int signo)
{
    return ((bits >> (signo - 1)) & 1U) != 0;
}

/// True when the thread holds the signal back: a handler of the exit facility, or a hold, does.
inline bool blocks(pid_t thread, int signo)
{
    return has_signal(signal_bits(thread, "SigBlk:"), signo);
}

/// True while the thread waits for something.
inline bool sleeps(pid_t thread)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/self/task/%d/stat", thread);
    char text[512] = {};
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const ssize_t got = read(fd, text, sizeof text - 1);
    close(fd);
    const char* const name_end = got > 0 ? strrchr(text, ')') : nullptr;
    return name_end != nullptr && strncmp(name_end, ") S", 3) == 0;
}

/// True when the thread has stopped for good: only a parked one holds back a signal that nothing else does.
inline bool is_parked(pid_t thread)
{
    return blocks(thread, SIGCHLD);
}

class Child {
  public:
    /// Starts `scenario` in a child. When it returns the child calls exit(0).
    template <class Scenario>
    explicit Child(Scenario scenario)
    {
        int up[2];
        int down[2];
        if (pipe(up) != 0 || pipe(down) != 0) abort();
        fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(up[0]);
            close(down[1]);
            to_parent = up[1];
            from_parent = down[0];
            // A sanitizer's handlers would count as the application's.
            for (const int signo : zt::crash_signals) signal(signo, SIG_DFL);
            scenario();
            exit(0);
        }
        close(up[1]);
        close(down[0]);
        output_ = up[0];
        input_ = down[1];
    }

    ~Child()
    {
        if (!ended_) {
            kill(SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(output_);
        close(input_);
    }

    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return pid_; }

    void kill(int signo) const { ::kill(pid_, signo); }

    void go() const { EXPECT_EQ(write(input_, "g", 1), 1); }

    /// Reads until the child has said `text`; false when it ended or the time did before.
    bool has_said(const std::string& text)
    {
        while (said_.find(text) == std::string::npos) {
            if (!read_more()) return false;
        }
        return true;
    }

    /// Everything that the child said, up to its end.
    const std::string& said()
    {
        while (read_more()) {
        }
        return said_;
    }

    bool has_ended()
    {
        if (!ended_) ended_ = waitpid(pid_, &status_, WNOHANG) == pid_;
        return ended_;
    }

    /// The signal that ended the child; 0 when it exited, -1 when it did not end in time.
    int ended_by()
    {
        wait();
        return !ended_ ? -1 : WIFSIGNALED(status_) ? WTERMSIG(status_) : 0;
    }

    /// The code with which the child exited; -1 when it did not.
    int exit_code()
    {
        wait();
        return ended_ && WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
    }

  private:
    bool read_more()
    {
        pollfd ready = {output_, POLLIN, 0};
        const int milliseconds = static_cast<int>(std::chrono::milliseconds(deadline).count());
        if (poll(&ready, 1, milliseconds) <= 0) return false;
        char text[512];
        const ssize_t got = read(output_, text, sizeof text);
        if (got <= 0) return false;
        said_.append(text, static_cast<size_t>(got));
        return true;
    }

    void wait()
    {
        comes_true([this] { return has_ended(); });
    }

    pid_t pid_ = -1;
    int output_ = -1;
    int input_ = -1;
    int status_ = 0;
    bool ended_ = false;
    std::string said_;
};

}  // namespace forked

#endif
