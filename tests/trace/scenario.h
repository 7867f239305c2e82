/// @file
/// What the trace is compared for: operations, each with scenarios that play it and with settings of the
/// debug flags under which they are played.
#ifndef ZT_TESTS_TRACE_SCENARIO_H
#define ZT_TESTS_TRACE_SCENARIO_H

#include <zt/ztpipe/internal.h>

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/faults.h"

namespace trace {

/// What a scenario works with.
struct Stage {
    int handle = 0;  ///< the pipe opened for the scenario
    zt::Status status;
    char buffer[64] = {};  ///< to read into
    char* text = nullptr;  ///< where the unlimited read left its data
};

using Step = std::function<void(Stage&)>;

/// The pipe that a scenario finds open. Without options there is none.
struct Opened {
    const char* program = nullptr;
    const char* options = nullptr;
};

/// A fault that never happens.
inline constexpr faults::Fault no_fault{.function = faults::Function::fork, .nth = 0};

/// One way in which an operation can go. Only `act` is traced.
struct Scenario {
    const char* name;
    Opened pipe = {};
    Step before = {};
    std::array<faults::Fault, 2> faults = {no_fault, no_fault};  ///< while it acts
    Step act = {};                                               ///< empty: as the operation says
    bool closes_stderr = false;  ///< the lines are lost on standard error: only a file is looked at
};

/// Debug flags: how they are called in a heading, and the option text that sets them.
struct Setting {
    std::string name;
    std::string options;
    /// A flag decides whether there is a line before it is known where lines go, so single flags are played
    /// into a file only: each play starts a child, and that takes its time under a sanitizer.
    bool on_stderr_too = true;
};

/// Nothing; each flag alone for the operation's own category and for a foreign one; all of them for the own
/// one, the foreign one, all but the own one, the own one only, and for all.
std::vector<Setting> settings_of(const std::string& own, const std::string& foreign);

struct Operation {
    const char* name;   ///< of the golden file
    const char* title;  ///< in its headings
    std::vector<Setting> settings;
    Step act;  ///< of the scenarios that have none of their own
    std::vector<Scenario> scenarios;
    bool by_environment = false;   ///< the settings come from ZT_PIPE_DEBUG instead of a call
    bool starts_children = false;  ///< children are left to end by themselves, so that their lines are whole
};

Operation first_open();
Operation open_any();
Operation open_program();
Operation open_command();
Operation write_program();
Operation write_command();
Operation read_program();
Operation read_command();
Operation unlimited_program();
Operation unlimited_command();
Operation status_program();
Operation close_program();
Operation close_command();
Operation cleanup();
Operation sigpipe();

// -------------------------------------------------------------------------------------- steps for many
// tables

/// Waits until the child is ready; it has said so on a line.
void await_line(Stage& stage);
/// Waits until the child has ended, and leaves it uncollected.
void await_end(Stage& stage);
/// Reads to the child's end, which collects a program.
void collect(Stage& stage);
/// Sends the child "Hi" and a newline.
void say_hi(Stage& stage);

}  // namespace trace

#endif
