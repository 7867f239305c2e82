// The verdict on how a child ended.
#include <gtest/gtest.h>
#include <signal.h>
#include <zt/runtime/interrupt.h>

#include "tests/support/leftovers.h"
#include "tests/support/pipes.h"

namespace {

class Termination : public ::testing::Test {
  protected:
    /// A record as a read leaves it: success, with the child's class beside it.
    void given(std::uint32_t subcode)
    {
        record::poison(status);
        status.clear();
        status.subcode = subcode;
    }

    /// That record with these fields instead.
    static record::Fields then(std::uint32_t code, std::uint32_t subcode, const char* text)
    {
        return record::cleared(
            {{"code", std::to_string(code)}, {"subcode", std::to_string(subcode)}, {"sparm[0]", text}});
    }

    zt::Status status;
};

class TerminationOfAChild : public NothingLeftTest {
  protected:
    /// Reads all that a child writes, and with it how the child ended.
    void read_to_the_end(const std::string& command)
    {
        const char* words[] = {"sh", "-c", command.c_str(), nullptr};
        const int handle = pipes::open("shell", "PROGRAM", words);
        char text[16];
        EXPECT_EQ(zt_pipe_read(handle, text, sizeof text, nullptr, &status), 3);
        pipes::close(handle);
    }

    zt::Status status;
};

}  // namespace

TEST_F(Termination, ANormalEndThatCountsAsSuccessLeavesCodeZero)
{
    given(10144);
    EXPECT_TRUE(zt_pipe_termination(true, &status));
    EXPECT_EQ(record::fields(status), then(0, 0, "normally"));
}

TEST_F(Termination, ANormalEndThatDoesNotCountAsSuccessIsAnError)
{
    given(10144);
    EXPECT_TRUE(zt_pipe_termination(false, &status));
    EXPECT_EQ(record::fields(status), then(10144, 10144, "normally"));
}

TEST_F(Termination, AnEndWithAnErrorIsAnErrorWhateverTheFlag)
{
    for (const bool flag : {true, false}) {
        given(10145);
        EXPECT_TRUE(zt_pipe_termination(flag, &status));
        EXPECT_EQ(record::fields(status), then(10145, 10145, "with an error"));
    }
}

TEST_F(Termination, AnAbnormalEndIsAnErrorWhateverTheFlag)
{
    for (const bool flag : {true, false}) {
        given(10147);
        EXPECT_TRUE(zt_pipe_termination(flag, &status));
        EXPECT_EQ(record::fields(status), then(10147, 10147, "abnormally"));
    }
}

TEST_F(Termination, AnyOtherSubcodeIsLeftAloneWithTheWholeRecord)
{
    for (const std::uint32_t other : {0U, 1U, 10143U, 10146U, 10148U, 4294967295U}) {
        record::poison(status);
        status.subcode = other;
        const record::Fields before = record::fields(status);
        EXPECT_FALSE(zt_pipe_termination(true, &status)) << other;
        EXPECT_FALSE(zt_pipe_termination(false, &status)) << other;
        EXPECT_EQ(record::fields(status), before);
    }
}

TEST_F(Termination, LooksAtTheSubcodeAndNotAtTheCode)
{
    status.code = 10145;
    EXPECT_FALSE(zt_pipe_termination(false, &status));
}

TEST_F(Termination, ASuccessfulVerdictKeepsTheCodeThatWasThere)
{
    given(10144);
    status.code = 10139;
    EXPECT_TRUE(zt_pipe_termination(true, &status));
    EXPECT_EQ(status.code, 10139U);
    EXPECT_EQ(status.subcode, 0U);
}

TEST_F(Termination, WithoutARecordIsFalse)
{
    EXPECT_FALSE(zt_pipe_termination(true, nullptr));
}

TEST_F(Termination, LeavesAPendingInterruptToWhoeverArmedTheLatch)
{
    given(10144);
    zt_sys_arm_interrupt();
    raise(SIGINT);
    EXPECT_TRUE(zt_pipe_termination(true, &status));
    EXPECT_EQ(status.code, 0U);
    EXPECT_NE(zt_sys_poll_interrupt(1), 0);
    zt_sys_disarm_interrupt();
}

TEST_F(TerminationOfAChild, ThatSucceedsIsSuccess)
{
    read_to_the_end("echo ok");
    EXPECT_TRUE(zt_pipe_termination(true, &status));
    EXPECT_EQ(status.code, 0U);
    EXPECT_STREQ(status.sparm[0], "normally");
}

TEST_F(TerminationOfAChild, ThatFailsIsItsError)
{
    read_to_the_end("echo ok; exit 3");
    EXPECT_TRUE(zt_pipe_termination(true, &status));
    EXPECT_EQ(status.code, ZT_PIPE_S_ERROR);
    EXPECT_EQ(status.iparm[0], 3);
}

TEST_F(TerminationOfAChild, ThatASignalEndsIsAbnormal)
{
    read_to_the_end("echo ok; kill -TERM $$");
    EXPECT_TRUE(zt_pipe_termination(true, &status));
    EXPECT_EQ(status.code, ZT_PIPE_S_ABNORMAL);
    EXPECT_EQ(status.sys_errno, static_cast<std::uint32_t>(SIGTERM));
}
