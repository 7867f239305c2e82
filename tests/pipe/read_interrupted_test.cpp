// Retries, interrupts and errors: the same rules for both reads, each at its own places.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>
#include <zt/runtime/text.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/record.h"
#include "tests/support/transfers.h"

namespace {

using faults::Function;
using pipes::to_command;
using pipes::to_program;

/// One of the two reads, and the places of its failures.
struct Reader {
    const char* routine;
    int stream_interrupted, stream_failed, stream_empty, interrupted, failed, at_exit;
};

void PrintTo(const Reader& reader, std::ostream* out)
{
    *out << reader.routine;
}

constexpr Reader bounded{"zt_pipe_read", 2861, 2866, 2880, 2901, 2906, 2944};
constexpr Reader unlimited{"zt_pipe_read_unlimited", 3059, 3064, 3078, 3099, 3104, 3140};

class ReadInterrupted : public NothingLeftTest, public testing::WithParamInterface<Reader> {
  protected:
    ReadInterrupted() { record::poison(status); }

    int read(int handle)
    {
        if (GetParam().routine == bounded.routine) {
            result = buffer;
            return zt_pipe_read(handle, buffer, sizeof buffer, nullptr, &status);
        }
        return zt_pipe_read_unlimited(handle, &result, 0, nullptr, &status);
    }

    record::Fields record() const { return record::fields(status); }
    std::string at(int line) const { return pipes::at(GetParam().routine, line); }

    record::Fields interrupted(int line) const
    {
        return record::failure(ZT_PIPE_E_INTERRUPTED, at(line), {{"count", "0"}});
    }
    record::Fields failed(int line, const std::string& program, int error) const
    {
        char trimmed[32];
        return record::failure(ZT_PIPE_E_READ, at(line),
                               {{"sys_errno", std::to_string(error)},
                                {"sys_msg", strerrordesc_np(error)},
                                {"sparm[0]", program},
                                {"sparm[1]", zt_trim_filename(program.c_str(), 32, trimmed)},
                                {"msg", program},
                                {"count", "0"}});
    }

    /// One call that fails.
    static faults::Fault attempt(Function function, int nth, int error)
    {
        return {.function = function, .nth = nth, .error = error};
    }

    zt::Status status;
    char buffer[64];
    char* result = nullptr;
};

INSTANTIATE_TEST_SUITE_P(, ReadInterrupted, testing::Values(bounded, unlimited),
                         [](const auto& about) { return std::string(about.param.routine); });

// -------------------------------------------------------------------------------------------- PROGRAM pipes

TEST_P(ReadInterrupted, RetriesFiveEintrOfADescriptor)
{
    auto pipe = to_program("prints_then_exits 0 abc");
    const auto eintr = [](int nth) { return attempt(Function::read, nth, EINTR); };
    const faults::Plan plan{eintr(1), eintr(2), eintr(3), eintr(4), eintr(5)};
    EXPECT_EQ(read(pipe), 3);
    EXPECT_EQ(status.subcode, ZT_PIPE_S_NORMAL);
    EXPECT_EQ(faults::calls(Function::read), 7);
}

TEST_P(ReadInterrupted, GivesUpAtTheSixthEintrOfADescriptor)
{
    auto pipe = to_program("prints_then_waits abc");
    const faults::Plan plan{{.function = Function::read, .from_then_on = true, .error = EINTR}};
    EXPECT_EQ(read(pipe), -1);
    EXPECT_EQ(record(), interrupted(GetParam().interrupted));
    EXPECT_EQ(faults::calls(Function::read), 6);
}

TEST_P(ReadInterrupted, CountsTheRetriesOfADescriptorOverTheWholeCall)
{
    auto pipe = to_program("prints_then_waits abc");
    const auto eintr = [](int nth) { return attempt(Function::read, nth, EINTR); };
    const faults::Plan plan{eintr(1), eintr(2), eintr(3), {.function = Function::read, .nth = 4, .result = 2},
                            eintr(5), eintr(6), eintr(7)};
    EXPECT_EQ(read(pipe), 2);
    EXPECT_EQ(status.code, 0U);
    EXPECT_EQ(status.subcode, ZT_PIPE_E_INTERRUPTED);
    EXPECT_EQ(status.where, at(GetParam().interrupted));
    EXPECT_EQ(std::string(result, 2), "ab");
    EXPECT_EQ(faults::calls(Function::read), 7);
}

TEST_P(ReadInterrupted, GivesEachCallItsOwnRetries)
{
    auto pipe = to_program("prints_then_exits 0 abc");
    for (int call = 0; call < 2; ++call) {
        const auto eintr = [](int nth) { return attempt(Function::read, nth, EINTR); };
        const faults::Plan plan{eintr(1), eintr(2), eintr(3), eintr(4), eintr(5)};
        EXPECT_GE(read(pipe), 0);
    }
}

TEST_P(ReadInterrupted, DoesNotRetryEagainOfADescriptor)
{
    auto pipe = to_program("prints_then_waits ''");
    fcntl(pipe->read_fd, F_SETFL, O_NONBLOCK);
    EXPECT_EQ(read(pipe), -1);
    EXPECT_EQ(record(), interrupted(GetParam().interrupted));
}

TEST_P(ReadInterrupted, ReportsAnErrorOfADescriptorWithTheProgram)
{
    auto pipe = to_program("prints_then_waits abc");
    const faults::Plan plan{attempt(Function::read, 1, EIO)};
    EXPECT_EQ(read(pipe), -1);
    EXPECT_EQ(record(), failed(GetParam().failed, child("prints_then_waits abc"), EIO));
    EXPECT_EQ(faults::calls(Function::read), 1);
}

TEST_P(ReadInterrupted, DeliversWhatCameBeforeAnErrorOfADescriptorWithAWarning)
{
    auto pipe = to_program("prints_then_waits abc");
    const faults::Plan plan{attempt(Function::read, 2, EIO)};
    EXPECT_EQ(read(pipe), 3);
    record::Fields expected = failed(GetParam().failed, child("prints_then_waits abc"), EIO);
    expected["code"] = "0";
    expected["subcode"] = "10139";
    expected["count"] = "3";
    EXPECT_EQ(record(), expected);
    EXPECT_EQ(std::string(result, 3), "abc");
}

TEST_P(ReadInterrupted, CallsAnErrorOfADescriptorAnInterruptWhileOneIsPending)
{
    auto pipe = to_program("prints_then_waits abc");
    const faults::Plan plan{{.function = Function::read, .error = EIO, .raising = SIGINT}};
    EXPECT_EQ(read(pipe), -1);
    EXPECT_EQ(record(), interrupted(GetParam().interrupted)) << "and consumes it";
}

TEST_P(ReadInterrupted, GoesOnAfterCtrlCUntilTheLoopEndsAndThenReportsIt)
{
    auto pipe = to_program("prints_then_exits 0 abc");
    const faults::Plan plan{{.function = Function::read, .error = EINTR, .raising = SIGINT}};
    EXPECT_EQ(read(pipe), 3);
    EXPECT_EQ(std::string(result, 3), "abc");
    EXPECT_EQ(status.subcode, ZT_PIPE_E_INTERRUPTED) << "in place of the child's end";
    EXPECT_EQ(status.where, at(GetParam().at_exit));
    EXPECT_EQ(zt_pipe_read(pipe, buffer, 1, nullptr, &status), 0);
    EXPECT_EQ(status.subcode, ZT_PIPE_S_NORMAL) << "the end is still there for the next read";
}

TEST_P(ReadInterrupted, ReportsCtrlCAloneWhenNothingCame)
{
    auto pipe = to_program("exits_with 0");
    const faults::Plan plan{{.function = Function::read, .error = EINTR, .raising = SIGINT}};
    EXPECT_EQ(read(pipe), -1);
    EXPECT_EQ(status.code, ZT_PIPE_E_INTERRUPTED);
    EXPECT_EQ(status.where, at(GetParam().at_exit));
    EXPECT_EQ(status.subcode, 0U);
}

volatile pid_t victim;

void end_victim(int)
{
    kill(victim, SIGKILL);
}

TEST_P(ReadInterrupted, SurvivesASignalInABlockedRead)
{
    auto pipe = to_program("prints_then_waits ''");
    victim = pipe->pid;
    struct sigaction action = {};
    struct sigaction before;
    action.sa_handler = end_victim;  // no SA_RESTART: the read fails with EINTR
    sigaction(SIGALRM, &action, &before);
    const itimerval soon{{0, 0}, {0, 20000}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    EXPECT_EQ(read(pipe), -1);
    EXPECT_EQ(status.code, ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(status.sys_errno, static_cast<std::uint32_t>(SIGKILL));
    sigaction(SIGALRM, &before, nullptr);
}

// -------------------------------------------------------------------------------------------- COMMAND pipes

TEST_P(ReadInterrupted, RetriesFiveEintrOfAStreamInARow)
{
    auto pipe = to_command("printf abc");
    const auto eintr = [](int nth) { return attempt(Function::fread, nth, EINTR); };
    const faults::Plan plan{eintr(1), eintr(2), eintr(3), eintr(4), eintr(5)};
    EXPECT_EQ(read(pipe), 3);
    EXPECT_EQ(record(), record::cleared({{"count", "3"}}));
    EXPECT_EQ(faults::calls(Function::clearerr), 5);
}

TEST_P(ReadInterrupted, GivesUpAtTheSixthEintrOfAStream)
{
    auto pipe = to_command("printf abc");
    const faults::Plan plan{{.function = Function::fread, .from_then_on = true, .error = EINTR}};
    EXPECT_EQ(read(pipe), -1);
    EXPECT_EQ(record(), interrupted(GetParam().stream_interrupted));
    EXPECT_EQ(faults::calls(Function::fread), 6);
}

TEST_P(ReadInterrupted, GivesAStreamItsRetriesBackWithEachByte)
{
    auto pipe = to_command("printf abc");
    const auto eintr = [](int nth) { return attempt(Function::fread, nth, EINTR); };
    const faults::Plan plan{
        eintr(1), eintr(2), eintr(3), {.function = Function::fread, .nth = 4, .result = 2},
        eintr(5), eintr(6), eintr(7)};
    EXPECT_EQ(read(pipe), 3);
    EXPECT_EQ(status.subcode, 0U);
    EXPECT_EQ(std::string(result, 3), "abc");
}

TEST_P(ReadInterrupted, DoesNotRetryEagainOfAStream)
{
    auto pipe = to_command("printf abc");
    const faults::Plan plan{attempt(Function::fread, 1, EAGAIN)};
    EXPECT_EQ(read(pipe), -1);
    EXPECT_EQ(record(), interrupted(GetParam().stream_interrupted));
    EXPECT_EQ(faults::calls(Function::fread), 1);
}

TEST_P(ReadInterrupted, ReportsAnErrorOfAStreamWithTheProgram)
{
    auto pipe = to_command("cat > /dev/null", "WRITE");
    EXPECT_EQ(read(pipe), -1);
    EXPECT_EQ(record(), failed(GetParam().stream_failed, "cat > /dev/null", EBADF));
}

TEST_P(ReadInterrupted, CallsAnErrorOfAStreamAnInterruptWhileOneIsPending)
{
    auto pipe = to_command("printf abc");
    const faults::Plan plan{{.function = Function::fread, .error = EIO, .raising = SIGINT}};
    EXPECT_EQ(read(pipe), -1);
    EXPECT_EQ(record(), interrupted(GetParam().stream_interrupted));
}

TEST_P(ReadInterrupted, ReportsCtrlCAtTheEndOfAStream)
{
    auto pipe = to_command("printf abc");
    const faults::Plan plan{{.function = Function::fread, .raising = SIGINT}};
    EXPECT_EQ(read(pipe), 3);
    EXPECT_EQ(status.subcode, ZT_PIPE_E_INTERRUPTED);
    EXPECT_EQ(status.where, at(GetParam().at_exit));
}

TEST_P(ReadInterrupted, TakesAStreamThatGivesNothingSixTimesForAnEndlessLoop)
{
    auto pipe = to_command("printf abc");
    errno = ENOTTY;
    const faults::Plan plan{{.function = Function::fread, .from_then_on = true, .result = 0}};
    EXPECT_EQ(read(pipe), -1);
    record::Fields expected = failed(GetParam().stream_empty, "printf abc", ENOTTY);
    expected["object"] = "infinite loop of fread <= 0";
    EXPECT_EQ(record(), expected);
    EXPECT_EQ(faults::calls(Function::fread), 6);
}

TEST_P(ReadInterrupted, CarriesOnWithAStreamThatGivesNothingFiveTimes)
{
    auto pipe = to_command("printf abc");
    const auto nothing = [](int nth) {
        return faults::Fault{.function = Function::fread, .nth = nth, .result = 0};
    };
    const faults::Plan plan{nothing(1), nothing(2), nothing(3), nothing(4), nothing(5)};
    EXPECT_EQ(read(pipe), 3);
    EXPECT_EQ(status.subcode, 0U);
}

}  // namespace
