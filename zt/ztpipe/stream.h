/// @file
/// What a stream of a COMMAND pipe has accepted and not written yet.
#ifndef ZT_ZTPIPE_STREAM_H
#define ZT_ZTPIPE_STREAM_H

#include <cstddef>
#include <cstdio>

namespace zt::pipe {

/// Writes out what the stream has accepted, where so many more bytes would make the stream do it anyway. Done
/// by the stream itself, an interrupted write would throw away bytes whose write has been reported as a
/// success; here they stay. Returns false with errno set when the write failed or was interrupted. As with
/// the stream, only a signal whose handler was installed without SA_RESTART interrupts.
bool make_room(std::FILE* stream, std::size_t coming);

/// Waits, whatever signals come, until the child takes what the stream has accepted: no signal interrupts the
/// stream when it then writes that out.
void wait_for_room(std::FILE* stream);

}  // namespace zt::pipe

#endif
