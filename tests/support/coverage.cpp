#include "tests/support/coverage.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>

extern "C" {
void __gcov_dump(void);
void __gcov_reset(void);
[[noreturn]] void __real__exit(int);
int __real_raise(int);
}

namespace coverage {
namespace {

constexpr int counted_children = 4;

std::atomic<int> forks{0};
std::atomic<bool> is_counted{true};

void count_fork()
{
    ++forks;
}

void begin_child()
{
    is_counted = forks <= counted_children;
    forks = 0;
    __gcov_reset();
}

// Before the library registers its own: what it does in the child at a fork is counted there.
__attribute__((constructor(101))) void watch_forks()
{
    pthread_atfork(count_fork, nullptr, begin_child);
}

}  // namespace

void save()
{
    if (!is_counted) return;
    // A signal in between would find the counters locked, by this very thread.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    __gcov_dump();
    __gcov_reset();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace coverage

extern "C" {

[[noreturn]] void __wrap__exit(int code)
{
    coverage::save();
    __real__exit(code);
}

/// A signal that nobody handles ends the process.
int __wrap_raise(int signal)
{
    struct sigaction action;
    if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) coverage::save();
    return __real_raise(signal);
}

}  // extern "C"
