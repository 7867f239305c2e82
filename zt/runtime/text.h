/// @file
/// Small services on texts: bounded copies, shortened paths, comparison, rendering.
///
/// All of them may be called from several threads at once, from a signal handler and in a forked child: they
/// take no memory and no lock, do not look at the locale and keep `errno`. A null destination is allowed:
/// nothing is written and null returned. A null source is the empty text.
///
/// @code
///     zt_strncpy(record.object, name, sizeof record.object);
///     zt_trim_filename("/usr/lib/very/long/path/to/program", 25, shown);   // ".../long/path/to/program"
/// @endcode
#ifndef ZT_RUNTIME_TEXT_H
#define ZT_RUNTIME_TEXT_H

#include <zt/runtime/api.h>

#include <cstddef>

extern "C" {

/// Copies a text, cut to fit and always terminated.
/// @param dst  takes at most @p size - 1 characters and the terminator; the rest of it is left alone.
/// @param src  the text; it may overlap @p dst.
/// @param size room of @p dst in bytes; 0 leaves it alone.
/// @return @p dst.
ZT_API char* zt_strncpy(char* dst, const char* src, std::size_t size);

/// Copies a path, shortened when it does not fit: "..." and its end, which names the file. The end begins at
/// a '/' where that costs less than half of it; no room for dots (width 4 and below) gives the bare end.
/// @param path  the path, or another text.
/// @param width room of @p dst in bytes: at most @p width - 1 characters and the terminator are written;
///              0 writes nothing.
/// @param dst   takes the result; it may overlap @p path.
/// @return @p dst.
ZT_API char* zt_trim_filename(const char* path, std::size_t width, char* dst);

/// Compares two texts without regard to the case of the letters A to Z.
/// @param text one text; null is allowed.
/// @param word the other one; null is allowed.
/// @return 0 when equal, otherwise below or above 0 as @p text comes before or after @p word in lower case.
///         Null comes before every text and equals null.
///
/// @code
///     if (zt_stricmp(value, "DISCARD") == 0) discard = true;   // also "discard"
/// @endcode
ZT_API int zt_stricmp(const char* text, const char* word);

/// Renders bytes as printable ASCII: newline, tab, carriage return and backslash as \\n \\t \\r \\\\, every
/// other byte that is not printable ASCII as \\x and exactly two upper-case digits.
/// @param text   the bytes, terminators among them if they lie within @p length; null gives the empty text.
/// @param length their number.
/// @param dst    takes the rendering and a terminator: at most 4 * @p length + 1 bytes, and it must have that
///               room. It must not overlap @p text.
/// @return @p dst.
///
/// @code
///     char shown[4 * 2 + 1];
///     zt_character_to_string("\r\n", 2, shown);   // 4 characters: \r\n
/// @endcode
ZT_API char* zt_character_to_string(const char* text, std::size_t length, char* dst);

}  // extern "C"

#endif
