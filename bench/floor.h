/// @file
/// What a careful programmer writes by hand for one purpose: the floor that the figures are ratios to.
#ifndef ZT_BENCH_FLOOR_H
#define ZT_BENCH_FLOOR_H

#include <sys/types.h>

#include <cstddef>

namespace bench {

/// A child with pipes to its standard input and from its standard output.
struct Child {
    pid_t pid;
    int to, from;
};

enum class Starter { fork, vfork, spawn };

/// Ends the program when the system refuses.
Child start(Starter starter, const char* program, const char* argument);

/// Closes the pipes and waits for the child.
void finish(const Child& child);

/// Starts the program, reads `expected` bytes into fresh memory taken beforehand and on to the end, waits.
/// Returns the bytes read.
template <Starter starter>
std::size_t run(const char* program, const char* argument);

/// The same with popen and a command text.
std::size_t run_popen(const char* command);

}  // namespace bench

#endif
