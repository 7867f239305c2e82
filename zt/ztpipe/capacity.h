/// @file
/// How much the kernel keeps between parent and child.
#ifndef ZT_ZTPIPE_CAPACITY_H
#define ZT_ZTPIPE_CAPACITY_H

#include <zt/ztpipe.h>

#include <cstddef>

namespace zt::pipe {

/// After the launch: asks for the capacity that the caller gave as SIZE. The default asks for nothing.
void ask_for_capacity(zt_pipe& pipe);

/// After a read that stored `count` of `request` bytes: widens the pipe once, when bulk data is what flows.
void note_read(zt_pipe& pipe, std::size_t count, std::size_t request);

/// After a write of `count` bytes: likewise.
void note_write(zt_pipe& pipe, std::size_t count);

}  // namespace zt::pipe

#endif
