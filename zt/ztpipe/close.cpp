// Closing a pipe. The steps run in a fixed order and go on after a failure; that order alone decides which of
// several failures the caller sees.
#include <unistd.h>
#include <zt/runtime/errors.h>
#include <zt/runtime/exit_status.h>
#include <zt/runtime/open_files.h>
#include <zt/runtime/text.h>
#include <zt/ztpipe/operation.h>
#include <zt/ztpipe/stream.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace zt::pipe {
namespace {

constexpr char routine[] = "zt_ipipe_close";
constexpr int free_buffer_line = 3679;
constexpr int free_block_line = 3684;

// pclose's value for a shell that could not be run. The raw value is meant, not an exit code: a command that
// is not found is an ordinary end with an error.
constexpr int shell_not_run = 127;

namespace at {
constexpr Site options_refused{3342, 0};
constexpr Site must_wait{3540, ZT_PIPE_E_MUSTWAIT};
constexpr Site pclose_failed{3576, ZT_PIPE_E_CLOSE};
constexpr Site no_shell{3582, ZT_PIPE_E_START};
constexpr Site close_read_end{3601, ZT_PIPE_E_CLOSE};
constexpr Site close_write_end{3609, ZT_PIPE_E_CLOSE};
constexpr Site kill_failed{3636, ZT_PIPE_E_KILL};
constexpr Site killed{3647, ZT_PIPE_S_ABNORMAL};
constexpr Site interrupted{3694, ZT_PIPE_E_INTERRUPTED};
constexpr Site no_options{4061, ZT_PIPE_E_NULLARG};
constexpr Site options_too_long{4062, ZT_PIPE_E_TOOLONG};
}  // namespace at

struct CloseOptions {
    bool no_kill = false, no_wait = false, no_free = false;
};

CloseOptions read_options(Operation& op, const char* options)
{
    const std::size_t length = std::strlen(options);
    if (length > ZT_PIPE_OPTIONS_LIMIT) {
        op.fail_limit(at::options_too_long, "options", saturated(length), ZT_PIPE_OPTIONS_LIMIT);
        return {};
    }
    enum { no_kill, no_wait, no_free, keyword_count };
    zt_option given[keyword_count] = {{0, "NOKILL", 0, 0, ZT_OPTION_VALUE_NONE, nullptr, 0},
                                      {0, "NOWAIT", 0, 0, ZT_OPTION_VALUE_NONE, nullptr, 0},
                                      {0, "NOFREE", 0, 0, ZT_OPTION_VALUE_NONE, nullptr, 0}};
    char copy[ZT_PIPE_OPTIONS_LIMIT + 1];
    if (!process_options(op, at::options_refused, options, copy, given, keyword_count)) return {};
    return {given[no_kill].present != 0, given[no_wait].present != 0, given[no_free].present != 0};
}

void name_program(zt::Status& status, const zt_pipe& pipe)
{
    zt_trim_filename(pipe.program, sizeof status.msg, status.msg);
}

// The class of an ended child, with the program's name for the person who reads the message.
void classify(const zt_pipe& pipe, zt::Status& status)
{
    if (zt_exit_status(pipe.wait_status, &status) != 0) name_program(status, pipe);
}

// A stream's address as text: after pclose the pointer itself may not be looked at any more.
struct Address {
    explicit Address(const void* pointer) { std::snprintf(text, sizeof text, "%p", pointer); }
    char text[24];
};

void trace_pclose(const zt_pipe& pipe, const Address& stream)
{
    if (pipe.wait_status != -1) {
        zt_trace_msg("   %s: pclose of '%s' fh %s, returned %d", routine, pipe.cmdline, stream.text,
                     pipe.wait_status);
        return;
    }
    char text[256];
    zt_trace_msg("   %s: pclose of '%s' fh %s failed, returned %d: %s", routine, pipe.cmdline, stream.text,
                 pipe.wait_status, zt_error_msg_r(errno, text, sizeof text));
}

void close_command(Operation& op, zt_pipe& pipe)
{
    if (pipe.fh == nullptr) return;   // the launch failed before there was a stream
    if (zt_exit_in_signal()) return;  // pclose locks and frees: a handler may do neither
    const Address stream{pipe.fh};
    if (pipe.direction == ZT_PIPE_WRITES) wait_for_room(pipe.fh);
    pipe.wait_status = pclose(pipe.fh);
    if (op.traces_detail()) trace_pclose(pipe, stream);
    if (pipe.wait_status == -1) {
        if (errno != ECHILD) return op.fail_system(at::pclose_failed, pipe.program);
        pipe.wait_status = 0;  // somebody else has collected the shell: there is nothing to report
        return;
    }
    if (pipe.wait_status == shell_not_run) return op.fail_system(at::no_shell, pipe.program);
    classify(pipe, op.status);
    if (op.status.code == ZT_PIPE_S_NORMAL) ZT_CLEAR_STATUS(&op.status);
}

// A descriptor numbered 0 counts as absent.
void close_descriptor(Operation& op, Site site, const zt_pipe& pipe, int fd)
{
    if (fd != 0 && close(fd) < 0) op.fail_system(site, pipe.program);
}

void trace_kill(const Operation& op, const zt_pipe& pipe, int result)
{
    if (!op.traces_detail()) return;
    char text[256];
    zt_trace_msg("   %s: kill of '%s' pid %d: %s", routine, pipe.cmdline, pipe.pid,
                 result >= 0 ? "successful" : zt_error_msg_r(errno, text, sizeof text));
}

// Whatever the wait finds is dropped: a child that the close had to end counts as ended by that signal,
// always.
void kill_child(Operation& op, zt_pipe& pipe, const CloseOptions& options, zt::Status& working)
{
    const int result = kill(pipe.pid, SIGTERM);
    trace_kill(op, pipe, result);
    if (result < 0) op.fail_system(at::kill_failed, pipe.program);
    if (!options.no_wait) zt_pipe_status(static_cast<int>(pipe.handle), true, &working);
    working.code = 0;
    if (op.failed()) return;
    op.fail(at::killed, SIGTERM);
    name_program(op.status, pipe);
}

// The child's end, when it is known and not normal, and a failed wait are news that outweigh a descriptor
// that would not close.
void merge(Operation& op, zt::Status& working)
{
    if (working.code != 0 && working.code != ZT_PIPE_S_NORMAL) ZT_COPY_STATUS(&op.status, &working);
}

void end_child(Operation& op, zt_pipe& pipe, const CloseOptions& options)
{
    const int handle = static_cast<int>(pipe.handle);
    zt::Status working{0};
    if (pipe.wait_status != -1) {
        classify(pipe, working);
    } else {
        // No grace period: who wants one reads to the end or uses NOKILL.
        zt_pipe_status(handle, false, &working);
        if (pipe.wait_status == -1 && !options.no_kill)
            kill_child(op, pipe, options, working);
        else if (!options.no_wait)
            zt_pipe_status(handle, true, &working);
    }
    merge(op, working);
}

void close_program(Operation& op, zt_pipe& pipe, const CloseOptions& options)
{
    close_descriptor(op, at::close_read_end, pipe, pipe.read_fd);
    close_descriptor(op, at::close_write_end, pipe, pipe.write_fd);
    if (pipe.pid > 0) end_child(op, pipe, options);
}

// The registry's key is the block's address. Another thread may be given the same address once the block is
// freed; the registry removes the oldest entry of two. So a pipe that has no entry removes none: it would be
// the other's.
void release(Operation& op, zt_pipe* pipe, const CloseOptions& options)
{
    if (zt_exit_in_signal()) return;  // nothing is freed in a handler: the process ends, its memory with it
    if (pipe->buffer != nullptr && !options.no_free)
        zt_mem_ifree(pipe_memory, pipe->buffer, module_name, free_buffer_line);
    const void* const key = pipe;
    const bool registered = pipe->registered != 0;
    {
        const TableLock lock;
        if (is_in_table(*pipe)) empty_slot(*pipe);  // an exit on another thread may have taken it out
        op.hand_over();
        zt_mem_ifree(pipe_memory, pipe, module_name, free_block_line);
    }
    if (registered) zt_ifile_del_entry(pipe_entry, key);
}

void close_steps(Operation& op, int handle, const char* options_text)
{
    zt_pipe* pipe;
    if (!op.enter(handle, pipe)) return;
    if (options_text == nullptr) return op.fail_null_argument(at::no_options, "options");
    op.work_on(pipe);
    const CloseOptions options = read_options(op, options_text);
    if (op.failed()) return;
    if (pipe->mode == ZT_PIPE_MODE_COMMAND) {
        if (options.no_wait) {
            op.fail(at::must_wait);
            zt_strncpy(op.status.msg, "Must WAIT for a COMMAND pipe", sizeof op.status.msg);
            return;
        }
        close_command(op, *pipe);
    }
    if (pipe->mode == ZT_PIPE_MODE_PROGRAM) close_program(op, *pipe, options);
    release(op, pipe, options);
}

}  // namespace
}  // namespace zt::pipe

using namespace zt::pipe;

extern "C" int zt_ipipe_close(int handle, const char* options, zt::Status* status, const char*, int)
{
    if (status == nullptr) return static_cast<int>(ZT_PIPE_E_NOSTATUS);
    Operation op{routine, *status, Category::close};
    if (op.traces_entry()) zt_trace_msg("-> %s: [%d] [%s] []", routine, handle, shown(options));
    close_steps(op, handle, options);
    op.finish(at::interrupted);
    const int result = static_cast<int>(status->code);
    if (op.traces_exit())
        zt_trace_msg("<-%c%s: [%d] [%s] [%d %d %d %s] returned %d", mark(op.failed()), routine, handle,
                     shown(options), status->code, status->subcode, status->sys_errno, status->msg, result);
    return result;
}
