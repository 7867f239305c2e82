// Starting a PROGRAM pipe's child: two pipes, fork, wiring, exec. Large parents try a shorter road first.
#include <unistd.h>
#include <zt/runtime/command.h>
#include <zt/runtime/errors.h>
#include <zt/runtime/signals.h>
#include <zt/ztpipe/launch.h>
#include <zt/ztpipe/launch_spawn.h>

#include <cstring>
#include <initializer_list>

namespace zt::pipe {
namespace {

constexpr char routine[] = "zt_pipe_fork";
constexpr int vector_line = 2257;
constexpr int free_vector_line = 2466;
constexpr int exec_failed = 127;

namespace at {
constexpr Site no_vector{2259, ZT_PIPE_E_NOMEM};
constexpr Site no_pipes{2282, ZT_PIPE_E_FDSETUP};
constexpr Site fork_failed{2292, ZT_PIPE_E_FORK};
constexpr Site close_child_input{2320, ZT_PIPE_E_FDSETUP};
constexpr Site close_child_output{2325, ZT_PIPE_E_FDSETUP};
constexpr Site file_too_long{4021, ZT_PIPE_E_TOOLONG};
constexpr Site no_words{4022, ZT_PIPE_E_NOPROGRAM};
}  // namespace at

// The words that execvp gets: the caller's vector as it is, or the program text split into words.
class Words {
  public:
    Words() = default;
    Words(const Words&) = delete;
    Words& operator=(const Words&) = delete;
    ~Words()
    {
        if (allocated_ != nullptr) zt_mem_ifree(pipe_memory, allocated_, module_name, free_vector_line);
    }

    void take(Report& report, zt_pipe& pipe, const char* const* argv)
    {
        if (argv == nullptr) return split(report, pipe);
        const std::size_t length = std::strlen(argv[0]);
        if (length > ZT_PIPE_TEXT_LIMIT)
            return report.fail_limit(at::file_too_long, "argv[0]", saturated(length), ZT_PIPE_TEXT_LIMIT);
        vector_ = const_cast<char**>(argv);  // execvp promises not to change the words
        std::strcpy(pipe.cmdline, argv[0]);
    }

    char* const* vector() const { return vector_; }

  private:
    void split(Report& report, zt_pipe& pipe)
    {
        const int count = zt_cmdline_to_argv(pipe.program, nullptr);
        if (count < 1) return report.fail(at::no_words);
        const auto slots = static_cast<std::size_t>(count) + 1;
        allocated_ = static_cast<char**>(
            zt_mem_icalloc(pipe_memory, slots, sizeof(char*), 0, module_name, vector_line));
        if (allocated_ == nullptr)
            return report.fail_memory(at::no_vector, "pargv", static_cast<int>(slots * sizeof(char*)));
        std::strcpy(text_, pipe.program);
        zt_cmdline_to_argv(text_, allocated_);
        allocated_[count] = nullptr;
        vector_ = allocated_;
        std::strcpy(pipe.cmdline, vector_[0]);
    }

    char text_[ZT_PIPE_TEXT_LIMIT + 1];
    char** allocated_ = nullptr;
    char* const* vector_ = nullptr;
};

void trace_words(char* const* vector)
{
    if (!traces_launch_detail()) return;
    zt_trace_msg("   %s: argv:", routine);
    for (int i = 0; vector[i] != nullptr; ++i) zt_trace_msg("      %d: |%s|", i, vector[i]);
}

// When only the second pipe fails, the first one's descriptors stay open: accepted, because a process that
// has run out of descriptors has little left to lose.
bool open_pipes(Report& report, const zt_pipe& pipe, Wires& wires)
{
    if (traces_launch_detail()) zt_trace_msg("   %s: opening pipes", routine);
    if (::pipe(wires.to_child) >= 0 && ::pipe(wires.from_child) >= 0) return true;
    report.fail_system(at::no_pipes, pipe.program);
    return false;
}

void fail_fork(Report& report, const zt_pipe& pipe, const Wires& wires)
{
    report.fail_system(at::fork_failed, pipe.program);
    char text[256];
    if (traces_launch_detail())
        zt_trace_msg("   %s: fork failed: %s", routine, zt_error_msg_r(errno, text, sizeof text));
    for (const int fd : {wires.to_child[0], wires.to_child[1], wires.from_child[0], wires.from_child[1]})
        close(fd);
}

// A failure here is reported although the child is running: the open then undoes it by closing the pipe.
void keep_parents_ends(Report& report, zt_pipe& pipe, const Wires& wires)
{
    if (traces_launch_detail()) zt_trace_msg("   %s: forked as pid %d", routine, pipe.pid);
    pipe.read_fd = wires.from_child[0];
    pipe.write_fd = wires.to_child[1];
    Wiring wiring{report};
    wiring.close(at::close_child_input, wires.to_child[0], "fd1[0]");
    wiring.close(at::close_child_output, wires.from_child[1], "fd2[1]");
}

// Ends in the program, or returns with the failure in the report. Deliberately a child that cannot be wired
// comes back to the caller, who sees the failure in the child exactly as the parent would see one of its own.
void become_program(Report& report, const zt_pipe& pipe, const Wires& wires, const Words& words,
                    const char* const* envp, ExitHold& hold)
{
    wire_child(report, pipe, wires);
    if (report.failed()) return;
    if (envp != nullptr) environ = const_cast<char**>(envp);
    zt_signal_prepare_exec();
    hold.release();
    execvp(pipe.cmdline, words.vector());
    _exit(exec_failed);
}

void fork_steps(Report& report, zt_pipe& pipe, const char* const* argv, const char* const* envp)
{
    Words words;
    words.take(report, pipe, argv);
    if (report.failed()) return;
    trace_words(words.vector());
    Wires wires;
    if (!open_pipes(report, pipe, wires)) return;

    // No handler of the parent runs in the child, and no fatal signal finds a child whose pid is not stored
    // yet.
    ExitHold hold;
    if (!spawn_child(pipe, wires, words.vector(), envp, hold.mask_before())) pipe.pid = fork();
    if (pipe.pid == 0) return become_program(report, pipe, wires, words, envp, hold);
    hold.release();
    if (pipe.pid < 0) return fail_fork(report, pipe, wires);
    keep_parents_ends(report, pipe, wires);
}

}  // namespace
}  // namespace zt::pipe

using namespace zt::pipe;

extern "C" std::uint32_t zt_pipe_fork(zt_pipe* pipe, const char* const* argv, const char* const* envp,
                                      zt::Status* status)
{
    Report report{routine, *status};
    ZT_CLEAR_STATUS(status);
    trace_launch_entry(report, *pipe);
    fork_steps(report, *pipe, argv, envp);
    return trace_launch_exit(report, *pipe);
}
