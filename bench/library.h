/// @file
/// Builds of the library that are measured side by side in one process.
#ifndef ZT_BENCH_LIBRARY_H
#define ZT_BENCH_LIBRARY_H

#include <zt/ztpipe.h>

namespace bench {

/// The operations of one build.
struct Library {
    decltype(&zt_ipipe_open) open;
    decltype(&zt_pipe_write) write;
    decltype(&zt_pipe_read) read;
    decltype(&zt_ipipe_close) close;
};

/// The one that this program is linked with.
inline constexpr Library linked{zt_ipipe_open, zt_pipe_write, zt_pipe_read, zt_ipipe_close};

/// A shared library, loaded so that none of its names meets another build's.
Library load(const char* path);

}  // namespace bench

#endif
