#include <pthread.h>
#include <time.h>
#include <unistd.h>
#include <zt/runtime/errno_guard.h>
#include <zt/runtime/exit_handlers.h>
#include <zt/runtime/failure.h>
#include <zt/runtime/memory.h>
#include <zt/runtime/signals.h>
#include <zt/runtime/transition_lock.h>

#include <atomic>
#include <cstdlib>

namespace {

using ExitFunction = void (*)(int);

constexpr pthread_t nobody{};
constexpr int longest_wait_for_holds_ms = 1000;
constexpr int attempts_to_end = 100;

constexpr zt::FailureSite at_null_function = {"exit_handlers", "zt_atexit", 24};
constexpr zt::FailureSite at_no_room = {"exit_handlers", "zt_atexit", 31};

// Registered functions stand in the order of their registration. Whoever takes one out runs it: that is how
// none begins twice, whatever thread or handler comes in between.
constinit std::atomic<ExitFunction> functions[ZT_EXIT_FUNCTIONS_MAX] = {};
constinit zt::TransitionLock registration;
constinit std::atomic<bool> exit_will_run_us{false};

constinit std::atomic<pthread_t> ending_thread{nobody};   // the one that a fatal signal made end the process
constinit std::atomic<pthread_t> exiting_thread{nobody};  // the one that runs the functions at normal exit
constinit std::atomic<int> holds{0};
constinit std::atomic<uint32_t> generation{0};  // counts forks, so that a child knows its parent's holds

[[noreturn]] void park()
{
    sigset_t all;
    sigfillset(&all);
    for (;;) sigsuspend(&all);
}

void park_unless_ending_thread()
{
    const pthread_t ending = ending_thread;
    if (ending != nobody && ending != pthread_self()) park();
}

ExitFunction take_last()
{
    for (int slot = ZT_EXIT_FUNCTIONS_MAX - 1; slot >= 0; --slot) {
        if (const ExitFunction function = functions[slot].exchange(nullptr)) return function;
    }
    return nullptr;
}

void run_functions(int signo)
{
    while (const ExitFunction function = take_last()) function(signo);
}

// A signal on another thread ends the process the truer way: it goes on, and exit waits for it.
void run_at_exit()
{
    park_unless_ending_thread();
    exit_will_run_us = false;
    exiting_thread = pthread_self();
    run_functions(0);
    park_unless_ending_thread();
}

bool is_crash(int signo)
{
    for (const int crash : zt::crash_signals) {
        if (crash == signo) return true;
    }
    return false;
}

// Bounded, because a holder may itself wait for something that never comes.
void wait_for_holds()
{
    for (int waited_ms = 0; holds > 0 && waited_ms < longest_wait_for_holds_ms; ++waited_ms) {
        const timespec a_moment = {0, 1000000};
        nanosleep(&a_moment, nullptr);
    }
}

// More than once, because another thread may put an action back in between (the interrupt latch does). The
// first process of a container is immune to default actions: it ends with the shell's word for a signal.
[[noreturn]] void end_by(int signo)
{
    struct sigaction by_default = {};
    by_default.sa_handler = SIG_DFL;
    sigset_t this_one;
    sigemptyset(&this_one);
    sigaddset(&this_one, signo);
    for (int attempt = 0; attempt < attempts_to_end; ++attempt) {
        sigaction(signo, &by_default, nullptr);
        raise(signo);
        pthread_sigmask(SIG_UNBLOCK, &this_one, nullptr);
    }
    _exit(128 + signo);
}

void on_fatal_signal(int signo)
{
    pthread_t ending = nobody;
    if (!ending_thread.compare_exchange_strong(ending, pthread_self())) {
        if (ending != pthread_self()) park();
        end_by(signo);
    }
    if (!is_crash(signo)) wait_for_holds();
    run_functions(signo);
    end_by(signo);
}

template <class Action>
void for_each_fatal_signal(Action action)
{
    for (const int signo : zt::asynchronous_fatal_signals) action(signo);
    for (const int signo : zt::crash_signals) action(signo);
}

bool is_default(const struct sigaction& action)
{
    return (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_DFL;
}

// Looks before and after: a handler that the application installs in between is given its place back.
void watch(int signo, const struct sigaction& end_the_process)
{
    struct sigaction found;
    if (zt_signal_action(signo, nullptr, &found) != 0 || !is_default(found)) return;
    if (zt_signal_action(signo, &end_the_process, &found) == 0 && !is_default(found)) {
        zt_signal_action(signo, &found, nullptr);
    }
}

void watch_fatal_signals()
{
    struct sigaction end_the_process = {};
    end_the_process.sa_handler = on_fatal_signal;
    sigemptyset(&end_the_process.sa_mask);
    for_each_fatal_signal([&](int signo) { sigaddset(&end_the_process.sa_mask, signo); });
    for_each_fatal_signal([&](int signo) { watch(signo, end_the_process); });
}

// The first free slot above every function that waits, so that the order stays; null when there is none.
std::atomic<ExitFunction>* slot_for(ExitFunction function)
{
    int next = 0;
    for (int slot = 0; slot < ZT_EXIT_FUNCTIONS_MAX; ++slot) {
        const ExitFunction waiting = functions[slot];
        if (waiting == function) return &functions[slot];
        if (waiting != nullptr) next = slot + 1;
    }
    return next < ZT_EXIT_FUNCTIONS_MAX ? &functions[next] : nullptr;
}

// The function first, then the hook: an exit that has run the hook in between is seen by its flag.
bool enroll(ExitFunction function)
{
    std::atomic<ExitFunction>* const slot = slot_for(function);
    if (slot == nullptr) return false;
    *slot = function;
    if (exit_will_run_us.exchange(true) || std::atexit(run_at_exit) == 0) return true;
    exit_will_run_us = false;
    *slot = nullptr;
    return false;
}

bool enroll_undisturbed(ExitFunction function)
{
    zt_exit_hold_state hold;
    zt_exit_hold(&hold);
    registration.enter();
    const bool enrolled = enroll(function);
    registration.leave();
    zt_exit_release(&hold);
    return enrolled;
}

uint32_t fail_no_room(zt::Status& status, const char* name, const char* module)
{
    zt_strncpy(status.object, "exit functions", sizeof status.object);
    zt_strncpy(status.sparm[0], name ? name : "", sizeof status.sparm[0]);
    zt_strncpy(status.sparm[1], module ? module : "", sizeof status.sparm[1]);
    status.iparm[0] = static_cast<int32_t>(sizeof functions[0]);
    status.iparm[1] = zt_heapsize();
    return zt::fail_system(status, at_no_room, zt::no_memory_code, ENOMEM);
}

// What other threads were doing is not going on in the child.
void start_afresh_in_child()
{
    ++generation;
    holds = 0;
    registration.leave();
    if (ending_thread != pthread_self()) ending_thread = nobody;
    if (exiting_thread != pthread_self()) exiting_thread = nobody;
}

[[maybe_unused]] const int fork_handlers = pthread_atfork(nullptr, nullptr, start_afresh_in_child);

}  // namespace

uint32_t zt_atexit(void (*function)(int), const char* name, const char* module, const char*,
                   zt::Status* status)
{
    const zt::ErrnoGuard keep;
    if (status == nullptr) return zt::no_status_code;
    if (function == nullptr) return zt::fail_null_argument(*status, at_null_function, "function");
    if (!enroll_undisturbed(function)) return fail_no_room(*status, name, module);
    watch_fatal_signals();
    return 0;
}

bool zt_exit_in_signal(void)
{
    const pthread_t ending = ending_thread.load(std::memory_order_relaxed);
    return ending != nobody && ending == pthread_self();
}

bool zt_exit_elsewhere(void)
{
    const pthread_t exiting = exiting_thread;
    return exiting != nobody && exiting != pthread_self();
}

void zt_exit_hold(zt_exit_hold_state* state)
{
    const zt::ErrnoGuard keep;
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &state->old_mask);
    state->generation = generation;
    ++holds;
    const pthread_t ending = ending_thread;
    if (ending == nobody || ending == pthread_self()) return;
    --holds;
    park();
}

void zt_exit_release(zt_exit_hold_state* state)
{
    const zt::ErrnoGuard keep;
    if (state->generation == generation) --holds;
    pthread_sigmask(SIG_SETMASK, &state->old_mask, nullptr);
}
