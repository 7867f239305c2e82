#include <poll.h>
#include <stdio_ext.h>
#include <unistd.h>
#include <zt/ztpipe/stream.h>

#include <cerrno>
#include <cstring>

namespace zt::pipe {
namespace {

// Takes the first bytes out of what waits to be written. Streams have no operation for that; these are the
// fields with which the C library's own inline putc works.
void take_out(std::FILE* stream, std::size_t count)
{
    char* const first = stream->_IO_write_base;
    std::memmove(first, first + count, __fpending(stream) - count);
    stream->_IO_write_ptr -= count;
}

// After a failure that no second attempt would mend the bytes are dropped, as the stream would do: the
// failure is reported now and not once more by the close.
bool write_out(std::FILE* stream)
{
    while (const std::size_t pending = __fpending(stream)) {
        const ssize_t written = write(fileno(stream), stream->_IO_write_base, pending);
        if (written < 0 && (errno == EINTR || errno == EAGAIN)) return false;
        take_out(stream, written < 0 ? pending : static_cast<std::size_t>(written));
        if (written < 0) return false;
    }
    return true;
}

}  // namespace

bool make_room(std::FILE* stream, std::size_t coming)
{
    flockfile(stream);
    const std::size_t pending = __fpending(stream);
    const bool has_room = pending == 0 || pending + coming <= __fbufsize(stream) || write_out(stream);
    funlockfile(stream);
    return has_room;
}

// A pipe that is ready takes a page at once, and a stream's buffer is no larger.
void wait_for_room(std::FILE* stream)
{
    if (__fpending(stream) == 0) return;
    pollfd end{fileno(stream), POLLOUT, 0};
    while (poll(&end, 1, -1) < 0 && errno == EINTR) {
    }
}

}  // namespace zt::pipe
