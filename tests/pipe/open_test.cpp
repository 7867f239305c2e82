// Opening a pipe: its arguments, its child, its place in the registry, its trace lines.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <zt/runtime/open_files.h>

#include <cstring>
#include <vector>

#include "tests/support/leftovers.h"
#include "tests/support/pipes.h"
#include "tests/support/tracefile.h"

namespace {

class Open : public NothingLeftTest {
  protected:
    static record::Fields failure(std::uint32_t code, int line, const record::Fields& and_then_set)
    {
        return record::failure(code, "ztpipe(zt_ipipe_open):" + std::to_string(line), and_then_set);
    }

    zt::Status status;
};

class OpenTrace : public Open {
  protected:
    void SetUp() override { leftovers = Leftovers(); }  // the file's variable is no leftover

    void trace_only(const char* options) { EXPECT_EQ(zt_pipe_debug_config(options, &status), 0U); }
    void TearDown() override
    {
        trace_only("OFF");
        Open::TearDown();
    }

    TraceFile trace;
};

/// What the registry shows of the pipes.
std::vector<std::string> registered()
{
    std::vector<std::string> entries;
    zt_ifile_list(
        6,
        [](const zt_file_entry* entry, void* list) {
            static_cast<std::vector<std::string>*>(list)->push_back(
                entry->name + (" " + std::string(entry->file)) + ":" + std::to_string(entry->line));
        },
        &entries);
    return entries;
}

}  // namespace

TEST_F(Open, WithoutOptionsGivesAHandleWithoutAChild)
{
    const int handle = pipes::open("no child", "");
    EXPECT_GE(handle, 1);
    const zt_pipe& pipe = *pipes::block(handle);
    EXPECT_EQ(pipe.handle, static_cast<std::uint32_t>(handle));
    EXPECT_EQ(pipe.mode, ZT_PIPE_MODE_NONE);
    EXPECT_STREQ(pipe.program, "no child");
    EXPECT_EQ(pipe.wait_status, -1);
    EXPECT_EQ(pipe.fh, nullptr);
    EXPECT_EQ(pipe.pid | pipe.read_fd | pipe.write_fd | pipe.last_signal | pipe.buffer_size, 0);
    EXPECT_EQ(pipe.buffer, nullptr);
    EXPECT_STREQ(pipe.cmdline, "");
    EXPECT_EQ(pipes::close(handle), 0U);
}

TEST_F(Open, OfAProgramHoldsAConversation)
{
    const int handle = pipes::open(child("echo_upper"));
    for (const char* line : {"hello\n", "again\n"}) pipes::write(handle, line);
    EXPECT_EQ(pipes::read_until(handle, "AGAIN\n"), "HELLO\nAGAIN\n");
    EXPECT_GT(pipes::block(handle)->pid, 0);
    pipes::close(handle);  // the child may end with its input before the signal comes
}

TEST_F(Open, OfACommandRunsItInTheShell)
{
    const int handle = pipes::open("echo one; echo two | tr a-z A-Z", "COMMAND");
    EXPECT_NE(pipes::block(handle)->fh, nullptr);
    EXPECT_EQ(pipes::read_all(handle), "one\nTWO\n");
    EXPECT_EQ(pipes::close(handle), 0U);
}

TEST_F(Open, ClearsTheRecordAndLeavesItSo)
{
    record::poison(status);
    const int handle = ZT_PIPE_OPEN("/bin/cat", "PROGRAM", nullptr, nullptr, &status);
    EXPECT_EQ(record::fields(status), record::cleared());
    pipes::close(handle);
}

TEST_F(Open, PassesTheWordsOfTheVectorOnAsTheyAre)
{
    const std::string file = child("prints_words");
    const char* words[] = {file.c_str(), "two words", "", "it's", nullptr};
    const int handle = pipes::open("only a name", "PROGRAM", words);
    EXPECT_EQ(pipes::read_all(handle), "|" + file + "|\n|two words|\n||\n|it's|\n");
    EXPECT_STREQ(pipes::block(handle)->program, "only a name");
    pipes::close(handle);
}

TEST_F(Open, OfAMissingProgramSucceedsAndTheChildEndsWith127)
{
    const int handle = pipes::open("/no/such/program");
    EXPECT_EQ(pipes::close(handle, "NOKILL"), ZT_PIPE_S_ERROR);
}

TEST_F(Open, WithoutARecordIsMinusOneAndNothingElseHappens)
{
    EXPECT_EQ(ZT_PIPE_OPEN("/bin/cat", "PROGRAM", nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(zt_ipipe_open(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0), -1);
}

TEST_F(Open, OfNoProgramTextIsRefused)
{
    EXPECT_EQ(pipes::refused(nullptr, "PROGRAM"),
              failure(10036, 2544, {{"sparm[0]", "pipe name"}, {"sparm[1]", "zt_ipipe_open"}}));
}

TEST_F(Open, OfAnEmptyProgramTextIsRefused)
{
    EXPECT_EQ(pipes::refused("", "COMMAND"), failure(10134, 2691, {}));
    EXPECT_EQ(pipes::refused("", ""), failure(10134, 2691, {}));
}

TEST_F(Open, OfAProgramTextOf1024CharactersIsAccepted)
{
    const std::string text = ": " + std::string(1022, 'x');
    for (const char* options : {"", "COMMAND STDERR=IGNORE", "PROGRAM"}) {
        const int handle = pipes::open(text, options);
        EXPECT_EQ(pipes::block(handle)->program, text);
        EXPECT_EQ(pipes::block(handle)->program[1024], '\0');
        pipes::close(handle);
    }
}

TEST_F(Open, OfAProgramTextOf1025CharactersIsRefused)
{
    for (const std::size_t length : {1025U, 1000000U})
        EXPECT_EQ(
            pipes::refused(std::string(length, 'x').c_str(), "COMMAND"),
            failure(10037, 2549,
                    {{"sparm[0]", "pipe name"}, {"iparm[0]", std::to_string(length)}, {"iparm[1]", "1024"}}));
}

TEST_F(Open, WithAnEmptyVectorIsRefused)
{
    const char* words[] = {nullptr};
    for (const char* options : {"PROGRAM", "COMMAND", ""})
        EXPECT_EQ(pipes::refused("/bin/cat", options, words),
                  failure(10036, 4005, {{"sparm[0]", "argv"}, {"sparm[1]", "zt_ipipe_open"}}));
}

TEST_F(Open, LooksAtTheProgramBeforeTheOptions)
{
    EXPECT_EQ(pipes::refused(nullptr, nullptr).at("where"), "ztpipe(zt_ipipe_open):2544");
    EXPECT_EQ(pipes::refused(std::string(1025, 'x').c_str(), nullptr).at("where"),
              "ztpipe(zt_ipipe_open):2549");
    EXPECT_EQ(pipes::refused("", "BOGUS").at("where"), "ztpipe(zt_ipipe_open):2584");
    EXPECT_EQ(pipes::refused("", "MERGE_ENV").at("where"), "ztpipe(zt_ipipe_open):2685");
}

TEST_F(Open, EntersThePipeWithItsCallersPlace)
{
    const int handle = zt_ipipe_open("true", "COMMAND", nullptr, nullptr, &status, "caller.cpp", 12);
    const int childless = zt_ipipe_open("no child", "", nullptr, nullptr, &status, "other.cpp", 34);
    std::vector<std::string> entries = registered();
    EXPECT_EQ(entries, (std::vector<std::string>{"true caller.cpp:12", "no child other.cpp:34"}));
    pipes::close(childless);
    pipes::close(handle);
    EXPECT_EQ(registered(), std::vector<std::string>{});
}

TEST_F(Open, MayBeCalledWithoutAPlace)
{
    const int handle = zt_ipipe_open("no child", "", nullptr, nullptr, &status, nullptr, 0);
    EXPECT_EQ(registered(), std::vector<std::string>{"no child :0"});
    pipes::close(handle);
}

TEST_F(Open, ByTheMacroNamesThisFile)
{
    const int handle = ZT_PIPE_OPEN("no child", "", nullptr, nullptr, &status);
    const int line = __LINE__ - 1;
    ASSERT_EQ(registered().size(), 1U);
    EXPECT_TRUE(registered()[0].ends_with("open_test.cpp:" + std::to_string(line))) << registered()[0];
    pipes::close(handle);
}

TEST_F(OpenTrace, WithParmsIsAnEntryAndAnExitLine)
{
    trace_only("PARMS='open'");
    const int handle = pipes::open("no child", "BINARY, SIZE=5");
    EXPECT_EQ(trace.lines(), (Lines{"-> zt_ipipe_open: [no child] [BINARY, SIZE=5] [] []",
                                    "<- zt_ipipe_open: [no child] [BINARY, SIZE=5] [0 0 0 ] [] returned 1"}));
    pipes::close(handle);
}

TEST_F(OpenTrace, OfAFailureIsMarkedAndShowsTheRecord)
{
    trace_only("PARMS='open'");
    pipes::refused("true", "COMMAND PASSWORD=x");
    EXPECT_EQ(trace.lines(),
              (Lines{"-> zt_ipipe_open: [true] [COMMAND PASSWORD=x] [] []",
                     "<-*zt_ipipe_open: [true] [COMMAND PASSWORD=x] [11108 0 0 PASSWORD w/o USERNAME] [] "
                     "returned -1"}));
}

TEST_F(OpenTrace, OfABadProgramTextHasNoEntryLine)
{
    trace_only("PARMS='open'");
    pipes::refused(nullptr, "");
    EXPECT_EQ(trace.lines(), Lines{"<-*zt_ipipe_open: [(null)] [] [10036 0 0 ] [] returned -1"});
}

TEST_F(OpenTrace, OfNullOptionsShowsThem)
{
    trace_only("PARMS='open'");
    pipes::refused("true", nullptr);
    EXPECT_EQ(trace.lines().back(), "<-*zt_ipipe_open: [true] [(null)] [10036 0 0 ] [] returned -1");
}

TEST_F(OpenTrace, WithExceptionsOnlyIsNothingForASuccessAndTheExitLineForAFailure)
{
    trace_only("EXCEPTIONS='open'");
    pipes::close(pipes::open("true", "COMMAND"));
    EXPECT_EQ(trace.lines(), Lines{});
    pipes::refused("", "COMMAND");
    EXPECT_EQ(trace.lines(), Lines{"<-*zt_ipipe_open: [] [COMMAND] [10134 0 0 ] [] returned -1"});
}

TEST_F(OpenTrace, ShowsTheLaunchBetweenEntryAndExit)
{
    trace_only("PARMS='open'");
    const int handle = pipes::open("true", "COMMAND");
    const std::string number = std::to_string(handle);
    EXPECT_EQ(trace.lines(), (Lines{"-> zt_ipipe_open: [true] [COMMAND] [] []",
                                    "-> zt_pipe_popen: [" + number + "] [] [] []",
                                    "<- zt_pipe_popen: [" + number + "] [] [] [0 0 0 ] returned 0",
                                    "<- zt_ipipe_open: [true] [COMMAND] [0 0 0 ] [] returned " + number}));
    pipes::close(handle);
}

TEST_F(OpenTrace, IsNothingOfAnyOperationWithoutFlags)
{
    char text[512];
    char* result;
    for (const char* flags : {"OFF", "CLOCKS MEMORY"}) {
        trace_only(flags);
        const int handle = pipes::open(child("echo_lines"));
        pipes::write(handle, "x\n");
        zt_pipe_read(handle, text, 2, nullptr, &status);
        zt_pipe_read(-1, text, 2, nullptr, &status);
        zt_pipe_read_unlimited(-1, &result, 0, nullptr, &status);
        zt_pipe_debug_settings(text, &status);
        zt_pipe_termination(true, &status);
        pipes::close(handle);
        pipes::close(handle);
        pipes::refused("", "");
    }
    EXPECT_EQ(trace.lines(), Lines{});
}
