#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zt/runtime/exit_status.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace {

/// A record in which every field has a value of its own, so that a touched one is seen.
zt::Status marked()
{
    zt::Status status;
    status.code = 1, status.subcode = 2, status.sys_errno = 3, status.count = 4;
    for (int i = 0; i < 8; ++i) {
        status.iparm[i] = 100 + i;
        snprintf(status.sparm[i], sizeof status.sparm[i], "sparm %d", i);
    }
    strcpy(status.msg, "msg");
    strcpy(status.sys_msg, "sys_msg");
    strcpy(status.where, "where");
    strcpy(status.object, "object");
    strcpy(status.host, "host");
    strcpy(status.extra, "extra");
    return status;
}

void expect_others_untouched(const zt::Status& status)
{
    EXPECT_EQ(status.count, 4);
    for (int i = 1; i < 8; ++i) {
        EXPECT_EQ(status.iparm[i], 100 + i);
        EXPECT_EQ(status.sparm[i], "sparm " + std::to_string(i));
    }
    EXPECT_STREQ(status.msg, "msg");
    EXPECT_STREQ(status.sys_msg, "sys_msg");
    EXPECT_STREQ(status.where, "where");
    EXPECT_STREQ(status.object, "object");
    EXPECT_STREQ(status.host, "host");
    EXPECT_STREQ(status.extra, "extra");
}

void expect_ended(int word, uint32_t code, const char* text, int number, uint32_t error)
{
    zt::Status status = marked();
    errno = 4711;
    EXPECT_NE(zt_exit_status(word, &status), 0);
    EXPECT_EQ(errno, 4711);
    EXPECT_EQ(status.code, code);
    EXPECT_EQ(status.subcode, 0U);
    EXPECT_EQ(status.sys_errno, error);
    EXPECT_EQ(status.iparm[0], number);
    EXPECT_STREQ(status.sparm[0], text);
    expect_others_untouched(status);
}

void expect_not_ended(int word)
{
    zt::Status status = marked();
    EXPECT_EQ(zt_exit_status(word, &status), 0) << word;
    EXPECT_EQ(status.code, 1U);
    EXPECT_EQ(status.subcode, 2U);
    EXPECT_EQ(status.sys_errno, 3U);
    EXPECT_EQ(status.iparm[0], 100);
    EXPECT_STREQ(status.sparm[0], "sparm 0");
    expect_others_untouched(status);
}

/// Runs `child` in a process of its own.
template <class Function>
pid_t start(Function child)
{
    const pid_t pid = fork();
    if (pid == 0) {
        child();
        _exit(99);
    }
    return pid;
}

int wait_for(pid_t pid, int options = 0)
{
    int word = -1;
    EXPECT_EQ(waitpid(pid, &word, options), pid);
    return word;
}

void end_by(int signo)
{
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    signal(signo, SIG_DFL);
    raise(signo);
}

TEST(ExitStatus, ExitWithZeroIsNormal)
{
    expect_ended(wait_for(start([] { _exit(0); })), 10144, "normally", 0, 0);
    expect_ended(0, ZT_EXIT_S_NORMAL, "normally", 0, 0);
}

TEST(ExitStatus, ExitWithAnotherCodeIsAnError)
{
    for (int code : {1, 3, 127, 255})
        expect_ended(wait_for(start([code] { _exit(code); })), 10145, "with an error", code, 0);
}

TEST(ExitStatus, ASignalIsAbnormal)
{
    for (int signo : {SIGKILL, SIGTERM, SIGINT, SIGABRT, SIGSEGV, SIGPIPE, SIGRTMIN})
        expect_ended(wait_for(start([signo] { end_by(signo); })), 10147, "abnormally", signo,
                     static_cast<uint32_t>(signo));
}

TEST(ExitStatus, ACoreDumpMakesNoDifference)
{
    expect_ended(SIGSEGV | 0x80, 10147, "abnormally", SIGSEGV, SIGSEGV);
}

TEST(ExitStatus, AStoppedOrContinuedChildHasNotEnded)
{
    const pid_t pid = start([] {
        for (;;) pause();
    });
    kill(pid, SIGSTOP);
    expect_not_ended(wait_for(pid, WUNTRACED));
    kill(pid, SIGCONT);
    expect_not_ended(wait_for(pid, WCONTINUED));
    kill(pid, SIGKILL);
    expect_ended(wait_for(pid), 10147, "abnormally", SIGKILL, SIGKILL);
}

TEST(ExitStatus, AWordThatIsNoWaitStatusLeavesTheRecord)
{
    expect_not_ended(-1);
}

TEST(ExitStatus, WithoutARecordItOnlyTells)
{
    EXPECT_NE(zt_exit_status(0, nullptr), 0);
    EXPECT_NE(zt_exit_status(SIGKILL, nullptr), 0);
    EXPECT_EQ(zt_exit_status(-1, nullptr), 0);
}

TEST(ExitStatus, EachClassHasItsText)
{
    EXPECT_STREQ(zt_exit_status_text(10144), "normally");
    EXPECT_STREQ(zt_exit_status_text(10145), "with an error");
    EXPECT_STREQ(zt_exit_status_text(10147), "abnormally");
    for (uint32_t code : {0U, 10143U, 10146U, 10148U}) EXPECT_EQ(zt_exit_status_text(code), nullptr) << code;
}

}  // namespace
