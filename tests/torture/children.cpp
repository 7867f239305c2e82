// Children that misbehave, one after the other in random order and in random moments of a transfer. What each
// outcome is stated by the tests of the pipes; here it must be the same however often and whenever.
#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <cstring>

#include "tests/torture/process.h"
#include "tests/torture/work.h"

namespace torture {
namespace {

constexpr Seconds limit_beyond_the_time = 120;

class Misbehaviour {
  public:
    Misbehaviour(std::uint64_t seed, Report& report) : random_(seed), report_(report) {}

    void any()
    {
        using Kind = void (Misbehaviour::*)();
        constexpr Kind kinds[] = {&Misbehaviour::killed_in_a_transfer,  &Misbehaviour::writes_forever,
                                  &Misbehaviour::never_reads,           &Misbehaviour::reaped_by_others,
                                  &Misbehaviour::ends_at_once,          &Misbehaviour::closes_its_output,
                                  &Misbehaviour::stopped_and_continued, &Misbehaviour::ignores_the_end};
        (this->*kinds[random_.below(std::size(kinds))])();
    }

  private:
    int open(const std::string& program, const char* what)
    {
        const int handle = open_pipe(program, "PROGRAM", status_);
        if (handle < 0) report_.fail("%s: open: %s", what, status_.what());
        report_.count(what);
        return handle;
    }
    void close(int handle, std::uint32_t expected, const char* what, const char* options = "")
    {
        const int code = ZT_PIPE_CLOSE(handle, options, &status_);
        if (code != static_cast<int>(expected)) report_.fail("%s: close %d: %s", what, code, status_.what());
    }
    // The end of its input may be faster than the SIGTERM. True when the close has collected it therefore.
    bool close_ended_by_either(int handle, const char* what, const char* options = "")
    {
        const int code = ZT_PIPE_CLOSE(handle, options, &status_);
        if (code != 0 && code != static_cast<int>(ZT_PIPE_S_ABNORMAL))
            report_.fail("%s: close %d: %s", what, code, status_.what());
        return code == 0;
    }
    void signal(int handle, int signo) { kill(Zt_pipes[handle]->pid, signo); }

    // A killer strikes at a random moment: whatever arrives until then is what was sent.
    void killed_in_a_transfer()
    {
        const int handle = open("cat", "killed");
        const pid_t victim = Zt_pipes[handle]->pid;
        const pid_t killer = fork();
        if (killer == 0) {
            pause_for(random_.below(3000));
            kill(victim, SIGKILL);
            _exit(0);
        }
        char out[3000], in[3000];
        fill(out, sizeof out, random_);
        int count = 0;
        while (zt_pipe_write(handle, out, sizeof out, &status_) == sizeof out &&
               (count = zt_pipe_read(handle, in, sizeof in, nullptr, &status_)) == sizeof in) {
            if (std::memcmp(out, in, sizeof in) != 0) report_.fail("killed: other bytes");
        }
        if (count > 0 && std::memcmp(out, in, static_cast<std::size_t>(count)) != 0)
            report_.fail("killed: other bytes at the end");
        waitpid(killer, nullptr, 0);
        close(handle, ZT_PIPE_S_ABNORMAL, "killed");
        if (status_.sys_errno != SIGKILL) report_.fail("killed: reported as signal %u", status_.sys_errno);
    }

    void writes_forever()
    {
        const int handle = open(child("writes_forever"), "writes_forever");
        std::vector<char> buffer(static_cast<std::size_t>(random_.between(1, 300000)));
        if (!read_exactly(handle, buffer.data(), static_cast<int>(buffer.size()), status_))
            report_.fail("writes_forever: %s", status_.what());
        // Its output is closed first: SIGPIPE may be faster than the SIGTERM of the close.
        close(handle, ZT_PIPE_S_ABNORMAL, "writes_forever");
    }

    void never_reads()
    {
        const int handle = open(child("never_reads"), "never_reads");
        char message[1000] = {};
        if (zt_pipe_write(handle, message, sizeof message, &status_) != sizeof message)
            report_.fail("never_reads: %s", status_.what());
        close(handle, ZT_PIPE_S_ABNORMAL, "never_reads");
    }

    void reaped_by_others()
    {
        const int handle = open(child("exits_with") + " 3", "reaped");
        waitpid(Zt_pipes[handle]->pid, nullptr, 0);
        close(handle, 0, "reaped");
    }

    void ends_at_once()
    {
        const int handle = open(child("exits_with") + " 3", "ends_at_once");
        char message[10] = {};
        char byte;
        zt_pipe_write(handle, message, sizeof message, &status_);
        zt_pipe_read(handle, &byte, 1, nullptr, &status_);
        close(handle, ZT_PIPE_S_ERROR, "ends_at_once");
    }

    void closes_its_output()
    {
        const int handle = open(child("closes_stdin"), "closes_input");
        char line[7];
        read_exactly(handle, line, sizeof line, status_);
        close(handle, ZT_PIPE_S_ABNORMAL, "closes_input");
    }

    void stopped_and_continued()
    {
        const int handle = open("cat", "stopped");
        signal(handle, SIGSTOP);
        char out[100] = "hello", in[100] = {};
        zt_pipe_write(handle, out, sizeof out, &status_);
        signal(handle, SIGCONT);
        if (!read_exactly(handle, in, sizeof in, status_) || std::memcmp(out, in, sizeof in) != 0)
            report_.fail("stopped: %s", status_.what());
        close_ended_by_either(handle, "stopped");
    }

    // NOWAIT does not wait for it; the end of its input ends it.
    void ignores_the_end()
    {
        const int handle = open(child("ignores_term"), "ignores_term");
        char line[6];
        read_exactly(handle, line, sizeof line, status_);
        const pid_t pid = Zt_pipes[handle]->pid;
        const bool collected = close_ended_by_either(handle, "ignores_term", "NOWAIT");
        if (!collected && !wait_for_end(pid, 20)) report_.fail("ignores_term: still runs");
    }

    Random random_;
    Report& report_;
    zt::Status status_;
};

void misbehave(const Settings& settings, Report& report)
{
    zt::Status status;
    ZT_PIPE_CLOSE(open_pipe("no child", "", status), "", &status);
    const Resources before = Resources::now();
    Misbehaviour misbehaviour{settings.seed, report};
    for (Rounds rounds{settings}; rounds.more();) misbehaviour.any();
    const Resources after = Resources::now();
    if (after.heap != before.heap || after.descriptors != before.descriptors || after.children != 0)
        report.fail("heap %d (before %d), descriptors %d (before %d), %d children", after.heap, before.heap,
                    after.descriptors, before.descriptors, after.children);
}

}  // namespace

void torture_children(const Settings& settings, Report& report)
{
    run_apart(report, "children that misbehave", settings.seconds + limit_beyond_the_time,
              [&] { misbehave(settings, report); });
}

}  // namespace torture
