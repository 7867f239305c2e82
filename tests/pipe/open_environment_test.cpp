// The environment that an open gives its child.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>
#include <zt/runtime/memory.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <vector>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/pipes.h"

using faults::Function;
using faults::Plan;

namespace {

class OpenEnvironment : public NothingLeftTest {
  protected:
    void SetUp() override
    {
        setenv("ZT_TEST_PARENT", "parent", 1);
        setenv("ZT_TEST_BOTH", "parent", 1);
        leftovers = Leftovers();
    }

    /// What a child says that is started with this environment.
    static std::string said(const std::string& program, const char* options, const char* const* envp)
    {
        const int handle = pipes::open(program, options, nullptr, envp);
        const std::string text = pipes::read_all(handle);
        pipes::close(handle);
        return text;
    }
};

const char* const two[] = {"ZT_TEST_BOTH=child", "ZT_TEST_CHILD=child", nullptr};
const char three_values[] = "echo $ZT_TEST_PARENT-$ZT_TEST_BOTH-$ZT_TEST_CHILD";

/// The process has no environment at all while this lives.
class NoEnvironment {
  public:
    NoEnvironment() { environ = nullptr; }
    ~NoEnvironment()
    {
        zt_mem_ifree(2, environ, __FILE__, __LINE__);
        environ = own_;
    }
    NoEnvironment(const NoEnvironment&) = delete;
    NoEnvironment& operator=(const NoEnvironment&) = delete;

  private:
    char** const own_ = environ;
};

}  // namespace

TEST_F(OpenEnvironment, IsTheParentsWhenNoneIsGiven)
{
    EXPECT_EQ(said(three_values, "COMMAND", nullptr), "parent-parent-\n");
    EXPECT_EQ(said(child("prints_env ZT_TEST_PARENT"), "PROGRAM", nullptr), "parent\n");
}

TEST_F(OpenEnvironment, IsTheGivenOneAlone)
{
    EXPECT_EQ(said(child("prints_env"), "PROGRAM", two), "ZT_TEST_BOTH=child\nZT_TEST_CHILD=child\n");
    EXPECT_EQ(said(three_values, "COMMAND", two), "-child-child\n");
}

TEST_F(OpenEnvironment, MergedReplacesAndAddsNames)
{
    EXPECT_EQ(said(three_values, "COMMAND MERGE_ENV", two), "parent-child-child\n");
    EXPECT_EQ(said(child("prints_env ZT_TEST_PARENT"), "PROGRAM MERGE_ENV", two), "parent\n");
    EXPECT_EQ(said(child("prints_env ZT_TEST_BOTH"), "PROGRAM MERGE_ENV", two), "child\n");
}

TEST_F(OpenEnvironment, MayBeEmpty)
{
    const char* const none[] = {nullptr};
    EXPECT_EQ(said(child("prints_env"), "PROGRAM", none), "");
}

TEST_F(OpenEnvironment, OfAPipeWithoutAChildIsCombinedAndGivenBack)
{
    const int handle = pipes::open("no child", "", nullptr, two);
    EXPECT_EQ(zt_heapsize_class(2), static_cast<int>(sizeof(zt_pipe)));
    pipes::close(handle);
}

TEST_F(OpenEnvironment, LeavesTheParentsAsItWas)
{
    char** const own = environ;
    said("true", "COMMAND MERGE_ENV", two);
    EXPECT_EQ(environ, own);
    EXPECT_STREQ(getenv("ZT_TEST_BOTH"), "parent");
    EXPECT_EQ(getenv("ZT_TEST_CHILD"), nullptr);
}

TEST_F(OpenEnvironment, MergedWithNothingGivenIsRefused)
{
    const record::Fields expected = record::failure(10036, "ztpipe(zt_ipipe_open):2685",
                                                    {{"sparm[0]", "envp"}, {"sparm[1]", "zt_ipipe_open"}});
    for (const char* options : {"MERGE_ENV", "PROGRAM MERGE_ENV", "COMMAND MERGE_ENV READ"})
        EXPECT_EQ(pipes::refused("true", options), expected) << options;
}

TEST_F(OpenEnvironment, ThatCannotBeCombinedFailsTheOpen)
{
    const record::Fields expected =
        record::failure(20000 + ENOMEM, "ztpipe(zt_ipipe_open):2734",
                        {{"sys_errno", std::to_string(ENOMEM)}, {"sys_msg", strerror(ENOMEM)}});
    for (const char* options : {"", "COMMAND", "PROGRAM MERGE_ENV"}) {
        // The first allocation is the control block.
        Plan plan{{.function = Function::calloc, .nth = 2, .from_then_on = true, .error = ENOMEM},
                  {.function = Function::malloc, .from_then_on = true, .error = ENOMEM}};
        EXPECT_EQ(pipes::refused("/bin/true", options, nullptr, two), expected) << options;
        EXPECT_EQ(faults::calls(Function::popen) + faults::calls(Function::fork), 0);
    }
}

TEST_F(OpenEnvironment, OfAProcessWithoutAnyStaysInstalledAfterAShellLaunchAndAlive)
{
    const NoEnvironment none;
    EXPECT_EQ(said("echo $ZT_TEST_CHILD", "COMMAND", two), "child\n");
    EXPECT_STREQ(getenv("ZT_TEST_CHILD"), "child") << "neither restored nor freed";
    // A later launch finds an environment and gives it back.
    const char* const other[] = {"ZT_TEST_CHILD=other", nullptr};
    EXPECT_EQ(said("echo $ZT_TEST_CHILD", "COMMAND", other), "other\n");
    EXPECT_STREQ(getenv("ZT_TEST_CHILD"), "child");
}

TEST_F(OpenEnvironment, OfAProcessWithoutAnyIsNotTouchedByAProgram)
{
    const NoEnvironment none;
    EXPECT_EQ(said(child("prints_env"), "PROGRAM MERGE_ENV", two),
              "ZT_TEST_BOTH=child\nZT_TEST_CHILD=child\n");
    EXPECT_EQ(environ, nullptr);
}
