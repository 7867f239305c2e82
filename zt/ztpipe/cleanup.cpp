// What the runtime calls on the module's behalf: on SIGPIPE, and when the process ends.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <zt/runtime/open_files.h>
#include <zt/runtime/signals.h>
#include <zt/ztpipe/operation.h>

#include <atomic>
#include <csignal>
#include <cstdio>

namespace zt::pipe {
namespace {

constexpr int cleanup_close_line = 183;
constexpr int free_table_line = 188;

bool traces_detail()
{
    return traces(Category::global, ZT_PIPE_DEBUG_FLAG);
}

// In a signal handler, where pclose cannot be called: what is still buffered goes out as far as the child
// takes it at once. Neither the stream's lock nor the allocator is touched.
void flush_in_signal(const zt_pipe& pipe)
{
    if (pipe.direction != ZT_PIPE_WRITES || pipe.fh == nullptr) return;
    const int fd = fileno_unlocked(pipe.fh);
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) >= 0) fflush_unlocked(pipe.fh);
}

// Frees the stream of another process's pipe. What that process had buffered is its own to write: here it
// goes to the null device. The shell is no child of this process, so pclose does not wait.
void drop_stream(const zt_pipe& pipe)
{
    const int null_device = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null_device >= 0) {
        dup2(null_device, fileno(pipe.fh));
        close(null_device);
    } else {
        close(fileno(pipe.fh));
    }
    pclose(pipe.fh);
}

// A forked child has the table of the process that opened the pipes. Their children are not its own to signal
// or to wait for; it only lets go of its copies.
void drop(zt_pipe& pipe)
{
    // At the fork another thread may have been working on it.
    std::atomic_ref(Zt_pipe_current).store(nullptr, std::memory_order_relaxed);
    if (pipe.fh != nullptr) drop_stream(pipe);
    if (pipe.read_fd != 0) close(pipe.read_fd);
    if (pipe.write_fd != 0) close(pipe.write_fd);
    empty_slot(pipe);
    if (pipe.buffer != nullptr) zt_mem_ifree(pipe_memory, pipe.buffer, module_name, cleanup_close_line);
    zt_ifile_del_entry(pipe_entry, &pipe);
    zt_mem_ifree(pipe_memory, &pipe, module_name, cleanup_close_line);
}

bool is_own(const zt_pipe& pipe)
{
    return pipe.owner == getpid();
}

bool is_busy(zt_pipe& pipe)
{
    return std::atomic_ref(pipe.busy).load(std::memory_order_acquire) != 0;
}

// Another thread is in the middle of an operation on the pipe while this one exits: the block is left to it,
// only the child is told to end. The process's end closes the rest.
void let_go(zt_pipe& pipe)
{
    empty_slot(pipe);
    if (pipe.mode == ZT_PIPE_MODE_PROGRAM && pipe.pid > 0 && pipe.wait_status == -1) kill(pipe.pid, SIGTERM);
}

// The next pipe from this handle on that nobody is working on; null when there is none any more. In a signal
// handler nobody works any more, and nothing is taken out: the process ends.
zt_pipe* next_pipe(int& handle)
{
    const TableLock lock;
    // A table that was lost for want of memory has a size but no slots.
    for (; Zt_pipes != nullptr && handle < Zt_avail_pipes; ++handle) {
        zt_pipe* const pipe = Zt_pipes[handle];
        if (pipe == nullptr) continue;
        if (zt_exit_in_signal() || !is_own(*pipe) || !is_busy(*pipe)) return pipe;
        let_go(*pipe);
    }
    return nullptr;
}

void end_pipe(zt_pipe& pipe, zt::Status& status)
{
    const bool in_signal = zt_exit_in_signal();
    if (!is_own(pipe)) return in_signal ? void() : drop(pipe);
    const bool command = pipe.mode == ZT_PIPE_MODE_COMMAND;
    if (command && in_signal && !is_busy(pipe)) flush_in_signal(pipe);
    zt_ipipe_close(static_cast<int>(pipe.handle), command ? "" : "NOWAIT", &status, module_name,
                   cleanup_close_line);
}

void free_table()
{
    if (zt_exit_in_signal()) return;
    const TableLock lock;
    // What other threads have opened since their slot was passed.
    for (int handle = 1; Zt_pipes != nullptr && handle < Zt_avail_pipes; ++handle)
        if (Zt_pipes[handle] != nullptr) let_go(*Zt_pipes[handle]);
    if (Zt_pipes != nullptr) zt_mem_ifree(table_memory, Zt_pipes, module_name, free_table_line);
    Zt_pipes = nullptr;
    std::atomic_ref(Zt_avail_pipes).store(0, std::memory_order_release);
}

// The pipe to a PROGRAM child of this process that was not told to end yet.
bool is_open_program(const zt_pipe& pipe)
{
    const bool has_ends = pipe.read_fd != 0 || pipe.write_fd != 0;
    return pipe.mode == ZT_PIPE_MODE_PROGRAM && is_own(pipe) && pipe.pid > 0 && has_ends;
}

bool is_program_open_above(int handle)
{
    const TableLock lock;
    while (Zt_pipes != nullptr && ++handle < Zt_avail_pipes)
        if (Zt_pipes[handle] != nullptr && is_open_program(*Zt_pipes[handle])) return true;
    return false;
}

void close_early(std::int32_t& fd)
{
    if (fd != 0) close(fd);
    fd = 0;
}

void end_programs_above(int handle)
{
    while (zt_pipe* const pipe = next_pipe(++handle)) {
        if (!is_open_program(*pipe)) continue;
        close_early(pipe->read_fd);
        close_early(pipe->write_fd);
        if (pipe->wait_status == -1) kill(pipe->pid, SIGTERM);
    }
}

// A shell that reads waits for the end of its input, one that writes may wait for room; one whose output has
// ended needs nobody else to end.
bool may_need_others_to_end(const zt_pipe& pipe)
{
    constexpr int patience_ms = 1000;
    pollfd output{fileno(pipe.fh), 0, 0};
    return pipe.direction == ZT_PIPE_WRITES || poll(&output, 1, patience_ms) <= 0;
}

// The end of a shell is waited for, and a PROGRAM child may hold copies of the shell's pipe: as long as it
// lives the shell may not end. So it is told to end before its turn comes.
void let_shell_end(const zt_pipe& pipe)
{
    if (pipe.fh == nullptr || !is_own(pipe) || zt_exit_in_signal()) return;
    const int handle = static_cast<int>(pipe.handle);
    if (is_program_open_above(handle) && may_need_others_to_end(pipe)) end_programs_above(handle);
}

void end_everything(zt::Status& status)
{
    ZT_INIT_STATUS(&status);
    int handle = 1;
    for (; zt_pipe* const pipe = next_pipe(handle); ++handle) {
        let_shell_end(*pipe);
        end_pipe(*pipe, status);
    }
    free_table();
}

void trace_begin(const char* routine, int signo)
{
    if (!traces_detail()) return;
    if (signo <= 0)
        zt_trace_msg("-> %s: beginning cleanup processing due to normal termination", routine);
    else
        zt_trace_msg("-> %s: beginning cleanup processing due to signal: %s", routine, zt_signal_desc(signo));
}

}  // namespace
}  // namespace zt::pipe

using namespace zt::pipe;

extern "C" void zt_pipe_cleanup(int signo)
{
    constexpr char routine[] = "zt_pipe_cleanup";
    zt::Status status;
    trace_begin(routine, signo);
    if (zt_signal_safe(signo)) end_everything(status);
    if (traces_detail()) zt_trace_msg("<- %s: completed cleanup processing", routine);
}

extern "C" void zt_pipe_signal(int signo)
{
    constexpr char routine[] = "zt_pipe_signal";
    zt_pipe* const pipe = std::atomic_ref(Zt_pipe_current).load(std::memory_order_relaxed);
    if (pipe != nullptr) std::atomic_ref(pipe->last_signal).store(signo, std::memory_order_relaxed);
    if (!traces_detail()) return;
    if (pipe != nullptr)
        zt_trace_msg("   %s: signal %s: pid %d (%s)", routine, zt_signal_token(signo), pipe->pid,
                     pipe->program);
    else
        zt_trace_msg("   %s: signal %s: unknown origin", routine, zt_signal_token(signo));
}
