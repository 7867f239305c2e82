// An exit waits for shells, whose pipes other children may hold open: it must not wait for ever.
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "tests/support/forked_child.h"
#include "tests/support/orphans.h"
#include "tests/support/tracefile.h"
#include "tests/support/transfers.h"
#include "tests/support/waiting.h"

using forked::Child;

TEST(ExitWithPipesHeldOpen, TellsTheProgramsToEndBeforeItWaitsForAShell)
{
    orphans::adopt();
    const TemporaryFile file;
    Child process([&] {
        orphans::prepare();
        pipes::write(pipes::open("cat >" + file.path(), "COMMAND WRITE"), "still buffered");
        orphans::open_program();
        exit(3);
    });
    EXPECT_EQ(process.exit_code(), 3);
    EXPECT_EQ(file.content(), "still buffered");
    // Collected by the exit or left to the test, as it comes.
    const pid_t program = orphans::number_after("pid ", process.said());
    EXPECT_TRUE(wait_until([=] { return !orphans::lives(program); }));
}

// What runs here runs when the exit has begun: another thread starts nothing new any more.
TEST(ExitWithPipesHeldOpen, LetsNoOtherThreadStartAnything)
{
    Child process([] {
        static const struct AtTheEnd {
            ~AtTheEnd()
            {
                std::thread([] {
                    zt::Status status;
                    const int handle = ZT_PIPE_OPEN("cat", "PROGRAM", nullptr, nullptr, &status);
                    forked::say(status.where);
                    forked::say(" ", handle);
                }).join();
                forked::say(" own ", pipes::open("no child", ""));
            }
        } at_the_end;
        pipes::open("no child", "");
    });
    EXPECT_NE(process.said().find("ztpipe(zt_ipipe_open):4006 -1  own 1"), std::string::npos)
        << process.said();
    EXPECT_EQ(process.exit_code(), 0);
}
