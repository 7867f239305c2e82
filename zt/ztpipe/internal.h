/// @file
/// What the module's files share, and what white-box tests may look at. Not installed.
#ifndef ZT_ZTPIPE_INTERNAL_H
#define ZT_ZTPIPE_INTERNAL_H

#include <zt/runtime/mutex.h>
#include <zt/ztpipe.h>

extern "C" {

/// The handle table: slot 0 is never used, a null slot is free. Guarded by `Zt_pipe_mtx`.
extern zt_pipe** Zt_pipes;
/// Slots allocated in `Zt_pipes`; 0 = the module is not initialised.
extern int Zt_avail_pipes;
/// Slots in use plus one, because slot 0 counts as used.
extern int Zt_used_pipes;
/// The pipe an operation is working on, for the SIGPIPE handler; null between operations.
extern zt_pipe* Zt_pipe_current;
/// Guards the three table globals and the environment swap around `popen`.
extern zt::Mtx Zt_pipe_mtx;

/// Resident bytes from which on PROGRAM children are started by posix_spawn. White-box tests lower it.
extern long Zt_pipe_large_parent;

/// Sets the module up once: handle table, exit and SIGPIPE handlers, debug flags. Returns the record's code.
std::uint32_t zt_pipe_init(zt::Status* status);

/// Initialises the debug flags once and applies `ZT_PIPE_DEBUG`. A bad setting is only a warning line.
std::uint32_t zt_pipe_debug_init(zt::Status* status);

/// Puts a block into the lowest free slot and writes the slot's number into it. Returns the record's code.
std::uint32_t zt_pipe_assign_handle(zt_pipe* pipe, zt::Status* status);

/// Finds a handle's block; a failure names `routine`, the caller's. Does not clear the record. Returns its
/// code.
std::uint32_t zt_pipe_get_handle(int handle, zt_pipe** pipe, const char* routine, zt::Status* status);

/// Polls (or waits) for the end of a PROGRAM child. Returns 0 also when the child has ended: the record's
/// code then holds its class (10144, 10145, 10147). Otherwise the code of what failed.
int zt_pipe_status(int handle, bool wait, zt::Status* status);

/// Starts a COMMAND pipe's shell. Returns the record's code.
std::uint32_t zt_pipe_popen(zt_pipe* pipe, const char* const* argv, const char* const* envp,
                            zt::Status* status);

/// Starts a PROGRAM pipe's child by fork and exec. Returns the record's code; deliberately, a forked child
/// that cannot be wired returns from here too.
std::uint32_t zt_pipe_fork(zt_pipe* pipe, const char* const* argv, const char* const* envp,
                           zt::Status* status);
}

#endif
