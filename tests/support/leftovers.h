/// @file
/// What a test must not leave behind: descriptors, children, memory, handles, an armed interrupt latch, a
/// changed environment.
#ifndef ZT_TESTS_SUPPORT_LEFTOVERS_H
#define ZT_TESTS_SUPPORT_LEFTOVERS_H

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

/// The state of the process at one moment, to compare a later one with.
///
/// @code
///     Leftovers leftovers;
///     ... a failing open ...
///     EXPECT_EQ(leftovers.found(), Leftovers::none);
/// @endcode
class Leftovers {
  public:
    /// Takes the state now.
    Leftovers();

    /// Opens and closes a pipe without a child. The first open changes the process for good (handle table,
    /// exit functions, signal handlers); a state that is taken after this does not show that as left behind.
    static void settle();

    static const std::vector<std::string> none;

    /// What is different now, a line each, "+" in front of what is new and "-" of what was before. The handle
    /// table, which grows and stays, does not count.
    std::vector<std::string> found() const;

    /// Exactly so many more open descriptors are expected: a leak that is known and stated.
    void allow_descriptors(int count) { allowed_descriptors_ = count; }

  private:
    using State = std::map<std::string, std::string>;
    static State state();

    State before_;
    int allowed_descriptors_ = 0;
};

/// A fixture: after each test the process is as it was before. Not for tests of what the first open does.
class NothingLeftTest : public ::testing::Test {
  protected:
    static Leftovers settled()
    {
        Leftovers::settle();
        return Leftovers();
    }

    void TearDown() override { EXPECT_EQ(leftovers.found(), Leftovers::none); }

    Leftovers leftovers = settled();
};

#endif
