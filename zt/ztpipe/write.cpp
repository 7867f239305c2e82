// Writing to the child.
#include <unistd.h>
#include <zt/ztpipe/capacity.h>
#include <zt/ztpipe/operation.h>
#include <zt/ztpipe/stream.h>

#include <atomic>
#include <csignal>
#include <cstdio>

namespace zt::pipe {
namespace {

constexpr char routine[] = "zt_pipe_write";

namespace at {
constexpr Site no_buffer{3207, ZT_PIPE_E_NULLARG};
constexpr Site stream_interrupted{3227, ZT_PIPE_E_INTERRUPTED};
constexpr Site stream_failed{3231, ZT_PIPE_E_WRITE};
constexpr Site write_interrupted{3244, ZT_PIPE_E_INTERRUPTED};
constexpr Site write_failed{3267, ZT_PIPE_E_WRITE};
constexpr Site interrupted_at_exit{3278, ZT_PIPE_E_INTERRUPTED};
constexpr Site negative_length{4031, ZT_PIPE_E_TOOLONG};
}  // namespace at

void write_stream(Operation& op, zt_pipe& pipe, const void* buffer, std::size_t length)
{
    if (make_room(pipe.fh, length) && std::fwrite(buffer, 1, length, pipe.fh) == length)
        return note_write(pipe, length);
    if (interrupted()) return op.fail(at::stream_interrupted);
    op.fail_system(at::stream_failed, pipe.program);
}

// How the child ended says more than a bare write error. After a SIGPIPE it has ended or will not read any
// more, so its end is waited for; the signal stays recorded, so every later failing write waits too.
void explain_failed_write(Operation& op, zt_pipe& pipe, int handle, int error)
{
    const bool wait = std::atomic_ref(pipe.last_signal).load(std::memory_order_relaxed) == SIGPIPE;
    if (wait && op.traces_detail()) zt_trace_msg("   %s: SIGPIPE has occurred, so forcing wait", routine);
    if (zt_pipe_status(handle, wait, &op.status) != 0) return;
    if (pipe.wait_status != -1) return;  // deliberately also a normal end: the bytes did not arrive
    op.fail_system(at::write_failed, pipe.program, error);
}

void write_descriptor(Operation& op, zt_pipe& pipe, int handle, const void* buffer, std::size_t length)
{
    if (write(pipe.write_fd, buffer, length) == static_cast<ssize_t>(length)) return note_write(pipe, length);
    const int error = errno;
    if (interrupted()) return op.fail(at::write_interrupted);
    explain_failed_write(op, pipe, handle, error);
}

void write_steps(Operation& op, int handle, const void* buffer, int length)
{
    zt_pipe* pipe;
    if (!op.enter(handle, pipe)) return;
    if (buffer == nullptr) return op.fail_null_argument(at::no_buffer, "buffer");
    if (length < 0) return op.fail_limit(at::negative_length, "length", length, INT_MAX);
    if (op.traces_entry()) zt_trace_buffer(0, buffer, length);
    op.work_on(pipe);
    if (length == 0) return;
    const auto bytes = static_cast<std::size_t>(length);
    if (pipe->mode == ZT_PIPE_MODE_COMMAND) return write_stream(op, *pipe, buffer, bytes);
    if (pipe->mode == ZT_PIPE_MODE_PROGRAM) return write_descriptor(op, *pipe, handle, buffer, bytes);
    op.fail_system(at::write_failed, pipe->program,
                   EBADF);  // no child: never the application's own descriptor 0
}

}  // namespace
}  // namespace zt::pipe

using namespace zt::pipe;

extern "C" int zt_pipe_write(int handle, const void* buffer, int length, zt::Status* status)
{
    if (status == nullptr) return -1;
    Operation op{routine, *status, Category::write};
    if (op.traces_entry()) zt_trace_msg("-> %s: [%d] [see below] [%d] []", routine, handle, length);
    write_steps(op, handle, buffer, length);
    op.finish(at::interrupted_at_exit);
    const int result = op.failed() ? -1 : length;
    if (op.traces_exit())
        zt_trace_msg("<-%c%s: [%d] [] [%d] [%d %d %d %s] returned %d", mark(op.failed()), routine, handle,
                     length, status->code, status->subcode, status->sys_errno, status->msg, result);
    return result;
}
