// Where a read with a delimiter stops, and where it does not.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/record.h"
#include "tests/support/tracefile.h"
#include "tests/support/transfers.h"

namespace {

using faults::Function;
using pipes::at;
using pipes::to_command;
using pipes::to_program;

class ReadDelimiter : public NothingLeftTest {
  protected:
    ReadDelimiter() { std::memset(buffer, '#', sizeof buffer); }

    int read(int handle, int size, const char* delimiter)
    {
        return zt_pipe_read(handle, buffer, size, delimiter, &status);
    }
    int read_unlimited(int handle, const char* delimiter, int offset = 0)
    {
        return zt_pipe_read_unlimited(handle, &text, offset, delimiter, &status);
    }
    std::string bytes(size_t count) const { return std::string(buffer, count); }

    zt::Status status;
    char buffer[64];
    char* text = nullptr;
};

TEST_F(ReadDelimiter, EndsAReadInOnePassWithoutWaitingForTheChild)
{
    auto pipe = to_program("prints_then_waits 'abc\n'");
    const faults::Plan counting{};
    EXPECT_EQ(read(pipe, 10, "\n"), 4);
    EXPECT_EQ(bytes(5), "abc\n#");
    EXPECT_EQ(status.code, 0U);
    EXPECT_EQ(status.subcode, 0U);
    EXPECT_EQ(faults::calls(Function::read), 1);
    EXPECT_EQ(faults::calls(Function::waitpid), 0);
}

TEST_F(ReadDelimiter, EndsAnUnlimitedReadLikewise)
{
    auto pipe = to_program("prints_then_waits 'abc\n'");
    EXPECT_EQ(read_unlimited(pipe, "\n"), 4);
    EXPECT_STREQ(text, "abc\n");
    EXPECT_EQ(status.subcode, 0U);
}

TEST_F(ReadDelimiter, MayComeInPieces)
{
    for (const bool bounded : {true, false}) {
        auto pipe = to_program("prints_then_waits 'abc--done'");
        const faults::Plan plan{{.function = Function::read, .nth = 1, .result = 4},
                                {.function = Function::read, .nth = 2, .result = 1}};
        EXPECT_EQ(bounded ? read(pipe, 20, "--") : read_unlimited(pipe, "--"), 5);
        EXPECT_EQ(std::string(bounded ? buffer : text, 5), "abc--");
    }
}

TEST_F(ReadDelimiter, MayBeAllThatComes)
{
    auto pipe = to_program("prints_then_waits '--'");
    EXPECT_EQ(read(pipe, 20, "--"), 2);
    EXPECT_EQ(bytes(3), "--#");
}

TEST_F(ReadDelimiter, ThatFillsTheBufferExactlyEndsTheRead)
{
    auto pipe = to_program("prints_then_waits 'abc\n'");
    EXPECT_EQ(read(pipe, 4, "\n"), 4);
    EXPECT_EQ(status.subcode, 0U);
}

TEST_F(ReadDelimiter, LongerThanAFullBufferLeavesTheBufferToEndTheRead)
{
    auto pipe = to_program("prints_then_waits abcdef");
    EXPECT_EQ(read(pipe, 3, "abcd"), 3);
    EXPECT_EQ(status.code, 0U);
    EXPECT_EQ(status.subcode, 0U);
}

TEST_F(ReadDelimiter, ThatIsEmptyMatchesAfterTheFirstPass)
{
    auto program = to_program("prints_then_waits abcdef");
    const faults::Plan plan{{.function = Function::read, .nth = 1, .result = 2},
                            {.function = Function::read, .nth = 2, .error = EINTR}};
    EXPECT_EQ(read(program, 10, ""), 2);
    EXPECT_EQ(read(program, 10, ""), 0) << "a retry is a pass";
    EXPECT_EQ(status.code, 0U);
    EXPECT_EQ(read_unlimited(program, ""), 4);
}

TEST_F(ReadDelimiter, InTheMiddleOfWhatOneCallDeliversIsNotNoticed)
{
    auto pipe = to_program("prints_then_exits 0 'a\nbc'");
    pipes::wait_for_a_child_to_end();
    EXPECT_EQ(read(pipe, 10, "\n"), 4);
    EXPECT_EQ(bytes(5), "a\nbc#");
    EXPECT_EQ(status.subcode, ZT_PIPE_S_NORMAL) << "it went on to the end of the data";
}

TEST_F(ReadDelimiter, InTheMiddleIsNotNoticedByAnUnlimitedReadEither)
{
    for (const bool command : {true, false}) {
        auto pipe = command ? to_command("printf 'a\nbc'") : to_program("prints_then_exits 0 'a\nbc'");
        if (!command) pipes::wait_for_a_child_to_end();
        EXPECT_EQ(read_unlimited(pipe, "\n"), 4);
        EXPECT_STREQ(text, "a\nbc");
        pipe.close();
    }
}

TEST_F(ReadDelimiter, ThatIsMissingInAFullBufferEndsACommandsReadWithAWarning)
{
    auto pipe = to_command("printf abcdefgh");
    TraceFile trace;
    const pipes::Flag detail(pipes::Category::read, ZT_PIPE_DEBUG_FLAG);
    const faults::Plan counting{};
    errno = 0;
    record::poison(status);
    EXPECT_EQ(read(pipe, 4, "\n"), 4);
    EXPECT_EQ(bytes(5), "abcd#");
    EXPECT_EQ(record::fields(status), record::failure(0, at("zt_pipe_read", 2880),
                                                      {{"subcode", "10139"},
                                                       {"object", "infinite loop of fread <= 0"},
                                                       {"sys_msg", strerrordesc_np(0)},
                                                       {"sparm[0]", "printf abcdefgh"},
                                                       {"sparm[1]", "printf abcdefgh"},
                                                       {"msg", "printf abcdefgh"},
                                                       {"count", "4"}}));
    EXPECT_EQ(faults::calls(Function::fread), 1 + 6);
    EXPECT_EQ(trace.lines(), Lines{"   zt_pipe_read: performed 6 reads for 4 bytes"});
    EXPECT_EQ(read(pipe, 4, nullptr), 4) << "nothing is lost";
    EXPECT_EQ(bytes(4), "efgh");
}

TEST_F(ReadDelimiter, ThatIsMissingInAFullBufferMakesAProgramsReadWaitForItsEnd)
{
    auto pipe = to_program("prints_then_exits 0 abcdefgh");
    EXPECT_EQ(read(pipe, 4, "\n"), 4);
    EXPECT_EQ(bytes(5), "abcd#");
    EXPECT_EQ(status.subcode, ZT_PIPE_S_NORMAL);
    EXPECT_EQ(read(pipe, 4, nullptr), 4) << "nothing is lost";
    EXPECT_EQ(bytes(4), "efgh");
}

TEST_F(ReadDelimiter, IsSoughtInTheNewBytesOnly)
{
    auto pipe = to_program("prints_then_exits 0 'a\nb'");
    const faults::Plan plan{{.function = Function::read, .nth = 1, .result = 2}};
    EXPECT_EQ(read_unlimited(pipe, "\n"), 2);
    EXPECT_EQ(read_unlimited(pipe, "\nb", 2), 1);
    EXPECT_EQ(status.subcode, ZT_PIPE_S_NORMAL) << "the newline belongs to the earlier read";
    EXPECT_STREQ(text, "a\nb");
}

}  // namespace
