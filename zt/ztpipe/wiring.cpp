// The child's side of a launch by fork and exec, up to the exec.
#include <fcntl.h>
#include <unistd.h>
#include <zt/ztpipe/launch.h>
#include <zt/ztpipe/wiring.h>

#include <cstdio>

namespace zt::pipe {
namespace {

constexpr char null_device[] = "/dev/null";

namespace at {
constexpr Site close_parents_write_end{2340, ZT_PIPE_E_FDSETUP};
constexpr Site close_parents_read_end{2345, ZT_PIPE_E_FDSETUP};
constexpr Site close_stderr{2406, ZT_PIPE_E_FDSETUP};
constexpr Site open_null{2415, ZT_PIPE_E_FDSETUP};
constexpr Site dup_null{2421, ZT_PIPE_E_DUP};
constexpr Site close_null{2428, ZT_PIPE_E_FDSETUP};
constexpr Site dup_stdout{2438, ZT_PIPE_E_DUP};

// The three calls that lay a pipe's end onto a standard stream.
struct StreamSites {
    Site close_old, dup, close_end;
};
constexpr StreamSites standard_input{
    {2362, ZT_PIPE_E_FDSETUP}, {2368, ZT_PIPE_E_DUP}, {2374, ZT_PIPE_E_FDSETUP}};
constexpr StreamSites standard_output{
    {2385, ZT_PIPE_E_FDSETUP}, {2391, ZT_PIPE_E_DUP}, {2397, ZT_PIPE_E_FDSETUP}};
}  // namespace at

// Labels as they appear in messages.
struct StreamLabels {
    const char *old, *dup, *end;
};
constexpr StreamLabels input_labels{"stdin", "fd1[0]->stdin", "fd1[0]"};
constexpr StreamLabels output_labels{"stdout", "fd2[1]->stdout", "fd2[1]"};

bool lay_onto(Wiring& wiring, int end, int stream, const at::StreamSites& site, const StreamLabels& label)
{
    if (end == stream) return true;
    return wiring.close(site.close_old, stream, label.old) && wiring.dup(site.dup, end, stream, label.dup) &&
           wiring.close(site.close_end, end, label.end);
}

// Standard error has just been closed, so the device would get its number and lose it again when the
// descriptor is closed: it moves above the standard streams first.
int open_null_device()
{
    const int fd = open(null_device, O_WRONLY);
    return fd >= 0 && fd <= STDERR_FILENO ? fcntl(fd, F_DUPFD, STDERR_FILENO + 1) : fd;
}

void discard_stderr(Report& report, Wiring& wiring, int standard_error)
{
    const int fd = open_null_device();
    if (fd < 0) return report.fail_system(at::open_null, null_device);
    if (dup2(fd, standard_error) < 0) {
        report.fail_system(at::dup_null);
        std::snprintf(report.status.msg, sizeof report.status.msg, "%s->stderr", null_device);
        return;
    }
    wiring.close(at::close_null, fd, null_device);
}

// With IGNORE the program runs with standard error closed. The shell launch leaves the parent's there; the
// difference is old and kept.
void arrange_stderr(Report& report, Wiring& wiring, std::uint32_t mode)
{
    if (mode == ZT_PIPE_STDERR_DISCARD) discard_stderr(report, wiring, fileno(stderr));
    if (mode == ZT_PIPE_STDERR_COMBINE)
        wiring.dup(at::dup_stdout, fileno(stdout), fileno(stderr), "stdout->stderr");
}

}  // namespace

bool Wiring::close(Site site, int fd, const char* label)
{
    if (::close(fd) >= 0) return true;
    report_.fail_system(site, label);
    return false;
}

bool Wiring::dup(Site site, int from, int onto, const char* label)
{
    if (dup2(from, onto) >= 0) return true;
    report_.fail_system(site, label);
    return false;
}

void wire_child(Report& report, const zt_pipe& pipe, const Wires& wires)
{
    Wiring wiring{report};
    wiring.close(at::close_parents_write_end, wires.to_child[1], "fd1[1]");
    wiring.close(at::close_parents_read_end, wires.from_child[0], "fd2[0]");
    if (report.failed()) return;
    if (traces_launch_detail())
        zt_trace_msg("   %s: duping and pushing pipes to stdin, stdout, stderr", report.routine);
    if (lay_onto(wiring, wires.to_child[0], fileno(stdin), at::standard_input, input_labels) &&
        lay_onto(wiring, wires.from_child[1], fileno(stdout), at::standard_output, output_labels) &&
        wiring.close(at::close_stderr, fileno(stderr), "stderr"))
        arrange_stderr(report, wiring, pipe.stderr_mode);
}

}  // namespace zt::pipe
