// How a PROGRAM child is doing, and how it ended.
#include <sys/wait.h>
#include <zt/runtime/errors.h>
#include <zt/runtime/exit_status.h>
#include <zt/runtime/text.h>
#include <zt/ztpipe/operation.h>

namespace zt::pipe {
namespace {

namespace at {
constexpr Site wait_failed{1490, ZT_PIPE_E_WAIT};
constexpr Site still_active{1502, ZT_PIPE_E_ACTIVE};
}  // namespace at

void trace_waitpid(const char* routine, const zt_pipe& pipe, int result)
{
    if (!traces(Category::global, ZT_PIPE_DEBUG_FLAG)) return;
    if (result >= 0) {
        zt_trace_msg("   %s: waitpid on pid %d, status %d, returned %d", routine, pipe.pid, pipe.wait_status,
                     result);
        return;
    }
    char text[256];
    zt_trace_msg("   %s: waitpid on pid %d failed, status %d, returned %d: %s", routine, pipe.pid,
                 pipe.wait_status, result, zt_error_msg_r(errno, text, sizeof text));
}

enum class Collected { ended, not_yet, failed };

Collected collect(Report& report, zt_pipe& pipe, bool wait)
{
    const int result = waitpid(pipe.pid, &pipe.wait_status, wait ? 0 : WNOHANG);
    trace_waitpid(report.routine, pipe, result);
    if (result > 0) return Collected::ended;
    if (result < 0 && errno == ECHILD) {  // somebody else collected it: from now on it counts as a normal end
        pipe.wait_status = 0;
        return Collected::not_yet;
    }
    if (result < 0) {
        report.fail_system(at::wait_failed, pipe.program);
        return Collected::failed;
    }
    pipe.wait_status = -1;
    if (!wait) return Collected::not_yet;
    report.fail(at::still_active);
    zt_strncpy(report.status.msg, "program still active", sizeof report.status.msg);
    return Collected::failed;
}

// The result says whether the call itself worked. A child that has ended is no failure; its class stands in
// the record's code all the same.
bool poll_child(Report& report, int handle, bool wait)
{
    zt_pipe* pipe;
    if (zt_pipe_get_handle(handle, &pipe, report.routine, &report.status) != 0) return false;
    if (pipe->mode != ZT_PIPE_MODE_PROGRAM) return true;
    if (pipe->wait_status == -1) {
        const Collected collected = collect(report, *pipe, wait);
        if (collected != Collected::ended) return collected == Collected::not_yet;
    }
    if (zt_exit_status(pipe->wait_status, &report.status) != 0)
        zt_trim_filename(pipe->program, sizeof report.status.msg, report.status.msg);
    else
        pipe->wait_status = -1;  // stopped or continued: collect again the next time
    return true;
}

}  // namespace
}  // namespace zt::pipe

using namespace zt::pipe;

extern "C" int zt_pipe_status(int handle, bool wait, zt::Status* status)
{
    Report report{"zt_pipe_status", *status};
    ZT_CLEAR_STATUS(status);
    const char* const waiting = wait ? "true" : "false";
    if (traces(Category::global, ZT_PIPE_PARMS))
        zt_trace_msg("-> %s: [%d] [%s] []", report.routine, handle, waiting);
    const bool failed = !poll_child(report, handle, wait);
    const int result = failed ? static_cast<int>(status->code) : 0;
    if (traces(Category::global, ZT_PIPE_PARMS))
        zt_trace_msg("<-%c%s: [%d] [%s] [%d %d %d %s] returned %d", mark(failed), report.routine, handle,
                     waiting, status->code, status->subcode, status->sys_errno, status->msg, result);
    return result;
}
