/// @file
/// Libraries that a user might pick instead, each doing the same job in the way its documentation shows:
/// start a program with one argument, read its whole output into memory, wait for it. The result is the bytes
/// read.
#ifndef ZT_BENCH_PEERS_H
#define ZT_BENCH_PEERS_H

#include <cstddef>

namespace bench {

std::size_t run_boost_v1(const char* program, const char* argument);
std::size_t run_boost_v2(const char* program, const char* argument);
std::size_t run_boost_v2_vfork(const char* program, const char* argument);
std::size_t run_pstreams(const char* program, const char* argument);
std::size_t run_poco(const char* program, const char* argument);
std::size_t run_glib(const char* program, const char* argument);
std::size_t run_libuv(const char* program, const char* argument);

/// A shell command's whole output.
std::size_t run_pstreams_command(const char* command);

/// Seconds that one run takes in Python's subprocess, measured inside Python over `count` runs.
double seconds_in_python(const char* program, const char* argument, int count);

}  // namespace bench

#endif
