#include <gtest/gtest.h>
#include <zt/runtime/errors.h>
#include <zt/runtime/status.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <type_traits>

namespace {

void fill(char* text, std::size_t room, char c)
{
    std::memset(text, c, room);
    text[room - 1] = '\0';
}

/// Every word and every text has something in it.
void fill(ubstatus& record)
{
    std::memset(static_cast<void*>(&record), 0x55, sizeof record);
    fill(record.msg, sizeof record.msg, 'm');
    fill(record.sys_msg, sizeof record.sys_msg, 's');
    fill(record.where, sizeof record.where, 'w');
    fill(record.object, sizeof record.object, 'o');
    for (auto& text : record.sparm) fill(text, sizeof text, 'p');
    fill(record.host, sizeof record.host, 'h');
    fill(record.extra, sizeof record.extra, 'e');
}

void expect_texts_empty(const ubstatus& record)
{
    EXPECT_STREQ(record.msg, "");
    EXPECT_STREQ(record.sys_msg, "");
    EXPECT_STREQ(record.where, "");
    EXPECT_STREQ(record.object, "");
    for (const auto& text : record.sparm) EXPECT_STREQ(text, "");
    EXPECT_STREQ(record.host, "");
    EXPECT_STREQ(record.extra, "");
}

void expect_words(const ubstatus& record, std::uint32_t outcome, std::int32_t rest)
{
    EXPECT_EQ(record.code, outcome);
    EXPECT_EQ(record.subcode, outcome);
    EXPECT_EQ(record.sys_errno, outcome);
    EXPECT_EQ(record.count, rest);
    for (const auto number : record.iparm) EXPECT_EQ(number, rest);
}

constexpr std::uint32_t dirty = 0x55555555;
constexpr std::int32_t dirty_signed = 0x55555555;

TEST(Status, IsAnExceptionWithThePlainRecordRightBehindTheBase)
{
    static_assert(std::is_base_of_v<std::exception, zt::Status> && std::is_base_of_v<ubstatus, zt::Status>);
    static_assert(std::is_nothrow_default_constructible_v<zt::Status>);
    zt::Status status;
    const auto* object = reinterpret_cast<const char*>(&status);
    EXPECT_EQ(reinterpret_cast<const char*>(static_cast<const ubstatus*>(&status)) - object,
              static_cast<std::ptrdiff_t>(sizeof(std::exception)));
    EXPECT_THROW(throw status, std::exception);
}

TEST(Status, ConstructorsEmptyARecordWhateverTheMemoryHeld)
{
    alignas(zt::Status) unsigned char memory[sizeof(zt::Status)];
    std::memset(memory, 0x55, sizeof memory);
    auto* status = new (memory) zt::Status;
    expect_words(*status, 0, 0);
    expect_texts_empty(*status);
    status->~Status();

    std::memset(memory, 0x55, sizeof memory);
    status = new (memory) zt::Status(17);
    EXPECT_EQ(status->code, 17u);
    status->code = 0;
    expect_words(*status, 0, 0);
    expect_texts_empty(*status);
    status->~Status();
}

TEST(Status, ConstructionAndClearTouchNoTextBeyondItsFirstCharacter)
{
    zt::Status status;
    fill(status);
    ZT_CLEAR_STATUS(&status);
    EXPECT_EQ(status.msg[1], 'm');
    EXPECT_EQ(status.extra[254], 'e');
    ZT_INIT_STATUS(&status);
    EXPECT_EQ(status.sparm[7][1], 'p');
}

TEST(Status, ClearEmptiesOutcomeAndTextsButLeavesNumbersAndCount)
{
    zt::Status status;
    fill(status);
    ZT_CLEAR_STATUS(&status);
    expect_words(status, 0, dirty_signed);
    expect_texts_empty(status);
}

TEST(Status, InitMakesARecordAsNew)
{
    zt::Status status;
    fill(status);
    ZT_INIT_STATUS(&status);
    expect_words(status, 0, 0);
    expect_texts_empty(status);
}

TEST(Status, CopyTakesOverEveryWordAndText)
{
    zt::Status source, dest;
    fill(source);
    EXPECT_EQ(ZT_COPY_STATUS(&dest, &source), dirty);
    expect_words(dest, dirty, dirty_signed);
    EXPECT_EQ(std::string(dest.msg), std::string(255, 'm'));
    EXPECT_EQ(std::string(dest.sys_msg), std::string(255, 's'));
    EXPECT_EQ(std::string(dest.where), std::string(255, 'w'));
    EXPECT_EQ(std::string(dest.object), std::string(255, 'o'));
    for (const auto& text : dest.sparm) EXPECT_EQ(std::string(text), std::string(255, 'p'));
    EXPECT_EQ(std::string(dest.host), std::string(63, 'h'));
    EXPECT_EQ(std::string(dest.extra), std::string(255, 'e'));
}

TEST(Status, CopyEndsTextsThatHaveNoTerminator)
{
    ubstatus source;
    std::memset(static_cast<void*>(&source), 'x', sizeof source);
    zt::Status dest;
    dest.copy(&source);
    EXPECT_EQ(std::strlen(dest.msg), 255u);
    EXPECT_EQ(std::strlen(dest.sparm[7]), 255u);
    EXPECT_EQ(std::strlen(dest.host), 63u);
    EXPECT_EQ(std::strlen(dest.extra), 255u);
}

TEST(Status, CopyOfNullClears)
{
    zt::Status status;
    const zt::Status* const none = nullptr;
    fill(status);
    EXPECT_EQ(ZT_COPY_STATUS(&status, none), 0u);
    expect_words(status, 0, dirty_signed);
    expect_texts_empty(status);
}

TEST(Status, CopyOfItselfChangesNothing)
{
    zt::Status status;
    fill(status);
    EXPECT_EQ(status.copy(&status), dirty);
    EXPECT_EQ(std::string(status.sparm[3]), std::string(255, 'p'));
    zt::Status& same = status;
    status = same;
    EXPECT_EQ(std::string(status.host), std::string(63, 'h'));
}

TEST(Status, CopyMacroEvaluatesItsArgumentsOnce)
{
    zt::Status records[2];
    zt::Status* at = records;
    records[0].code = 5;
    zt::Status dest;
    ZT_COPY_STATUS(&dest, at++);
    EXPECT_EQ(at, records + 1);
    EXPECT_EQ(dest.code, 5u);
}

TEST(Status, CopiedObjectsCarryWordsAndTexts)
{
    zt::Status first(9);
    std::strcpy(first.msg, "hello");
    const zt::Status second(first);
    EXPECT_EQ(second.code, 9u);
    EXPECT_STREQ(second.msg, "hello");
    zt::Status third;
    third = second;
    EXPECT_EQ(third.code, 9u);
    EXPECT_STREQ(third.msg, "hello");
}

TEST(Status, WhatSaysTheSameAsDescribe)
{
    zt::Status status(static_cast<int>(zt_error_no(ENOENT)));
    std::strcpy(status.where, "ztpipe(open):7");
    char line[200];
    zt_error_describe(&status, line, sizeof line);
    const std::exception& failure = status;
    EXPECT_STREQ(failure.what(), line);
    EXPECT_STREQ(line, "ENOENT (20002): No such file or directory [ztpipe(open):7]");
}

TEST(Status, WhatStaysInsideTheObjectAndKeepsErrno)
{
    zt::Status status(77);
    errno = EXDEV;
    const char* line = status.what();
    EXPECT_EQ(errno, EXDEV);
    EXPECT_GE(line, reinterpret_cast<const char*>(&status));
    EXPECT_LT(line, reinterpret_cast<const char*>(&status + 1));
    status.code = 0;
    EXPECT_STREQ(status.what(), "success");
}

TEST(Status, WhatOfAFullRecordFitsAndIsOneLine)
{
    zt::Status status(12);
    fill(status.msg, sizeof status.msg, '\n');
    fill(status.sys_msg, sizeof status.sys_msg, '\1');
    fill(status.where, sizeof status.where, '\2');
    const std::string line = status.what();
    EXPECT_EQ(line.size(), 2047u);
    EXPECT_EQ(line.find('\n'), std::string::npos);
}

}  // namespace
