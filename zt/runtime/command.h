/// @file
/// Command lines: splitting one into words, and building one that a POSIX shell reads back as given words.
///
/// Words are bytes; nothing depends on the locale. Nothing is expanded: `$HOME`, `*` and `~` are themselves.
/// The functions allocate nothing, leave `errno` as it was (but for the failure named), may be called by
/// several threads on different buffers, and may be called from a signal handler.
#ifndef ZT_RUNTIME_COMMAND_H
#define ZT_RUNTIME_COMMAND_H

#include <stddef.h>
#include <zt/runtime/api.h>

extern "C" {

/// Splits a command line into words, or counts them.
///
/// - Spaces, tabs and line ends separate words.
/// - Between '…' every character is itself.
/// - Between "…" a backslash takes away the meaning of a following double quote, backslash,
///   dollar sign or back quote and is itself before any other character.
/// - Elsewhere a backslash makes the next character an ordinary one; as the last character it is itself.
/// - Quoted and bare pieces that touch are one word; `''` and `""` are an empty word.
/// - A quote that is never closed reaches to the end of the line: nothing is refused, so that the count is
///   always the number of words that the splitting then fills in.
///
/// @param cmdline the line, null-terminated. Without a vector it is only read; with one the words are
///                terminated and unquoted where they stand, and the vector points into it.
/// @param argv    null to count; else a vector with room for the words counted. No null pointer is stored
///                behind the last word: a caller that wants one makes room for it and stores it.
/// @return the number of words, 0 for an empty line; -1 with `errno` EINVAL when `cmdline` is null.
///
/// @code
/// char line[] = "sort -k '2 3'";
/// char* words[8];
/// int count = zt_cmdline_to_argv(line, nullptr);  // 3
/// if (count > 0 && count < 8) words[zt_cmdline_to_argv(line, words)] = nullptr;
/// @endcode
ZT_API int zt_cmdline_to_argv(char* cmdline, char** argv);

/// Joins words into one command line that the shell splits into the same words again.
///
/// The words are joined by one blank. A word is put in single quotes, as zt_shell_quote() does, where the
/// shell would not take it as it is: when it is empty or holds anything but letters, digits and
/// `_ @ % + : , . / - =`. In front, where the shell looks for a command, `NAME=value` and its reserved words
/// (`if`, `while`, ...) are quoted too.
///
/// @param dst  receives the line and its terminator: zt_argv_cmdline_length() + 1 characters. There is no
///             bound to give, so ask for the length first where the words may be long. Must not overlap the
///             words. Null does nothing.
/// @param argc number of words; 0 or less gives the empty line.
/// @param argv the words; a null pointer ends them early, a null vector gives the empty line.
///
/// @code
/// const char* words[] = {"grep", "it's", "a file"};
/// char line[64];
/// if (zt_argv_cmdline_length(3, words) < sizeof line)
///     zt_argv_to_cmdline(line, 3, words);  // grep 'it'\''s' 'a file'
/// @endcode
ZT_API void zt_argv_to_cmdline(char* dst, int argc, const char* const* argv);

/// Tells how many characters zt_argv_to_cmdline() writes for these words, the terminator not counted.
///
/// @param argc number of words, as there.
/// @param argv the words, as there.
/// @return the length of the line in characters.
ZT_API size_t zt_argv_cmdline_length(int argc, const char* const* argv);

/// Writes a text as one shell word: in single quotes, each ' inside as '\''.
///
/// @param dst receives the word and its terminator: zt_shell_quote_length() + 1 characters. There is no
///            bound to give, so ask for the length first where the text may be long. Must not overlap `src`.
///            Null does nothing.
/// @param src the text; null is taken as the empty text, which becomes ''.
///
/// @code
/// char word[16];
/// if (zt_shell_quote_length("it's") < sizeof word) zt_shell_quote(word, "it's");  // 'it'\''s'
/// @endcode
ZT_API void zt_shell_quote(char* dst, const char* src);

/// Tells how many characters zt_shell_quote() writes for a text, the terminator not counted.
///
/// @param src the text; null is taken as the empty text.
/// @return the length of the word in characters, 2 at least.
ZT_API size_t zt_shell_quote_length(const char* src);
}

#endif
