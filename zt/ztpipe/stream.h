/// @file
/// What a stream of a COMMAND pipe has accepted and not written yet.
#ifndef ZT_ZTPIPE_STREAM_H
#define ZT_ZTPIPE_STREAM_H

#include <cstddef>
#include <cstdio>

namespace zt::pipe {

enum class OnInterrupt { give_up, go_on };

/// Writes out what the stream has accepted, where so many more bytes would make the stream do it anyway. Done
/// by the stream itself, an interrupted write would throw away bytes whose write has been reported as a
/// success. Returns false with errno set when that failed or was interrupted.
bool make_room(std::FILE* stream, std::size_t coming, OnInterrupt on_interrupt);

}  // namespace zt::pipe

#endif
