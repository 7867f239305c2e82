#include <gtest/gtest.h>
#include <zt/runtime/errors.h>
#include <zt/runtime/options.h>
#include <zt/runtime/status.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

const zt_code_text codes[] = {
    {30001, "TEST_E_LONG", "{sparm0} is {iparm0} long, more than the {iparm1} allowed", "Shorten it."},
    {30002, "TEST_E_ALL", "{msg}/{object}/{sparm7}/{iparm7}/{sys_errno}", nullptr},
    {30003, "TEST_E_ODD", "{sparm8} {iparm} {what} {} {sparm0", nullptr},
    {30004, "TEST_S_ENDED", "the child ended {sparm0}", nullptr},
};

// Before any other code of this program runs, as the module does it.
const bool added = (zt_error_add_codes(codes, std::size(codes)), true);

std::string described(const ubstatus& record, std::size_t size = 2048)
{
    std::vector<char> buffer(size, '#');
    const std::size_t length = zt_error_describe(&record, buffer.data(), size);
    EXPECT_EQ(length, std::strlen(buffer.data()));
    return buffer.data();
}

zt::Status failed(int code)
{
    zt::Status status(code);
    std::strcpy(status.where, "ztpipe(zt_pipe_read):12");
    return status;
}

std::string message(int error, std::size_t size = 256)
{
    std::vector<char> buffer(size, '#');
    EXPECT_EQ(zt_error_msg_r(error, buffer.data(), size), buffer.data());
    return buffer.data();
}

TEST(ErrorNo, IsNeverZero)
{
    EXPECT_EQ(zt_error_no(ENOENT), 20002u);
    EXPECT_EQ(zt_error_no(0), 20000u);
    EXPECT_EQ(zt_error_no(-5), 20000u);
    EXPECT_EQ(zt_error_no(INT_MIN), 20000u);
    EXPECT_EQ(zt_error_no(INT_MAX), 20000u + INT_MAX);
}

TEST(ErrorMsg, IsTheSystemsText)
{
    EXPECT_EQ(message(ENOENT), "No such file or directory");
    EXPECT_EQ(message(EBADF), std::strerror(EBADF));
}

TEST(ErrorMsg, NamesNumbersThatTheSystemDoesNotHave)
{
    EXPECT_EQ(message(99999), "Unknown error 99999");
    EXPECT_EQ(message(-1), "Unknown error -1");
    EXPECT_EQ(message(INT_MIN), "Unknown error -2147483648");
}

TEST(ErrorMsg, IsCutToItsRoomAndTerminated)
{
    EXPECT_EQ(message(ENOENT, 8), "No such");
    EXPECT_EQ(message(99999, 8), "Unknown");
    EXPECT_EQ(message(ENOENT, 1), "");
}

TEST(ErrorMsg, TakesNullAndNoRoomAndKeepsErrno)
{
    char buffer[] = "ab";
    errno = EXDEV;
    EXPECT_EQ(zt_error_msg_r(ENOENT, nullptr, 10), nullptr);
    EXPECT_STREQ(zt_error_msg_r(ENOENT, buffer, 0), "ab");
    message(99999);
    EXPECT_EQ(errno, EXDEV);
}

TEST(ErrorCodes, AreFoundInTheTablesHandedOver)
{
    ASSERT_TRUE(added);
    EXPECT_EQ(zt_error_code_text(30002), &codes[1]);
    EXPECT_EQ(zt_error_code_text(39999), nullptr);
    EXPECT_EQ(zt_error_code_text(0), nullptr);
}

TEST(ErrorCodes, OfTheOptionProcessorAreKnown)
{
    EXPECT_STREQ(zt_error_code_text(ZT_OPTION_E_UNKNOWN)->name, "ZT_OPTION_E_UNKNOWN");
    for (std::uint32_t code = ZT_OPTION_E_UNKNOWN; code <= ZT_OPTION_E_QUOTE; ++code) {
        const zt_code_text* text = zt_error_code_text(code);
        ASSERT_NE(text, nullptr);
        EXPECT_NE(std::string(text->meaning).find("{sparm0}"), std::string::npos);
        EXPECT_NE(text->advice, nullptr);
    }
}

TEST(ErrorCodes, TheSameTableTwiceIsOneAndTheNinthIsIgnored)
{
    static const zt_code_text more[ZT_ERROR_TABLES][1] = {
        {{31000, "A", "a", nullptr}}, {{31001, "B", "b", nullptr}}, {{31002, "C", "c", nullptr}},
        {{31003, "D", "d", nullptr}}, {{31004, "E", "e", nullptr}}, {{31005, "F", "f", nullptr}},
        {{31006, "G", "g", nullptr}}, {{31007, "H", "h", nullptr}},
    };
    for (int again = 0; again < 20; ++again) zt_error_add_codes(codes, std::size(codes));
    zt_error_add_codes(nullptr, 5);
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([] {
            for (const auto& table : more) zt_error_add_codes(table, 1);
        });
    }
    for (auto& thread : threads) thread.join();

    int known = 0;
    for (std::uint32_t code = 31000; code < 31008; ++code) known += zt_error_code_text(code) != nullptr;
    EXPECT_EQ(known, ZT_ERROR_TABLES - 1);
    EXPECT_EQ(zt_error_code_text(30001), &codes[0]);
}

TEST(Describe, FillsTheMeaningAndAddsSystemTextAndPlace)
{
    zt::Status status = failed(30001);
    std::strcpy(status.sparm[0], "pipe name");
    status.iparm[0] = 2000, status.iparm[1] = -1024;
    EXPECT_EQ(
        described(status),
        "TEST_E_LONG (30001): pipe name is 2000 long, more than the -1024 allowed [ztpipe(zt_pipe_read):12]");
    std::strcpy(status.sys_msg, "Broken pipe");
    EXPECT_EQ(described(status),
              "TEST_E_LONG (30001): pipe name is 2000 long, more than the -1024 allowed: Broken pipe "
              "[ztpipe(zt_pipe_read):12]");
}

TEST(Describe, KnowsEveryPlaceHolder)
{
    zt::Status status(30002);
    std::strcpy(status.msg, "m"), std::strcpy(status.object, "o"), std::strcpy(status.sparm[7], "s7");
    status.iparm[7] = 7, status.sys_errno = 15;
    EXPECT_EQ(described(status), "TEST_E_ALL (30002): m/o/s7/7/15");
}

TEST(Describe, LeavesOtherBracesAsTheyAre)
{
    EXPECT_EQ(described(zt::Status(30003)), "TEST_E_ODD (30003): {sparm8} {iparm} {what} {} {sparm0");
}

TEST(Describe, ParametersAreNotTakenForPlaceHolders)
{
    zt::Status status(30004);
    std::strcpy(status.sparm[0], "{iparm0}");
    EXPECT_EQ(described(status), "TEST_S_ENDED (30004): the child ended {iparm0}");
}

TEST(Describe, ShowsSystemErrorsOnce)
{
    zt::Status status = failed(static_cast<int>(zt_error_no(EMFILE)));
    EXPECT_EQ(described(status), "EMFILE (20024): Too many open files [ztpipe(zt_pipe_read):12]");
    zt_error_msg_r(EMFILE, status.sys_msg, sizeof status.sys_msg);
    EXPECT_EQ(described(status), "EMFILE (20024): Too many open files [ztpipe(zt_pipe_read):12]");
    std::strcpy(status.sys_msg, "something else");
    EXPECT_EQ(described(status),
              "EMFILE (20024): Too many open files: something else [ztpipe(zt_pipe_read):12]");
}

TEST(Describe, SaysSoWhenACodeIsUnknown)
{
    zt::Status status = failed(12345);
    EXPECT_EQ(described(status), "unknown code 12345 [ztpipe(zt_pipe_read):12]");
    std::strcpy(status.msg, "sort");
    EXPECT_EQ(described(status), "unknown code 12345: sort [ztpipe(zt_pipe_read):12]");
    status.code = UINT32_MAX;
    EXPECT_EQ(described(status), "unknown code 4294967295: sort [ztpipe(zt_pipe_read):12]");
    status.code = 20000;
    EXPECT_EQ(described(status), "unknown code 20000: sort [ztpipe(zt_pipe_read):12]");
    status.code = 29999;
    EXPECT_EQ(described(status), "unknown code 29999: sort [ztpipe(zt_pipe_read):12]");
}

TEST(Describe, SaysSuccessAndHowAChildEnded)
{
    zt::Status status = failed(0);
    EXPECT_EQ(described(status), "success");
    status.subcode = 30004;
    std::strcpy(status.sparm[0], "normally");
    EXPECT_EQ(described(status), "success; TEST_S_ENDED (30004): the child ended normally");
    status.subcode = 39999;
    EXPECT_EQ(described(status), "success");
}

TEST(Describe, KeepsToOneLineAndLeavesOtherTextsReadable)
{
    zt::Status status(30004);
    std::strcpy(status.sparm[0], "a\nb\x1b\\ \xc3\xa4");
    EXPECT_EQ(described(status), "TEST_S_ENDED (30004): the child ended a\\nb\\x1B\\ \xc3\xa4");
}

TEST(Describe, IsCutAtEveryRoom)
{
    zt::Status status = failed(30001);
    std::strcpy(status.sparm[0], "pipe\tname");
    const std::string whole = described(status);
    for (std::size_t size = 1; size < whole.size() + 3; ++size) {
        EXPECT_EQ(described(status, size), whole.substr(0, size - 1));
    }
}

TEST(Describe, ReadsNoTextBeyondItsField)
{
    ubstatus record;
    std::memset(static_cast<void*>(&record), 'x', sizeof record);
    record.code = 30002;
    EXPECT_LT(described(record, 4000).size(), 6u * 256);
}

TEST(Describe, TakesNullAndNoRoomAndKeepsErrno)
{
    char buffer[] = "ab";
    const zt::Status status(30001);
    errno = EXDEV;
    EXPECT_EQ(zt_error_describe(&status, nullptr, 10), 0u);
    EXPECT_EQ(zt_error_describe(&status, buffer, 0), 0u);
    EXPECT_STREQ(buffer, "ab");
    EXPECT_EQ(zt_error_describe(nullptr, buffer, sizeof buffer), 0u);
    EXPECT_STREQ(buffer, "");
    described(status);
    EXPECT_EQ(errno, EXDEV);
}

}  // namespace
