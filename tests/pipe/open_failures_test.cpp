// Opens that fail on the way, or are interrupted, and what they undo.
#include <gtest/gtest.h>
#include <signal.h>
#include <zt/runtime/memory.h>

#include <cstring>
#include <utility>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/parent_size.h"
#include "tests/support/pipes.h"
#include "tests/support/tracefile.h"

using faults::Function;
using faults::Plan;

namespace {

/// After each test nothing may be left of the pipes that did not open.
class OpenFailures : public NothingLeftTest {
  protected:
    static record::Fields failure(std::uint32_t code, int line, const record::Fields& and_then_set)
    {
        return record::failure(code, "ztpipe(zt_ipipe_open):" + std::to_string(line), and_then_set);
    }

    /// The process lives on after SIGINT, as an application that catches it.
    void SetUp() override
    {
        signal(SIGINT, [](int) {});
        leftovers = Leftovers();
    }
};

const record::Fields interrupted = record::failure(10132, "ztpipe(zt_ipipe_open):2762");

}  // namespace

TEST_F(OpenFailures, AfterTheHandleWasAssignedLeaveItFreeForTheNextOpen)
{
    const int first = pipes::open("no child", "");
    EXPECT_EQ(pipes::refused("true", "BOGUS").at("code"), "11201");
    EXPECT_EQ(pipes::refused("", "COMMAND").at("code"), "10134");
    const int second = pipes::open("no child", "");
    EXPECT_EQ(second, first + 1);
    pipes::close(second);
    pipes::close(first);
}

TEST_F(OpenFailures, OfTheControlBlockAre10021)
{
    const std::string heap = std::to_string(zt_heapsize());
    Plan plan{{.function = Function::calloc, .error = ENOMEM}};
    EXPECT_EQ(pipes::refused("true", "PROGRAM"), failure(10021, 2559,
                                                         {{"object", "p"},
                                                          {"iparm[0]", std::to_string(sizeof(zt_pipe))},
                                                          {"iparm[1]", heap},
                                                          {"sys_errno", std::to_string(ENOMEM)},
                                                          {"sys_msg", strerror(ENOMEM)}}));
}

TEST_F(OpenFailures, OfTheHandleFreeTheBlockWithoutAClose)
{
    zt_pipe** const table = Zt_pipes;
    Zt_pipes = nullptr;  // as a growth without memory leaves it
    TraceFile trace;
    zt::Status status;
    zt_pipe_debug_config("PARMS='close'", &status);
    EXPECT_EQ(pipes::refused("true", "PROGRAM").at("where"), "ztpipe(zt_pipe_assign_handle):4082");
    EXPECT_EQ(trace.lines(), Lines{});
    zt_pipe_debug_config("OFF", &status);
    Zt_pipes = table;
}

TEST_F(OpenFailures, AreUndoneByADefaultCloseAfterTheExitLine)
{
    TraceFile trace;
    zt::Status status;
    zt_pipe_debug_config("PARMS='open,close'", &status);
    pipes::refused("", "");
    zt_pipe_debug_config("OFF", &status);
    EXPECT_EQ(trace.lines(),
              (Lines{"-> zt_ipipe_open: [] [] [] []", "<-*zt_ipipe_open: [] [] [10134 0 0 ] [] returned -1",
                     "-> zt_ipipe_close: [1] [] []", "<- zt_ipipe_close: [1] [] [0 0 0 ] returned 0"}));
}

TEST_F(OpenFailures, OfTheLaunchKeepTheLaunchersRecord)
{
    Plan plan{{.function = Function::popen, .error = EMFILE}};
    const record::Fields fields = pipes::refused("true", "COMMAND");
    EXPECT_EQ(fields.at("code"), "10100");
    EXPECT_EQ(fields.at("where"), "ztpipe(zt_pipe_popen):2014");
    EXPECT_EQ(faults::calls(Function::pclose), 0) << "there never was a stream";
}

TEST_F(OpenFailures, KeepTheFirstFailureWhenUndoingFailsToo)
{
    // The launch fails at closing its end in the parent; then closing the pipe and ending the child fail.
    Plan plan{{.function = Function::close, .error = EIO},
              {.function = Function::close, .nth = 3, .error = EBADF}};
    const record::Fields fields = pipes::refused("/bin/cat", "PROGRAM");
    EXPECT_EQ(fields.at("code"), "10135");
    EXPECT_EQ(fields.at("where"), "ztpipe(zt_pipe_fork):2320");
    EXPECT_EQ(fields.at("sys_errno"), std::to_string(EIO));
}

TEST_F(OpenFailures, ByAnInterruptEndTheChildThatHadBeenStarted)
{
    const long usual = std::exchange(Zt_pipe_large_parent, never_large);
    Plan plan{{.function = Function::pipe, .raising = SIGINT}};
    EXPECT_EQ(pipes::refused(child("never_reads").c_str(), "PROGRAM"), interrupted);
    Zt_pipe_large_parent = usual;
    EXPECT_EQ(faults::calls(Function::fork), 1);
    EXPECT_EQ(faults::calls(Function::kill), 1);
}

TEST_F(OpenFailures, ByAnInterruptCloseACommandThatHadBeenStarted)
{
    Plan plan{{.function = Function::popen, .raising = SIGINT}};
    EXPECT_EQ(pipes::refused("true", "COMMAND"), interrupted);
    EXPECT_EQ(faults::calls(Function::pclose), 1);
}

TEST_F(OpenFailures, ByAnInterruptReplaceAnEarlierFailureButKeepItsParameters)
{
    Plan plan{{.function = Function::calloc, .raising = SIGINT}};
    EXPECT_EQ(pipes::refused("true", "COMMAND STDERR=LOUD"),
              failure(10132, 2762, {{"sparm[0]", "STDERR"}, {"sparm[1]", "LOUD"}}));
}

TEST_F(OpenFailures, ByAnInterruptZeroTheSystemErrorOfAnEarlierOne)
{
    Plan plan{{.function = Function::calloc, .error = ENOMEM, .raising = SIGINT}};
    const record::Fields fields = pipes::refused("true", "");
    EXPECT_EQ(fields.at("code"), "10132");
    EXPECT_EQ(fields.at("sys_errno"), "0");
    EXPECT_EQ(fields.at("object"), "p");
}

TEST_F(OpenFailures, ByAnInterruptShowItInTheExitLine)
{
    TraceFile trace;
    zt::Status status;
    zt_pipe_debug_config("EXCEPTIONS='open'", &status);
    {
        Plan plan{{.function = Function::calloc, .raising = SIGINT}};
        EXPECT_EQ(pipes::refused("no child", ""), interrupted);
    }
    EXPECT_EQ(trace.lines(), Lines{"<-*zt_ipipe_open: [no child] [] [10132 0 0 ] [] returned -1"});
    zt_pipe_debug_config("OFF", &status);
}

TEST_F(OpenFailures, ConsumeTheInterruptSoThatTheNextOpenSucceeds)
{
    {
        Plan plan{{.function = Function::calloc, .raising = SIGINT}};
        EXPECT_EQ(pipes::refused("no child", ""), interrupted);
    }
    EXPECT_EQ(pipes::close(pipes::open("no child", "")), 0U);
}

TEST_F(OpenFailures, ByAnExitOfTheProcessSayThatItIsEnding)
{
    zt::Status status;
    // As the exit does it in another thread.
    signal(SIGUSR1, [](int) { Zt_pipes[1] = nullptr, --Zt_used_pipes; });
    {
        const char* const envp[] = {"A=1", nullptr};
        Plan plan{{.function = Function::calloc, .nth = 2, .raising = SIGUSR1}};
        EXPECT_EQ(ZT_PIPE_OPEN("no child", "", nullptr, envp, &status), -1);
    }
    signal(SIGUSR1, SIG_DFL);
    EXPECT_EQ(status.code, ZT_PIPE_E_HANDLE);
    EXPECT_STREQ(status.sys_msg, "the process is ending in another thread");
    EXPECT_NE(std::string(status.what()).find(": the process is ending in another thread ["),
              std::string::npos)
        << status.what();
}

TEST_F(OpenFailures, LeaveNothingWhicheverAllocationFails)
{
    const char* const envp[] = {"A=1", nullptr};
    for (const char* options : {"PROGRAM MERGE_ENV", "COMMAND MERGE_ENV"}) {
        bool fired = true;
        for (int nth = 1; fired && nth < 20; ++nth) {
            zt::Status status;
            int handle;
            {
                Plan plan{{.function = Function::calloc, .nth = nth, .error = ENOMEM}};
                handle = ZT_PIPE_OPEN("cat", options, nullptr, envp, &status);
                fired = plan.fired();
            }
            EXPECT_EQ(handle > 0, status.code == 0);
            if (handle > 0) pipes::close(handle);
            EXPECT_EQ(leftovers.found(), Leftovers::none) << options << " without allocation " << nth;
        }
        EXPECT_FALSE(fired);
    }
}
