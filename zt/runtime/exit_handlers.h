/// @file
/// The exit facility: functions that run once when the process ends, normally or by a fatal signal.
///
/// At normal exit (`exit`, return from `main`, in whatever thread) the registered functions run with 0, the
/// last registered first. When a fatal signal ends the process they run with the signal's number, and then
/// the process still ends by that very signal, so that its parent sees the truth. `_exit`, `quick_exit`,
/// SIGKILL and a successful exec run nothing. The first process of a container, which the system spares from
/// default actions, exits with 128 + the signal's number instead.
///
/// Which signals: zt::asynchronous_fatal_signals and zt::crash_signals (signals.h), each where its action was
/// the default when a function was registered. A handler that the application installed and an ignored
/// signal are never replaced. There is no alternate signal stack: a stack overflow ends the process at once.
///
/// How a fatal signal cannot deadlock or corrupt: its handler interrupts code that may hold any lock or have
/// the heap half changed. Therefore the functions run IN signal context and ask zt_exit_in_signal() before
/// they lock, allocate or free anything; the handler itself takes no lock; and the few stretches that the
/// functions must not see half done stand between zt_exit_hold() and zt_exit_release(), which the handler
/// waits for (at most one second, and not at all for a crash signal).
///
/// - One signal ends the process: the first. Other threads that receive one meanwhile stop where they are,
///   and so does a thread that calls `exit` or zt_exit_hold() by then.
/// - No function is begun twice. A signal that arrives while `exit` runs the functions runs those not yet
///   begun, and ends the process.
/// - A crash inside the functions (a fault, `abort`) ends the process at once by that crash's signal.
/// - A forked child has the functions registered too; each knows which process its things belong to. An end
///   or a hold that was under way in another thread of the parent does not count in the child. (Children
///   made without the fork handlers, `_Fork` and `vfork`, must exec or `_exit`.)
///
/// errno survives every service here.
#ifndef ZT_RUNTIME_EXIT_HANDLERS_H
#define ZT_RUNTIME_EXIT_HANDLERS_H

#include <signal.h>
#include <zt/runtime/api.h>

#include <cstdint>

namespace zt {
class Status;
}

/// How many functions can be registered at one time.
#define ZT_EXIT_FUNCTIONS_MAX 32

/// What zt_exit_hold() keeps for zt_exit_release(); the caller's own, normally on the stack.
struct zt_exit_hold_state {
    sigset_t old_mask;    ///< the thread's signal mask before the hold
    uint32_t generation;  ///< the process that took the hold: a forked child has not taken it
};

extern "C" {

/// Registers a function to run when the process ends.
///
/// A function that is registered and has not begun yet stays registered once, in its old place. One that has
/// begun (also: that is running right now) can be registered again and runs again.
///
/// @param function called with 0 at normal exit, else with the signal's number; not null. In the second case
///                 it is in signal context: see zt_exit_in_signal().
/// @param name     the function's name for messages; null counts as empty. Not kept.
/// @param module   the module's name for messages; null counts as empty. Not kept.
/// @param options  reserved, pass ""; not looked at, may be null.
/// @param status   the caller's record; filled on failure, untouched on success.
/// @return 0, or the code:
/// - 10021 the table is full, or the system has no room for its own exit hook: `object` "exit functions",
///   `iparm[0]` the bytes that were missing, `iparm[1]` zt_heapsize(), `sys_errno` ENOMEM with `sys_msg`,
///   `sparm[0]` and `sparm[1]` the name and the module
/// - 10036 `function` is null: `sparm[0]` "function", `sparm[1]` "zt_atexit"
/// - 10047 `status` is null; nothing happened
///
/// Safe in any thread, also during exit (a static object's destructor may register: the function still
/// runs). Not for signal handlers.
///
/// @code
/// static void clean_up(int signo) { if (signo <= 0) close_everything(); else tell_children(); }
/// zt::Status status;
/// if (zt_atexit(clean_up, "clean_up", "app", "", &status) != 0) puts(status.what());
/// @endcode
ZT_API uint32_t zt_atexit(void (*function)(int), const char* name, const char* module, const char* options,
                          zt::Status* status);

/// Tells whether this thread is running the exit functions from a fatal signal's handler, so that they must
/// do with what a signal handler may: no lock, no allocation, no free, no stdio.
///
/// @return true there, false everywhere else (also on other threads, and at normal exit).
///
/// Safe in any thread and in a signal handler; costs one load when no signal is ending the process. errno is
/// kept.
///
/// @code
/// static void clean_up(int) { if (!zt_exit_in_signal()) std::free(table); }
/// @endcode
ZT_API bool zt_exit_in_signal(void);

/// Tells whether another thread is ending the process by `exit` (or by its return from `main`) and has begun
/// to run the exit functions: what they give up must not be taken up again here.
///
/// @return true from then on until the process has gone; false on that thread itself, whose static objects'
///         destructors may go on using everything.
///
/// Safe in any thread, and async-signal-safe. errno is kept.
///
/// @code
/// if (zt_exit_elsewhere()) return -1;   // nobody would end the child that is started now
/// @endcode
ZT_API bool zt_exit_elsewhere(void);

/// Begins a stretch of a few instructions that the exit functions must not see half done, such as a fork
/// whose process id is not stored yet.
///
/// All signals of the thread are held back until zt_exit_release(), and a fatal signal that another thread
/// receives waits for the release. Holds nest. Once a signal is ending the process this does not return on
/// any other thread. Keep the stretch short: what waits in it for another thread (also fork and malloc, which
/// wait for the heap's lock when the signal has interrupted its owner) costs a dying process the full second.
///
/// @param state where the thread's mask is kept; not null; one for each hold.
///
/// Async-signal-safe.
///
/// @code
/// zt_exit_hold_state hold;
/// zt_exit_hold(&hold);
/// child->pid = fork();
/// zt_exit_release(&hold);   // in the parent and, where it goes on, in the child
/// @endcode
ZT_API void zt_exit_hold(zt_exit_hold_state* state);

/// Ends the stretch: gives the hold back and restores the thread's signal mask.
///
/// In a child forked within the stretch only the mask is restored: the hold is the parent's.
///
/// @param state what zt_exit_hold() filled; not null.
///
/// Async-signal-safe, on the thread that took the hold. For an example see zt_exit_hold().
ZT_API void zt_exit_release(zt_exit_hold_state* state);
}

#endif
