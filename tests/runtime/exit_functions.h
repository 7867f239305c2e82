/// @file
/// Exit functions that say when they run, and steps that threads take in turn.
#ifndef ZT_TESTS_EXIT_FUNCTIONS_H
#define ZT_TESTS_EXIT_FUNCTIONS_H

#include <sys/mman.h>
#include <tests/support/forked_child.h>
#include <zt/runtime/exit_handlers.h>
#include <zt/runtime/status.h>

#include <atomic>
#include <csignal>
#include <thread>

namespace exit_functions {

using forked::say;

inline void first(int signo)
{
    say("first:", signo);
}
inline void second(int signo)
{
    say("second:", signo);
}
inline void third(int signo)
{
    say("third:", signo);
}

inline void register_function(void (*function)(int))
{
    zt::Status status;
    if (zt_atexit(function, "f", "test", "", &status) != 0) say(status.what());
}

inline void on(int signo, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(signo, &action, nullptr);
}

inline bool has_handler(int signo, void (*handler)(int))
{
    struct sigaction now;
    return sigaction(signo, nullptr, &now) == 0 && now.sa_handler == handler;
}

inline void applications_own(int signo)
{
    say("application:", signo);
}

inline std::atomic<int> step{0};
inline std::atomic<pid_t> other_thread{0};
inline std::atomic<pthread_t> other_pthread{};

inline void wait_for_step(int wanted)
{
    if (!forked::comes_true([=] { return step == wanted; })) say("too late ");
}

inline void touch_forbidden_page()
{
    void* const page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile char*>(page) = 1;
}

// Starts a thread that does `work` once `step` is 1, after it has told who it is.
template <class Work>
void start_other_thread(Work work)
{
    std::thread([work] {
        other_pthread = pthread_self();
        other_thread = forked::thread_id();
        wait_for_step(1);
        work();
        say("other went on ");
        for (;;) pause();
    }).detach();
    forked::comes_true([] { return other_thread != 0; });
}

}  // namespace exit_functions

#endif
