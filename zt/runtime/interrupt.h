/// @file
/// The interrupt latch: while an operation runs, Ctrl-C (SIGINT) is remembered instead of ending the
/// process, and the operation asks at its end whether one came.
///
/// An armed stretch begins when the count of armings goes from 0 to 1 and ends when it is back at 0.
/// Armings nest, and armings of several threads add up: the latch belongs to the process.
///
/// - Arming replaces SIGINT's action by the latch's handler. It has no SA_RESTART, so that a blocked read
///   or write comes back with EINTR and can ask the latch.
/// - Where the application ignores SIGINT, the latch keeps out: it stays ignored during the stretch, nothing
///   is remembered, and children that are started meanwhile inherit it ignored.
/// - The end of the stretch puts the application's action back as it was, flags and mask included. An
///   action that somebody else installed during the stretch is kept instead.
/// - A stretch costs two `sigaction` calls (a third when somebody else's action has to be put back).
///
/// Threads and signals: every operation may be called from any thread at any time. Arming and disarming take
/// turns for the length of their few system calls. From a handler that interrupted this thread's own turn, or
/// from the exit functions of a fatal signal, they wait for nobody and do nothing, in pairs. Another thread's
/// turn is waited for, and with it a handler that has interrupted that thread in it: so a handler should not
/// wait for a thread that may arm or disarm.
///
/// Forked children: a child starts with the armings of the thread that forked, and without a remembered
/// interrupt. Where that thread had none, the application's action is back in the child. Children made
/// without the fork handlers (`_Fork`, `vfork`) have a plain copy of the parent's state.
///
/// errno survives each of them. Nothing allocates.
///
/// @code
/// zt_sys_arm_interrupt();
/// ssize_t got = read(fd, buffer, size);
/// bool interrupted = zt_sys_poll_interrupt(1) != 0;
/// zt_sys_disarm_interrupt();
/// @endcode
#ifndef ZT_RUNTIME_INTERRUPT_H
#define ZT_RUNTIME_INTERRUPT_H

#include <signal.h>
#include <zt/runtime/api.h>

extern "C" {

/// Starts remembering a user interrupt instead of letting it end the process.
///
/// The arming that begins a stretch forgets what an earlier stretch has seen. Each arming needs its
/// disarming, on the same thread. For safety and an example of all three see the top of this file.
ZT_API void zt_sys_arm_interrupt(void);

/// Tells whether an interrupt arrived since the stretch began, or since it was last cleared.
///
/// @param clear nonzero: forget the interrupt, so that it is reported once; 0: only look.
/// @return 1 when an interrupt arrived, else 0. Without an armed stretch always 0.
///
/// Safe in a signal handler.
ZT_API int zt_sys_poll_interrupt(int clear);

/// Stops remembering; the end of the outermost arming restores what SIGINT did before.
///
/// An interrupt that came after the last clearing poll is sent again (`kill` to this process), so that it
/// does what the application set up and no Ctrl-C is lost between that poll and the disarming. A stretch
/// that never polled with a clear drops its interrupt: nobody meant to act on it.
///
/// A disarming without an arming is ignored.
ZT_API void zt_sys_disarm_interrupt(void);

/// `sigaction` for SIGINT that sees through an armed latch.
///
/// While the latch's handler stands, the action that the end of the stretch will restore is read and
/// replaced; otherwise this is `sigaction(SIGINT, replacement, old)`.
///
/// @param replacement the action that SIGINT shall have outside operations; null: leave it.
/// @param old         where the action so far is stored; may be null.
/// @return 0, or -1 with errno set as by `sigaction` (the one service here that sets errno).
///
/// @code
/// struct sigaction now;
/// const bool off = zt_sys_interrupt_action(nullptr, &now) == 0 && now.sa_handler == SIG_IGN;
/// @endcode
ZT_API int zt_sys_interrupt_action(const struct sigaction* replacement, struct sigaction* old);
}

#endif
