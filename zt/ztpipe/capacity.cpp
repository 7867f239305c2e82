// A wider pipe means fewer switches between parent and child. The system's allowance for pipe memory is
// shared by all processes of a user, so nobody gets a wide one for small talk, and a refusal passes silently.
#include <fcntl.h>
#include <zt/ztpipe/capacity.h>
#include <zt/ztpipe/open_options.h>

#include <cerrno>
#include <cstdio>

namespace zt::pipe {
namespace {

// Measured: 256 KiB carries bulk data at more than twice the rate of the system's 64 KiB; 1 MiB adds nothing.
constexpr int wide = 256 * 1024;
constexpr int transfers_before_widening = 4;
constexpr std::size_t small_talk = 4096;
constexpr std::size_t bulk_write = 32 * 1024;

int parents_read_end(const zt_pipe& pipe)
{
    return pipe.mode == ZT_PIPE_MODE_COMMAND ? fileno(pipe.fh) : pipe.read_fd;
}

int parents_write_end(const zt_pipe& pipe)
{
    return pipe.mode == ZT_PIPE_MODE_COMMAND ? fileno(pipe.fh) : pipe.write_fd;
}

void set_capacity(int fd, int bytes)
{
    const int error = errno;
    fcntl(fd, F_SETPIPE_SZ, bytes);
    errno = error;
}

// Counts up to the transfer that shows what the pipe is used for, and no further.
bool is_the_telling_one(std::uint8_t& transfers)
{
    return transfers < transfers_before_widening && ++transfers == transfers_before_widening;
}

}  // namespace

void ask_for_capacity(zt_pipe& pipe)
{
    if (pipe.size == default_size || pipe.size <= 0) return;
    if (pipe.mode == ZT_PIPE_MODE_NONE) return;
    if (pipe.direction != ZT_PIPE_WRITES) set_capacity(parents_read_end(pipe), pipe.size);
    if (pipe.direction != ZT_PIPE_READS) set_capacity(parents_write_end(pipe), pipe.size);
    pipe.bulk_reads = pipe.bulk_writes = transfers_before_widening;  // the caller knows better
}

void note_read(zt_pipe& pipe, std::size_t count, std::size_t request)
{
    if (count < request || count < small_talk) return;
    if (is_the_telling_one(pipe.bulk_reads)) set_capacity(parents_read_end(pipe), wide);
}

void note_write(zt_pipe& pipe, std::size_t count)
{
    if (count < bulk_write) return;
    if (is_the_telling_one(pipe.bulk_writes)) set_capacity(parents_write_end(pipe), wide);
}

}  // namespace zt::pipe
