/// @file
/// The trace: lines that tell what the library does, on standard error or in a file.
///
/// Lines go to standard error, or are appended to the file that the environment variable ZT_TRACE_FILE
/// names. What a file cannot take (it cannot be opened, the disk is full) goes to standard error instead.
///
/// - The variable is looked up for each call, in the process's own environment also while a launch has lent
///   it another one (zt_environ_lend), so a change counts from the next line on. As with every reader of the
///   environment, no other thread may change it meanwhile.
/// - The file is opened, appended to and closed for each call. So it may be moved or removed at any time, no
///   descriptor is held that a child could inherit or that code closing "all other descriptors" could take
///   away, and several processes can share a file. It is made with mode 0600: traces show data.
/// - The file's descriptor is close-on-exec and above 2, so that it is never mistaken for a standard stream
///   where the application runs without one.
/// - Each line leaves in one `write`, whole, so that lines of threads and processes do not mix. Where the
///   system takes only a part, or is interrupted, the rest follows.
/// - A reader that has gone does not end the process: no SIGPIPE comes of tracing. A reader of a non-blocking
///   stream that takes nothing for a second loses the line.
/// - Nothing is allocated and no lock is taken: both functions may be called from a signal handler, in a
///   forked child, and from several threads at once. `errno` is kept.
///
/// @code
///     zt_trace_msg("   %s: %d bytes", "zt_pipe_write", length);
///     zt_trace_buffer(0, buffer, length);
/// @endcode
#ifndef ZT_RUNTIME_TRACE_H
#define ZT_RUNTIME_TRACE_H

#include <zt/runtime/api.h>

/// Room for one line, newline included.
enum { ZT_TRACE_LINE = 4096 };

extern "C" {

/// Writes one trace line: the text, nothing before it, and a newline after it.
/// @param format printf-like, must not be null; the values follow. A line with more than ZT_TRACE_LINE - 1
///        characters is cut there and still ends with a newline. In place of a line that the C library
///        cannot make (of more than INT_MAX characters, say) the format itself is written.
/// @return the characters written, newline included; negative when `format` is null or writing failed.
ZT_API int zt_trace_msg(const char* format, ...) ZT_PRINTF(1, 2);

/// Dumps data: 16 bytes a line, each line six blanks, the offset (eight hexadecimal digits), the bytes in
/// hexadecimal, and between bars the same bytes as text with a point for each that is not printable ASCII:
/// @code
///      00000000  48 65 6c 6c 6f 2e 0a                            |Hello..|
/// @endcode
/// @param zero   reserved, 0; ignored.
/// @param data   the bytes; null is allowed only with length 0.
/// @param length their number; 0 writes nothing.
/// @return the characters written, INT_MAX when there are more; negative when writing failed, or, with
///         nothing written, for a negative length or null data.
ZT_API int zt_trace_buffer(int zero, const void* data, int length);

}  // extern "C"

#endif
