// The buffer of the unlimited read: how it grows, what stays in it, to whom it belongs.
#include <gtest/gtest.h>
#include <zt/runtime/memory.h>

#include <cerrno>
#include <csignal>
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

constexpr char routine[] = "zt_pipe_read_unlimited";
constexpr int default_read_size = 32768;
constexpr int pipe_memory = 2;

class ReadUnlimited : public NothingLeftTest {
  protected:
    ReadUnlimited() { record::poison(status); }

    int read(int handle, int offset = 0, const char* delimiter = nullptr)
    {
        return zt_pipe_read_unlimited(handle, &text, offset, delimiter, &status);
    }
    record::Fields record() const { return record::fields(status); }

    zt::Status status;
    char* text = nullptr;
};

TEST_F(ReadUnlimited, OfTenBytesAndTheEndMakesRoomForOneMoreRequest)
{
    auto pipe = to_program("prints_then_exits 0 0123456789");
    EXPECT_EQ(read(pipe), 10);
    EXPECT_EQ(text, pipe->buffer);
    EXPECT_STREQ(text, "0123456789");
    EXPECT_EQ(status.code, 0U);
    EXPECT_EQ(status.subcode, ZT_PIPE_S_NORMAL);
    EXPECT_EQ(status.count, 10);
    // Room for a full request is made before every transfer, also before the one that sees the end.
    EXPECT_EQ(pipe->buffer_size, default_read_size + 11);
}

TEST_F(ReadUnlimited, ThatStopsAtADelimiterGrowsOnce)
{
    auto pipe = to_program("prints_then_waits '012345678\n'");
    EXPECT_EQ(read(pipe, 0, "\n"), 10);
    EXPECT_EQ(pipe->buffer_size, default_read_size + 1);
}

TEST_F(ReadUnlimited, OfASilentProgramGivesAnEmptyText)
{
    auto pipe = to_program("exits_with 0");
    EXPECT_EQ(read(pipe), 0);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(pipe->buffer_size, default_read_size + 1);
    EXPECT_EQ(status.subcode, ZT_PIPE_S_NORMAL);
}

TEST_F(ReadUnlimited, OfAProgramThatFailsSilentlyIsAFailureWithAnEmptyText)
{
    auto pipe = to_program("exits_with 9");
    EXPECT_EQ(read(pipe), -1);
    EXPECT_EQ(status.code, ZT_PIPE_S_ERROR);
    EXPECT_STREQ(text, "");
}

TEST_F(ReadUnlimited, AppendsAtTheOffset)
{
    auto pipe = to_program("echo_lines");
    pipes::write(pipe, "012345678\n");
    EXPECT_EQ(read(pipe, 0, "\n"), 10);
    pipes::write(pipe, "abc\n");
    EXPECT_EQ(read(pipe, 10, "\n"), 4) << "only the new bytes count";
    EXPECT_EQ(status.count, 4);
    EXPECT_STREQ(text, "012345678\nabc\n");
    EXPECT_EQ(pipe->buffer_size, 10 + default_read_size + 1);
}

TEST_F(ReadUnlimited, WithOffset0StartsOverInTheSameBuffer)
{
    auto pipe = to_program("echo_lines");
    pipes::write(pipe, "012345678\n");
    EXPECT_EQ(read(pipe, 0, "\n"), 10);
    const char* const first = text;
    pipes::write(pipe, "abc\n");
    const faults::Plan counting{};
    EXPECT_EQ(read(pipe, 0, "\n"), 4);
    EXPECT_EQ(faults::calls(Function::realloc), 0) << "what is large enough is used as it is";
    EXPECT_EQ(text, first);
    EXPECT_STREQ(text, "abc\n");
    EXPECT_EQ(pipe->buffer_size, default_read_size + 1);
}

TEST_F(ReadUnlimited, NeverShrinksTheBuffer)
{
    auto pipe = to_program("echo_lines");
    pipes::write(pipe, "a\n");
    EXPECT_EQ(read(pipe, 1000, "\n"), 2);
    EXPECT_EQ(pipe->buffer_size, 1000 + default_read_size + 1);
    EXPECT_STREQ(text + 1000, "a\n");
    pipes::write(pipe, "b\n");
    EXPECT_EQ(read(pipe, 0, "\n"), 2);
    EXPECT_EQ(pipe->buffer_size, 1000 + default_read_size + 1);
}

TEST_F(ReadUnlimited, WithReadsize1GrowsByOneByteAPass)
{
    auto pipe = to_program("prints_then_exits 0 abcde", "READSIZE=1");
    TraceFile trace;
    const pipes::Flag detail(pipes::Category::read, ZT_PIPE_DEBUG_FLAG);
    const faults::Plan counting{};
    EXPECT_EQ(read(pipe), 5);
    EXPECT_STREQ(text, "abcde");
    EXPECT_EQ(faults::calls(Function::read), 6);
    EXPECT_EQ(pipe->buffer_size, 5 + 1 + 1);
    EXPECT_EQ(trace.lines(), Lines{"   zt_pipe_read_unlimited: performed 5 reads for 5 bytes"});
}

TEST_F(ReadUnlimited, AsksForReadsizeBytesAtATime)
{
    for (const bool program : {true, false}) {
        auto pipe = program ? to_program("prints_then_exits 0 abcdefgh", "READSIZE=3")
                            : to_command("printf abcdefgh", "READSIZE=3");
        const faults::Plan counting{};
        EXPECT_EQ(read(pipe), 8);
        EXPECT_STREQ(text, "abcdefgh");
        EXPECT_EQ(faults::calls(program ? Function::read : Function::fread), 4);
    }
}

TEST_F(ReadUnlimited, TakesMoreThanOneRequestCanHold)
{
    auto pipe = to_command("yes 0123456789abcde | head -n 20000");
    EXPECT_EQ(read(pipe), 320000);
    EXPECT_EQ(std::strlen(text), 320000U);
    EXPECT_EQ(status.subcode, 0U) << "the end of a stream asks for no status";
    EXPECT_EQ(std::string(text + 319984), "0123456789abcde\n");
}

TEST_F(ReadUnlimited, RefusesANullResult)
{
    auto pipe = to_program("echo_lines");
    EXPECT_EQ(zt_pipe_read_unlimited(pipe, nullptr, 0, nullptr, &status), -1);
    EXPECT_EQ(record(), record::failure(ZT_PIPE_E_NULLARG, at(routine, 3013),
                                        {{"sparm[0]", "buffer"}, {"sparm[1]", routine}, {"count", "0"}}));
}

TEST_F(ReadUnlimited, OfABadHandleLeavesTheResultAlone)
{
    char mine;
    text = &mine;
    EXPECT_EQ(read(99), -1);
    EXPECT_EQ(record(),
              record::failure(ZT_PIPE_E_HANDLE, at(routine, 1093), {{"iparm[0]", "99"}, {"count", "0"}}));
    EXPECT_EQ(text, &mine);
}

TEST_F(ReadUnlimited, HandsTheBufferBackAlsoAfterAFailure)
{
    auto pipe = to_program("prints_then_waits abc");
    const faults::Plan plan{{.function = Function::read, .error = EIO}};
    EXPECT_EQ(read(pipe), -1);
    EXPECT_EQ(text, pipe->buffer);
    EXPECT_STREQ(text, "");
    text = nullptr;
    EXPECT_EQ(read(pipe, -1), -1);
    EXPECT_EQ(text, pipe->buffer);
}

TEST_F(ReadUnlimited, IsWhatASignalDuringItIsBookedTo)
{
    auto pipe = to_program("prints_then_waits '\n'");
    const faults::Plan plan{{.function = Function::read, .raising = SIGPIPE}};
    EXPECT_EQ(read(pipe, 0, "\n"), 1);
    EXPECT_EQ(pipe->last_signal, SIGPIPE);
    EXPECT_EQ(Zt_pipe_current, nullptr);
}

TEST_F(ReadUnlimited, ReportsAnEndWhoseChildIsNotCollected)
{
    auto pipe = to_program("exits_with 0");
    const faults::Plan plan{{.function = Function::waitpid, .error = ENOLCK, .result = 1}};
    EXPECT_EQ(read(pipe), -1);
    EXPECT_EQ(status.code, ZT_PIPE_E_READ);
    EXPECT_EQ(status.where, at(routine, 3118));
    EXPECT_EQ(status.sys_errno, static_cast<std::uint32_t>(ENOLCK));
}

TEST_F(ReadUnlimited, OnAPipeWithoutAChildFailsAsOnABadDescriptor)
{
    const pipes::Pipe pipe("nothing", "");
    const faults::Plan counting{};
    EXPECT_EQ(read(pipe), -1);
    EXPECT_EQ(record(), record::failure(ZT_PIPE_E_READ, at(routine, 3104),
                                        {{"sys_errno", std::to_string(EBADF)},
                                         {"sys_msg", strerrordesc_np(EBADF)},
                                         {"sparm[0]", "nothing"},
                                         {"sparm[1]", "nothing"},
                                         {"msg", "nothing"},
                                         {"count", "0"}}));
    EXPECT_EQ(faults::calls(Function::read), 0) << "the application's own descriptor 0 is none of ours";
}

TEST_F(ReadUnlimited, OnAPipeWithoutAChildIsInterruptedWhileAnInterruptIsPending)
{
    const pipes::Pipe pipe("nothing", "");
    const faults::Plan plan{{.function = Function::realloc, .raising = SIGINT},
                            {.function = Function::malloc, .raising = SIGINT}};
    EXPECT_EQ(read(pipe), -1);
    ASSERT_TRUE(plan.fired());
    EXPECT_EQ(record(), record::failure(ZT_PIPE_E_INTERRUPTED, at(routine, 3099), {{"count", "0"}}));
}

TEST_F(ReadUnlimited, WithoutMemoryGivesANullResult)
{
    auto pipe = to_program("prints_then_waits abc");
    const int heap = zt_heapsize();
    const faults::Plan plan{{.function = Function::realloc, .from_then_on = true, .error = ENOMEM},
                            {.function = Function::malloc, .from_then_on = true, .error = ENOMEM}};
    char mine;
    text = &mine;
    EXPECT_EQ(read(pipe), -1);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(record(), record::failure(ZT_PIPE_E_NOMEM, at(routine, 3035),
                                        {{"sys_errno", std::to_string(ENOMEM)},
                                         {"sys_msg", strerror(ENOMEM)},
                                         {"object", "p->buf"},
                                         {"iparm[0]", std::to_string(default_read_size + 1)},
                                         {"iparm[1]", std::to_string(heap)},
                                         {"count", "0"}}));
    EXPECT_EQ(faults::calls(Function::read), 0);
}

TEST_F(ReadUnlimited, ThatCannotGrowAnyMoreLeavesTheBufferToTheCallerAndStartsAnew)
{
    auto pipe = to_program("prints_then_exits 0 abcdefghij", "READSIZE=4");
    EXPECT_EQ(read(pipe, 0, "d"), 4);
    char* const handed_out = text;
    {
        const faults::Plan plan{{.function = Function::realloc, .from_then_on = true, .error = ENOMEM},
                                {.function = Function::read, .nth = 1, .result = 3}};
        EXPECT_EQ(read(pipe), 3) << "what came before is delivered, with a warning";
    }
    EXPECT_EQ(status.subcode, ZT_PIPE_E_NOMEM);
    EXPECT_EQ(status.iparm[0], 3 + 4 + 1);
    EXPECT_EQ(status.where, at(routine, 3035));
    EXPECT_EQ(text, nullptr);
    EXPECT_STREQ(handed_out, "efg") << "the bytes are in the old buffer, as a text";
    EXPECT_EQ(pipe->buffer, nullptr);

    EXPECT_EQ(read(pipe), 3);
    EXPECT_STREQ(text, "hij");
    EXPECT_EQ(status.subcode, ZT_PIPE_S_NORMAL);
    zt_mem_ifree(pipe_memory, handed_out, __FILE__, __LINE__);
}

TEST_F(ReadUnlimited, LeavesItsBufferBehindAClosedPipeWithNofree)
{
    auto pipe = to_program("prints_then_exits 0 abc");
    EXPECT_EQ(read(pipe), 3);
    pipe.close("NOFREE");
    EXPECT_STREQ(text, "abc");
    zt_mem_ifree(pipe_memory, text, __FILE__, __LINE__);
}

}  // namespace
