// Ways of ending: what becomes of the children, of buffered bytes and of the exit code.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/torture/process.h"
#include "tests/torture/torture.h"

namespace torture {
namespace {

constexpr Seconds must_end_within = 30;
constexpr Seconds children_end_within = 5;

// What a user expects of a way of ending.
struct Expectation {
    const char* role;
    bool cleans_up;     // children get SIGTERM, buffered bytes arrive
    bool exact = true;  // the number of children is known
    int sleepers = 1;
};

constexpr Expectation expectations[] = {
    {"return", true},
    {"thread", true},
    {"working-threads", true, false},
    {"forked-exit", true},
    {"forked-return", true},
    {"forked-signal", true},
    {"late-destructor", true, true, 2},
    {"program-after-command", true, true, 1},
    {"_exit", false},
    {"quick_exit", false},
};

std::string content(const std::string& path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

struct Ends {
    int by_sigterm = 0, by_themselves = 0, running = 0;
};

Ends collect(Seconds limit)
{
    Ends ends;
    ends.running = collect_children(limit, [&](pid_t, int status) {
        if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return;
        ++(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM ? ends.by_sigterm : ends.by_themselves);
    });
    return ends;
}

void judge(Report& report, const Expectation& expected, const Ends& ends, const std::string& written)
{
    if (expected.cleans_up) {
        if (ends.running > 0) report.fail("%s: %d children still run", expected.role, ends.running);
        if (written != "buffered\n")
            report.fail("%s: what was buffered arrived as '%s'", expected.role, written.c_str());
        // The echo may see the end of its input before the signal; the sleeper ends by the signal only.
        if (expected.exact && ends.by_sigterm < expected.sleepers)
            report.fail("%s: %d children had SIGTERM", expected.role, ends.by_sigterm);
    } else {
        if (ends.running != 1) report.fail("%s: %d children live on, not 1", expected.role, ends.running);
        if (ends.by_sigterm != 0) report.fail("%s: a child had SIGTERM", expected.role);
        if (!written.empty()) report.fail("%s: the buffer was written", expected.role);
    }
}

void play(Report& report, const Expectation& expected, const std::string& file)
{
    std::ofstream(file, std::ios::trunc).close();
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/proc/self/exe", "torture", "exit-role", expected.role, file.c_str(), nullptr);
        _exit(127);
    }
    const std::optional<int> status = wait_for_end(pid, must_end_within);
    if (!status) {
        report.fail("%s: pid %d hangs", expected.role, pid);
        if (std::getenv("TORTURE_KEEP") != nullptr) pause();
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    } else if (!WIFEXITED(*status) || WEXITSTATUS(*status) != 42) {
        report.fail("%s: ended with %s", expected.role, in_words(*status));
    }
    const Ends ends = collect(expected.cleans_up ? children_end_within : 0.3);
    judge(report, expected, ends, content(file));
    report.count(expected.role);
}

}  // namespace

void torture_exit(const Settings& settings, Report& report)
{
    char file[] = "/tmp/zt-torture-XXXXXX";
    close(mkstemp(file));
    for (Rounds rounds{settings}; rounds.more();)
        for (const Expectation& expected : expectations) play(report, expected, file);
    unlink(file);
}

}  // namespace torture
