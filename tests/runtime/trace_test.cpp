#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zt/runtime/environment.h>
#include <zt/runtime/trace.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "captured.h"

namespace {

volatile sig_atomic_t signals_seen;
void count_signal(int)
{
    signals_seen = signals_seen + 1;
}
void trace_signal(int signo)
{
    zt_trace_msg("signal %d", signo);
}

/// Installs a handler without SA_RESTART for as long as this lives.
class Handler {
  public:
    Handler(int signo, void (*handler)(int)) : signo_(signo)
    {
        struct sigaction action = {};
        action.sa_handler = handler;
        sigaction(signo, &action, &before_);
        signals_seen = 0;
    }
    ~Handler() { sigaction(signo_, &before_, nullptr); }
    Handler(const Handler&) = delete;
    Handler& operator=(const Handler&) = delete;

  private:
    const int signo_;
    struct sigaction before_;
};

void use_trace_file(const char* path)
{
    path ? setenv("ZT_TRACE_FILE", path, 1) : unsetenv("ZT_TRACE_FILE");
}

class Trace : public testing::Test {
  protected:
    void SetUp() override { use_trace_file(nullptr); }
    void TearDown() override { use_trace_file(nullptr); }
};

/// Standard error is another descriptor, which is closed here, while this lives.
class StderrIs {
  public:
    explicit StderrIs(int fd) : saved_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 10))
    {
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    ~StderrIs()
    {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    StderrIs(const StderrIs&) = delete;
    StderrIs& operator=(const StderrIs&) = delete;

  private:
    const int saved_;
};

void fill(int fd)
{
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    const std::string page(4096, 'f');
    while (write(fd, page.data(), page.size()) > 0) {
    }
}

/// Everything up to the end, without the filling.
std::string drain(int fd)
{
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<std::size_t>(got));
    return text.substr(std::min(text.find_first_not_of('f'), text.size()));
}

TEST_F(Trace, WritesTheLineAndANewlineToStandardError)
{
    CapturedStderr captured;
    EXPECT_EQ(zt_trace_msg("-> %s: [%d] []", "zt_pipe_read", 7), 24);
    EXPECT_EQ(zt_trace_msg("%s", ""), 1);
    EXPECT_EQ(captured.text(), "-> zt_pipe_read: [7] []\n\n");
}

TEST_F(Trace, ALineLeavesInOneWrite)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
    {
        const StderrIs packets(ends[1]);
        zt_trace_msg("%s %s", "one", "line");
        zt_trace_msg("two");
    }
    char packet[100];
    EXPECT_EQ(std::string(packet, static_cast<std::size_t>(read(ends[0], packet, sizeof packet))),
              "one line\n");
    EXPECT_EQ(std::string(packet, static_cast<std::size_t>(read(ends[0], packet, sizeof packet))), "two\n");
    EXPECT_EQ(read(ends[0], packet, sizeof packet), 0);
    close(ends[0]);
}

TEST_F(Trace, ALineTooLongIsCutButEndsWithANewline)
{
    CapturedStderr captured;
    EXPECT_EQ(zt_trace_msg("%s", std::string(100000, 'x').c_str()), ZT_TRACE_LINE);
    EXPECT_EQ(captured.text(), std::string(ZT_TRACE_LINE - 1, 'x') + '\n');
}

TEST_F(Trace, ALineThatCannotBeFormattedIsItsFormat)
{
    CapturedStderr captured;
    constexpr wint_t not_in_this_locale = 0x263a;
    EXPECT_EQ(zt_trace_msg("   %s: %lc", "zt_pipe_read", not_in_this_locale), 11);
    EXPECT_EQ(captured.text(), "   %s: %lc\n");
}

TEST_F(Trace, TheLongestProgramTextFits)
{
    const std::string program(1024, 'p'), options(256, 'o');
    CapturedStderr captured;
    zt_trace_msg("-> %s: [%s] [%s] [] []", "zt_ipipe_open", program.c_str(), options.c_str());
    EXPECT_EQ(captured.text(), "-> zt_ipipe_open: [" + program + "] [" + options + "] [] []\n");
}

TEST_F(Trace, ANullFormatIsRefused)
{
    const char* const none = nullptr;
    CapturedStderr captured;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    EXPECT_LT(zt_trace_msg(none), 0);
#pragma GCC diagnostic pop
    EXPECT_EQ(captured.text(), "");
}

TEST_F(Trace, ErrnoIsKept)
{
    CapturedStderr captured;
    for (const char* path : {static_cast<const char*>(nullptr), "/dev/full", "/", "/no/such/folder/trace"}) {
        use_trace_file(path);
        errno = EXDEV;
        zt_trace_msg("line");
        zt_trace_buffer(0, "data", 4);
        zt_trace_buffer(0, nullptr, 4);
        EXPECT_EQ(errno, EXDEV);
    }
}

TEST_F(Trace, AppendsToTheFileThatTheEnvironmentNames)
{
    const TempPath file;
    use_trace_file(file.c_str());
    CapturedStderr captured;
    EXPECT_EQ(zt_trace_msg("one"), 4);
    EXPECT_EQ(zt_trace_msg("two"), 4);
    EXPECT_EQ(file.content(), "one\ntwo\n");
    EXPECT_EQ(captured.text(), "");
    struct stat entry;
    ASSERT_EQ(stat(file.c_str(), &entry), 0);
    EXPECT_EQ(entry.st_mode & 0177, 0u);
}

TEST_F(Trace, AFileThatWasMovedAwayIsMadeAgain)
{
    const TempPath file;
    use_trace_file(file.c_str());
    zt_trace_msg("one");
    file.remove();
    zt_trace_msg("two");
    EXPECT_EQ(file.content(), "two\n");
}

TEST_F(Trace, AChangeOfTheVariableCountsFromTheNextLineOn)
{
    const TempPath first, second;
    use_trace_file(first.c_str());
    zt_trace_msg("one");
    use_trace_file(second.c_str());
    zt_trace_msg("two");
    EXPECT_EQ(first.content(), "one\n");
    EXPECT_EQ(second.content(), "two\n");
}

TEST_F(Trace, TheVariableOfTheProcessCountsWhileAnotherEnvironmentIsLent)
{
    const TempPath file;
    use_trace_file(file.c_str());
    const char* const lent[] = {nullptr};
    char** const own = zt_environ_lend(lent);
    zt_trace_msg("one");
    zt_environ_take_back(own);
    EXPECT_EQ(file.content(), "one\n");
}

TEST_F(Trace, AnEmptyVariableMeansStandardError)
{
    use_trace_file("");
    CapturedStderr captured;
    zt_trace_msg("line");
    EXPECT_EQ(captured.text(), "line\n");
}

TEST_F(Trace, WhatAFileCannotTakeGoesToStandardError)
{
    const TempPath fifo;
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const char* path : {"/no/such/folder/trace", "/", "/dev/full", fifo.c_str()}) {
        use_trace_file(path);
        CapturedStderr captured;
        EXPECT_EQ(zt_trace_msg("line"), 5) << path;
        EXPECT_EQ(captured.text(), "line\n") << path;
    }
}

TEST_F(Trace, NoDescriptorStaysOpenNorTakesTheNumberOfAStandardStream)
{
    for (const int first_closed : {0, 2}) {
        const TempPath file;
        use_trace_file(file.c_str());
        const pid_t child = fork();
        if (child == 0) {
            for (int fd = first_closed; fd <= STDERR_FILENO; ++fd) close(fd);
            const int written = zt_trace_msg("line");
            const int lowest = open("/dev/null", O_RDONLY);
            _exit(lowest == first_closed && written == 5 ? 0 : 1);
        }
        int wait_status;
        ASSERT_EQ(waitpid(child, &wait_status, 0), child);
        EXPECT_EQ(wait_status, 0);
        EXPECT_EQ(file.content(), "line\n");
    }
}

TEST_F(Trace, AReaderThatHasGoneRaisesNoSigpipe)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    const Handler handler(SIGPIPE, count_signal);
    const StderrIs gone(ends[1]);
    EXPECT_LT(zt_trace_msg("line"), 0);
    EXPECT_LT(zt_trace_buffer(0, "data", 4), 0);
    EXPECT_EQ(signals_seen, 0);
}

TEST_F(Trace, ASigpipeThatWasPendingStaysPending)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    const Handler handler(SIGPIPE, count_signal);
    sigset_t sigpipe, before;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe, &before);
    raise(SIGPIPE);
    {
        const StderrIs gone(ends[1]);
        EXPECT_LT(zt_trace_msg("line"), 0);
    }
    EXPECT_EQ(signals_seen, 0);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(signals_seen, 1);
}

TEST_F(Trace, AFullNonBlockingStreamIsWaitedFor)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    fill(ends[1]);
    std::string text;
    std::thread reader([&] { text = drain(ends[0]); });
    {
        const StderrIs full(ends[1]);
        EXPECT_EQ(zt_trace_msg("line"), 5);
    }
    reader.join();
    close(ends[0]);
    EXPECT_EQ(text, "line\n");
}

TEST_F(Trace, AStreamThatNobodyReadsLosesTheLineInsteadOfHanging)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    fill(ends[1]);
    const StderrIs full(ends[1]);
    EXPECT_LT(zt_trace_msg("line"), 0);
    close(ends[0]);
}

TEST_F(Trace, AnInterruptedOrShortWriteGoesOn)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string line(3 * 4096 / 4 - 1, 'L');
    fill(ends[1]);
    fcntl(ends[1], F_SETFL, fcntl(ends[1], F_GETFL) & ~O_NONBLOCK);
    const Handler handler(SIGUSR1, count_signal);
    std::string text;
    {
        const StderrIs full(ends[1]);
        std::atomic<int> written = 0;
        std::thread writer([&] { written = zt_trace_msg("%s", line.c_str()); });
        const pthread_t id = writer.native_handle();
        for (int i = 0; i < 2000; ++i) {
            pthread_kill(id, SIGUSR1);
            std::this_thread::yield();
        }
        std::thread reader([&] { text = drain(ends[0]); });
        writer.join();
        EXPECT_EQ(written, static_cast<int>(line.size()) + 1);
        dup2(STDOUT_FILENO, STDERR_FILENO);  // the last write end goes, the reader sees the end
        reader.join();
    }
    close(ends[0]);
    EXPECT_EQ(text, line + '\n');
}

TEST_F(Trace, MayBeCalledFromASignalHandler)
{
    const Handler handler(SIGUSR1, trace_signal);
    CapturedStderr captured;
    raise(SIGUSR1);
    EXPECT_EQ(captured.text(), "signal " + std::to_string(SIGUSR1) + "\n");
}

TEST_F(Trace, TakesNoMemory)
{
    const TempPath file;
    use_trace_file(file.c_str());
    zt_trace_msg("%s", std::string(5000, 'x').c_str());
    const struct mallinfo2 before = mallinfo2();
    zt_trace_msg("%s %d %lu %p", "text", 1, 2ul, static_cast<const void*>(&file));
    zt_trace_buffer(0, "data", 4);
    const struct mallinfo2 after = mallinfo2();
    EXPECT_EQ(before.uordblks, after.uordblks);
    EXPECT_EQ(before.arena, after.arena);
}

TEST_F(Trace, LinesOfThreadsAndProcessesStayWhole)
{
    constexpr int writers = 4, lines = 200;
    const TempPath file;
    use_trace_file(file.c_str());
    const auto write_lines = [](int writer) {
        const std::string text(300, static_cast<char>('a' + writer));
        for (int i = 0; i < lines; ++i) zt_trace_msg("%s", text.c_str());
    };
    const pid_t child = fork();
    if (child == 0) {
        write_lines(writers);
        _exit(0);
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < writers; ++t) threads.emplace_back(write_lines, t);
    for (auto& thread : threads) thread.join();
    waitpid(child, nullptr, 0);

    std::istringstream content(file.content());
    int count = 0;
    for (std::string line; std::getline(content, line); ++count) EXPECT_EQ(line, std::string(300, line[0]));
    EXPECT_EQ(count, (writers + 1) * lines);
}

TEST_F(Trace, DumpShowsOffsetHexAndText)
{
    CapturedStderr captured;
    const std::string expected =
        "      00000000  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66 |0123456789abcdef|\n"
        "      00000010  00 0a 7f ff 7e                                  |....~|\n";
    EXPECT_EQ(zt_trace_buffer(0, "0123456789abcdef\0\n\x7f\xff~", 21), static_cast<int>(expected.size()));
    EXPECT_EQ(captured.text(), expected);
}

TEST_F(Trace, DumpEndsWithAWholeLine)
{
    CapturedStderr captured;
    zt_trace_buffer(0, "0123456789abcdef", 16);
    EXPECT_EQ(captured.text(),
              "      00000000  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66 |0123456789abcdef|\n");
}

TEST_F(Trace, DumpOfNothingWritesNothing)
{
    CapturedStderr captured;
    EXPECT_EQ(zt_trace_buffer(0, "x", 0), 0);
    EXPECT_EQ(zt_trace_buffer(0, nullptr, 0), 0);
    EXPECT_LT(zt_trace_buffer(0, "x", -1), 0);
    EXPECT_LT(zt_trace_buffer(0, "x", INT_MIN), 0);
    EXPECT_LT(zt_trace_buffer(0, nullptr, 5), 0);
    EXPECT_EQ(captured.text(), "");
}

TEST_F(Trace, DumpGoesToTheTraceFile)
{
    const TempPath file;
    use_trace_file(file.c_str());
    zt_trace_buffer(0, "A", 1);
    EXPECT_EQ(file.content(), "      00000000  41                                              |A|\n");
    use_trace_file("/dev/full");
    CapturedStderr captured;
    zt_trace_buffer(0, "0123456789abcdefX", 17);
    EXPECT_EQ(captured.text(),
              "      00000000  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66 |0123456789abcdef|\n"
              "      00000010  58                                              |X|\n");
}

}  // namespace
