/// @file
/// Playing scenarios and writing down what they trace.
#ifndef ZT_TESTS_TRACE_RENDER_H
#define ZT_TESTS_TRACE_RENDER_H

#include <string>

#include "tests/support/tracefile.h"
#include "tests/trace/scenario.h"

namespace trace {

/// What a scenario traced into a file (ZT_TRACE_FILE) and on standard error.
///
/// Values that differ from run to run are replaced by their names, but only where they are the right ones:
/// the number of the child that the pipe really has is "<pid>" (of the second pipe, "<pid 2>"), the address
/// of its stream "<address>". A long run of the letter x is "<x, 1020 times>".
///
/// A forked child traces its own lines while its parent goes on, in an order that nobody can tell. So a
/// forked child's trace goes to a file of its own, and its lines stand behind the parent's, with "[child] "
/// in front.
struct Played {
    Lines in_file;
    Lines on_stderr;
};
Played play(const Operation& operation, const Scenario& scenario, const Setting& setting);

/// The whole text of an operation's golden file: a heading for each scenario and setting, and below it the
/// lines. Settings of one scenario that give the same lines share them.
std::string render(const Operation& operation);

}  // namespace trace

#endif
