/// @file
/// How a child ended: from the word that waitpid() gives to a code, a text and a number.
#ifndef ZT_RUNTIME_EXIT_STATUS_H
#define ZT_RUNTIME_EXIT_STATUS_H

#include <stdint.h>
#include <zt/runtime/api.h>
#include <zt/runtime/status.h>

/// @name The three ways in which a child ends
/// @{
inline constexpr uint32_t ZT_EXIT_S_NORMAL = 10144;    ///< exited with code 0
inline constexpr uint32_t ZT_EXIT_S_ERROR = 10145;     ///< exited with another code
inline constexpr uint32_t ZT_EXIT_S_ABNORMAL = 10147;  ///< ended by a signal
/// @}

extern "C" {

/// Classifies a wait status and fills a record with the outcome.
///
/// | the child                | `code`                       | `iparm[0]`        | `sys_errno`       |
/// |--------------------------|------------------------------|-------------------|-------------------|
/// | exited with 0            | 10144 ::ZT_EXIT_S_NORMAL     | 0                 | 0                 |
/// | exited with another code | 10145 ::ZT_EXIT_S_ERROR      | the exit code     | 0                 |
/// | was ended by a signal    | 10147 ::ZT_EXIT_S_ABNORMAL   | the signal number | the signal number |
///
/// In each case `subcode` is 0 and `sparm[0]` the text of zt_exit_status_text(). No other field is touched.
/// Whether a core was dumped makes no difference.
///
/// @param wait_status a word as waitpid() or pclose() gives it.
/// @param status      the record to fill; with null the classification is only tested.
/// @return 1 when the word denotes a child that has ended; 0 when it does not (stopped, continued, or no
///         wait status at all, such as -1): then the record is as it was.
///
/// Allocates nothing, leaves `errno` as it was and may be called from a signal handler; a record is for one
/// thread at a time.
///
/// @code
/// zt::Status status;
/// int word;
/// if (waitpid(pid, &word, 0) == pid && zt_exit_status(word, &status))
///     printf("ended %s (%d)\n", status.sparm[0], status.iparm[0]);
/// @endcode
ZT_API int zt_exit_status(int wait_status, zt::Status* status);

/// Gives the words for one of the three codes.
///
/// @param code any number.
/// @return "normally", "with an error" or "abnormally", which live as long as the program; null for a number
///         that is none of the three codes. Safe for threads and in signal handlers.
///
/// @code
/// const char* how = zt_exit_status_text(status.code);
/// @endcode
ZT_API const char* zt_exit_status_text(uint32_t code);
}

#endif
