/// @file
/// The process environment: looking a variable up, and making the environment for a child.
#ifndef ZT_RUNTIME_ENVIRONMENT_H
#define ZT_RUNTIME_ENVIRONMENT_H

#include <zt/runtime/api.h>

extern "C" {

/// Looks up a variable of the current environment.
///
/// @param name the variable's name; null, an empty name and one with `=` in it name no variable.
/// @return its value, which belongs to the environment and stays valid until the variable is changed; null
///         when there is no such variable.
///
/// While another environment is lent to the process (zt_environ_lend) the process's own one still answers.
/// Leaves `errno` as it was. Not safe against a thread that changes the environment at the same time.
/// Async-signal-safe.
///
/// @code
/// if (const char* file = zt_getenv("ZT_TRACE_FILE")) open_trace(file);
/// @endcode
ZT_API const char* zt_getenv(const char* name);

/// The environment that the process has of itself.
///
/// @return the vector, also while another one is lent to the process; null when it has none of its own.
///
/// Async-signal-safe. Threads may ask while another one lends and takes back.
///
/// @code
/// execve(file, words, zt_own_environ());
/// @endcode
ZT_API char** zt_own_environ(void);

/// Lends the process another environment, for a call that starts a child and knows no environment argument.
///
/// @param envp the vector that becomes `environ`, ended by a null pointer; not null; not copied.
/// @return the process's own environment, for zt_environ_take_back(); null when it had none.
///
/// A child forked meanwhile has the process's own. One loan at a time: the caller holds a lock from here to
/// the return. Other threads may not change the environment meanwhile, and those that read it by `environ` or
/// getenv find the lent one; zt_getenv() and zt_own_environ() do not. Not for signal handlers. Leaves `errno`
/// as it was.
///
/// @code
/// char** own = zt_environ_lend(envp);
/// FILE* stream = popen(command, "r");
/// zt_environ_take_back(own);
/// @endcode
ZT_API char** zt_environ_lend(const char* const* envp);

/// Ends the loan.
///
/// @param own what zt_environ_lend() returned. With null, for a process that had no environment, the lent one
///        stays installed and is its own from now on, and must not be freed.
///
/// For the thread that began the loan, still with its lock; not for signal handlers. Leaves `errno` as it
/// was. For an example see zt_environ_lend().
ZT_API void zt_environ_take_back(char** own);

/// Makes the environment vector for a child.
///
/// Without merging it is a copy of `envp` as it stands. With merging it is the process's own environment, in
/// its order: a variable that `envp` names too has the value of `envp` in the same place (once, should the
/// environment hold it several times), and what `envp` adds follows in the order of `envp`. When `envp` names
/// a variable several times, the last one counts. Entries that are not of the form NAME=value are passed on
/// as they are; they replace nothing and nothing replaces them.
///
/// The vector and its texts are one block of memory class 2 that shares nothing with `envp` or the
/// environment: either may change or go away afterwards. **The caller frees it** with
/// `zt_mem_ifree(2, vector, file, line)`, and no text of it alone.
///
/// @param envp  entries NAME=value, ended by a null pointer; must not be null, may hold no entry.
/// @param merge 0: `envp` alone; anything else: merged with the current environment. A process without any
///              environment counts as one with no variables.
/// @param out   receives the vector, ended by a null pointer; null on a failure. Must not be null.
/// @return 0, or -1 with `errno` EINVAL (`envp` or `out` is null) or ENOMEM.
///
/// Takes time in proportion to the size of both environments. `errno` stays as it was on success. Threads
/// may use it at the same time; merging is not safe against a thread that changes the environment meanwhile.
/// Not for signal handlers, since it allocates.
///
/// @code
/// const char* extra[] = {"LC_ALL=C", nullptr};
/// char** environment;
/// if (zt_combine_environs(extra, 1, &environment) < 0) return errno;
/// run_child(environment);
/// zt_mem_ifree(2, environment, __FILE__, __LINE__);
/// @endcode
ZT_API int zt_combine_environs(const char* const* envp, int merge, char*** out);
}

#endif
