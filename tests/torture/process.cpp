#include "tests/torture/process.h"

#include <dirent.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zt/runtime/memory.h>
#include <zt/runtime/signals.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace torture {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t between_looks_us = 200;

pid_t parent_of(pid_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    const auto after_name = text.rfind(')');
    if (after_name == std::string::npos) return -1;
    int parent = -1;
    char state;
    return std::sscanf(text.c_str() + after_name + 1, " %c %d", &state, &parent) == 2 ? parent : -1;
}

int count_entries(const char* directory_name)
{
    DIR* const directory = opendir(directory_name);
    if (directory == nullptr) return -1;
    int entries = 0;
    while (readdir(directory) != nullptr) ++entries;
    closedir(directory);
    return entries;
}

long resident_pages()
{
    std::ifstream figures("/proc/self/statm");
    long all = 0, resident = 0;
    figures >> all >> resident;
    return resident;
}

}  // namespace

void pause_for(std::uint64_t microseconds)
{
    const timespec time = {static_cast<time_t>(microseconds / 1000000),
                           static_cast<long>(microseconds % 1000000) * 1000};
    nanosleep(&time, nullptr);
}

bool comes_true(Seconds limit, const std::function<bool()>& condition)
{
    const auto end = Clock::now() + std::chrono::duration<double>(limit);
    while (!condition()) {
        if (Clock::now() > end) return false;
        pause_for(between_looks_us);
    }
    return true;
}

std::optional<int> wait_for_end(pid_t pid, Seconds limit)
{
    int status = 0;
    if (!comes_true(limit, [&] { return waitpid(pid, &status, WNOHANG) == pid; })) return {};
    return status;
}

void adopt_orphans()
{
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

std::vector<pid_t> children()
{
    std::vector<pid_t> found;
    DIR* const directory = opendir("/proc");
    if (directory == nullptr) return found;
    while (const dirent* entry = readdir(directory)) {
        const pid_t pid = std::atoi(entry->d_name);
        if (pid > 0 && parent_of(pid) == getpid()) found.push_back(pid);
    }
    closedir(directory);
    return found;
}

int collect_children(Seconds limit, const std::function<void(pid_t, int)>& ended)
{
    bool none_left = false;
    const auto collect = [&] {
        int status = 0;
        pid_t pid;
        while ((pid = waitpid(-1, &status, WNOHANG)) > 0) ended(pid, status);
        none_left = pid < 0;
        return none_left;
    };
    if (comes_true(limit, collect)) return 0;
    int killed = 0;
    for (int round = 0; round < 100 && !none_left; ++round) {
        for (const pid_t pid : children()) killed += kill(pid, SIGKILL) == 0 ? 1 : 0;
        comes_true(1, collect);
    }
    return killed;
}

bool run_apart(Report& report, const char* name, Seconds limit, const std::function<void()>& scenario)
{
    report.stage(name);
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // A sanitizer's handlers would count as the application's.
        for (const int signo : zt::crash_signals) signal(signo, SIG_DFL);
        scenario();
        std::exit(0);
    }
    const std::optional<int> status = wait_for_end(pid, limit);
    if (!status) {
        report.fail("%s: not ended after %.0f s (at: %s)", name, limit, report.stage());
        // TORTURE_KEEP leaves it there for a debugger.
        if (std::getenv("TORTURE_KEEP") != nullptr) std::fprintf(stderr, "  pid %d\n", pid), pause();
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        return false;
    }
    if (*status != 0) report.fail("%s: ended with %s (at: %s)", name, in_words(*status), report.stage());
    return *status == 0;
}

const char* in_words(int wait_status)
{
    static char text[32];
    if (WIFSIGNALED(wait_status))
        std::snprintf(text, sizeof text, "signal %d", WTERMSIG(wait_status));
    else
        std::snprintf(text, sizeof text, "exit %d", WEXITSTATUS(wait_status));
    return text;
}

Resources Resources::now()
{
    return {count_entries("/proc/self/fd"), static_cast<int>(torture::children().size()), zt_heapsize(),
            resident_pages() * (sysconf(_SC_PAGESIZE) / 1024)};
}

}  // namespace torture
