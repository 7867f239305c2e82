/// @file
/// Pipes to child programs: start a program, talk with it, learn how it ended.
///
/// The life of a pipe:
///
/// 1. `zt_ipipe_open` (or `ZT_PIPE_OPEN`) starts a program by fork and exec (option PROGRAM) or a shell
///    command (option COMMAND) and returns a handle.
/// 2. `zt_pipe_write` sends bytes to the child; `zt_pipe_read` and `zt_pipe_read_unlimited` read its
///    output.
/// 3. `zt_pipe_termination` turns what a read said about the child's end into a verdict.
/// 4. `zt_ipipe_close` (or `ZT_PIPE_CLOSE`) ends the child, waits for it and releases the handle.
///
/// Conventions for every operation. (zt_pipe_termination only judges a record: it neither clears it nor
/// fails. The two operations of tracing have nothing to interrupt, so 4 is not for them.)
///
/// 1. **Handles** are small positive integers, lowest free one first. 0 and negative numbers never name a
///    pipe.
/// 2. **The status record** belongs to the caller, is cleared on entry and holds the outcome on return.
///    `code` is 0 for success; otherwise `where` names routine and location, and the parameters that the
///    code carries stand in `iparm`, `sparm`, `msg`, `sys_msg` and `object`. `status.what()` makes one
///    line of all that. A child's own end (10144, 10145, 10147) is no failure of a place: there `where` is
///    empty. `iparm` keeps old values until a failure writes it, `count` until a read does. Without a
///    record (null) nothing happens and the result is -1 or 10047.
/// 3. **Nothing throws.** Memory that runs out is 10021; 20012 where environments are combined, 10100
///    where the C library has none left for a shell.
/// 4. **Interrupts.** While an operation runs, Ctrl-C (SIGINT) is remembered instead of delivered, and the
///    outcome becomes 10132 whatever else happened; a read that has got bytes still delivers them, with
///    10132 as the warning in `subcode`. A write that waits stops at once, and so does a close that waits
///    for a PROGRAM child. A read that waits goes on: it stands five interruptions and stops at the sixth.
///    Between operations SIGINT does what the application set up; where it is ignored it stays ignored.
/// 5. **Threads.** All operations may be called from several threads; one pipe is used by one thread at a
///    time. A SIGPIPE is booked to the pipe that the module worked on last: with several threads writing
///    at once to dying children it may be booked to the wrong one, which then waits for its child when its
///    own write fails.
/// 6. **Signals and exit.** The first open installs a SIGPIPE handler (a write to a child that has gone
///    never ends the process) and an exit function which closes what is still open when the process exits
///    or is ended by SIGHUP, SIGINT, SIGQUIT, SIGTERM and their like at default action; PROGRAM children
///    then get SIGTERM. In a signal handler this works without taking a lock, allocating or freeing,
///    whatever was interrupted: there COMMAND pipes are flushed as far as the child takes the data at once
///    and are not waited for. Once one thread is ending the process, no other opens or finds a pipe
///    (10138). A process that did not open a pipe (a forked child) never signals, waits for or flushes it
///    at its exit. No operation may be called from a signal handler.
/// 7. **Descriptors** carry no close-on-exec flag, deliberately. The ends of a PROGRAM pipe are inherited
///    by every child that is started later, the end of a COMMAND pipe by later PROGRAM children. A child
///    that waits for the end of its input (`sort`) sees it only when every copy is closed.
/// 8. **Tracing** is switched by the environment variable `ZT_PIPE_DEBUG` or by `zt_pipe_debug_config`.
///
/// Out-of-contract input (a negative length, options over 256 characters, ...) fails cleanly with 10036 or
/// 10037 and leaves everything as it was.
#ifndef ZT_ZTPIPE_H
#define ZT_ZTPIPE_H

#include <zt/runtime/api.h>
#include <zt/runtime/status.h>

#include <cstdint>
#include <cstdio>

// ---------------------------------------------------------------------------------------------------------------
// Codes. Names and meanings, as `what()` shows them, are in one table in the library.

inline constexpr std::uint32_t ZT_PIPE_E_NOMEM = 10021;    ///< no memory: `object`, `iparm[0]` bytes asked
inline constexpr std::uint32_t ZT_PIPE_E_NULLARG = 10036;  ///< argument `sparm[0]` of `sparm[1]` is missing
inline constexpr std::uint32_t ZT_PIPE_E_TOOLONG =
    10037;  ///< `sparm[0]`: `iparm[0]` exceeds limit `iparm[1]`
inline constexpr std::uint32_t ZT_PIPE_E_NOSTATUS = 10047;     ///< no status record was given
inline constexpr std::uint32_t ZT_PIPE_E_DEBUGOPT = 10048;     ///< `msg` is no debug category
inline constexpr std::uint32_t ZT_PIPE_E_START = 10100;        ///< program `sparm[0]` could not be started
inline constexpr std::uint32_t ZT_PIPE_E_INTERRUPTED = 10132;  ///< an interrupt arrived meanwhile
inline constexpr std::uint32_t ZT_PIPE_E_NOPROGRAM = 10134;    ///< the program text is empty
inline constexpr std::uint32_t ZT_PIPE_E_FDSETUP = 10135;  ///< making or closing descriptor `sparm[0]` failed
inline constexpr std::uint32_t ZT_PIPE_E_DUP = 10136;      ///< duplicating a descriptor (`msg`) failed
inline constexpr std::uint32_t ZT_PIPE_E_FORK = 10137;     ///< fork failed for program `sparm[0]`
inline constexpr std::uint32_t ZT_PIPE_E_HANDLE = 10138;   ///< `iparm[0]` names no open pipe
inline constexpr std::uint32_t ZT_PIPE_E_READ = 10139;     ///< reading from program `sparm[0]` failed
inline constexpr std::uint32_t ZT_PIPE_E_WRITE = 10140;    ///< writing to program `sparm[0]` failed
inline constexpr std::uint32_t ZT_PIPE_E_CLOSE = 10141;    ///< closing the pipe to `sparm[0]` failed
inline constexpr std::uint32_t ZT_PIPE_E_KILL = 10142;     ///< ending program `sparm[0]` failed
inline constexpr std::uint32_t ZT_PIPE_E_WAIT = 10143;     ///< waiting for program `sparm[0]` failed
inline constexpr std::uint32_t ZT_PIPE_S_NORMAL = 10144;   ///< the child ended normally
inline constexpr std::uint32_t ZT_PIPE_S_ERROR = 10145;    ///< the child ended with exit code `iparm[0]`
inline constexpr std::uint32_t ZT_PIPE_S_ABNORMAL = 10147;  ///< the child was ended by signal `sys_errno`
inline constexpr std::uint32_t ZT_PIPE_E_ACTIVE = 10157;    ///< still running, although waited for
inline constexpr std::uint32_t ZT_PIPE_E_MUSTWAIT = 11102;  ///< NOWAIT refused for a COMMAND pipe
inline constexpr std::uint32_t ZT_PIPE_E_OPTVALUE = 11103;  ///< option `sparm[0]` knows no value `sparm[1]`
inline constexpr std::uint32_t ZT_PIPE_E_CONFLICT =
    11104;  ///< options `sparm[0]`, `sparm[1]` exclude each other
inline constexpr std::uint32_t ZT_PIPE_E_DEPENDS = 11108;  ///< an option lacks the one it needs (`msg`)

// ---------------------------------------------------------------------------------------------------------------
// Types

/// The module's version.
inline constexpr int ZT_PIPE_VERSION = 10000;

/// Launch kinds: the values of `zt_pipe::mode`.
inline constexpr std::uint32_t ZT_PIPE_MODE_NONE = 0;     ///< opened without PROGRAM or COMMAND: no child
inline constexpr std::uint32_t ZT_PIPE_MODE_PROGRAM = 1;  ///< fork and exec, two-way
inline constexpr std::uint32_t ZT_PIPE_MODE_COMMAND = 2;  ///< a shell command through a stdio stream, one-way

/// Directions: the values of `zt_pipe::direction`.
inline constexpr std::uint32_t ZT_PIPE_READS = 0;   ///< the parent reads the child's output
inline constexpr std::uint32_t ZT_PIPE_WRITES = 1;  ///< the parent writes the child's input
inline constexpr std::uint32_t ZT_PIPE_BOTH = 2;    ///< both (PROGRAM pipes)

/// What the child's standard error is: the values of `zt_pipe::stderr_mode`.
inline constexpr std::uint32_t ZT_PIPE_STDERR_DISCARD = 1;  ///< /dev/null
inline constexpr std::uint32_t ZT_PIPE_STDERR_COMBINE = 2;  ///< its standard output
inline constexpr std::uint32_t ZT_PIPE_STDERR_IGNORE = 3;   ///< COMMAND: the parent's; PROGRAM: closed

/// Most characters of a program text, a command line or a program's file name.
inline constexpr int ZT_PIPE_TEXT_LIMIT = 1024;
/// Most characters of an option text.
inline constexpr int ZT_PIPE_OPTIONS_LIMIT = 256;
/// Most characters of a USERNAME or PASSWORD value.
inline constexpr int ZT_PIPE_NAME_LIMIT = 32;

/// The control block of one open pipe. Callers hold handles, not blocks; it is public so that debuggers
/// and tools can show it. Allocated zeroed by the open, freed by the close.
struct zt_pipe {
    std::uint32_t handle;                  ///< this pipe's handle; 0 until assigned
    std::uint32_t mode;                    ///< ZT_PIPE_MODE_*
    char program[ZT_PIPE_TEXT_LIMIT + 1];  ///< program or command text as given to the open
    char cmdline[ZT_PIPE_TEXT_LIMIT +
                 1];  ///< COMMAND: command line given to the shell; PROGRAM: executed file
    char username[ZT_PIPE_NAME_LIMIT + 1];  ///< USERNAME value
    char password[ZT_PIPE_NAME_LIMIT + 1];  ///< PASSWORD value
    std::FILE* fh;                          ///< COMMAND: the shell's stream
    std::int32_t read_fd;                   ///< PROGRAM: from the child's standard output; 0 = none
    std::int32_t write_fd;                  ///< PROGRAM: to the child's standard input; 0 = none
    std::int32_t pid;                       ///< PROGRAM: the child
    std::int32_t last_signal;               ///< last signal seen while this pipe was worked on
    std::int32_t wait_status;               ///< the child's wait status; -1 = not collected yet
    char* buffer;                           ///< the unlimited read's buffer
    std::int32_t buffer_size;               ///< capacity of `buffer` in bytes
    std::uint32_t direction;                ///< ZT_PIPE_READS, ZT_PIPE_WRITES or ZT_PIPE_BOTH
    std::uint8_t korn;                      ///< 1 = run the command through the Korn shell
    std::uint8_t binary;                    ///< 1 = BINARY was given
    std::uint32_t stderr_mode;              ///< ZT_PIPE_STDERR_*
    std::int32_t size;                      ///< SIZE value, default 65536
    std::int32_t read_size;                 ///< READSIZE value in bytes, default 32768
    std::int32_t owner;        ///< process that opened the pipe: only it ends the child at its exit
    std::int32_t busy;         ///< 1 while an operation works on the pipe
    std::uint8_t bulk_reads;   ///< full reads so far, until the pipe was widened
    std::uint8_t bulk_writes;  ///< large writes so far, until the pipe was widened
    std::uint8_t registered;   ///< 1 = the open-file registry has an entry of this pipe
};

/// Flag slots of a debug category.
inline constexpr int ZT_PIPE_PARMS = 0;       ///< entry and exit lines, with the data written and read
inline constexpr int ZT_PIPE_CLOCKS = 1;      ///< accepted and reported, tested by no operation
inline constexpr int ZT_PIPE_CTRLBLKS = 2;    ///< retries of the reads of COMMAND pipes
inline constexpr int ZT_PIPE_DEBUG_FLAG = 3;  ///< detail lines
inline constexpr int ZT_PIPE_EXCEPTIONS = 4;  ///< exit lines of failures and of reads that warn
inline constexpr int ZT_PIPE_MEMORY = 5;      ///< accepted and reported, tested by no operation

/// One debug category: its switches (nonzero = on; slots 6 and 7 are spare) and its name.
struct zt_pipe_debug_category {
    std::uint32_t flags[8];  ///< by slot: ZT_PIPE_PARMS to ZT_PIPE_MEMORY
    char name[32];           ///< "global", "open", "close", "read" or "write"
};

extern "C" {

/// The debug flags: "global", "open", "close", "read", "write". Set through `zt_pipe_debug_config`; every
/// flag is 0 until the first open, configuration or report has initialised the record.
extern ZT_API zt_pipe_debug_category Zt_pipe_debug[5];

/// Nonzero once `Zt_pipe_debug` has been initialised.
extern ZT_API std::uint32_t Zt_pipe_debug_initialized;

// ---------------------------------------------------------------------------------------------------------------
// Operations, in the order of a pipe's life

/// Starts a child and returns a handle to talk with it.
///
/// @param program  Program with its arguments (PROGRAM) or shell command (COMMAND); 1 to 1024 characters,
///                 not null. Blanks alone are no PROGRAM (10134). With `argv` it only names the child in
///                 messages, but must be given all the same.
/// @param options  Keywords of the table below, separated by blanks and/or commas, at most 256 characters;
///                 not null, "" for none. Case does not matter; a value follows `=` and may be quoted.
/// @param argv     Word vector ended by a null pointer, with at least one word; or null: `program` is
///                 used. PROGRAM: given to the program as it is, its first word (at most 1024 characters)
///                 is the file to execute. COMMAND: joined to the command line, quoted as the shell needs
///                 it.
/// @param envp     Environment of the child ended by a null pointer, or null to inherit the parent's.
///                 Copied.
/// @param status   Caller's record.
/// @param file     Caller's source file for the open-file registry; may be null.
/// @param line     Caller's source line. `ZT_PIPE_OPEN` supplies both.
/// @return The handle (at least 1), or -1 with `status` filled. A failed open gives back what it took and
///         ends a child that was started already, as a close does; for the exceptions see the last
///         paragraph.
///
/// | keyword | meaning |
/// |---|---|
/// | PROGRAM | two-way pipe to a program started by fork and exec, searched on PATH |
/// | COMMAND | one-way pipe to a shell command |
/// | READ, WRITE | COMMAND: read the child's output (default) or write its input |
/// | STDERR=COMBINE | the child's standard error joins its output (default; nothing for COMMAND with WRITE) |
/// | STDERR=DISCARD | the child's standard error goes to /dev/null |
/// | STDERR=IGNORE | COMMAND: the parent's standard error; PROGRAM, deliberately different: closed |
/// | KORN | COMMAND: run by `ksh -c` |
/// | MERGE_ENV | `envp` is laid over the current environment instead of replacing it |
/// | READSIZE=n | bytes that the unlimited read asks for at a time, default 32768 |
/// | SIZE=n | capacity of the pipe in bytes to ask the system for; default 65536, see below |
/// | USERNAME=x, PASSWORD=x | stored, without effect; at most 32 characters each |
/// | ASCII, BINARY, $POPEN | stored or accepted, without effect |
///
/// Refused are: two of PROGRAM and COMMAND, READ and WRITE, ASCII and BINARY (11203); PROGRAM with READ,
/// WRITE, KORN or $POPEN, and STDERR, whatever its value, with WRITE (11104); PASSWORD without USERNAME
/// (11108); MERGE_ENV without `envp` (10036).
///
/// The command line of a COMMAND pipe has at most 1024 characters with what the options add to it. That
/// leaves 1019 for the command, 1012 with STDERR=DISCARD, all 1024 with STDERR=IGNORE or WRITE; with KORN
/// 1010 (1003 with STDERR=DISCARD), and up to three less for each single quote in it. More is 10037.
///
/// With the default SIZE (also 65536 or 0 when given, a negative number or no number) a pipe that turns
/// out to carry bulk data is widened once, to 256 KiB: after four reads of 4 KiB and more that got all
/// they asked for, or four writes of 32 KiB and more. A refusal by the system passes silently.
///
/// Without PROGRAM or COMMAND nothing is launched, deliberately: the handle has no child, reads and writes
/// on it fail with EBADF. A program that does not exist is no failure of a PROGRAM open: the child ends
/// with exit code 127. Deliberately, a forked child whose standard streams cannot be wired returns from
/// this call too, with -1 and the code (10135, 10136) in its own copy of the record; an application that
/// must not run on twice compares `getpid()`.
///
/// With `envp` a COMMAND open makes it the process's own environment for the moment of the launch, because
/// popen takes none: a getenv or setenv of another thread meanwhile would meet it.
///
/// A process with more than 64 MiB resident starts PROGRAM children by posix_spawn where that has the very
/// same outcome, because fork would take longer the larger the process is. What differs: the handlers of
/// pthread_atfork do not run, and the C library's own signals 32 and 33 start ignored, as in a shell
/// command. With the open category's DEBUG flag on it is always fork.
///
/// Codes: 10021, 10036, 10037, 10100, 10132, 10134, 10135, 10136, 10137, 10138 (another thread is ending
/// the process), 11103, 11104, 11108, 11201 to 11206; 20000 and up where environments cannot be combined,
/// or where the system refuses the first open its SIGPIPE handler.
///
/// What can stay after a failure: two descriptors when there were none left for the second pipe (10135,
/// line 2282); without a table all earlier handles, their children and their descriptors when there was no
/// memory for a larger one (10021, line 1059). A process that has no environment at all keeps `envp` as
/// its own after a COMMAND open, also a successful one.
///
/// @code
/// zt::Status status;
/// int bc = ZT_PIPE_OPEN("bc -l", "PROGRAM", nullptr, nullptr, &status);
/// if (bc < 0) std::fprintf(stderr, "%s\n", status.what());
/// @endcode
ZT_API int zt_ipipe_open(const char* program, const char* options, const char* const* argv,
                         const char* const* envp, zt::Status* status, const char* file, int line);

/// Writes bytes to the child's standard input.
///
/// @param handle  An open pipe.
/// @param buffer  The bytes; not null.
/// @param length  How many, in bytes; 0 writes nothing.
/// @param status  Caller's record.
/// @return `length`, or -1 with `status` filled. There is no partial result: a short write is a failure,
///         of which a part may have reached the child.
///
/// A COMMAND pipe's bytes go through its stdio buffer, so a child that has gone shows at a later write or
/// at the close. On a PROGRAM pipe whose child has gone the child's end is the outcome: 10144, 10145 or
/// 10147, deliberately a failure even for a normal end; a child that closed its input but lives on is
/// waited for.
///
/// 10132 also stands for a handler of the application's that broke the call off (one without SA_RESTART).
///
/// Codes: 10036, 10037, 10132, 10138, 10140, 10143, 10144, 10145, 10147, 10157.
///
/// @code
/// if (zt_pipe_write(bc, "6*7\n", 4, &status) < 0) std::fprintf(stderr, "%s\n", status.what());
/// @endcode
ZT_API int zt_pipe_write(int handle, const void* buffer, int length, zt::Status* status);

/// Reads the child's output into the caller's buffer until it is full, ends with a delimiter, or the
/// output ends.
///
/// @param handle     An open pipe.
/// @param buffer     Receives at most `size` bytes; not null, not terminated.
/// @param size       Room in `buffer` in bytes; 0 reads nothing.
/// @param delimiter  Stop when the bytes read so far end with this text; null for none. "" stops after the
///                   first piece.
/// @param status     Caller's record; `count` receives the number of bytes.
/// @return The number of bytes, or -1. A failure after some bytes, and a normal end of the child, come as
///         success with the code moved to `subcode`. So a child that printed nothing more and did not end
///         normally gives -1 with its end in `code`.
///
/// At the end of a PROGRAM pipe's output the call waits for the child and reports how it ended.
/// Deliberately, only the end of the stored bytes is compared with the delimiter: one that arrives in the
/// middle of what the system delivered is not noticed. A COMMAND pipe is read through a stream, which
/// delivers only when it has all the bytes asked for or the output has ended.
///
/// A buffer that fills without ending in the delimiter makes a PROGRAM pipe wait for its child to end,
/// which never comes when the child has more to write. A COMMAND pipe then gives `size` bytes with the
/// warning 10139 and the object "infinite loop of fread <= 0".
///
/// Codes (in `code`, or in `subcode` as said): 10036, 10037, 10132, 10138, 10139, 10143, 10144, 10145,
/// 10147, 10157.
///
/// @code
/// char line[256];
/// int n = zt_pipe_read(bc, line, sizeof line, "\n", &status);  // "42\n"
/// @endcode
ZT_API int zt_pipe_read(int handle, void* buffer, int size, const char* delimiter, zt::Status* status);

/// Reads the child's output to its end, or until it ends with a delimiter, into a buffer that the pipe
/// owns.
///
/// @param handle     An open pipe.
/// @param result     Receives the address of the pipe's buffer, terminated with a NUL; not null. Valid
///                   until the next unlimited read or the close on this pipe (the option NOFREE of the
///                   close leaves it). Null when memory ran out, see below; left alone when the handle
///                   names no pipe.
/// @param offset     Bytes at the start of the buffer to leave alone; new ones follow. 0 starts over; the
///                   previous total appends; beyond that the bytes between are not defined.
/// @param delimiter  As for `zt_pipe_read`; null for none.
/// @param status     Caller's record; `count` receives the number of bytes.
/// @return The number of new bytes, or -1; warnings in `subcode` as for `zt_pipe_read`.
///
/// The buffer grows to what one more request of READSIZE bytes needs and never shrinks. READSIZE is also
/// what a COMMAND pipe's stream waits for before the delimiter is looked for.
///
/// **When memory runs out** `*result` is null. With bytes read that comes as success with the warning
/// 10021, and the bytes are lost: look at `*result` before using it. Without, the result is -1, and a
/// buffer that an earlier call handed out is now the caller's, to be freed as NOFREE says. (After the
/// warning leave such an address alone: the buffer may have moved.) A count that would exceed 32 bits is
/// 10021 too, but there the buffer stays the pipe's and `*result` is its address.
///
/// Codes: as `zt_pipe_read`, and 10021; a READSIZE below 1: 10037.
///
/// @code
/// char* text = nullptr;
/// int n = zt_pipe_read_unlimited(handle, &text, 0, nullptr, &status);
/// if (n > 0 && text) std::fwrite(text, 1, n, stdout);
/// @endcode
ZT_API int zt_pipe_read_unlimited(int handle, char** result, int offset, const char* delimiter,
                                  zt::Status* status);

/// Turns the child's end that a read left in `subcode` into a verdict.
///
/// @param normal_is_success  True: a normal end is success (`subcode` becomes 0). False: it is the error
///                           10144.
/// @param status             The record of the read; a null one holds nothing.
/// @return True when `subcode` held 10144, 10145 or 10147: `sparm[0]` then says "normally", "with an
///         error" or "abnormally", and `code` holds the class unless it counts as success. False: nothing
///         was changed.
///
/// An end that stands in `code` already (a read that got nothing, a write, a close) is none of its
/// business. Where somebody else has collected the child, or SIGCHLD is ignored, nothing is known of its
/// end: the read that sees the end of the output leaves `subcode` 0, and from then on it counts as a
/// normal one.
///
/// Touches only the record, which it does not clear; takes no lock and may be called anywhere.
///
/// @code
/// if (zt_pipe_termination(true, &status) && status.code) std::puts(status.sparm[0]);
/// @endcode
ZT_API bool zt_pipe_termination(bool normal_is_success, zt::Status* status);

/// Ends the use of a pipe: closes it, ends a PROGRAM child that still runs with SIGTERM, waits for the
/// child, frees the handle. A COMMAND pipe's shell is never signalled and always waited for.
///
/// @param handle   An open pipe.
/// @param options  At most 256 characters, not null, "" for none. NOKILL: no SIGTERM to a PROGRAM child;
///                 its output and its input are closed, and it is waited for. NOWAIT: a PROGRAM child is
///                 not waited for. NOFREE: the unlimited read's buffer is left to the caller, to be freed
///                 with `zt_mem_ifree(2, buffer, __FILE__, __LINE__)` of <zt/runtime/memory.h>.
/// @param status   Caller's record.
/// @param file     Accepted and not used; `line` likewise. `ZT_PIPE_CLOSE` supplies both.
/// @param line     Accepted and not used.
/// @return The code: 0 (also for a child that ended normally), or how the child ended (10145, 10147), or
///         what failed.
///
/// SIGTERM comes at once, and a child that gets it is reported as 10147 with `sys_errno` 15, however it
/// took it. To let a child finish, read to its end first, or close with NOKILL, which waits however long
/// it takes; a child that then still writes is ended by SIGPIPE (10147, `sys_errno` 13). A child that
/// ignores SIGTERM is waited for too; NOWAIT does not wait but leaves it uncollected. A child that
/// somebody else has collected counts as ended normally.
///
/// After refused options (and NOWAIT on a COMMAND pipe) the pipe stays open; after anything else the
/// handle is free. Of several outcomes an interrupt comes first (a PROGRAM child may then be uncollected).
/// After SIGTERM a failed kill (10142) comes next, then a failed descriptor (10141), then 10147; otherwise
/// the child's end or a failed wait (10143), then a failed descriptor. Of a COMMAND pipe, bytes that were
/// still buffered and did not arrive are 10141, unless the shell ended with an error of its own.
///
/// Codes: 10036, 10037, 10100, 10132, 10138, 10141, 10142, 10143, 10145, 10147, 10157, 11102, 11201 to
/// 11206; 10047 without a record.
///
/// @code
/// if (ZT_PIPE_CLOSE(bc, "NOKILL", &status) != 0) std::fprintf(stderr, "%s\n", status.what());
/// @endcode
ZT_API int zt_ipipe_close(int handle, const char* options, zt::Status* status, const char* file, int line);

// ---------------------------------------------------------------------------------------------------------------
// Tracing

/// Replaces the debug flags by those of an option text.
///
/// @param options  Flag keywords PARMS, CLOCKS, CTRLBLKS, DEBUG, EXCEPTIONS, MEMORY, each alone (all
///                 categories) or with a list: `DEBUG='read,write'` for these, `PARMS='not read'` for all
///                 others; or OFF alone. At most 256 characters; not null; "" changes nothing.
/// @param status   Caller's record.
/// @return The code; 10047 without a record.
///
/// The categories are global, open, close, read and write, in any case, also with "zt_pipe_" in front.
/// "not" may only come first. A flag that is on at all is on for "global" too, but for a list that says
/// "not global".
///
/// After 10036, 10037 and 11201 to 11206 nothing has changed. OFF with a flag (11104) leaves everything
/// off. After a wrong word in a list (10048) the flags before this one, in the order given above, are set,
/// this one as far as its list was good, and the others are off.
///
/// Configure from one thread; operations of other threads may run meanwhile.
///
/// Codes: 10036, 10037, 10047, 10048, 11104, 11201 to 11206.
///
/// @code
/// zt_pipe_debug_config("PARMS DEBUG='open,close'", &status);
/// @endcode
ZT_API std::uint32_t zt_pipe_debug_config(const char* options, zt::Status* status);

/// Writes the current debug settings as an option text that `zt_pipe_debug_config` understands.
///
/// @param text    Receives the text; room for 512 characters is enough for the longest; not null.
/// @param status  Caller's record.
/// @return The code: 0; 10036 for a null `text`; 10047 without a record.
///
/// "global" is never named: a flag that is on for it alone is not reported, and one that is off for it
/// alone comes back on. The empty text says that everything is off; what restores that is OFF.
///
/// For the thread that configures; operations of other threads may run meanwhile.
///
/// @code
/// char text[512];
/// if (zt_pipe_debug_settings(text, &status) == 0) std::puts(text);  // "PARMS='read,write' "
/// @endcode
ZT_API int zt_pipe_debug_settings(char* text, zt::Status* status);

// ---------------------------------------------------------------------------------------------------------------
// Called by the runtime, not by applications

/// Records a SIGPIPE in the pipe being worked on, if there is one. The first open installs it as the
/// handler.
///
/// @param signo  The signal's number.
///
/// Async-signal-safe, in any thread; keeps `errno`.
///
/// @code
/// zt_signal(zt_pipe_signal, "zt_pipe_signal", "zt", "SIGPIPE, REINSTALL", &status);
/// @endcode
ZT_API void zt_pipe_signal(int signo);

/// Closes every pipe of this process that is still open and frees the handle table: COMMAND pipes are
/// waited for, PROGRAM children get SIGTERM and are not. The first open registers it as an exit function.
///
/// @param signo  0 or below at normal exit, otherwise the signal that ends the process. For a signal after
///               which nothing can be trusted (SIGSEGV, SIGABRT, ...) everything is left as it is.
///
/// Called by the thread that ends the process. Pipes that other threads are working on are left to them;
/// their children get SIGTERM. In a fatal signal's handler it takes no lock, allocates and frees nothing
/// and waits for nobody: COMMAND pipes are flushed as far as the child takes the data at once. From any
/// other signal handler it must not be called. Of pipes that another process opened it only lets go.
///
/// @code
/// zt_atexit(zt_pipe_cleanup, "zt_pipe_cleanup", "zt", "", &status);
/// @endcode
ZT_API void zt_pipe_cleanup(int signo);

}  // extern "C"

/// `zt_ipipe_open` with the caller's place.
#define ZT_PIPE_OPEN(program, options, argv, envp, status) \
    zt_ipipe_open((program), (options), (argv), (envp), (status), __FILE__, __LINE__)

/// `zt_ipipe_close` with the caller's place.
#define ZT_PIPE_CLOSE(handle, options, status) \
    zt_ipipe_close((handle), (options), (status), __FILE__, __LINE__)

#endif
