// How much the kernel keeps between parent and child: what the caller asks for, or more when bulk data flows.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "tests/support/leftovers.h"
#include "tests/support/transfers.h"
#include "tests/support/waiting.h"

namespace {

constexpr int usual = 64 * 1024, wide = 256 * 1024, asked = 128 * 1024;

int capacity(int fd)
{
    return fcntl(fd, F_GETPIPE_SZ);
}

class Capacity : public NothingLeftTest {
  protected:
    zt::Status status;
};

TEST_F(Capacity, OfBothPipesToAProgramIsWhatSizeAsksFor)
{
    auto pipe = pipes::Pipe("cat", "PROGRAM SIZE=131072");
    EXPECT_EQ(capacity(pipe->read_fd), asked);
    EXPECT_EQ(capacity(pipe->write_fd), asked);
}

TEST_F(Capacity, OfACommandsStreamIsWhatSizeAsksFor)
{
    auto reading = pipes::to_command("cat </dev/null", "READ SIZE=131072");
    EXPECT_EQ(capacity(fileno(reading->fh)), asked);
    EXPECT_EQ(reading.close(), 0);
    auto writing = pipes::to_command("cat >/dev/null", "WRITE SIZE=131072");
    EXPECT_EQ(capacity(fileno(writing->fh)), asked);
}

TEST_F(Capacity, IsTheSystemsWithoutANumberAboveZeroAndWithTheDefaultOne)
{
    for (const char* size : {"", "SIZE=0", "SIZE=-1", "SIZE=65536"}) {
        SCOPED_TRACE(size);
        auto pipe = pipes::Pipe("cat", std::string("PROGRAM ") + size);
        EXPECT_EQ(capacity(pipe->read_fd), usual);
        EXPECT_EQ(capacity(pipe->write_fd), usual);
    }
    auto small = pipes::Pipe("cat", "PROGRAM SIZE=1");
    EXPECT_EQ(capacity(small->read_fd), getpagesize()) << "the least that the system gives";
}

TEST_F(Capacity, OfTheProcesssOwnInputStaysWhenThePipeHasNoChild)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const int input = dup(STDIN_FILENO);
    dup2(ends[0], STDIN_FILENO);
    {
        auto childless = pipes::Pipe("none", "SIZE=131072");
        EXPECT_EQ(capacity(STDIN_FILENO), usual);
    }
    dup2(input, STDIN_FILENO);
    for (const int fd : {input, ends[0], ends[1]}) close(fd);
}

class Bulk : public Capacity {
  protected:
    void exchange(int handle, std::size_t count)
    {
        pipes::write(handle, std::string(count, 'x'));
        std::string back(count, ' ');
        EXPECT_EQ(zt_pipe_read(handle, back.data(), static_cast<int>(count), nullptr, &status), count);
    }

    // Takes what is there already, so that one read gets it all.
    void take(const pipes::Pipe& pipe, int count, int request)
    {
        const auto waits = [&] {
            int bytes = 0;
            return ioctl(pipe->read_fd, FIONREAD, &bytes) == 0 && bytes >= count;
        };
        ASSERT_TRUE(wait_until(waits));
        std::string bytes(static_cast<std::size_t>(request), ' ');
        EXPECT_EQ(zt_pipe_read(pipe, bytes.data(), request, nullptr, &status), count);
    }
};

TEST_F(Bulk, WidensThePipeWithTheFourthLargeWrite)
{
    auto pipe = pipes::Pipe("cat", "PROGRAM");
    for (int i = 0; i < 5; ++i) exchange(pipe, 32 * 1024 - 1);
    for (int i = 0; i < 3; ++i) exchange(pipe, 32 * 1024);
    EXPECT_EQ(capacity(pipe->write_fd), usual);
    exchange(pipe, 32 * 1024);
    EXPECT_EQ(capacity(pipe->write_fd), wide);
}

TEST_F(Bulk, WidensACommandsPipeWithTheFourthLargeWrite)
{
    auto pipe = pipes::to_command("cat >/dev/null", "WRITE");
    const std::string bytes(32 * 1024, 'x');
    for (int i = 0; i < 3; ++i) pipes::write(pipe, bytes);
    EXPECT_EQ(capacity(fileno(pipe->fh)), usual);
    pipes::write(pipe, bytes);
    EXPECT_EQ(capacity(fileno(pipe->fh)), wide);
}

TEST_F(Bulk, WidensThePipeWithTheFourthLargeReadThatGetsAllItAskedFor)
{
    auto pipe = pipes::to_program("writes_forever");
    for (int i = 0; i < 5; ++i) take(pipe, 4095, 4095);
    for (int i = 0; i < 3; ++i) take(pipe, 4096, 4096);
    EXPECT_EQ(capacity(pipe->read_fd), usual);
    take(pipe, 4096, 4096);
    EXPECT_EQ(capacity(pipe->read_fd), wide);
}

TEST_F(Bulk, WidensACommandsPipeWithTheFourthLargeRead)
{
    auto pipe = pipes::to_command("cat /dev/zero");
    std::string bytes(4096, ' ');
    const auto read = [&] { return zt_pipe_read(pipe, bytes.data(), 4096, nullptr, &status); };
    for (int i = 0; i < 3; ++i) EXPECT_EQ(read(), 4096);
    EXPECT_EQ(capacity(fileno(pipe->fh)), usual);
    EXPECT_EQ(read(), 4096);
    EXPECT_EQ(capacity(fileno(pipe->fh)), wide);
}

TEST_F(Bulk, IsNotWhatAReadShowsThatGetsLessThanItAskedFor)
{
    auto pipe = pipes::to_program("echo_lines", "READSIZE=32768");
    const std::string line = std::string(8191, 'x') + "\n";
    for (int i = 0; i < 6; ++i) {
        pipes::write(pipe, line);
        char* text;
        EXPECT_EQ(zt_pipe_read_unlimited(pipe, &text, 0, "\n", &status), line.size());
    }
    EXPECT_EQ(capacity(pipe->read_fd), usual);
}

TEST_F(Bulk, ChangesNothingWhereTheCallerChose)
{
    auto pipe = pipes::Pipe("cat", "PROGRAM SIZE=131072");
    for (int i = 0; i < 5; ++i) exchange(pipe, 32 * 1024);
    EXPECT_EQ(capacity(pipe->read_fd), asked);
    EXPECT_EQ(capacity(pipe->write_fd), asked);
}

TEST_F(Bulk, LeavesErrnoAloneWhenTheSystemRefuses)
{
    auto pipe = pipes::Pipe("cat", "PROGRAM");
    const int no_pipe = open("/dev/null", O_WRONLY);
    dup2(no_pipe, pipe->write_fd);
    close(no_pipe);
    const std::string bytes(32 * 1024, 'x');
    errno = EXDEV;
    for (int i = 0; i < 4; ++i) pipes::write(pipe, bytes);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(Bulk, WidensOnceSoThatALaterChangeStays)
{
    auto pipe = pipes::Pipe("cat", "PROGRAM");
    for (int i = 0; i < 4; ++i) exchange(pipe, 32 * 1024);
    fcntl(pipe->write_fd, F_SETPIPE_SZ, usual);
    for (int i = 0; i < 5; ++i) exchange(pipe, 32 * 1024);
    EXPECT_EQ(capacity(pipe->write_fd), usual);
}

}  // namespace
