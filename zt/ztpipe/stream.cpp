#include <poll.h>
#include <stdio_ext.h>
#include <zt/ztpipe/stream.h>

#include <cerrno>

namespace zt::pipe {
namespace {

// A pipe that is ready takes a page at once, and a stream's buffer is no larger: the write does not block
// after this, so that no signal can interrupt it.
bool wait_until_ready(int fd, OnInterrupt on_interrupt)
{
    pollfd end{fd, POLLOUT, 0};
    while (poll(&end, 1, -1) < 0)
        if (errno != EINTR || on_interrupt == OnInterrupt::give_up) return false;
    return true;
}

}  // namespace

bool make_room(std::FILE* stream, std::size_t coming, OnInterrupt on_interrupt)
{
    const std::size_t pending = __fpending(stream);
    if (pending == 0 || pending + coming <= __fbufsize(stream)) return true;
    return wait_until_ready(fileno(stream), on_interrupt) && std::fflush(stream) == 0;
}

}  // namespace zt::pipe
