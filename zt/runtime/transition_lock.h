/// @file
/// A lock for a few instructions that signal handlers may run into. Internal to the runtime.
///
/// A handler that interrupts the owner is told so instead of waiting for ever for the code below it.
#ifndef ZT_RUNTIME_TRANSITION_LOCK_H
#define ZT_RUNTIME_TRANSITION_LOCK_H

#include <pthread.h>
#include <sched.h>
#include <time.h>
#include <zt/runtime/errno_guard.h>

#include <atomic>

namespace zt {

/// Spins, giving the processor away: nobody holds it longer than a few system calls. A waiter soon
/// sleeps a moment each time instead, since one of a higher priority would keep the processor all the same.
/// Async-signal-safe, constant-initialised, never destroyed. errno is kept.
class TransitionLock {
  public:
    /// Waits for the lock and takes it.
    /// @return false, without the lock, when this thread already has it: a signal handler interrupted it.
    bool enter() noexcept
    {
        const pthread_t self = pthread_self();
        pthread_t owner{};
        for (int rounds = 0; !owner_.compare_exchange_weak(owner, self);) {
            if (owner == self) return false;
            if (owner != pthread_t{}) give_way(rounds++);
            owner = pthread_t{};
        }
        return true;
    }

    /// Gives the lock back after an enter() that returned true.
    void leave() noexcept { owner_.store(pthread_t{}); }

  private:
    static constexpr int rounds_of_yielding = 100;

    static void give_way(int rounds) noexcept
    {
        const ErrnoGuard keep;
        const timespec a_moment = {0, 100000};
        rounds < rounds_of_yielding ? sched_yield() : nanosleep(&a_moment, nullptr);
    }

    std::atomic<pthread_t> owner_{};
};

}  // namespace zt

#endif
