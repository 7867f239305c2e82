/// @file
/// Codes and texts: what a code is called, what it means and what to do about it.
///
/// The library's parts hand their tables of codes to this one place, from which messages, tools and
/// documentation are made. The option processor's codes are known from the start.
///
/// All functions may be called from several threads at once, from a signal handler and in a forked child:
/// they take no memory and no lock, and keep `errno`.
///
/// @code
///     static const zt_code_text codes[] = {
///         {12001, "APP_E_PORT", "{sparm0} is no port; {iparm0} is the highest", "Give a number in range."},
///     };
///     zt_error_add_codes(codes, 1);
/// @endcode
#ifndef ZT_RUNTIME_ERRORS_H
#define ZT_RUNTIME_ERRORS_H

#include <zt/runtime/api.h>

#include <cstddef>
#include <cstdint>

struct ubstatus;

/// One code. All texts are static.
struct zt_code_text {
    std::uint32_t code;  ///< The number, as in a status record.
    const char* name;    ///< Its symbolic name.
    /// What it means: a sentence without a full stop, with place-holders for the values of the record that
    /// carries the code: {sparm0} to {sparm7}, {iparm0} to {iparm7}, {msg}, {object}, {sys_errno}.
    const char* meaning;
    const char* advice;  ///< What to do about it: a sentence or two; null when there is nothing to do.
};

/// Codes of system errors: `errno` plus this.
enum { ZT_ERROR_SYSTEM = 20000 };

/// Number of tables that zt_error_add_codes takes.
enum { ZT_ERROR_TABLES = 8 };

extern "C" {

/// Makes a table of codes known. It may be called before `main`, in any order with static constructors.
/// @param table a static table, which must stay as it is until the process ends; null is ignored.
/// @param count its number of rows. The same table a second time changes nothing. A table beyond
///        ZT_ERROR_TABLES is ignored; its codes are then described by number.
ZT_API void zt_error_add_codes(const zt_code_text* table, std::size_t count);

/// Looks up a code in all tables.
/// @param code any number.
/// @return the row of @p code, static; null for a code that no table has, system errors among them.
///
/// @code
///     const zt_code_text* text = zt_error_code_text(status.code);
///     if (text && text->advice) std::puts(text->advice);
/// @endcode
ZT_API const zt_code_text* zt_error_code_text(std::uint32_t code);

/// The library's code for a system error.
/// @param error a value of `errno`.
/// @return ZT_ERROR_SYSTEM + @p error; ZT_ERROR_SYSTEM itself for 0 and below, so never 0.
///
/// @code
///     if (mkdir(path, 0700) < 0) status.code = zt_error_no(errno);   // 20017 when it exists
/// @endcode
ZT_API std::uint32_t zt_error_no(int error);

/// Writes the system's text for an error, in English whatever the locale: "No such file or directory".
/// @param error  a value of `errno`; 0 gives "Success", a number that the system does not have "Unknown
///               error N".
/// @param buffer takes the text, cut to fit and always terminated; null is allowed and nothing happens.
/// @param size   its room in bytes; 0 leaves it alone.
/// @return @p buffer.
///
/// @code
///     char text[256];
///     zt_trace_msg("fork failed: %s", zt_error_msg_r(errno, text, sizeof text));
/// @endcode
ZT_API char* zt_error_msg_r(int error, char* buffer, std::size_t size);

/// Writes the line about a record that zt::Status::what gives.
/// @param record the record; null gives an empty text.
/// @param buffer takes the line, cut to fit and always terminated; null is allowed and nothing happens.
/// @param size   its room in bytes; 0 leaves it alone.
/// @return the number of characters written, without the terminator.
///
/// @code
///     char line[512];
///     zt_error_describe(&status, line, sizeof line);
/// @endcode
ZT_API std::size_t zt_error_describe(const ubstatus* record, char* buffer, std::size_t size);

}  // extern "C"

#endif
