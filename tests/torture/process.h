/// @file
/// Processes that are watched: none is waited for without a deadline, none is left behind.
#ifndef ZT_TESTS_TORTURE_PROCESS_H
#define ZT_TESTS_TORTURE_PROCESS_H

#include <sys/types.h>

#include <functional>
#include <optional>
#include <vector>

#include "tests/torture/report.h"

namespace torture {

using Seconds = double;

/// Waits for the end of one child; empty at the deadline.
std::optional<int> wait_for_end(pid_t pid, Seconds limit);

/// Orphans of our descendants become our children from now on.
void adopt_orphans();

/// The processes whose parent is this one.
std::vector<pid_t> children();

/// Collects children until there are none; those that still run at the deadline are killed.
/// @return how many had to be killed.
int collect_children(Seconds limit, const std::function<void(pid_t, int)>& ended);

/// Runs a scenario in a process of its own and waits for its end. A scenario that does not end in time, or
/// does not exit with 0, is a failure of the report.
bool run_apart(Report& report, const char* name, Seconds limit, const std::function<void()>& scenario);

/// A wait status in words: "exit 3", "signal 15".
const char* in_words(int wait_status);

/// What must not grow.
struct Resources {
    int descriptors;
    int children;
    int heap;
    long resident_kib;
    static Resources now();
};

/// Runs on until the condition holds; false at the deadline.
bool comes_true(Seconds limit, const std::function<bool()>& condition);

void pause_for(std::uint64_t microseconds);

}  // namespace torture

#endif
