// Which of several failures of one close the caller gets to see.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

#include "tests/support/closing.h"
#include "tests/support/faults.h"

using faults::Function;
using pipes::at;

using CloseOutcome = CloseTest;

TEST_F(CloseOutcome, ReportsADescriptorThatCannotBeClosedAndReleasesThePipe)
{
    const struct {
        int nth;
        bool both;
        int line;
    } cases[] = {{1, false, 3601}, {2, false, 3609}, {1, true, 3609}};
    for (const auto& [nth, both, line] : cases) {
        const int handle = pipes::open("cat");
        const faults::Plan plan{
            {.function = Function::close, .nth = nth, .from_then_on = both, .error = EIO}};
        EXPECT_EQ(close(handle, "NOKILL"), ZT_PIPE_E_CLOSE);
        EXPECT_EQ(fields(), errno_report(ZT_PIPE_E_CLOSE, line, EIO, "cat"));
        EXPECT_EQ(pipes::block(handle), nullptr);
    }
}

TEST_F(CloseOutcome, KeepsAnEarlierReportWhenTheChildHadToBeKilled)
{
    const int handle = pipes::open("cat");
    const faults::Plan plan{{.function = Function::close, .error = EIO}};
    EXPECT_EQ(close(handle), ZT_PIPE_E_CLOSE);
    EXPECT_EQ(fields(), errno_report(ZT_PIPE_E_CLOSE, 3601, EIO, "cat"));
}

TEST_F(CloseOutcome, ReportsAFailedKillInsteadOfAFailedClose)
{
    const int handle = pipes::open_lasting();
    const pid_t pid = pipes::block(handle)->pid;
    {
        const faults::Plan plan{{.function = Function::close, .error = EIO},
                                {.function = Function::kill, .error = EPERM}};
        EXPECT_EQ(close(handle, "NOWAIT"), ZT_PIPE_E_KILL);
    }
    EXPECT_EQ(fields(), errno_report(ZT_PIPE_E_KILL, 3636, EPERM, child("never_reads")));
    EXPECT_EQ(pipes::block(handle), nullptr);
    end(pid);
}

TEST_F(CloseOutcome, ReportsTheChildsEndInsteadOfAFailedClose)
{
    const int handle = open_ended("exits_with 3");
    const faults::Plan plan{{.function = Function::close, .from_then_on = true, .error = EIO}};
    EXPECT_EQ(close(handle), ZT_PIPE_S_ERROR);
    EXPECT_STREQ(status.where, "");
    EXPECT_STREQ(status.sys_msg, "");
}

TEST_F(CloseOutcome, KeepsAFailedCloseWhenTheChildEndedNormally)
{
    const int handle = open_ended("exits_with 0");
    const faults::Plan plan{{.function = Function::close, .error = EIO}};
    EXPECT_EQ(close(handle), ZT_PIPE_E_CLOSE);
}

TEST_F(CloseOutcome, ReportsAFailedWaitInsteadOfAFailedClose)
{
    for (const auto& [error, code] : {std::pair{EINVAL, ZT_PIPE_E_WAIT}, {0, ZT_PIPE_E_ACTIVE}}) {
        const int handle = pipes::open("cat");
        const pid_t pid = pipes::block(handle)->pid;
        faults::Fault failed_wait{.function = Function::waitpid, .nth = 2, .error = error};
        if (error == 0) failed_wait.result = 0;
        {
            const faults::Plan plan{{.function = Function::close, .error = EIO}, failed_wait};
            EXPECT_EQ(close(handle, "NOKILL"), code);
        }
        EXPECT_EQ(status.where, at("zt_pipe_status", error != 0 ? 1490 : 1502));
        EXPECT_EQ(pipes::block(handle), nullptr);
        collect(pid);
    }
}

TEST_F(CloseOutcome, DropsAFailedWaitAfterAKill)
{
    const int handle = pipes::open_lasting();
    const pid_t pid = pipes::block(handle)->pid;
    {
        const faults::Plan plan{{.function = Function::waitpid, .nth = 2, .error = EINVAL}};
        EXPECT_EQ(close(handle), ZT_PIPE_S_ABNORMAL);
    }
    EXPECT_EQ(fields(), killed(child("never_reads")));
    collect(pid);
}

TEST_F(CloseOutcome, ReportsAnInterruptInsteadOfTheKilledChild)
{
    const int handle = pipes::open_lasting();
    const faults::Plan plan{{.function = Function::kill, .raising = SIGINT}};
    EXPECT_EQ(close(handle), ZT_PIPE_E_INTERRUPTED);
    EXPECT_EQ(status.where, at(routine, 3694));
    EXPECT_EQ(status.sys_errno, 0u);
    EXPECT_EQ(pipes::block(handle), nullptr);
}
