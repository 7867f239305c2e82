/// @file
/// Counters of a coverage build in processes that do not end by exit: without this, what runs in a forked
/// child that executes a program or ends at once would count as never run. Nothing in other builds.
#ifndef ZT_TESTS_SUPPORT_COVERAGE_H
#define ZT_TESTS_SUPPORT_COVERAGE_H

namespace coverage {

#ifdef ZT_TEST_COVERAGE
/// Adds the counters to the files, and starts again from 0. Only in the first children of a process: writing
/// takes long, and those that a test starts by the hundred run nothing new.
void save();
#else
inline void save() {}
#endif

}  // namespace coverage

#endif
