// Too few descriptors, too little memory, no processes, closed standard streams: a clean code each time,
// nothing lost, and everything works again as soon as there is enough.
#include <fcntl.h>
#include <unistd.h>
#include <zt/runtime/memory.h>

#include <cstdio>
#include <cstring>

#include "tests/support/limit.h"
#include "tests/torture/process.h"
#include "tests/torture/work.h"

namespace torture {
namespace {

constexpr Seconds limit_beyond_the_time = 120;
constexpr const char* kinds[] = {"PROGRAM", "COMMAND", "COMMAND WRITE", "PROGRAM STDERR=DISCARD"};

void works(Report& report, const char* after)
{
    zt::Status status;
    const int handle = open_pipe("echo hello", "COMMAND", status);
    char text[6] = {};
    if (handle < 0 || !read_exactly(handle, text, 6, status) || std::memcmp(text, "hello\n", 6) != 0)
        report.fail("after %s: %s", after, status.what());
    if (ZT_PIPE_CLOSE(handle, "", &status) != 0) report.fail("after %s: close: %s", after, status.what());
}

void close_if_open(int handle, Report& report)
{
    zt::Status status;
    if (handle < 0) return;
    const auto code = static_cast<std::uint32_t>(ZT_PIPE_CLOSE(handle, "", &status));
    if (code != 0 && code != ZT_PIPE_S_ABNORMAL && code != ZT_PIPE_S_ERROR)
        report.fail("close: %s", status.what());
}

int free_descriptor()
{
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(fd);
    return fd;
}

// Each open has room for 0 to 6 more descriptors. Where the second pipe of a PROGRAM launch fails, the two
// descriptors of the first stay open: known, and closed here.
void few_descriptors(const Settings& settings, Report& report)
{
    Random random{settings.seed};
    zt::Status status;
    for (Rounds rounds{settings}; rounds.more();) {
        const int first_free = free_descriptor();
        const char* const kind = kinds[random.below(std::size(kinds))];
        int handle;
        {
            const Limit limit{RLIMIT_NOFILE, static_cast<rlim_t>(first_free) + random.below(7)};
            handle = open_pipe("cat", kind, status);
        }
        report.count(handle > 0 ? "descriptors_enough" : "descriptors_short");
        if (handle < 0 && status.code != ZT_PIPE_E_FDSETUP && status.code != ZT_PIPE_E_START)
            report.fail("few descriptors: %s: %s", kind, status.what());
        if (handle < 0 && status.sys_errno != EMFILE)
            report.fail("few descriptors: %s: %s", kind, status.what());
        close_if_open(handle, report);
        if (free_descriptor() == first_free + 2 && status.code == ZT_PIPE_E_FDSETUP) {
            close(first_free), close(first_free + 1);
            report.count("first_pipes_left");
        }
        if (free_descriptor() != first_free) return report.fail("few descriptors: %s leaves some", kind);
    }
    works(report, "few descriptors");
}

// The limit lies a little above what the process has: every allocation is the last one in some round.
void little_memory(const Settings& settings, Report& report)
{
    Random random{settings.seed};
    zt::Status status;
    works(report, "nothing");
    const long before = zt_heapsize_class(2);
    for (Rounds rounds{settings}; rounds.more();) {
        const auto in_use = static_cast<rlim_t>(Resources::now().resident_kib) * 1024;
        const int handle = open_pipe("head -c 3000000 /dev/zero", "PROGRAM", status);
        if (handle < 0) {
            report.fail("little memory: open: %s", status.what());
            continue;
        }
        char* text = nullptr;
        int count;
        {
            const Limit limit{RLIMIT_AS, in_use + random.below(6000000)};
            count = zt_pipe_read_unlimited(handle, &text, 0, nullptr, &status);
        }
        const bool refused = status.code == ZT_PIPE_E_NOMEM || status.subcode == ZT_PIPE_E_NOMEM;
        report.count(refused ? "memory_short" : "memory_enough");
        if (!refused && count != 3000000) report.fail("little memory: %s", status.what());
        if (refused && text != nullptr) report.fail("little memory: a text in spite of no memory");
        close_if_open(handle, report);
    }
    report.figure("memory_left_behind", static_cast<double>(zt_heapsize_class(2) - before));
    works(report, "little memory");
}

// Root is not counted; another user is.
void no_processes(Report& report)
{
    constexpr uid_t nobody = 65534;
    if (getuid() == 0 && setuid(nobody) != 0) return;
    zt::Status status;
    const Resources before = Resources::now();
    {
        const Limit limit{RLIMIT_NPROC, 0};
        for (const char* kind : kinds) {
            const int handle = open_pipe("cat", kind, status);
            const bool command = std::strncmp(kind, "COMMAND", 7) == 0;
            // popen keeps the reason to itself and says ENOMEM.
            if (handle > 0 || status.sys_errno != (command ? ENOMEM : EAGAIN) ||
                status.code != (command ? ZT_PIPE_E_START : ZT_PIPE_E_FORK))
                report.fail("no processes: %s: %s", kind, status.what());
            report.count("processes_short");
        }
    }
    if (Resources::now().descriptors != before.descriptors) report.fail("no processes: descriptors are left");
    works(report, "no processes");
}

// A forked child whose standard streams cannot be wired comes back from the open: only the parent goes on.
void closed_streams(int closed, Report& report)
{
    const pid_t parent = getpid();
    for (int fd = 0; fd <= 2; ++fd)
        if ((closed >> fd & 1) != 0) close(fd);
    zt::Status status;
    int handle = open_pipe("echo hello", "PROGRAM", status);
    if (getpid() != parent) _exit(status.code == ZT_PIPE_E_FDSETUP ? 77 : 78);
    char text[6] = {};
    const int count = zt_pipe_read(handle, text, 6, nullptr, &status);
    const int code = ZT_PIPE_CLOSE(handle, "NOKILL", &status);
    const bool talked = count == 6 && code == 0;
    const bool refused = count == -1 && code == static_cast<int>(ZT_PIPE_S_ERROR) && status.iparm[0] == 77;
    // Only a closed standard input can be wired by itself: the first pipe then takes its place.
    const bool expected = closed <= 1 ? talked : refused;
    if (!expected)
        report.fail("closed streams %d: read %d, close %d: %s", closed, count, code, status.what());
    report.count(talked ? "streams_talked" : "streams_refused");
    works(report, "closed streams");
}

}  // namespace

void torture_scarcity(const Settings& settings, Report& report)
{
    const Settings half{settings.seed, settings.count, settings.seconds / 2 + 1};
    const double limit = half.seconds + limit_beyond_the_time;
    run_apart(report, "few descriptors", limit, [&] { few_descriptors(half, report); });
    if (addresses_can_be_limited)
        run_apart(report, "little memory", limit, [&] { little_memory(half, report); });
    run_apart(report, "no processes", limit, [&] { no_processes(report); });
    for (int closed = 0; closed < 8; ++closed)
        run_apart(report, "closed streams", limit, [&] { closed_streams(closed, report); });
}

}  // namespace torture
