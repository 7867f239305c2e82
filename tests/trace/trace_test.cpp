// The exact lines of every operation, under every setting of the debug flags.
#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <filesystem>
#include <ostream>
#include <set>
#include <tuple>

#include "tests/support/parent_size.h"
#include "tests/trace/golden.h"
#include "tests/trace/render.h"

namespace {

struct Named {
    const char* name;
    trace::Operation (*make)();
};

void PrintTo(const Named& operation, std::ostream* out)
{
    *out << operation.name;
}

/// An operation, and Zt_pipe_large_parent.
using NamedAndLimit = std::tuple<Named, long>;

constexpr Named operations[] = {
    {"first_open", trace::first_open},
    {"open_any", trace::open_any},
    {"open_program", trace::open_program},
    {"open_command", trace::open_command},
    {"write_program", trace::write_program},
    {"write_command", trace::write_command},
    {"read_program", trace::read_program},
    {"read_command", trace::read_command},
    {"unlimited_program", trace::unlimited_program},
    {"unlimited_command", trace::unlimited_command},
    {"status_program", trace::status_program},
    {"close_program", trace::close_program},
    {"close_command", trace::close_command},
    {"cleanup", trace::cleanup},
    {"sigpipe", trace::sigpipe},
};

std::string test_name(const testing::TestParamInfo<NamedAndLimit>& info)
{
    return std::get<Named>(info.param).name;
}

class TraceOf : public testing::TestWithParam<NamedAndLimit> {
  protected:
    // The programs are named without their directory, so the lines are the same wherever the tests are built.
    void SetUp() override
    {
        ASSERT_EQ(chdir(ZT_TEST_CHILDREN_DIR), 0);
        unsetenv("ZT_PIPE_DEBUG");
        Zt_pipe_large_parent = std::get<long>(GetParam());
    }
};

TEST_P(TraceOf, isLineByLineAsInItsGoldenFileInAFileAndOnStandardError)
{
    const Named& operation = std::get<Named>(GetParam());
    const std::string name = operation.name;
    const std::string text = trace::render(operation.make());
    if (golden::is_to_be_updated()) {
        golden::update(name, text);
        GTEST_SKIP() << golden::path(name) << " is written anew; read the difference before keeping it";
    }
    const std::string difference = golden::difference(golden::content(name), text);
    EXPECT_TRUE(difference.empty()) << golden::path(name) << " says otherwise:\n"
                                    << difference
                                    << "Run the test with ZT_UPDATE_GOLDEN=1 to have the file written anew.";
}

INSTANTIATE_TEST_SUITE_P(InASmallParent, TraceOf,
                         testing::Combine(testing::ValuesIn(operations), testing::Values(never_large)),
                         test_name);
INSTANTIATE_TEST_SUITE_P(InALargeParent, TraceOf,
                         testing::Combine(testing::ValuesIn(operations), testing::Values(always_large)),
                         test_name);

TEST(GoldenFiles, areThoseOfTheOperations)
{
    std::set<std::string> expected, found;
    for (const Named& operation : operations) {
        EXPECT_EQ(operation.make().name, std::string(operation.name));
        expected.insert(operation.name);
    }
    const auto directory = std::filesystem::path(golden::path("any")).parent_path();
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        found.insert(entry.path().stem().string());
    EXPECT_EQ(found, expected);
}

TEST(GoldenFiles, haveEachHeadingOnce)
{
    for (const Named& operation : operations) {
        std::set<std::string> names;
        const trace::Operation made = operation.make();
        for (const trace::Scenario& scenario : made.scenarios)
            EXPECT_TRUE(names.insert(scenario.name).second) << operation.name << ": " << scenario.name;
        names.clear();
        for (const trace::Setting& setting : made.settings)
            EXPECT_TRUE(names.insert(setting.name).second) << operation.name << ": " << setting.name;
    }
}

TEST(GoldenFiles, differWhereOneLineOfOneSectionDoes)
{
    const std::string before = "== a, OFF\n== a, MEMORY\n(nothing)\n\n== a, PARMS\n-> x: [1]\n\n";
    EXPECT_EQ(golden::difference(before, before), "");
    EXPECT_EQ(golden::difference(before, "== a, OFF\n(nothing)\n\n== a, MEMORY\n== a, PARMS\n-> x: [1]\n\n"),
              "== a, MEMORY\nexpected:\n(nothing)\n\nnow:\n-> x: [1]\n\n");
    EXPECT_EQ(golden::difference(before, before + "== b\nz\n"), "== b\nis not in the file; now:\nz\n");
    EXPECT_EQ(golden::difference(before + "== b\nz\n", before), "== b\nis only in the file:\nz\n");
}

}  // namespace
