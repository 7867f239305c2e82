// Every way to every failure site, one test each: the whole record, and what is left behind. A large parent
// tries posix_spawn before it forks; nobody may see from a failure which of the two it was.
#include <zt/runtime/memory.h>

#include <cerrno>
#include <set>
#include <tuple>

#include "tests/conformance/firing.h"
#include "tests/conformance/rows.h"
#include "tests/support/leftovers.h"
#include "tests/support/parent_size.h"
#include "tests/support/record.h"

namespace {

const Scenarios& scenarios()
{
    static const Scenarios all = [] {
        Scenarios joined;
        for (const auto part :
             {table_scenarios, open_scenarios, launch_scenarios, child_scenarios, write_scenarios,
              read_scenarios, status_scenarios, close_scenarios, debug_scenarios})
            joined.merge(part());
        return joined;
    }();
    return all;
}

/// A name of the table as a number; texts that are no name stay as they are.
std::string resolve(const std::string& value, const Firing& firing)
{
    constexpr int block = sizeof(zt_pipe);
    const std::map<std::string, int> numbers{{"EAGAIN", EAGAIN},
                                             {"EBADF", EBADF},
                                             {"EBUSY", EBUSY},
                                             {"EDOM", EDOM},
                                             {"EINTR", EINTR},
                                             {"EINVAL", EINVAL},
                                             {"EIO", EIO},
                                             {"EMFILE", EMFILE},
                                             {"ENFILE", ENFILE},
                                             {"ENOMEM", ENOMEM},
                                             {"EPERM", EPERM},
                                             {"<block>", block},
                                             {"<heap>", firing.heap},
                                             {"<heap+block>", firing.heap + block}};
    const auto found = numbers.find(value);
    return found != numbers.end() ? std::to_string(found->second) : value;
}

record::Fields expected(const Row& row, const Firing& firing)
{
    record::Fields fields;
    for (const auto& [name, value] : row.fields) fields[name] = resolve(value, firing);
    const auto system_text = fields.find("sys_msg");
    if (system_text != fields.end() && system_text->second == "<text>")
        system_text->second = strerrordesc_np(std::stoi(fields.at("sys_errno")));
    record::Fields whole = record::failure(row.code, row.where(), fields);
    if (!row.names_host) whole["host"] = "";
    return whole;
}

/// The fields that are not as they should be, a line each.
std::string difference(const record::Fields& is, const record::Fields& should_be)
{
    std::string lines;
    for (const auto& [name, value] : should_be)
        if (is.at(name) != value) lines += name + " is [" + is.at(name) + "], not [" + value + "]\n";
    return lines;
}

/// A row, and Zt_pipe_large_parent.
using RowAndLimit = std::tuple<Row, long>;

std::string test_name(const testing::TestParamInfo<RowAndLimit>& info)
{
    const Row& row = std::get<Row>(info.param);
    std::string name = row.routine + "_" + row.key();
    for (char& letter : name)
        if (letter == '/') letter = '_';
    return name;
}

}  // namespace

class Site : public NothingLeftTest, public testing::WithParamInterface<RowAndLimit> {
  protected:
    void SetUp() override { Zt_pipe_large_parent = limit; }

    /// A launch on the wrong road would pass unseen: both end the same.
    void TearDown() override
    {
        const int attempts = faults::calls(faults::Function::posix_spawnp);
        if (limit == always_large) {
            EXPECT_GE(attempts, faults::calls(faults::Function::fork));
        } else {
            EXPECT_EQ(attempts, 0);
        }
        NothingLeftTest::TearDown();
    }

    const Row& row = std::get<Row>(GetParam());
    const long limit = std::get<long>(GetParam());
};

TEST_P(Site, FillsExactlyThisRecordAndLeavesNothing)
{
    const auto scenario = scenarios().find(row.key());
    ASSERT_NE(scenario, scenarios().end()) << "no scenario leads here";
    const int heap = zt_heapsize();
    Firing firing;
    scenario->second(firing);
    EXPECT_EQ(difference(record::fields(firing.status), expected(row, firing)), "");
    EXPECT_EQ(firing.left, row.left);
    EXPECT_EQ(zt_heapsize(), heap);
}

INSTANTIATE_TEST_SUITE_P(InASmallParent, Site,
                         testing::Combine(testing::ValuesIn(rows()), testing::Values(never_large)),
                         test_name);
INSTANTIATE_TEST_SUITE_P(InALargeParent, Site,
                         testing::Combine(testing::ValuesIn(rows()), testing::Values(always_large)),
                         test_name);

TEST(SiteTable, HasARowForEveryScenarioAndNoneTwice)
{
    std::set<std::string> keys;
    for (const Row& row : rows()) EXPECT_TRUE(keys.insert(row.key()).second) << row << " stands there twice";
    for (const auto& [key, scenario] : scenarios()) EXPECT_TRUE(keys.contains(key)) << key << " has no row";
}

// The callers have cleared the record before; the lookup itself must not.
TEST(SiteTable, LeavesTheTextsAloneThatALookupDoesNotWrite)
{
    Leftovers::settle();
    zt::Status status;
    record::poison(status);
    record::Fields fields = record::fields(status);
    zt_pipe* pipe = nullptr;
    EXPECT_EQ(zt_pipe_get_handle(99, &pipe, "anyone", &status), ZT_PIPE_E_HANDLE);
    const record::Fields failed =
        record::failure(ZT_PIPE_E_HANDLE, "ztpipe(anyone):1093", {{"iparm[0]", "99"}});
    for (const char* const name : {"code", "subcode", "sys_errno", "where", "host", "iparm[0]"})
        fields[name] = failed.at(name);
    EXPECT_EQ(difference(record::fields(status), fields), "");
}
