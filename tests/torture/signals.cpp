// Fatal signals at any instant: processes that work with pipes are ended at a random moment, again and again.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zt/runtime/signals.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <new>
#include <string>
#include <thread>

#include "tests/torture/process.h"
#include "tests/torture/work.h"

namespace torture {
namespace {

constexpr int signals[] = {SIGTERM, SIGHUP, SIGINT, SIGQUIT};
constexpr Seconds must_end_within = 2;
constexpr Seconds gives_up_after = 20;
constexpr long longest_life_us = 30000;

// What the process that will be ended tells in shared memory.
struct Told {
    std::atomic<long> cycles{0};
    std::atomic<int> child{0};
    std::atomic<int> handled{0};
};

Told* share()
{
    void* const memory =
        mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) std::abort();
    return new (memory) Told;
}

void forget(Told* told)
{
    munmap(told, sizeof *told);
}

// An interrupt during an operation ends the operation, not the process. As an application would, all threads
// then stop what they do, and the process ends by the signal after all.
class Crew {
  public:
    Crew(int size, Told& told) : working_(size), told_(told) {}

    void work(std::uint64_t seed)
    {
        {
            Worker worker{seed, told_.cycles};
            while (!stopping_) {
                worker.cycle();
                if (worker.interrupted()) stopping_ = true;
            }
            --working_;
            while (working_ > 0) pause_for(1000);
            for (;;) raise(SIGINT), pause_for(1000);
        }
    }

  private:
    std::atomic<int> working_;
    std::atomic<bool> stopping_{false};
    Told& told_;
};

template <class Scenario>
pid_t start(Scenario scenario)
{
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (const int signo : zt::crash_signals) signal(signo, SIG_DFL);
    scenario();
    std::exit(0);
}

pid_t start_worker(const Settings& settings, std::uint64_t seed, Told& told)
{
    return start([&] {
        Crew crew{settings.threads, told};
        for (int i = 1; i < settings.threads; ++i)
            std::thread(&Crew::work, &crew, seed + static_cast<std::uint64_t>(i)).detach();
        crew.work(seed);
    });
}

void collect_orphans(Report& report, int signo)
{
    const int left = collect_children(must_end_within, [&](pid_t, int status) {
        if (WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM)
            report.count("children_by_sigterm");
        else
            report.count("children_otherwise");
    });
    if (left > 0) report.fail("%d children still ran after the end by signal %d", left, signo);
}

void end_one(const Settings& settings, Report& report, Random& random)
{
    Told* const told = share();
    const int signo = signals[random.below(std::size(signals))];
    const pid_t pid = start_worker(settings, random.below(UINT64_MAX), *told);
    if (!random.one_in(20)) comes_true(gives_up_after, [&] { return told->cycles > 0; });
    pause_for(static_cast<std::uint64_t>(random.between(0, longest_life_us)));
    kill(pid, signo);
    const auto sent = std::chrono::steady_clock::now();
    std::optional<int> status = wait_for_end(pid, gives_up_after);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - sent;
    if (!status) {
        report.fail("signal %d: pid %d hangs", signo, pid);
        if (std::getenv("TORTURE_KEEP") != nullptr) pause();
        kill(pid, SIGKILL);
        status = wait_for_end(pid, gives_up_after);
    } else if (!WIFSIGNALED(*status) || WTERMSIG(*status) != signo) {
        report.fail("signal %d: ended with %s", signo, in_words(*status));
    } else if (took.count() > must_end_within) {
        report.fail("signal %d: took %.2f s to end", signo, took.count());
    }
    if (took.count() > report.value_of("longest_s")) report.figure("longest_s", took.count());
    report.count("ended");
    report.count("cycles", static_cast<double>(told->cycles));
    collect_orphans(report, signo);
    forget(told);
}

// ----------------------------------------------------------------------------------------------------
// crashes

std::string content(const char* path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// After a crash nothing can be trusted: the child lives on, and the trace shows that the cleanup was there.
void crash_one(Report& report, int signo, const char* trace)
{
    Told* const told = share();
    const pid_t pid = start([&] {
        setenv("ZT_PIPE_DEBUG", "DEBUG='global'", 1);
        setenv("ZT_TRACE_FILE", trace, 1);
        zt::Status status;
        const int handle = open_pipe(child("never_reads"), "PROGRAM", status);
        told->child = handle > 0 ? Zt_pipes[handle]->pid : -1;
        for (;;) pause();
    });
    comes_true(gives_up_after, [&] { return told->child != 0; });
    kill(pid, signo);
    const std::optional<int> status = wait_for_end(pid, gives_up_after);
    if (!status || !WIFSIGNALED(*status) || WTERMSIG(*status) != signo)
        report.fail("crash by signal %d: %s", signo, status ? in_words(*status) : "hangs");
    if (kill(told->child, 0) != 0) report.fail("crash by signal %d: the child is gone", signo);
    kill(told->child, SIGKILL);
    const std::string lines = content(trace);
    if (lines.find("beginning cleanup processing due to signal") == std::string::npos ||
        lines.find("completed cleanup processing") == std::string::npos)
        report.fail("crash by signal %d: no cleanup lines in: %s", signo, lines.c_str());
    unlink(trace);
    collect_children(must_end_within, [](pid_t, int) {});
    report.count("crashes");
    forget(told);
}

void crash(Report& report)
{
    char trace[] = "/tmp/zt-torture-XXXXXX";
    close(mkstemp(trace));
    for (const int signo : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL}) crash_one(report, signo, trace);
}

// ------------------------------------------------------------------------------- the application's own
// handler

Told* handler_tells;

void own_handler(int)
{
    ++handler_tells->handled;
}

void keep_own_handler(Report& report)
{
    handler_tells = share();
    const pid_t pid = start([] {
        signal(SIGTERM, own_handler);
        std::atomic<long> cycles{0};
        {
            Worker worker{1, cycles};
            while (handler_tells->handled < 3) {
                worker.cycle();
                ++handler_tells->cycles;
            }
        }
        std::exit(42);
    });
    for (int sent = 0; sent < 3; ++sent) {
        const long before = handler_tells->cycles;
        comes_true(gives_up_after, [&] { return handler_tells->cycles > before; });
        kill(pid, SIGTERM);
        if (!comes_true(gives_up_after, [&] { return handler_tells->handled > sent; }))
            report.fail("the application's own SIGTERM handler did not run");
    }
    const std::optional<int> status = wait_for_end(pid, gives_up_after);
    if (!status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 42)
        report.fail("with an own SIGTERM handler: %s", status ? in_words(*status) : "hangs");
    collect_orphans(report, SIGTERM);
    report.count("own_handlers_kept");
    forget(handler_tells);
}

}  // namespace

void torture_signals(const Settings& settings, Report& report)
{
    Random random{settings.seed};
    report.figure("threads", settings.threads);
    for (Rounds rounds{settings}; rounds.more();) end_one(settings, report, random);
    crash(report);
    keep_own_handler(report);
}

}  // namespace torture
