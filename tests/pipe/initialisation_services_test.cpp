// What the first open asks of the runtime, in which order, and what comes of a refusal.
#include <gtest/gtest.h>
#include <string.h>

#include "tests/pipe/services.h"
#include "tests/support/faults.h"
#include "tests/support/pipes.h"

using services::Lines;
using services::Log;

namespace {

const std::string file_init = "zt_file_init(0)";
const std::string at_exit = "zt_atexit(zt_pipe_cleanup, zt, )";
const std::string on_sigpipe = "zt_signal(zt_pipe_signal, zt, SIGPIPE, REINSTALL)";
const std::string debug_init = "zt_pipe_debug_init";

/// Each test begins without a table.
class InitialisationServices : public ::testing::Test {
  protected:
    void SetUp() override { zt_pipe_cleanup(0); }
    void TearDown() override { zt_pipe_cleanup(0); }

    /// What is called when this service fails.
    Lines calls_with_failing(const std::string& service)
    {
        zt_pipe_cleanup(0);
        Log log;
        log.fail(service, 4711);
        EXPECT_EQ(zt_pipe_init(&status), 4711U);
        EXPECT_EQ(status.code, 4711U);
        return log.calls("zt_");
    }

    zt::Status status;
};

}  // namespace

TEST_F(InitialisationServices, AreAskedInTheirOrderWithTheLockHeld)
{
    Log log;
    EXPECT_EQ(zt_pipe_init(&status), 0U);
    EXPECT_EQ(log.calls(), (Lines{"lock", "zt_mem_icalloc(1, 16, 8, ztpipe, 281)", file_init, at_exit,
                                  on_sigpipe, debug_init, "unlock"}));
}

TEST_F(InitialisationServices, AreAskedNoFurtherAfterOneHasFailed)
{
    const std::string table = "zt_mem_icalloc(1, 16, 8, ztpipe, 281)";
    EXPECT_EQ(calls_with_failing("zt_file_init"), (Lines{table, file_init}));
    EXPECT_EQ(calls_with_failing("zt_atexit"), (Lines{table, file_init, at_exit}));
    EXPECT_EQ(calls_with_failing("zt_signal"), (Lines{table, file_init, at_exit, on_sigpipe}));
}

TEST_F(InitialisationServices, ThatFailFailTheOpenAndAreNotAskedAgain)
{
    Log log;
    log.fail("zt_file_init", 4711);
    EXPECT_EQ(pipes::refused("no child", "").at("code"), "4711");
    EXPECT_EQ(Zt_avail_pipes, 16);
    const int handle = pipes::open("no child", "");
    EXPECT_EQ(log.calls("zt_file_init").size(), 1U);
    EXPECT_EQ(log.calls("zt_atexit"), Lines{});
    pipes::close(handle);
}

TEST_F(InitialisationServices, AreLeftAloneByALaterOpen)
{
    EXPECT_EQ(zt_pipe_init(&status), 0U);
    Log log;
    EXPECT_EQ(zt_pipe_init(&status), 0U);
    EXPECT_EQ(log.calls(), (Lines{"lock", "unlock"}));
}

TEST_F(InitialisationServices, AreNotNeededToCountFromOneAgain)
{
    Zt_used_pipes = 5;
    EXPECT_EQ(zt_pipe_init(&status), 0U);
    EXPECT_EQ(Zt_used_pipes, 1);
}

TEST_F(InitialisationServices, ThatLackMemoryAreTheOutcomeWhateverTheArguments)
{
    const std::string too_long(1025, 'x');
    const char* const no_words[] = {nullptr};
    const struct {
        const char *program, *options;
        const char* const* argv;
    } cases[] = {{nullptr, "", nullptr},     {too_long.c_str(), "", nullptr},
                 {"true", nullptr, nullptr}, {"true", "BOGUS", nullptr},
                 {"", "", nullptr},          {"true", "", no_words}};
    for (const auto& [program, options, argv] : cases) {
        const faults::Plan plan{{.function = faults::Function::calloc, .error = ENOMEM}};
        const record::Fields fields = pipes::refused(program, options, argv);
        EXPECT_EQ(fields.at("code"), "10021");
        EXPECT_EQ(fields.at("where"), "ztpipe(zt_pipe_init):284");
        EXPECT_EQ(fields.at("object"), "Zt_pipes");
    }
}
