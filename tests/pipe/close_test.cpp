#include <gtest/gtest.h>
#include <zt/runtime/memory.h>
#include <zt/runtime/open_files.h>
#include <zt/runtime/options.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "tests/pipe/services.h"
#include "tests/support/closing.h"
#include "tests/support/faults.h"
#include "tests/support/tracefile.h"

using faults::Function;
using pipes::at;
using pipes::Category;
using pipes::Flag;

namespace {

using Close = CloseTest;

bool is_open(int handle)
{
    return pipes::block(handle) != nullptr;
}

}  // namespace

TEST_F(Close, DoesNothingWithoutARecord)
{
    const int handle = pipes::open("cat");
    EXPECT_EQ(ZT_PIPE_CLOSE(handle, "", nullptr), static_cast<int>(ZT_PIPE_E_NOSTATUS));
    EXPECT_TRUE(is_open(handle));
    EXPECT_EQ(close(handle, "NOKILL"), 0u);
}

TEST_F(Close, RefusesABadHandle)
{
    for (const int handle : {-7, 0, 1, 15, 16, 1000}) {
        EXPECT_EQ(close(handle), ZT_PIPE_E_HANDLE);
        EXPECT_EQ(fields(), record::failure(ZT_PIPE_E_HANDLE, at(routine, 1093),
                                            {{"iparm[0]", std::to_string(handle)}}));
    }
}

TEST_F(Close, RefusesAHandleThatIsClosedAlready)
{
    const int handle = pipes::open("true", "COMMAND");
    EXPECT_EQ(close(handle), 0u);
    EXPECT_EQ(close(handle), ZT_PIPE_E_HANDLE);
}

TEST_F(Close, RefusesAnUnknownOptionAndLeavesThePipeOpenAndUsable)
{
    const int handle = pipes::open("cat");
    EXPECT_EQ(close(handle, "NOWAIT BOGUS"), ZT_OPTION_E_UNKNOWN);
    EXPECT_EQ(fields(), record::failure(ZT_OPTION_E_UNKNOWN, at(routine, 3342), {{"sparm[0]", "BOGUS"}}));
    EXPECT_EQ(Zt_pipe_current, nullptr);
    pipes::write(handle, "still here\n");
    EXPECT_EQ(pipes::read_until(handle, "\n"), "still here\n");
    EXPECT_EQ(close(handle, "nokill"), 0u);
}

TEST_F(Close, RefusesOptionsThatAreMissingOrTooLong)
{
    const int handle = pipes::open("cat");
    EXPECT_EQ(close(handle, nullptr), ZT_PIPE_E_NULLARG);
    EXPECT_EQ(fields(), record::failure(ZT_PIPE_E_NULLARG, at(routine, 4061),
                                        {{"sparm[0]", "options"}, {"sparm[1]", routine}}));
    EXPECT_EQ(close(handle, std::string(257, ' ').c_str()), ZT_PIPE_E_TOOLONG);
    EXPECT_EQ(fields(), record::failure(ZT_PIPE_E_TOOLONG, at(routine, 4062),
                                        {{"sparm[0]", "options"}, {"iparm[0]", "257"}, {"iparm[1]", "256"}}));
    const std::string longest = "NOKILL" + std::string(250, ' ');
    EXPECT_EQ(close(handle, longest.c_str()), 0u);
}

TEST_F(Close, NeverCallsTheOptionProcessorForAnEmptyText)
{
    const int handle = pipes::open("no child", "");
    services::process_options = [](char*, zt_option*, int, zt_option_error* error) {
        *error = {4711, "refused"};
        return -1;
    };
    EXPECT_EQ(close(handle, " "), 4711u);
    EXPECT_EQ(fields(), record::failure(4711, at(routine, 3342), {{"sparm[0]", "refused"}}));
    EXPECT_TRUE(is_open(handle));
    EXPECT_EQ(close(handle, ""), 0u);
    services::process_options = nullptr;
    EXPECT_FALSE(is_open(handle));
}

TEST_F(Close, TakesItsOptionsInAnyCaseAndOrder)
{
    const int handle = pipes::open_lasting();
    const pid_t pid = pipes::block(handle)->pid;
    EXPECT_EQ(close(handle, "nowait, NoFree ,nokill"), 0u);
    EXPECT_EQ(fields(), record::cleared());
    end(pid);
}

TEST_F(Close, ReleasesTheHandleForTheNextOpen)
{
    int handles[5];
    for (int& handle : handles) handle = pipes::open("no child", "");
    const int used = Zt_used_pipes;
    EXPECT_EQ(close(handles[2]), 0u);
    EXPECT_EQ(fields(), record::cleared()) << "without a child nothing else is done";
    EXPECT_FALSE(is_open(handles[2]));
    EXPECT_EQ(Zt_used_pipes, used - 1);
    EXPECT_EQ(Zt_pipe_current, nullptr);
    EXPECT_EQ(pipes::open("no child", ""), handles[2]);
    for (const int handle : handles) EXPECT_EQ(close(handle), 0u);
}

TEST_F(Close, TakesItsOwnEntryOutOfTheRegistryOfOpenFiles)
{
    const int first = pipes::open("first", ""), second = pipes::open("second", "");
    const auto names = [] {
        std::string text;
        zt_ifile_list(
            6,
            [](const zt_file_entry* entry, void* context) {
                *static_cast<std::string*>(context) += std::string(entry->name) + " ";
            },
            &text);
        return text;
    };
    EXPECT_EQ(names(), "first second ");
    EXPECT_EQ(close(first), 0u);
    EXPECT_EQ(names(), "second ");
    EXPECT_EQ(close(second), 0u);
    EXPECT_EQ(names(), "");
}

TEST_F(Close, FreesTheBufferOfTheUnlimitedRead)
{
    const long before = zt_heapsize_class(2);
    const int handle = pipes::open("echo text", "COMMAND");
    EXPECT_EQ(pipes::read_all(handle), "text\n");
    EXPECT_EQ(close(handle), 0u);
    EXPECT_EQ(zt_heapsize_class(2), before);
}

TEST_F(Close, LeavesTheBufferToTheCallerWithNofree)
{
    for (const char* const kind : {"COMMAND", "PROGRAM"}) {
        const long before = zt_heapsize_class(2);
        const int handle = pipes::open("echo text", kind);
        char* text = nullptr;
        EXPECT_EQ(zt_pipe_read_unlimited(handle, &text, 0, nullptr, &status), 5);
        EXPECT_EQ(close(handle, "NOFREE"), 0u);
        EXPECT_GT(zt_heapsize_class(2), before) << "it is still counted as taken";
        EXPECT_STREQ(text, "text\n");
        zt_mem_ifree(2, text, __FILE__, __LINE__);
    }
}

TEST_F(Close, ReportsAnInterruptInsteadOfEverythingElseAndStillReleases)
{
    const int handle = pipes::open("exit 3", "COMMAND");
    {
        const faults::Plan plan{{.function = Function::pclose, .raising = SIGINT}};
        EXPECT_EQ(close(handle), ZT_PIPE_E_INTERRUPTED);
    }
    EXPECT_EQ(status.subcode, 0u);
    EXPECT_EQ(status.sys_errno, 0u);
    EXPECT_EQ(status.where, at(routine, 3694));
    EXPECT_FALSE(is_open(handle));
}

TEST_F(Close, ReportsAnInterruptOnTheEarlyExitsToo)
{
    const int handle = pipes::open("cat");
    const TraceFile trace;
    const Flag flag{Category::close, ZT_PIPE_PARMS};
    const struct {
        int handle;
        const char* options;
    } refused[] = {{99, ""}, {handle, "BOGUS"}};
    for (const auto& [named, options] : refused) {
        const faults::Plan plan{{.function = Function::write, .raising = SIGINT}};
        EXPECT_EQ(close(named, options), ZT_PIPE_E_INTERRUPTED);
        EXPECT_EQ(status.where, at(routine, 3694));
    }
    EXPECT_TRUE(is_open(handle));
    EXPECT_EQ(close(handle, "NOKILL"), 0u);
}

TEST_F(Close, TracesEntryAndExitWithItsParameters)
{
    const int handle = pipes::open("exit 3", "COMMAND");
    const TraceFile trace;
    const Flag flag{Category::close, ZT_PIPE_PARMS};
    close(handle, "NOWAIT");
    close(handle, "");
    close(handle, "NOFREE");
    EXPECT_EQ(
        trace.lines(),
        (Lines{"-> zt_ipipe_close: [1] [NOWAIT] []",
               "<-*zt_ipipe_close: [1] [NOWAIT] [11102 0 0 Must WAIT for a COMMAND pipe] returned 11102",
               "-> zt_ipipe_close: [1] [] []", "<-*zt_ipipe_close: [1] [] [10145 0 0 exit 3] returned 10145",
               "-> zt_ipipe_close: [1] [NOFREE] []",
               "<-*zt_ipipe_close: [1] [NOFREE] [10138 0 0 ] returned 10138"}));
}

TEST_F(Close, TracesOnlyFailuresWithExceptionsAlone)
{
    const TraceFile trace;
    const Flag flag{Category::close, ZT_PIPE_EXCEPTIONS};
    close(pipes::open("true", "COMMAND"));
    EXPECT_EQ(trace.lines(), Lines{});
    close(99);
    EXPECT_EQ(trace.lines(), (Lines{"<-*zt_ipipe_close: [99] [] [10138 0 0 ] returned 10138"}));
}

TEST_F(Close, UndoesAFailedOpenOfACommandThatNeverHadAStream)
{
    const struct {
        const char *program, *options;
        std::uint32_t code;
    } failing[] = {{"cat", "COMMAND STDERR=NOWHERE", ZT_PIPE_E_OPTVALUE},
                   {"", "COMMAND", ZT_PIPE_E_NOPROGRAM},
                   {"cat", "COMMAND MERGE_ENV", ZT_PIPE_E_NULLARG},
                   {"cat", "COMMAND", ZT_PIPE_E_START}};
    for (const auto& [program, options, code] : failing) {
        const faults::Plan plan{{.function = Function::popen, .error = EMFILE}};
        record::poison(status);
        EXPECT_EQ(ZT_PIPE_OPEN(program, options, nullptr, nullptr, &status), -1);
        EXPECT_EQ(status.code, code);
        EXPECT_EQ(faults::calls(Function::pclose), 0);
        EXPECT_FALSE(is_open(1));
    }
}
