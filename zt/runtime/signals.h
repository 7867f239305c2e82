/// @file
/// Signals: handlers by name, texts for numbers, and what a signal means for the exit facility.
///
/// errno survives every service here, and the handlers that zt_signal() installs.
#ifndef ZT_RUNTIME_SIGNALS_H
#define ZT_RUNTIME_SIGNALS_H

#include <signal.h>
#include <zt/runtime/api.h>

#include <cstdint>

namespace zt {
class Status;

/// Signals from outside that end a process by default: the exit functions may do their work for them.
inline constexpr int asynchronous_fatal_signals[] = {
    SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGALRM, SIGVTALRM, SIGPROF, SIGUSR1, SIGUSR2, SIGIO, SIGXCPU, SIGXFSZ,
};

/// Signals of a program error: the exit functions are called, but nothing can be relied on any more.
inline constexpr int crash_signals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS, SIGTRAP};
}  // namespace zt

extern "C" {

/// Installs a handler for the signals that a text names.
///
/// The handler gets the signal's number. Calls that a signal interrupts are restarted (SA_RESTART). Without
/// REINSTALL a signal's action is the default again once the handler has been entered. A later call for the
/// same signal replaces the handler. Either all named signals are installed or none.
///
/// @param handler       async-signal-safe function, or SIG_IGN; not null.
/// @param name          the handler's name, for messages; null counts as empty. Not kept.
/// @param module        the module's name, for messages; null counts as empty. Not kept.
/// @param specification names like SIGPIPE or SIGRTMIN+3 and the word REINSTALL, in any case, separated by
///                      blanks and/or commas; not null, at least one signal.
/// @param status        the caller's record; filled on failure, untouched on success.
/// @return 0, or the code:
/// - 10036 a null argument: `sparm[0]` "handler" or "specification", `sparm[1]` "zt_signal". A text
///   that names no signal counts as a missing "specification"
/// - 10047 `status` is null; nothing happened
/// - ZT_OPTION_E_UNKNOWN an unknown word: `sparm[0]` the word (cut to 255 characters)
/// - zt_error_no(errno) the system refuses a signal (SIGKILL, SIGSTOP): `sys_errno`, `sys_msg`,
///   `sparm[0]` the signal's token, `sparm[1]` the handler's name, `object` the module
///
/// Safe in any thread; for SIGINT also while the interrupt latch is armed.
///
/// @code
/// static void on_pipe(int) { broken = 1; }
/// zt::Status status;
/// uint32_t code = zt_signal(on_pipe, "on_pipe", "app", "SIGPIPE, REINSTALL", &status);
/// @endcode
ZT_API uint32_t zt_signal(void (*handler)(int), const char* name, const char* module,
                          const char* specification, zt::Status* status);

/// The short name of a signal, such as "SIGPIPE" or "SIGRTMIN+3".
///
/// @param signo a signal number; any value.
/// @return static text, never null; "UNKNOWN" when there is no such signal.
///
/// Safe in any thread, and async-signal-safe.
///
/// @code
/// printf("ended by %s\n", zt_signal_token(WTERMSIG(word)));  // SIGKILL
/// @endcode
ZT_API const char* zt_signal_token(int signo);

/// What a signal means, in words, such as "Broken pipe".
///
/// @param signo a signal number; any value.
/// @return static text, never null; "Unknown signal" when there is no such signal.
///
/// Safe in any thread, and async-signal-safe.
///
/// @code
/// printf("ended by a signal: %s\n", zt_signal_desc(WTERMSIG(word)));  // Killed
/// @endcode
ZT_API const char* zt_signal_desc(int signo);

/// Tells whether an exit function may do its work for this cause.
///
/// @param signo what the exit function was called with: 0 and below mean normal termination.
/// @return true for normal termination and for zt::asynchronous_fatal_signals, false for everything else.
///
/// Safe in any thread, and async-signal-safe.
///
/// @code
/// static void clean_up(int signo) { if (zt_signal_safe(signo)) tell_children(); }
/// @endcode
ZT_API bool zt_signal_safe(int signo);

/// Gives a forked child the signal actions that a new program should start with.
///
/// Call it right before exec while all signals are still blocked, so that no handler of the parent ever runs
/// in the child. Every signal with a handler gets its default action; ignored ones stay ignored, except
/// SIGPIPE, which always gets its default. An armed interrupt latch is seen through: where the application
/// ignores SIGINT, the program starts with it ignored.
///
/// Async-signal-safe.
///
/// @code
/// if (fork() == 0) { zt_signal_prepare_exec(); sigprocmask(SIG_SETMASK, &old_mask, nullptr); execvp(...); }
/// @endcode
ZT_API void zt_signal_prepare_exec(void);

/// `sigaction` that sees through an armed interrupt latch when the signal is SIGINT.
///
/// @param signo       the signal.
/// @param replacement the new action; null: leave it.
/// @param old         where the action so far is stored; may be null.
/// @return 0, or -1 with errno set as by `sigaction`.
///
/// Safe in any thread, and async-signal-safe.
///
/// @code
/// struct sigaction now;
/// const bool handled = zt_signal_action(SIGTERM, nullptr, &now) == 0 && now.sa_handler != SIG_DFL;
/// @endcode
ZT_API int zt_signal_action(int signo, const struct sigaction* replacement, struct sigaction* old);
}

#endif
