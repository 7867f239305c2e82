#include <gtest/gtest.h>
#include <zt/runtime/errors.h>
#include <zt/runtime/options.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace {

struct Row {
    const char* keyword;
    uint8_t value_kind = ZT_OPTION_VALUE_NONE;
    uint8_t group = 0;
};

/// A table, a working copy of a text and the outcome of processing it.
class Options : public ::testing::Test {
  protected:
    Options()
        : table{make({{"PROGRAM", 0, 1},
                      {"COMMAND", 0, 1},
                      {"READ", 0, 3},
                      {"WRITE", 0, 3},
                      {"KORN"},
                      {"$POPEN"},
                      {"STDERR", 1},
                      {"SIZE", 1},
                      {"PARMS", 2},
                      {"DEBUG", 2}})}
    {
    }

    static std::vector<zt_option> make(std::initializer_list<Row> rows)
    {
        std::vector<zt_option> table(rows.size());
        size_t i = 0;
        for (const Row& row : rows) {
            memcpy(table[i].keyword, row.keyword, strnlen(row.keyword, sizeof table[i].keyword));
            table[i].value_kind = row.value_kind;
            table[i++].group = row.group;
        }
        return table;
    }

    int process(const std::string& options)
    {
        text.assign(options.c_str(), options.c_str() + options.size() + 1);
        text.shrink_to_fit();  // so that a sanitizer sees a step past the terminator
        memset(&error, 0x5a, sizeof error);
        errno = 4711;
        const int result =
            zt_process_options(text.data(), table.data(), static_cast<int>(table.size()), &error);
        EXPECT_EQ(errno, 4711);
        return result;
    }

    const zt_option& row(const std::string& keyword) const
    {
        for (const zt_option& option : table)
            if (keyword == option.keyword) return option;
        ADD_FAILURE() << "no row " << keyword;
        return table.front();
    }

    bool present(const std::string& keyword) const { return row(keyword).present != 0; }

    /// The value, "(null)" for none.
    std::string value(const std::string& keyword) const
    {
        return row(keyword).value ? row(keyword).value : "(null)";
    }

    int number_present() const
    {
        int number = 0;
        for (const zt_option& option : table) number += option.present;
        return number;
    }

    void expect_error(const std::string& options, int32_t code, const std::string& offending)
    {
        EXPECT_EQ(process(options), -1) << options;
        EXPECT_EQ(error.code, code) << options;
        EXPECT_EQ(error.text, offending) << options;
    }

    std::vector<zt_option> table;
    std::vector<char> text;
    zt_option_error error;
};

TEST_F(Options, AnEmptyTextGivesZero)
{
    EXPECT_EQ(process(""), 0);
    EXPECT_EQ(number_present(), 0);
}

TEST_F(Options, SeparatorsAloneGiveZero)
{
    EXPECT_EQ(process(" ,\t,\n ,,"), 0);
}

TEST_F(Options, ErrorIsUntouchedOnSuccess)
{
    zt_option_error before;
    memset(&before, 0x5a, sizeof before);
    EXPECT_EQ(process("KORN"), 1);
    EXPECT_EQ(memcmp(&error, &before, sizeof error), 0);
}

TEST_F(Options, CountsTheKeywordsAndMarksThem)
{
    EXPECT_EQ(process("PROGRAM READ KORN"), 3);
    EXPECT_TRUE(present("PROGRAM") && present("READ") && present("KORN"));
    EXPECT_EQ(number_present(), 3);
    EXPECT_EQ(row("KORN").present, 1);
    EXPECT_EQ(value("KORN"), "(null)");
}

TEST_F(Options, BlanksAndCommasSeparate)
{
    for (const char* options : {"PROGRAM,KORN", "PROGRAM KORN", " PROGRAM ,, KORN,", "PROGRAM\tKORN\n"})
        EXPECT_EQ(process(options), 2) << options;
}

TEST_F(Options, CaseDoesNotMatter)
{
    EXPECT_EQ(process("korn Program $popen"), 3);
    EXPECT_TRUE(present("KORN") && present("PROGRAM") && present("$POPEN"));
}

TEST_F(Options, TheCaseOfAValueIsKept)
{
    EXPECT_EQ(process("stderr=DisCard"), 1);
    EXPECT_EQ(value("STDERR"), "DisCard");
}

TEST_F(Options, KeywordsAreNotAbbreviatedNorExtended)
{
    expect_error("PROG", ZT_OPTION_E_UNKNOWN, "PROG");
    expect_error("PROGRAMS", ZT_OPTION_E_UNKNOWN, "PROGRAMS");
}

TEST_F(Options, BlanksAroundTheMarkAreAllowed)
{
    for (const char* options : {"SIZE=12 KORN", "SIZE =12,KORN", "SIZE= 12 KORN", "SIZE \t = \n 12 , KORN"}) {
        EXPECT_EQ(process(options), 2) << options;
        EXPECT_EQ(value("SIZE"), "12") << options;
        EXPECT_TRUE(present("KORN")) << options;
    }
}

TEST_F(Options, ABareValueEndsAtABlankOrAComma)
{
    EXPECT_EQ(process("PARMS=read,KORN DEBUG=write KORNX=1"), -1);
    EXPECT_EQ(process("PARMS=read,KORN DEBUG=write"), 3);
    EXPECT_EQ(value("PARMS"), "read");
    EXPECT_EQ(value("DEBUG"), "write");
}

TEST_F(Options, ABareValueMayHoldMarksAndQuotes)
{
    EXPECT_EQ(process("SIZE=a=b STDERR=o'brien"), 2);
    EXPECT_EQ(value("SIZE"), "a=b");
    EXPECT_EQ(value("STDERR"), "o'brien");
}

TEST_F(Options, AQuotedValueMayHoldSeparators)
{
    EXPECT_EQ(process("PARMS='not read, write' DEBUG = \"open,close\",KORN"), 3);
    EXPECT_EQ(value("PARMS"), "not read, write");
    EXPECT_EQ(value("DEBUG"), "open,close");
    EXPECT_TRUE(present("KORN"));
}

TEST_F(Options, ADoubledQuoteStandsForItself)
{
    EXPECT_EQ(process("STDERR='o''brien' SIZE=\"a\"\"b\" PARMS='''' DEBUG='\"'"), 4);
    EXPECT_EQ(value("STDERR"), "o'brien");
    EXPECT_EQ(value("SIZE"), "a\"b");
    EXPECT_EQ(value("PARMS"), "'");
    EXPECT_EQ(value("DEBUG"), "\"");
}

TEST_F(Options, QuotesMayHoldNothing)
{
    EXPECT_EQ(process("STDERR='' KORN"), 2);
    EXPECT_EQ(value("STDERR"), "");
}

TEST_F(Options, AnOptionalValueMayBeLeftOut)
{
    EXPECT_EQ(process("PARMS DEBUG=read"), 2);
    EXPECT_EQ(value("PARMS"), "(null)");
    EXPECT_EQ(value("DEBUG"), "read");
}

TEST_F(Options, ValuesPointIntoTheText)
{
    ASSERT_EQ(process("KORN SIZE=77"), 2);
    EXPECT_EQ(row("SIZE").value, text.data() + strlen("KORN SIZE="));
}

TEST_F(Options, WhatASettingsReportPrintsIsRead)
{
    EXPECT_EQ(process("PARMS='read,write' DEBUG='not open' "), 2);
    EXPECT_EQ(value("PARMS"), "read,write");
    EXPECT_EQ(value("DEBUG"), "not open");
}

TEST_F(Options, AnUnknownKeywordIsAnError)
{
    expect_error("KORN bogus=1", ZT_OPTION_E_UNKNOWN, "bogus");
    expect_error("'KORN'", ZT_OPTION_E_UNKNOWN, "'KORN'");
}

TEST_F(Options, AMarkWithoutAKeywordIsAnUnknownKeyword)
{
    expect_error("=12", ZT_OPTION_E_UNKNOWN, "=");
    expect_error("KORN, = 12", ZT_OPTION_E_UNKNOWN, "=");
}

TEST_F(Options, AnEmptyRowIsNeverMatched)
{
    table.push_back(zt_option{});
    expect_error("=12", ZT_OPTION_E_UNKNOWN, "=");
    EXPECT_EQ(process("KORN"), 1);
}

TEST_F(Options, AKeywordTwiceIsAnError)
{
    expect_error("KORN PROGRAM, korn", ZT_OPTION_E_TWICE, "korn");
    expect_error("SIZE=1 SIZE=2", ZT_OPTION_E_TWICE, "SIZE");
    expect_error("PROGRAM PROGRAM", ZT_OPTION_E_TWICE, "PROGRAM");
}

TEST_F(Options, TwoOfOneGroupAreAnError)
{
    expect_error("PROGRAM,KORN,Command", ZT_OPTION_E_GROUP, "Command");
    expect_error("WRITE READ", ZT_OPTION_E_GROUP, "READ");
}

TEST_F(Options, KeywordsOfDifferentGroupsGoTogether)
{
    EXPECT_EQ(process("COMMAND WRITE KORN $POPEN"), 4);
}

TEST_F(Options, AMissingValueIsAnError)
{
    expect_error("STDERR", ZT_OPTION_E_NOVALUE, "STDERR");
    expect_error("stderr KORN", ZT_OPTION_E_NOVALUE, "stderr");
    expect_error("STDERR=", ZT_OPTION_E_NOVALUE, "STDERR");
    expect_error("STDERR= ,KORN", ZT_OPTION_E_NOVALUE, "STDERR");
    expect_error("PARMS =", ZT_OPTION_E_NOVALUE, "PARMS");
}

TEST_F(Options, AnUnexpectedValueIsAnError)
{
    expect_error("KORN=yes PROGRAM", ZT_OPTION_E_VALUE, "KORN=yes");
    expect_error("korn = 'a b' PROGRAM", ZT_OPTION_E_VALUE, "korn = 'a b'");
    expect_error("KORN=", ZT_OPTION_E_VALUE, "KORN=");
}

TEST_F(Options, TextGluedToAClosingQuoteIsAnError)
{
    expect_error("STDERR='a'b KORN", ZT_OPTION_E_VALUE, "STDERR='a'b");
    expect_error("STDERR=\"a\"'b'", ZT_OPTION_E_VALUE, "STDERR=\"a\"'b'");
}

TEST_F(Options, AnUnclosedQuoteIsAnError)
{
    expect_error("STDERR='a b", ZT_OPTION_E_QUOTE, "'a b");
    expect_error("STDERR=\"a'", ZT_OPTION_E_QUOTE, "\"a'");
    expect_error("STDERR='", ZT_OPTION_E_QUOTE, "'");
    expect_error("STDERR='a''", ZT_OPTION_E_QUOTE, "'a''");
    expect_error("KORN='a", ZT_OPTION_E_QUOTE, "'a");
}

TEST_F(Options, TheOffendingTextIsCutToItsField)
{
    const std::string fits(32, 'x');
    expect_error(fits, ZT_OPTION_E_UNKNOWN, fits);
    expect_error(fits + "y", ZT_OPTION_E_UNKNOWN, fits);
    expect_error(std::string(5000, 'x'), ZT_OPTION_E_UNKNOWN, fits);
    expect_error("SIZE='" + std::string(5000, 'x'), ZT_OPTION_E_QUOTE, "'" + std::string(31, 'x'));
}

TEST_F(Options, AfterAnErrorTheEarlierKeywordsStand)
{
    EXPECT_EQ(process("KORN SIZE=12 STDERR='x'y PROGRAM"), -1);
    EXPECT_EQ(number_present(), 2);
    EXPECT_TRUE(present("KORN"));
    EXPECT_EQ(value("SIZE"), "12");
    EXPECT_EQ(value("STDERR"), "(null)");
}

TEST_F(Options, ATableCanBeUsedAgain)
{
    ASSERT_EQ(process("KORN SIZE=12"), 2);
    ASSERT_EQ(process("PROGRAM SIZE=13"), 2);
    EXPECT_FALSE(present("KORN"));
    EXPECT_EQ(value("SIZE"), "13");
    ASSERT_EQ(process(""), 0);
    EXPECT_EQ(number_present(), 0);
    EXPECT_EQ(value("SIZE"), "(null)");
}

TEST_F(Options, TheInputsOfATableAreNotChanged)
{
    table[0].attribute1 = 4, table[0].attribute2 = 2;
    const std::vector<zt_option> before = table;
    ASSERT_EQ(process("PROGRAM SIZE=1"), 2);
    for (size_t i = 0; i < table.size(); ++i) {
        EXPECT_EQ(memcmp(table[i].keyword, before[i].keyword, sizeof table[i].keyword), 0);
        EXPECT_EQ(table[i].group, before[i].group);
        EXPECT_EQ(table[i].attribute1, before[i].attribute1);
        EXPECT_EQ(table[i].attribute2, before[i].attribute2);
        EXPECT_EQ(table[i].value_kind, before[i].value_kind);
    }
}

TEST_F(Options, AKeywordThatFillsItsFieldIsFound)
{
    table = make({{"A23456789B123456789C123456789D12"}, {"KORN"}});
    EXPECT_EQ(process("a23456789b123456789c123456789d12"), 1);
    table = make({{"A23456789B123456789C123456789D123"}, {"KORN"}});  // no terminator left
    EXPECT_EQ(process("a23456789b123456789c123456789d123 korn"), 2);
    expect_error("A23456789B123456789C123456789D1234", ZT_OPTION_E_UNKNOWN,
                 "A23456789B123456789C123456789D12");
}

TEST_F(Options, BytesBeyondAsciiAreOrdinary)
{
    EXPECT_EQ(process("SIZE=\xc3\xa9\xa0 KORN"), 2);
    EXPECT_EQ(value("SIZE"), "\xc3\xa9\xa0");
    expect_error("\xc3\x9cX", ZT_OPTION_E_UNKNOWN, "\xc3\x9cX");
}

TEST_F(Options, WithoutRowsEveryKeywordIsUnknown)
{
    table.clear();
    EXPECT_EQ(process(""), 0);
    EXPECT_EQ(process(" ,"), 0);
    expect_error("KORN", ZT_OPTION_E_UNKNOWN, "KORN");
}

TEST_F(Options, BadArgumentsFailCleanly)
{
    const int32_t invalid = static_cast<int32_t>(zt_error_no(EINVAL));
    char options[] = "KORN";
    EXPECT_EQ(zt_process_options(nullptr, table.data(), 1, &error), -1);
    EXPECT_EQ(error.code, invalid);
    EXPECT_STREQ(error.text, "text");
    EXPECT_EQ(zt_process_options(options, nullptr, 1, &error), -1);
    EXPECT_EQ(error.code, invalid);
    EXPECT_STREQ(error.text, "table");
    EXPECT_EQ(zt_process_options(options, table.data(), -1, &error), -1);
    EXPECT_EQ(error.code, invalid);
    EXPECT_STREQ(error.text, "count");
    EXPECT_STREQ(options, "KORN");
    EXPECT_EQ(number_present(), 0);
}

TEST_F(Options, TheErrorRecordMayBeLeftOut)
{
    char options[] = "BOGUS";
    EXPECT_EQ(zt_process_options(options, table.data(), 1, nullptr), -1);
    EXPECT_EQ(zt_process_options(nullptr, table.data(), 1, nullptr), -1);
}

}  // namespace
