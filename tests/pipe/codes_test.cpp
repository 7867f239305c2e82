// The module's codes: numbers, names, and what a person is told about them.
#include <gtest/gtest.h>
#include <signal.h>
#include <zt/runtime/errors.h>
#include <zt/ztpipe.h>
#include <zt/ztpipe/codes.h>

#include <cstring>
#include <string>

#include "tests/support/record.h"

namespace {

struct Code {
    std::uint32_t number;
    const char* name;
    std::uint32_t constant;
};

#define CODE(number, name)  \
    {                       \
        number, #name, name \
    }
constexpr Code codes[] = {
    CODE(10021, ZT_PIPE_E_NOMEM),       CODE(10036, ZT_PIPE_E_NULLARG),   CODE(10037, ZT_PIPE_E_TOOLONG),
    CODE(10047, ZT_PIPE_E_NOSTATUS),    CODE(10048, ZT_PIPE_E_DEBUGOPT),  CODE(10100, ZT_PIPE_E_START),
    CODE(10132, ZT_PIPE_E_INTERRUPTED), CODE(10134, ZT_PIPE_E_NOPROGRAM), CODE(10135, ZT_PIPE_E_FDSETUP),
    CODE(10136, ZT_PIPE_E_DUP),         CODE(10137, ZT_PIPE_E_FORK),      CODE(10138, ZT_PIPE_E_HANDLE),
    CODE(10139, ZT_PIPE_E_READ),        CODE(10140, ZT_PIPE_E_WRITE),     CODE(10141, ZT_PIPE_E_CLOSE),
    CODE(10142, ZT_PIPE_E_KILL),        CODE(10143, ZT_PIPE_E_WAIT),      CODE(10144, ZT_PIPE_S_NORMAL),
    CODE(10145, ZT_PIPE_S_ERROR),       CODE(10147, ZT_PIPE_S_ABNORMAL),  CODE(10157, ZT_PIPE_E_ACTIVE),
    CODE(11102, ZT_PIPE_E_MUSTWAIT),    CODE(11103, ZT_PIPE_E_OPTVALUE),  CODE(11104, ZT_PIPE_E_CONFLICT),
    CODE(11108, ZT_PIPE_E_DEPENDS),
};
#undef CODE

/// The line about a record that a test fills.
template <class Fill>
std::string line(std::uint32_t code, Fill fill)
{
    zt::Status status;
    status.code = code;
    fill(status);
    return status.what();
}

template <std::size_t Size>
void set(char (&field)[Size], const char* text)
{
    std::strcpy(field, text);
}

}  // namespace

TEST(Codes, HaveTheirNumbers)
{
    for (const Code& code : codes) EXPECT_EQ(code.constant, code.number) << code.name;
}

TEST(Codes, AreKnownByNameBeforeAnyPipeIsOpened)
{
    for (const Code& code : codes) {
        const zt_code_text* text = zt_error_code_text(code.number);
        ASSERT_NE(text, nullptr) << code.name;
        EXPECT_STREQ(text->name, code.name);
    }
}

TEST(Codes, AreInTheTableOnceEachInTheOrderOfTheirNumbers)
{
    ASSERT_EQ(std::size(zt::pipe::code_texts), std::size(codes));
    for (std::size_t i = 0; i < std::size(codes); ++i)
        EXPECT_EQ(zt::pipe::code_texts[i].code, codes[i].number);
}

TEST(Codes, EachHaveAMeaningAndAnAdvice)
{
    for (const zt_code_text& text : zt::pipe::code_texts) {
        EXPECT_GT(std::strlen(text.meaning), 10U) << text.name;
        EXPECT_FALSE(std::string(text.meaning).ends_with('.')) << text.name;
        ASSERT_NE(text.advice, nullptr) << text.name;
        EXPECT_TRUE(std::string(text.advice).ends_with('.')) << text.name;
    }
}

TEST(Codes, AreToldWithNameNumberAndEveryParameterFilledIn)
{
    for (const Code& code : codes) {
        const std::string told = line(code.number, [](zt::Status& status) { set(status.where, "x(y):1"); });
        EXPECT_TRUE(told.starts_with(code.name + (" (" + std::to_string(code.number) + "): "))) << told;
        EXPECT_TRUE(told.ends_with(" [x(y):1]")) << told;
        EXPECT_EQ(told.find_first_of("{}"), std::string::npos) << told;
    }
}

TEST(Codes, ThatNobodyUsesAreUnknown)
{
    for (const std::uint32_t number : {0U, 10020U, 10133U, 10146U, 11105U, 4294967295U})
        EXPECT_EQ(zt_error_code_text(number), nullptr) << number;
}

TEST(Codes, OfABadHandleNameIt)
{
    zt::Status status;
    zt_pipe_write(7, "x", 1, &status);
    EXPECT_STREQ(status.what(),
                 "ZT_PIPE_E_HANDLE (10138): 7 is not the handle of an open pipe "
                 "[ztpipe(zt_pipe_write):1093]");
}

TEST(Codes, OfShortMemoryNameTheObjectAndTheBytes)
{
    EXPECT_EQ(line(ZT_PIPE_E_NOMEM,
                   [](zt::Status& status) {
                       set(status.object, "Zt_pipes");
                       status.iparm[0] = 128;
                       status.iparm[1] = 77;
                       set(status.sys_msg, "Cannot allocate memory");
                   }),
              "ZT_PIPE_E_NOMEM (10021): no memory for Zt_pipes: 128 bytes asked for, 77 in use: "
              "Cannot allocate memory");
}

TEST(Codes, OfOptionsNameTheKeywords)
{
    const auto two = [](zt::Status& status) {
        set(status.sparm[0], "STDERR");
        set(status.sparm[1], "LOUD");
    };
    EXPECT_EQ(line(ZT_PIPE_E_OPTVALUE, two),
              "ZT_PIPE_E_OPTVALUE (11103): option STDERR knows no value 'LOUD'");
    EXPECT_EQ(line(ZT_PIPE_E_CONFLICT, two),
              "ZT_PIPE_E_CONFLICT (11104): options STDERR and LOUD exclude each other");
    EXPECT_EQ(line(ZT_PIPE_E_DEPENDS, [](zt::Status& status) { set(status.msg, "PASSWORD w/o USERNAME"); }),
              "ZT_PIPE_E_DEPENDS (11108): an option lacks the one it needs: PASSWORD w/o USERNAME");
}

TEST(Codes, OfAChildsEndNameItsExitCodeOrItsSignal)
{
    EXPECT_EQ(line(ZT_PIPE_S_ERROR, [](zt::Status& status) { status.iparm[0] = 3; }),
              "ZT_PIPE_S_ERROR (10145): the child ended with an error: exit code 3");
    EXPECT_EQ(line(ZT_PIPE_S_ABNORMAL, [](zt::Status& status) { status.sys_errno = SIGTERM; }),
              "ZT_PIPE_S_ABNORMAL (10147): the child was ended by signal 15");
}

TEST(Codes, OfAChildsEndAreToldBesideASuccess)
{
    EXPECT_EQ(line(0, [](zt::Status& status) { status.subcode = ZT_PIPE_S_NORMAL; }),
              "success; ZT_PIPE_S_NORMAL (10144): the child ended normally");
}
