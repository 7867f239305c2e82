#include <gtest/gtest.h>
#include <unistd.h>
#include <zt/ztpipe/internal.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "tests/support/faults.h"
#include "tests/support/forked_child.h"
#include "tests/support/leftovers.h"
#include "tests/support/record.h"
#include "tests/support/tracefile.h"
#include "tests/support/transfers.h"
#include "tests/support/waiting.h"

using faults::Function;
using pipes::at;

namespace {

constexpr char routine[] = "zt_pipe_popen";

// The launcher works on a block of the test's own, without an open around it.
class LaunchShell : public NothingLeftTest {
  protected:
    LaunchShell()
    {
        pipe.handle = 7;
        pipe.stderr_mode = ZT_PIPE_STDERR_COMBINE;
        record::poison(status);
    }

    void TearDown() override
    {
        if (pipe.fh != nullptr) pclose(pipe.fh);
        NothingLeftTest::TearDown();
    }

    std::uint32_t launch(const std::string& program, const char* const* argv = nullptr,
                         const char* const* envp = nullptr)
    {
        strcpy(pipe.program, program.c_str());
        return zt_pipe_popen(&pipe, argv, envp, &status);
    }

    std::string output()
    {
        std::string text;
        for (int c; (c = fgetc(pipe.fh)) != EOF;) text += static_cast<char>(c);
        pclose(pipe.fh);
        pipe.fh = nullptr;
        return text;
    }

    record::Fields too_long(int line, int length)
    {
        return record::failure(
            ZT_PIPE_E_TOOLONG, at(routine, line),
            {{"sparm[0]", "pipe name"}, {"iparm[0]", std::to_string(length)}, {"iparm[1]", "1024"}});
    }

    zt_pipe pipe{};
    zt::Status status;
};

// A command of this many characters that does nothing.
std::string nothing(size_t length)
{
    return ": " + std::string(length - 2, 'a');
}

}  // namespace

TEST_F(LaunchShell, RunsTheProgramTextWithItsErrorsCombined)
{
    EXPECT_EQ(launch(child("writes_both")), 0u);
    EXPECT_EQ(pipe.cmdline, child("writes_both") + " 2>&1");
    EXPECT_EQ(record::fields(status), record::cleared());
    EXPECT_EQ(output(), "out\nerr\n");
}

TEST_F(LaunchShell, SendsDiscardedErrorsToTheNullDevice)
{
    pipe.stderr_mode = ZT_PIPE_STDERR_DISCARD;
    EXPECT_EQ(launch(child("writes_both")), 0u);
    EXPECT_EQ(pipe.cmdline, child("writes_both") + " 2>/dev/null");
    EXPECT_EQ(output(), "out\n");
}

TEST_F(LaunchShell, LeavesTheParentsStandardErrorWhereErrorsAreIgnored)
{
    for (const std::uint32_t mode : {ZT_PIPE_STDERR_IGNORE, 7u}) {
        const TraceOnStandardError standard_error;
        pipe.stderr_mode = mode;
        EXPECT_EQ(launch(child("writes_both")), 0u);
        EXPECT_EQ(pipe.cmdline, child("writes_both"));
        EXPECT_EQ(output(), "out\n");
        EXPECT_EQ(standard_error.content(), "err\n");
    }
}

TEST_F(LaunchShell, NeverCombinesOnAWritingPipeButDiscardsInBothDirections)
{
    pipe.direction = ZT_PIPE_WRITES;
    EXPECT_EQ(launch("cat"), 0u);
    EXPECT_STREQ(pipe.cmdline, "cat");
    pclose(pipe.fh);
    pipe.stderr_mode = ZT_PIPE_STDERR_DISCARD;
    EXPECT_EQ(launch("cat"), 0u);
    EXPECT_STREQ(pipe.cmdline, "cat 2>/dev/null");
}

TEST_F(LaunchShell, OpensTheStreamForTheDirection)
{
    const TemporaryFile file;
    pipe.direction = ZT_PIPE_WRITES;
    EXPECT_EQ(launch("cat >" + file.path()), 0u);
    EXPECT_GE(fputs("for the child", pipe.fh), 0);
    pclose(pipe.fh);
    pipe.fh = nullptr;
    EXPECT_EQ(file.content(), "for the child");
}

TEST_F(LaunchShell, JoinsGivenWordsSoThatTheShellSeesTheSameWords)
{
    const char* const argv[] = {"printf", "%s|", "a b", "c'd", "$HOME", nullptr};
    EXPECT_EQ(launch("something else", argv), 0u);
    EXPECT_EQ(output(), "a b|c'd|$HOME|");
}

TEST_F(LaunchShell, WritesTheCommandLineAndTheStreamOnly)
{
    pipe.pid = 71, pipe.read_fd = 72, pipe.write_fd = 73;
    EXPECT_EQ(launch("true"), 0u);
    EXPECT_NE(pipe.fh, nullptr);
    EXPECT_EQ(pipe.pid, 71);
    EXPECT_EQ(pipe.read_fd, 72);
    EXPECT_EQ(pipe.write_fd, 73);
}

TEST_F(LaunchShell, RunsTheQuotedCommandInTheKornShell)
{
    pipe.korn = 1;
    EXPECT_EQ(launch("[[ ab == a* ]] && print -- 'it is'"), 0u);
    EXPECT_STREQ(pipe.cmdline, "ksh -c '[[ ab == a* ]] && print -- '\\''it is'\\''' 2>&1");
    EXPECT_EQ(output(), "it is\n");
}

TEST_F(LaunchShell, RedirectsTheKornShellsOwnMessagesToo)
{
    pipe.korn = 1;
    EXPECT_EQ(launch("no_such_command_at_all"), 0u);
    EXPECT_NE(output().find("no_such_command_at_all"), std::string::npos);
    pipe.stderr_mode = ZT_PIPE_STDERR_DISCARD;
    EXPECT_EQ(launch("no_such_command_at_all"), 0u);
    EXPECT_EQ(output(), "");
}

TEST_F(LaunchShell, AcceptsADiscardingCommandOf1012CharactersAndNoLongerOne)
{
    pipe.stderr_mode = ZT_PIPE_STDERR_DISCARD;
    EXPECT_EQ(launch(nothing(1012)), 0u);
    EXPECT_EQ(strlen(pipe.cmdline), 1024u);
    EXPECT_EQ(output(), "");
    record::poison(status);
    EXPECT_EQ(launch(nothing(1013)), ZT_PIPE_E_TOOLONG);
    EXPECT_EQ(record::fields(status), too_long(1960, 1025));
    EXPECT_EQ(pipe.cmdline, nothing(1013));
}

TEST_F(LaunchShell, AcceptsACombiningCommandOf1019CharactersAndNoLongerOne)
{
    EXPECT_EQ(launch(nothing(1019)), 0u);
    EXPECT_EQ(strlen(pipe.cmdline), 1024u);
    EXPECT_EQ(output(), "");
    record::poison(status);
    EXPECT_EQ(launch(nothing(1020)), ZT_PIPE_E_TOOLONG);
    EXPECT_EQ(record::fields(status), too_long(1971, 1025));
}

TEST_F(LaunchShell, ChecksTheUnquotedLengthOfAKornCommandPlus14)
{
    pipe.korn = 1;
    EXPECT_EQ(launch(nothing(1010)), 0u);
    EXPECT_EQ(strlen(pipe.cmdline), 1024u);
    EXPECT_EQ(output(), "");
    record::poison(status);
    EXPECT_EQ(launch(nothing(1011)), ZT_PIPE_E_TOOLONG);
    EXPECT_EQ(record::fields(status), too_long(1945, 1025));
}

TEST_F(LaunchShell, RefusesAKornCommandWhoseQuotesDoNotFit)
{
    pipe.korn = 1;
    EXPECT_EQ(launch(": " + std::string(300, '\'')), ZT_PIPE_E_TOOLONG);
    EXPECT_EQ(record::fields(status), too_long(4012, 7 + 2 + 2 + 4 * 300));
}

TEST_F(LaunchShell, RefusesWordsThatDoNotFit)
{
    const std::string word(1020, 'w');
    const char* const argv[] = {":", word.c_str(), "abc", nullptr};
    EXPECT_EQ(launch("words", argv), ZT_PIPE_E_TOOLONG);
    record::Fields expected = too_long(4011, 1026);
    expected["sparm[0]"] = "argv";
    EXPECT_EQ(record::fields(status), expected);
}

TEST_F(LaunchShell, StartsNothingAndTakesNoLockForACommandThatIsTooLong)
{
    const faults::Plan only_counting{};
    Zt_pipe_mtx.lock();
    EXPECT_EQ(launch(nothing(1020)), ZT_PIPE_E_TOOLONG);
    Zt_pipe_mtx.unlock();
    EXPECT_EQ(faults::calls(Function::popen), 0);
    EXPECT_EQ(pipe.fh, nullptr);
}

TEST_F(LaunchShell, GivesTheChildTheEnvironmentAndKeepsItsOwn)
{
    char** const own = environ;
    const char* const envp[] = {"ZT_FLAVOUR=salty", nullptr};
    EXPECT_EQ(launch(child("prints_env ZT_FLAVOUR"), nullptr, envp), 0u);
    EXPECT_EQ(environ, own);
    EXPECT_EQ(output(), "salty\n");
}

TEST_F(LaunchShell, LetsTheChildInheritWithoutAnEnvironmentOfItsOwn)
{
    char** const own = environ;
    const std::string path = getenv("PATH");
    EXPECT_EQ(launch(child("prints_env PATH")), 0u);
    EXPECT_EQ(environ, own);
    EXPECT_EQ(output(), path + "\n");
}

TEST_F(LaunchShell, TakesTheTablesLockEvenWithoutAnEnvironment)
{
    const faults::Plan only_counting{};
    std::atomic<pid_t> launcher{0};
    std::atomic<bool> done{false};
    Zt_pipe_mtx.lock();
    std::thread thread([&] {
        launcher = forked::thread_id();
        launch("true");
        done = true;
    });
    EXPECT_TRUE(wait_until([&] { return done || (launcher != 0 && forked::sleeps(launcher)); }));
    EXPECT_EQ(faults::calls(Function::popen), 0);
    Zt_pipe_mtx.unlock();
    thread.join();
    EXPECT_EQ(faults::calls(Function::popen), 1);
}

// The vector may not be freed with the open that made it.
TEST_F(LaunchShell, LeavesTheChildsEnvironmentInAProcessWithoutAny)
{
    forked::Child process([] {
        environ = nullptr;
        const char* const envp[] = {"ZT_FLAVOUR=salty", nullptr};
        pipes::close(pipes::open("true", "COMMAND", nullptr, envp));
        forked::say(environ != nullptr && environ[0] != nullptr ? environ[0] : "nothing");
    });
    EXPECT_EQ(process.said(), "ZT_FLAVOUR=salty");
    EXPECT_EQ(process.exit_code(), 0);
}

TEST_F(LaunchShell, NamesTheProgramAndNotTheBuiltLineWhenTheShellCannotBeStarted)
{
    char** const own = environ;
    const char* const envp[] = {"A=1", nullptr};
    const faults::Plan plan{{.function = Function::popen, .error = EMFILE}};
    EXPECT_EQ(launch("cat", nullptr, envp), ZT_PIPE_E_START);
    EXPECT_EQ(record::fields(status), record::failure(ZT_PIPE_E_START, at(routine, 2014),
                                                      {{"sys_errno", std::to_string(EMFILE)},
                                                       {"sys_msg", strerror(EMFILE)},
                                                       {"sparm[0]", "cat"},
                                                       {"sparm[1]", "cat"},
                                                       {"msg", "cat"}}));
    EXPECT_EQ(pipe.fh, nullptr);
    EXPECT_STREQ(pipe.cmdline, "cat 2>&1");
    EXPECT_EQ(environ, own);
    EXPECT_EQ(faults::calls(Function::popen), 1);
}
