// Starting a COMMAND pipe's child: a command line for the shell, run by popen.
#include <unistd.h>
#include <zt/runtime/command.h>
#include <zt/runtime/environment.h>
#include <zt/runtime/errors.h>
#include <zt/ztpipe/launch.h>

#include <cstdio>
#include <cstring>

namespace zt::pipe {
namespace {

constexpr char routine[] = "zt_pipe_popen";
constexpr char korn_shell[] = "ksh -c ";
constexpr char discard[] = " 2>/dev/null";
constexpr char combine[] = " 2>&1";
constexpr char too_long_subject[] = "pipe name";

// What the check before wrapping a command allows for quoting it.
constexpr int quoting_allowance = 7;

namespace at {
constexpr Site korn_too_long{1945, ZT_PIPE_E_TOOLONG};
constexpr Site discard_too_long{1960, ZT_PIPE_E_TOOLONG};
constexpr Site combine_too_long{1971, ZT_PIPE_E_TOOLONG};
constexpr Site not_started{2014, ZT_PIPE_E_START};
constexpr Site words_too_long{4011, ZT_PIPE_E_TOOLONG};
constexpr Site quoted_too_long{4012, ZT_PIPE_E_TOOLONG};
}  // namespace at

bool fits(Report& report, Site too_long, const char* subject, std::size_t length)
{
    if (length <= ZT_PIPE_TEXT_LIMIT) return true;
    report.fail_limit(too_long, subject, saturated(length), ZT_PIPE_TEXT_LIMIT);
    return false;
}

void base_command(Report& report, zt_pipe& pipe, const char* const* argv)
{
    if (argv == nullptr) {
        std::strcpy(pipe.cmdline, pipe.program);
        return;
    }
    int count = 0;
    while (argv[count] != nullptr) ++count;
    if (fits(report, at::words_too_long, "argv", zt_argv_cmdline_length(count, argv)))
        zt_argv_to_cmdline(pipe.cmdline, count, argv);
}

// The first check allows a fixed amount for the quotes and stays as it is, because its location and length
// are known to people; a command whose quotes need more is stopped by the second one.
void wrap_in_korn_shell(Report& report, zt_pipe& pipe)
{
    constexpr std::size_t prefix = sizeof korn_shell - 1;
    if (!fits(report, at::korn_too_long, too_long_subject,
              std::strlen(pipe.cmdline) + prefix + quoting_allowance))
        return;
    char command[sizeof pipe.cmdline];
    std::strcpy(command, pipe.cmdline);
    if (!fits(report, at::quoted_too_long, too_long_subject, prefix + zt_shell_quote_length(command))) return;
    std::strcpy(pipe.cmdline, korn_shell);
    zt_shell_quote(pipe.cmdline + prefix, command);
}

void append(Report& report, Site too_long, zt_pipe& pipe, const char* redirection)
{
    if (fits(report, too_long, too_long_subject, std::strlen(pipe.cmdline) + std::strlen(redirection)))
        std::strcat(pipe.cmdline, redirection);
}

// Comes after the Korn shell is wrapped around the command, so that the shell's own messages go the same way.
void redirect_stderr(Report& report, zt_pipe& pipe)
{
    if (pipe.stderr_mode == ZT_PIPE_STDERR_DISCARD) append(report, at::discard_too_long, pipe, discard);
    if (pipe.stderr_mode == ZT_PIPE_STDERR_COMBINE && pipe.direction == ZT_PIPE_READS)
        append(report, at::combine_too_long, pipe, combine);
}

// popen knows no environment argument, so the process is lent the child's for the moment, under the table's
// lock. A process without any environment keeps the child's afterwards: a simplification that is kept.
void start_shell(zt_pipe& pipe, const char* const* envp)
{
    const TableLock lock;
    char** const own = envp != nullptr ? zt_environ_lend(envp) : nullptr;
    pipe.fh = popen(pipe.cmdline, pipe.direction == ZT_PIPE_WRITES ? "w" : "r");
    if (envp != nullptr) zt_environ_take_back(own);
}

void trace_start(const zt_pipe& pipe)
{
    if (!traces_launch_detail()) return;
    if (pipe.fh != nullptr) {
        zt_trace_msg("   %s: popen of '%s' as fh %p", routine, pipe.cmdline, static_cast<void*>(pipe.fh));
        return;
    }
    char text[256];
    zt_trace_msg("   %s: popen of '%s' failed: %s", routine, pipe.cmdline,
                 zt_error_msg_r(errno, text, sizeof text));
}

void popen_steps(Report& report, zt_pipe& pipe, const char* const* argv, const char* const* envp)
{
    base_command(report, pipe, argv);
    if (!report.failed() && pipe.korn != 0) wrap_in_korn_shell(report, pipe);
    if (!report.failed()) redirect_stderr(report, pipe);
    if (report.failed()) return;
    if (traces_launch_detail()) zt_trace_msg("   %s: p->program: %s", routine, pipe.cmdline);
    start_shell(pipe, envp);
    trace_start(pipe);
    if (pipe.fh == nullptr) report.fail_system(at::not_started, pipe.program);
}

}  // namespace
}  // namespace zt::pipe

using namespace zt::pipe;

extern "C" std::uint32_t zt_pipe_popen(zt_pipe* pipe, const char* const* argv, const char* const* envp,
                                       zt::Status* status)
{
    Report report{routine, *status};
    ZT_CLEAR_STATUS(status);
    trace_launch_entry(report, *pipe);
    popen_steps(report, *pipe, argv, envp);
    return trace_launch_exit(report, *pipe);
}
