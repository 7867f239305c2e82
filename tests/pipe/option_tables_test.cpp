// The tables of keywords that the option processor gets, as another processor in its place sees them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "tests/pipe/services.h"
#include "tests/support/leftovers.h"
#include "tests/support/pipes.h"

namespace {

/// A keyword with what is not 0 in its entry.
struct Keyword {
    std::string name;
    int group = 0, attribute1 = 0, attribute2 = 0, value_kind = 0;

    bool operator==(const Keyword&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Keyword& keyword)
{
    return out << keyword.name << " group " << keyword.group << " attributes " << keyword.attribute1 << " "
               << keyword.attribute2 << " value kind " << keyword.value_kind;
}

class OptionTables : public NothingLeftTest {
  protected:
    void SetUp() override
    {
        services::process_options = [this](char* text, zt_option* table, int count, zt_option_error*) {
            text_ = text;
            std::memset(text, 'x', std::strlen(text));  // it is the processor's own to edit
            entries_.assign(table, table + count);
            return 0;
        };
    }

    void TearDown() override
    {
        services::process_options = nullptr;
        NothingLeftTest::TearDown();
    }

    std::vector<Keyword> keywords() const
    {
        std::vector<Keyword> keywords;
        for (const zt_option& entry : entries_)
            keywords.push_back(
                {entry.keyword, entry.group, entry.attribute1, entry.attribute2, entry.value_kind});
        return keywords;
    }

    /// The fields for answers are empty, and the keyword's field is filled with zeros up to its end.
    void expect_no_rest() const
    {
        for (const zt_option& entry : entries_) {
            EXPECT_EQ(entry.value, nullptr) << entry.keyword;
            EXPECT_EQ(entry.present, 0) << entry.keyword;
            const char* const end = entry.keyword + sizeof entry.keyword;
            EXPECT_TRUE(std::all_of(entry.keyword + std::strlen(entry.keyword), end, [](char letter) {
                return letter == '\0';
            })) << entry.keyword;
        }
    }

    zt::Status status;
    std::string text_ = "never called";
    std::vector<zt_option> entries_;
};

}  // namespace

TEST_F(OptionTables, OfAnOpenHas14Keywords)
{
    pipes::close(pipes::open("no child", "Some Text"));
    EXPECT_EQ(text_, "Some Text");
    EXPECT_EQ(keywords(), (std::vector<Keyword>{{.name = "PROGRAM", .group = 1, .attribute2 = 2},
                                                {.name = "COMMAND", .group = 1, .attribute2 = 2},
                                                {.name = "ASCII", .group = 2},
                                                {.name = "BINARY", .group = 2},
                                                {.name = "READ", .group = 3},
                                                {.name = "WRITE", .group = 3},
                                                {.name = "USERNAME", .attribute1 = 4, .value_kind = 1},
                                                {.name = "PASSWORD", .value_kind = 1},
                                                {.name = "STDERR", .value_kind = 1},
                                                {.name = "SIZE", .value_kind = 1},
                                                {.name = "READSIZE", .value_kind = 1},
                                                {.name = "KORN"},
                                                {.name = "MERGE_ENV"},
                                                {.name = "$POPEN"}}));
    expect_no_rest();
}

TEST_F(OptionTables, OfACloseHas3Keywords)
{
    const int handle = pipes::open("no child", "");
    EXPECT_EQ(pipes::close(handle, "Some Text"), 0U);
    EXPECT_EQ(text_, "Some Text");
    EXPECT_EQ(keywords(), (std::vector<Keyword>{{.name = "NOKILL"}, {.name = "NOWAIT"}, {.name = "NOFREE"}}));
    expect_no_rest();
}

TEST_F(OptionTables, OfTheDebugConfigurationHas7Keywords)
{
    EXPECT_EQ(zt_pipe_debug_config("Some Text", &status), 0U);
    EXPECT_EQ(text_, "Some Text");
    EXPECT_EQ(keywords(), (std::vector<Keyword>{{.name = "PARMS", .value_kind = 2},
                                                {.name = "CLOCKS", .value_kind = 2},
                                                {.name = "CTRLBLKS", .value_kind = 2},
                                                {.name = "DEBUG", .value_kind = 2},
                                                {.name = "EXCEPTIONS", .value_kind = 2},
                                                {.name = "MEMORY", .value_kind = 2},
                                                {.name = "OFF"}}));
    expect_no_rest();
}

TEST_F(OptionTables, AreMadeAfreshForEveryCall)
{
    pipes::close(pipes::open("no child", "first"));
    const std::vector<Keyword> first = keywords();
    services::process_options = [this](char*, zt_option* table, int count, zt_option_error* error) {
        entries_.assign(table, table + count);
        *error = {4711, "refused"};
        std::memset(static_cast<void*>(table), 0x7f, static_cast<std::size_t>(count) * sizeof *table);
        return -1;
    };
    ZT_PIPE_OPEN("no child", "second", nullptr, nullptr, &status);
    ZT_PIPE_OPEN("no child", "third", nullptr, nullptr, &status);
    EXPECT_EQ(keywords(), first);
    expect_no_rest();
}

TEST_F(OptionTables, AreNotLookedAtForAnEmptyText)
{
    services::process_options = [this](char*, zt_option*, int, zt_option_error* error) {
        text_ = "called";
        *error = {4711, "refused"};
        return -1;
    };
    pipes::close(pipes::open("no child", ""));
    EXPECT_EQ(zt_pipe_debug_config("", &status), 0U);
    EXPECT_EQ(text_, "never called");
}

TEST_F(OptionTables, HaveTheProcessorsCodeAndTextPassedThroughWhereItRefuses)
{
    services::process_options = [](char*, zt_option*, int, zt_option_error* error) {
        *error = {4711, "offending"};
        return -1;
    };
    const record::Fields expected =
        record::failure(4711, "ztpipe(zt_ipipe_open):2584", {{"sparm[0]", "offending"}});
    EXPECT_EQ(pipes::refused("no child", "any"), expected);
    record::poison(status);
    EXPECT_EQ(zt_pipe_debug_config("any", &status), 4711U);
    EXPECT_EQ(record::fields(status),
              record::failure(4711, "ztpipe(zt_pipe_debug_config):669", {{"sparm[0]", "offending"}}));
}
