#include <pthread.h>
#include <unistd.h>
#include <zt/runtime/errno_guard.h>
#include <zt/runtime/exit_handlers.h>
#include <zt/runtime/interrupt.h>
#include <zt/runtime/transition_lock.h>

#include <atomic>

namespace {

struct Latch {
    zt::TransitionLock lock;
    int armings = 0;                     // guarded by lock
    struct sigaction previous = {};      // guarded by lock: what the end of the stretch restores
    std::atomic<bool> installed{false};  // the handler stands, or did until somebody replaced it
    std::atomic<bool> pending{false};
    std::atomic<bool> polled{false};  // somebody asked with a clear, so what comes later is not theirs
};

constinit Latch latch;

// Initial-exec: the first touch of an ordinary thread-local in a loaded library may allocate, which a
// signal handler and a forked child must not.
thread_local int own_armings __attribute__((tls_model("initial-exec"))) = 0;
thread_local bool entered_for_fork __attribute__((tls_model("initial-exec"))) = false;

// To the process, not to this thread: the thread that serves the application's interrupts may be another.
void send_again()
{
    kill(getpid(), SIGINT);
}

void remember_interrupt(int signo);

bool is_latch(const struct sigaction& action)
{
    return (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == remember_interrupt;
}

bool latch_stands()
{
    struct sigaction now;
    return sigaction(SIGINT, nullptr, &now) == 0 && is_latch(now);
}

void remember_interrupt(int)
{
    const zt::ErrnoGuard keep;
    latch.pending = true;
    // A handler that was entered before the stretch ended may get the processor only after it. Where the
    // latch itself still stands (somebody saved it and put it back), sending again would never end.
    if (!latch.installed && !latch_stands() && latch.pending.exchange(false)) send_again();
}

// What is pending stays: the stretch before took its own, so it is of a handler that was entered then and
// has got the processor only now.
void install()
{
    latch.polled = false;
    latch.installed = true;
    struct sigaction remember = {};
    remember.sa_handler = remember_interrupt;
    sigemptyset(&remember.sa_mask);
    struct sigaction found;
    sigaction(SIGINT, &remember, &found);
    // Somebody who saved the latch in an earlier stretch put it back since: what it hides still counts.
    if (!is_latch(found)) latch.previous = found;
    if (latch.previous.sa_handler != SIG_IGN) return;
    sigaction(SIGINT, &latch.previous, nullptr);
    latch.installed = false;
    latch.pending = false;
}

void restore()
{
    struct sigaction found;
    sigaction(SIGINT, &latch.previous, &found);
    if (!is_latch(found)) sigaction(SIGINT, &found, nullptr);
    latch.installed = false;
}

// The end of a stretch, with the lock; true when an interrupt is left that the application should get.
bool end_stretch()
{
    if (latch.armings == 0 || --latch.armings > 0 || !latch.installed) return false;
    restore();
    return latch.pending.exchange(false) && latch.polled;
}

void prepare_fork()
{
    entered_for_fork = !zt_exit_in_signal() && latch.lock.enter();
}

void finish_fork()
{
    if (entered_for_fork) latch.lock.leave();
}

// The other threads do not exist in the child: nobody would ever disarm for them.
void keep_own_armings_in_child()
{
    latch.pending = false;
    latch.armings = own_armings;
    if (own_armings == 0 && latch.installed) restore();
    if (entered_for_fork) latch.lock.leave();
}

[[maybe_unused]] const int fork_handlers =
    pthread_atfork(prepare_fork, finish_fork, keep_own_armings_in_child);

}  // namespace

void zt_sys_arm_interrupt(void)
{
    // The exit functions of a fatal signal must not wait for a thread that stopped in the middle of this.
    if (zt_exit_in_signal() || !latch.lock.enter()) return;
    ++own_armings;
    if (++latch.armings == 1) install();
    latch.lock.leave();
}

int zt_sys_poll_interrupt(int clear)
{
    if (!latch.installed) return 0;
    if (clear == 0) return latch.pending ? 1 : 0;
    latch.polled = true;
    return latch.pending.exchange(false) ? 1 : 0;
}

void zt_sys_disarm_interrupt(void)
{
    if (zt_exit_in_signal() || !latch.lock.enter()) return;
    if (own_armings > 0) --own_armings;
    const bool left_over = end_stretch();
    latch.lock.leave();
    if (left_over) send_again();
}

int zt_sys_interrupt_action(const struct sigaction* replacement, struct sigaction* old)
{
    const bool entered = !zt_exit_in_signal() && latch.lock.enter();
    int result = 0;
    if (latch.installed && latch_stands()) {
        const struct sigaction previous = latch.previous;
        if (replacement != nullptr) latch.previous = *replacement;
        if (old != nullptr) *old = previous;
    } else {
        result = sigaction(SIGINT, replacement, old);
    }
    if (entered) latch.lock.leave();
    return result;
}
