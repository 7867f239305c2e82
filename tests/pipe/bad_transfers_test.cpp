// Transfers that are asked for what cannot be: a clean failure, and the pipe goes on as if nothing had been.
#include <gtest/gtest.h>
#include <zt/runtime/memory.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <tuple>

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

class BadTransfer : public NothingLeftTest {
  protected:
    BadTransfer() { record::poison(status); }

    record::Fields record() const { return record::fields(status); }

    static record::Fields out_of_range(const std::string& where, const char* argument, int value)
    {
        return record::failure(
            ZT_PIPE_E_TOOLONG, where,
            {{"sparm[0]", argument}, {"iparm[0]", std::to_string(value)}, {"iparm[1]", "2147483647"}});
    }
    static record::Fields with_no_bytes(record::Fields fields)
    {
        fields["count"] = "0";
        return fields;
    }

    zt::Status status;
    char buffer[16];
    char* text = nullptr;
};

TEST_F(BadTransfer, OfANegativeLengthIsRefused)
{
    auto program = to_program("echo_lines");
    auto command = to_command("cat", "WRITE");
    const faults::Plan counting{};
    for (const int length : {-1, INT_MIN}) {
        for (const int handle : {int{program}, int{command}}) {
            record::poison(status);
            EXPECT_EQ(zt_pipe_write(handle, "x", length, &status), -1);
            EXPECT_EQ(record(), out_of_range(at("zt_pipe_write", 4031), "length", length));
        }
    }
    EXPECT_EQ(faults::calls(Function::write) + faults::calls(Function::fwrite), 0);
    command.close();
}

TEST_F(BadTransfer, OfANegativeLengthDumpsNothing)
{
    auto pipe = to_program("echo_lines");
    TraceFile trace;
    const pipes::Flag parms(pipes::Category::write, ZT_PIPE_PARMS);
    zt_pipe_write(pipe, "x", -1, &status);
    EXPECT_EQ(trace.lines(), (Lines{"-> zt_pipe_write: [1] [see below] [-1] []",
                                    "<-*zt_pipe_write: [1] [] [-1] [10037 0 0 ] returned -1"}));
}

TEST_F(BadTransfer, OfANegativeSizeIsRefused)
{
    auto program = to_program("prints_then_waits abc");
    auto command = to_command("printf abc");
    const faults::Plan counting{};
    for (const int size : {-1, INT_MIN}) {
        for (const int handle : {int{program}, int{command}}) {
            record::poison(status);
            EXPECT_EQ(zt_pipe_read(handle, buffer, size, nullptr, &status), -1);
            EXPECT_EQ(record(), with_no_bytes(out_of_range(at("zt_pipe_read", 4041), "size", size)));
        }
    }
    EXPECT_EQ(faults::calls(Function::read) + faults::calls(Function::fread), 0);
    EXPECT_EQ(zt_pipe_read(program, buffer, 3, nullptr, &status), 3);
    EXPECT_EQ(zt_pipe_read(command, buffer, 3, nullptr, &status), 3);
}

TEST_F(BadTransfer, AtANegativeOffsetIsRefused)
{
    auto pipe = to_program("prints_then_waits abc");
    for (const int offset : {-1, INT_MIN}) {
        record::poison(status);
        EXPECT_EQ(zt_pipe_read_unlimited(pipe, &text, offset, nullptr, &status), -1);
        EXPECT_EQ(record(),
                  with_no_bytes(out_of_range(at("zt_pipe_read_unlimited", 4051), "offset", offset)));
        EXPECT_EQ(text, nullptr);
    }
    EXPECT_EQ(zt_pipe_read_unlimited(pipe, &text, 0, "c", &status), 3);
}

TEST_F(BadTransfer, OfAReadsizeBelow1IsRefusedAtItsFirstUse)
{
    for (const int read_size : {0, -1, INT_MIN}) {
        for (const bool command : {true, false}) {
            const std::string option = "READSIZE=" + std::to_string(read_size);
            auto pipe =
                command ? to_command("printf abc", option) : to_program("prints_then_waits abc", option);
            record::poison(status);
            EXPECT_EQ(zt_pipe_read_unlimited(pipe, &text, 0, nullptr, &status), -1);
            EXPECT_EQ(record(),
                      with_no_bytes(out_of_range(at("zt_pipe_read_unlimited", 4052), "READSIZE", read_size)));
            EXPECT_EQ(zt_pipe_read(pipe, buffer, 3, nullptr, &status), 3)
                << "the bounded read has no use for it";
        }
    }
}

TEST_F(BadTransfer, OfAHugeReadsizeReadsAsFarAsTheCountReachesOrIsOutOfMemory)
{
    auto pipe = to_program("prints_then_exits 0 abc", "READSIZE=2147483646");
    if (zt_pipe_read_unlimited(pipe, &text, 0, nullptr, &status) < 0) {
        EXPECT_EQ(status.code, ZT_PIPE_E_NOMEM);
        return;
    }
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(status.count, 3);
    EXPECT_EQ(status.subcode, ZT_PIPE_E_NOMEM) << "one more request would not fit";
    EXPECT_EQ(status.where, at("zt_pipe_read_unlimited", 4053));
}

TEST_F(BadTransfer, OfAHugeReadsizeWithoutMemoryNamesTheBytesAskedFor)
{
    auto pipe = to_program("prints_then_exits 0 abc", "READSIZE=2147483646");
    const faults::Plan plan{{.function = Function::realloc, .from_then_on = true, .error = ENOMEM},
                            {.function = Function::malloc, .from_then_on = true, .error = ENOMEM}};
    EXPECT_EQ(zt_pipe_read_unlimited(pipe, &text, 0, nullptr, &status), -1);
    EXPECT_EQ(status.code, ZT_PIPE_E_NOMEM);
    EXPECT_EQ(status.where, at("zt_pipe_read_unlimited", 3035));
    EXPECT_EQ(status.iparm[0], INT_MAX);
}

TEST_F(BadTransfer, WhoseCountWouldExceed32BitsIsOutOfMemory)
{
    auto huge = to_program("prints_then_waits abc", "READSIZE=2147483647");
    auto usual = to_program("prints_then_waits abc");
    EXPECT_EQ(zt_pipe_read_unlimited(usual, &text, 0, "c", &status), 3);
    char* const before = text;
    const std::string heap = std::to_string(zt_heapsize());
    const faults::Plan counting{};
    for (const auto& [handle, offset, result] : {std::tuple<int, int, char*>{huge, 0, nullptr},
                                                 {huge, INT_MAX, nullptr},
                                                 {usual, INT_MAX, before},
                                                 {usual, INT_MAX - 32768, before}}) {
        record::poison(status);
        EXPECT_EQ(zt_pipe_read_unlimited(handle, &text, offset, nullptr, &status), -1);
        EXPECT_EQ(record(), record::failure(ZT_PIPE_E_NOMEM, at("zt_pipe_read_unlimited", 4053),
                                            {{"sys_errno", std::to_string(ENOMEM)},
                                             {"sys_msg", strerrordesc_np(ENOMEM)},
                                             {"object", "p->buf"},
                                             {"iparm[0]", "2147483647"},
                                             {"iparm[1]", heap},
                                             {"count", "0"}}));
        EXPECT_EQ(text, result);
    }
    EXPECT_EQ(faults::calls(Function::read), 0);
    EXPECT_STREQ(before, "abc") << "what was read before stays";
}

TEST_F(BadTransfer, AtAnOffsetBeyondTheBufferLeavesAGap)
{
    auto pipe = to_program("prints_then_exits 0 abc", "READSIZE=4");
    EXPECT_EQ(zt_pipe_read_unlimited(pipe, &text, 100000, nullptr, &status), 3);
    EXPECT_STREQ(text + 100000, "abc");
    EXPECT_EQ(pipe->buffer_size, 100000 + 3 + 4 + 1);
}

TEST_F(BadTransfer, AtAnOffsetBeyondABufferThatCannotGrowWritesNothing)
{
    auto pipe = to_program("prints_then_exits 0 abcdef", "READSIZE=3");
    EXPECT_EQ(zt_pipe_read_unlimited(pipe, &text, 0, "abc", &status), 3);
    char* const handed_out = text;
    {
        const faults::Plan plan{{.function = Function::realloc, .from_then_on = true, .error = ENOMEM}};
        EXPECT_EQ(zt_pipe_read_unlimited(pipe, &text, 100000, nullptr, &status), -1);
    }
    EXPECT_EQ(text, nullptr);
    EXPECT_STREQ(handed_out, "abc");
    EXPECT_EQ(zt_pipe_read_unlimited(pipe, &text, 0, nullptr, &status), 3);
    EXPECT_STREQ(text, "def") << "the next read starts with a buffer of its own";
    zt_mem_ifree(2, handed_out, __FILE__, __LINE__);
}

TEST_F(BadTransfer, WithoutARecordDoesNothing)
{
    auto pipe = to_program("prints_then_waits abc");
    TraceFile trace;
    const pipes::Flag read(pipes::Category::read, ZT_PIPE_PARMS);
    const pipes::Flag write(pipes::Category::write, ZT_PIPE_PARMS);
    {
        const faults::Plan counting{};
        EXPECT_EQ(zt_pipe_write(pipe, "x", 1, nullptr), -1);
        EXPECT_EQ(zt_pipe_read(pipe, buffer, 3, nullptr, nullptr), -1);
        EXPECT_EQ(zt_pipe_read_unlimited(pipe, &text, 0, nullptr, nullptr), -1);
        EXPECT_EQ(faults::calls(Function::write) + faults::calls(Function::read), 0);
    }
    EXPECT_EQ(trace.lines(), Lines{});
    EXPECT_EQ(pipe->buffer, nullptr);
}

TEST_F(BadTransfer, OnHandlesOutOfRangeFailsCleanly)
{
    for (const int handle : {INT_MIN, -1, 0, 1, INT_MAX}) {
        EXPECT_EQ(zt_pipe_write(handle, buffer, INT_MAX, &status), -1);
        EXPECT_EQ(zt_pipe_read(handle, buffer, INT_MAX, "x", &status), -1);
        EXPECT_EQ(zt_pipe_read_unlimited(handle, &text, INT_MAX, "x", &status), -1);
        EXPECT_EQ(status.code, ZT_PIPE_E_HANDLE);
        EXPECT_EQ(status.iparm[0], handle);
    }
}

TEST_F(BadTransfer, WithADelimiterLongerThanAnythingReadIsNoMatch)
{
    const std::string delimiter(1 << 20, 'a');
    auto pipe = to_program("prints_then_exits 0 aaaa");
    EXPECT_EQ(zt_pipe_read(pipe, buffer, 2, delimiter.c_str(), &status), 2);
    EXPECT_EQ(status.subcode, 0U);
    EXPECT_EQ(zt_pipe_read_unlimited(pipe, &text, 0, delimiter.c_str(), &status), 2);
    EXPECT_EQ(status.subcode, ZT_PIPE_S_NORMAL);
}

}  // namespace
