// Opening a pipe.
#include <unistd.h>
#include <zt/runtime/environment.h>
#include <zt/runtime/errors.h>
#include <zt/runtime/open_files.h>
#include <zt/runtime/text.h>
#include <zt/ztpipe/capacity.h>
#include <zt/ztpipe/open_options.h>
#include <zt/ztpipe/operation.h>

#include <atomic>
#include <csignal>
#include <cstring>

namespace zt::pipe {
namespace {

constexpr char routine[] = "zt_ipipe_open";
constexpr int block_line = 2557;
constexpr int free_environment_line = 2755;
constexpr int undo_close_line = 2780;
constexpr int undo_free_line = 2785;

namespace at {
constexpr Site no_name{2544, ZT_PIPE_E_NULLARG};
constexpr Site name_too_long{2549, ZT_PIPE_E_TOOLONG};
constexpr Site no_block{2559, ZT_PIPE_E_NOMEM};
constexpr Site no_environment{2685, ZT_PIPE_E_NULLARG};
constexpr Site no_program{2691, ZT_PIPE_E_NOPROGRAM};
constexpr Site environment_failed{2734, 0};
constexpr Site interrupted{2762, ZT_PIPE_E_INTERRUPTED};
constexpr Site no_options{4001, ZT_PIPE_E_NULLARG};
constexpr Site options_too_long{4002, ZT_PIPE_E_TOOLONG};
constexpr Site no_words{4005, ZT_PIPE_E_NULLARG};
constexpr Site process_ends{4006, ZT_PIPE_E_HANDLE};
}  // namespace at

// What the caller asked for.
struct Request {
    const char* program;
    const char* options;
    const char* const* argv;
    const char* const* envp;
    const char* file;
    int line;
};

// The child's environment. It is read and given back under the table's lock: a shell launch of another thread
// exchanges the process's environment for a moment.
class ChildEnvironment {
  public:
    ChildEnvironment() = default;
    ChildEnvironment(const ChildEnvironment&) = delete;
    ChildEnvironment& operator=(const ChildEnvironment&) = delete;
    ~ChildEnvironment()
    {
        if (vector_ == nullptr) return;
        const TableLock lock;
        // A process that had no environment keeps the one that the shell launch left installed.
        if (environ != vector_) zt_mem_ifree(pipe_memory, vector_, module_name, free_environment_line);
    }

    void combine(Report& report, const char* const* envp, bool merge)
    {
        const TableLock lock;
        if (zt_combine_environs(envp, merge ? 1 : 0, &vector_) >= 0) return;
        const int error = errno;
        vector_ = nullptr;
        report.fail_system(Site{at::environment_failed.line, zt_error_no(error)}, error);
    }

    const char* const* vector() const { return vector_; }

  private:
    char** vector_ = nullptr;
};

void check_name(Operation& op, const char* program)
{
    if (program == nullptr) return op.fail_null_argument(at::no_name, "pipe name");
    const std::size_t length = std::strlen(program);
    if (length > ZT_PIPE_TEXT_LIMIT)
        op.fail_limit(at::name_too_long, "pipe name", saturated(length), ZT_PIPE_TEXT_LIMIT);
}

void check_arguments(Operation& op, const Request& request)
{
    check_name(op, request.program);
    if (op.failed()) return;
    if (request.options == nullptr) return op.fail_null_argument(at::no_options, "options");
    const std::size_t length = std::strlen(request.options);
    if (length > ZT_PIPE_OPTIONS_LIMIT)
        return op.fail_limit(at::options_too_long, "options", saturated(length), ZT_PIPE_OPTIONS_LIMIT);
    if (request.argv != nullptr && request.argv[0] == nullptr) op.fail_null_argument(at::no_words, "argv");
}

zt_pipe* allocate_block(Operation& op)
{
    constexpr std::size_t size = sizeof(zt_pipe);
    auto* pipe = static_cast<zt_pipe*>(zt_mem_icalloc(pipe_memory, 1, size, 0, module_name, block_line));
    if (pipe == nullptr) {
        op.fail_memory(at::no_block, "p", size);
        return nullptr;
    }
    pipe->wait_status = -1;
    pipe->owner = getpid();
    pipe->busy = 1;
    return pipe;
}

// A process that is going to end in another thread starts nothing new: nobody would end it.
void refuse_at_exit(Operation& op, int handle)
{
    op.fail(at::process_ends);
    op.status.iparm[0] = handle;
    zt_strncpy(op.status.sys_msg, "the process is ending in another thread", sizeof op.status.sys_msg);
}

// Another thread's exit may have taken the block out of the table before there was a child to end: then it is
// ended here. The streams go with the process.
bool kept(Operation& op, zt_pipe& pipe)
{
    const TableLock lock;
    if (is_in_table(pipe) && !zt_exit_elsewhere()) return true;
    if (pipe.pid > 0) kill(pipe.pid, SIGTERM);
    refuse_at_exit(op, static_cast<int>(pipe.handle));
    return false;
}

// The close of an operation that has failed finds the pipe by its handle, which may be another's by now.
bool is_ours_to_close(const zt_pipe& pipe)
{
    const TableLock lock;
    return is_in_table(pipe);
}

void launch(Operation& op, const Request& request, zt_pipe& pipe, const char* const* environment)
{
    if (pipe.mode == ZT_PIPE_MODE_COMMAND) zt_pipe_popen(&pipe, request.argv, environment, &op.status);
    if (pipe.mode == ZT_PIPE_MODE_PROGRAM) zt_pipe_fork(&pipe, request.argv, environment, &op.status);
    if (op.failed() || !kept(op, pipe)) return;
    ask_for_capacity(pipe);
    // Without PROGRAM or COMMAND the pipe has no child; it gets its handle and its entry all the same.
    const int added = zt_ifile_add_entry(pipe_entry, request.program, &pipe, 0, request.file, request.line);
    pipe.registered = added == 0 ? 1 : 0;
}

void open_steps(Operation& op, const Request& request, zt_pipe*& pipe)
{
    if (zt_exit_elsewhere()) return refuse_at_exit(op, 0);
    if (std::atomic_ref(Zt_avail_pipes).load(std::memory_order_acquire) == 0 && zt_pipe_init(&op.status) != 0)
        return;
    check_arguments(op, request);
    if (op.failed()) return;
    if (op.traces_entry()) zt_trace_msg("-> %s: [%s] [%s] [] []", routine, request.program, request.options);

    pipe = allocate_block(op);
    if (pipe == nullptr || zt_pipe_assign_handle(pipe, &op.status) != 0) return;
    op.work_on(pipe);

    OpenOptions others;
    apply_open_options(op, request.options, *pipe, others);
    if (op.failed()) return;
    if (others.merge_environment && request.envp == nullptr)
        return op.fail_null_argument(at::no_environment, "envp");
    if (request.program[0] == '\0') return op.fail(at::no_program);
    std::strcpy(pipe->program, request.program);

    ChildEnvironment environment;
    if (request.envp != nullptr) environment.combine(op, request.envp, others.merge_environment);
    if (!op.failed()) launch(op, request, *pipe, environment.vector());
}

// Gives back what a failed open has taken; the caller keeps the failure that led here, so the close reports
// into a record of its own.
void undo(Operation& op, zt_pipe* pipe)
{
    if (pipe == nullptr) return;
    op.hand_over();
    if (!is_ours_to_close(*pipe)) return zt_mem_ifree(pipe_memory, pipe, module_name, undo_free_line);
    zt::Status working;
    ZT_INIT_STATUS(&working);
    zt_ipipe_close(static_cast<int>(pipe->handle), "", &working, module_name, undo_close_line);
}

}  // namespace
}  // namespace zt::pipe

using namespace zt::pipe;

extern "C" int zt_ipipe_open(const char* program, const char* options, const char* const* argv,
                             const char* const* envp, zt::Status* status, const char* file, int line)
{
    if (status == nullptr) return -1;
    Operation op{routine, *status, Category::open};
    zt_pipe* pipe = nullptr;
    open_steps(op, Request{program, options, argv, envp, file, line}, pipe);
    op.finish(at::interrupted);
    const int result = op.failed() ? -1 : static_cast<int>(pipe->handle);
    if (op.traces_exit())
        zt_trace_msg("<-%c%s: [%s] [%s] [%d %d %d %s] [] returned %d", mark(op.failed()), routine,
                     shown(program), shown(options), status->code, status->subcode, status->sys_errno,
                     status->msg, result);
    if (op.failed()) undo(op, pipe);
    return result;
}
