/// @file
/// The rows of the table. A benchmark's name is "<row>/<contestant>"; the first contestant of a row is the
/// floor.
#ifndef ZT_BENCH_ROWS_H
#define ZT_BENCH_ROWS_H

#include <string>

namespace bench {

/// A child program of the measurements.
inline std::string child(const char* name)
{
    return std::string(ZT_BENCH_CHILDREN_DIR "/") + name;
}

/// Ends the program: a measurement of something that failed is worth nothing.
[[noreturn]] void give_up(const char* what);

void register_launches();
/// With so many MiB resident in this process.
void register_launches_of_large_parent(long mib);
void register_transfers();
void register_calls();

}  // namespace bench

#endif
