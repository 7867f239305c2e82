/// @file
/// The ways to make a failure site fire: calls that have to fail, and the faults that make them.
#ifndef ZT_TESTS_CONFORMANCE_FIRING_H
#define ZT_TESTS_CONFORMANCE_FIRING_H

#include <gtest/gtest.h>
#include <zt/ztpipe/internal.h>

#include <functional>
#include <initializer_list>
#include <map>
#include <string>

#include "tests/support/faults.h"

/// One failure on its way: the calls below poison the record, do what has to fail and check its result. What
/// the record then holds is compared with the row of the site.
struct Firing {
    zt::Status status;
    /// The allocator's count right before the failing call.
    int heap = 0;
    /// What the failure has left behind. The scenario has looked at it and put it right again.
    std::string left;

    void open(const char* program, const char* options, const char* const* argv = nullptr,
              const char* const* envp = nullptr);
    void close(int handle, const char* options = "");
    void write(int handle, const char* text, int length);
    void read(int handle, int size);
    void read_without_buffer(int handle);
    void read_unlimited(int handle, int offset = 0);
    void read_unlimited_without_result(int handle);
    /// Asks how the child does; may succeed, the record tells.
    void poll(int handle, bool wait);
    void configure(const char* options);
    void report_settings_nowhere();

    /// An open of "cat" whose forked child cannot be wired: the record is the one that the child ends with.
    void open_in_child(const char* options, faults::Fault fault);

  private:
    class Attempt;
};

/// What leads to a failure, by the key of its row.
using Scenario = std::function<void(Firing&)>;
using Scenarios = std::map<std::string, Scenario>;

Scenarios table_scenarios();
Scenarios open_scenarios();
Scenarios launch_scenarios();
Scenarios child_scenarios();
Scenarios write_scenarios();
Scenarios read_scenarios();
Scenarios status_scenarios();
Scenarios close_scenarios();
Scenarios debug_scenarios();

/// Does something while calls fail as told; they must do so.
template <class Body>
void with_faults(std::initializer_list<faults::Fault> planned, Body body)
{
    faults::Plan plan{planned};
    body();
    EXPECT_TRUE(plan.fired());
}

/// A pipe without a child, for as long as this object lives.
class Childless {
  public:
    Childless();
    explicit Childless(const char* options);
    ~Childless();
    Childless(const Childless&) = delete;
    Childless& operator=(const Childless&) = delete;
    operator int() const { return handle_; }

  private:
    int handle_;
};

#endif
