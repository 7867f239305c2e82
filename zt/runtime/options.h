/// @file
/// The option language that every operation with an option text shares.
///
/// An option text is a list of keywords separated by blanks (space, tab, line ends) and/or commas:
///
///     PROGRAM, stderr=discard size = 4096 USERNAME='o''brien'
///
/// - Upper and lower case are the same (ASCII letters, whatever the locale); keywords are not abbreviated.
/// - A value follows `=`, with or without blanks around it. It is either a bare word, which ends at the next
///   blank or comma, or a text between two ' or two " in which the quote written twice stands for itself.
///   `''` is an empty value, `KEY=` followed by nothing, or by a comma, is a missing one.
/// - A quoted value ends its word: a blank, a comma or the end must follow.
///
/// The caller describes its keywords in a table, clears it, fills in the inputs and reads the outputs back.
#ifndef ZT_RUNTIME_OPTIONS_H
#define ZT_RUNTIME_OPTIONS_H

#include <stdint.h>
#include <zt/runtime/api.h>

/// @name What can be wrong with an option text
/// The texts for people are in the table of codes, see <zt/runtime/errors.h>.
/// @{
inline constexpr int32_t ZT_OPTION_E_UNKNOWN = 11201;  ///< no such keyword; text: the word as written
inline constexpr int32_t ZT_OPTION_E_TWICE = 11202;    ///< a keyword again; text: its second appearance
inline constexpr int32_t ZT_OPTION_E_GROUP = 11203;    ///< two keywords of one group; text: the second
inline constexpr int32_t ZT_OPTION_E_NOVALUE = 11204;  ///< a value is missing; text: the keyword
inline constexpr int32_t ZT_OPTION_E_VALUE = 11205;    ///< a value where none belongs, or text glued to a
                                                       ///< closing quote; text: keyword to end of the word
inline constexpr int32_t ZT_OPTION_E_QUOTE = 11206;    ///< a quote is not closed; text: from the quote on
/// @}

/// @name What `zt_option::value_kind` may be
/// @{
inline constexpr uint8_t ZT_OPTION_VALUE_NONE = 0;      ///< the keyword stands alone
inline constexpr uint8_t ZT_OPTION_VALUE_REQUIRED = 1;  ///< a value must follow
inline constexpr uint8_t ZT_OPTION_VALUE_OPTIONAL = 2;  ///< a value may follow
/// @}

/// One keyword of a table. The caller fills in everything up to `value_kind`; the processor the rest.
struct zt_option {
    uint8_t group;       ///< keywords with the same nonzero group exclude each other; 0: no group
    char keyword[33];    ///< up to 32 characters; the rest of the field is zero
    uint8_t attribute1;  ///< the caller's own mark; the processor does not look at it
    uint8_t attribute2;  ///< the caller's own mark; the processor does not look at it
    uint8_t value_kind;  ///< ZT_OPTION_VALUE_...; anything else is taken as ZT_OPTION_VALUE_OPTIONAL
    char* value;         ///< the value, inside the option text; null when none was given
    uint8_t present;     ///< 1 when the keyword was found, else 0
};

/// What went wrong, and where.
struct zt_option_error {
    int32_t code;   ///< ZT_OPTION_E_..., or zt_error_no(EINVAL) for a bad argument
    char text[33];  ///< the first 32 characters of the offending part, as the user wrote it
};

extern "C" {

/// Reads an option text into a table of keywords.
///
/// `present` and `value` of every row are set anew, so that a table can be used again. The text is edited:
/// values are terminated and unquoted where they stand and the `value` pointers lead into it, so keep it
/// unchanged for as long as the values are read.
///
/// The text is read from left to right and the first thing wrong ends it. Each keyword is checked in this
/// order: known, not given before, no other of its group given, value as its kind asks. **After an error**
/// the rows that were found before the offending keyword have their `present` and `value`, all others are
/// empty; the text is edited up to there.
///
/// @param text  the option text, writable, null-terminated, of any length; must not be null.
/// @param table the keywords; may be null when `count` is 0.
/// @param count number of rows in `table`; with 0 every keyword is unknown.
/// @param error receives code and offending text on a failure and is untouched otherwise; may be null when
///              only the result matters.
/// @return the number of keywords found, 0 for none (an empty text, or separators only); -1 on a failure.
///         A null `text` or `table` or a negative `count` fails with the code zt_error_no(EINVAL) and the
///         argument's name as the text, and leaves table and text alone.
///
/// Allocates nothing and leaves `errno` as it was. Threads may use it at the same time on different tables
/// and texts; it may be called from a signal handler.
///
/// @code
/// zt_option table[2] = {};
/// strcpy(table[0].keyword, "KORN");
/// strcpy(table[1].keyword, "SIZE");
/// table[1].value_kind = ZT_OPTION_VALUE_REQUIRED;
/// char text[] = "korn, size=4096";
/// zt_option_error error;
/// if (zt_process_options(text, table, 2, &error) < 0)
///     fprintf(stderr, "%d: %s\n", error.code, error.text);
/// else if (table[1].present)
///     size = atoi(table[1].value);
/// @endcode
ZT_API int zt_process_options(char* text, zt_option* table, int count, zt_option_error* error);
}

#endif
