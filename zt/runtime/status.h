/// @file
/// The status record: how every operation of the library reports its outcome.
///
/// The caller owns the record and hands its address to each operation, which clears it first and leaves
/// its outcome there. A record serves one thread at a time; different records are independent.
///
/// A record is several KiB, nearly all of it text, and it is cleared often. Constructing and clearing
/// therefore set only the words and the first character of each text; what follows a terminator is not
/// defined and must not be read. Nothing here takes memory, throws or changes `errno`, so all of it may be
/// used in a signal handler on a record which that handler owns.
///
/// @code
///     zt::Status status;
///     int handle = ZT_PIPE_OPEN("date", "COMMAND, READ", nullptr, nullptr, &status);
///     if (handle < 0) {
///         std::fprintf(stderr, "%s\n", status.what());   // for a person
///         return status.code == ZT_PIPE_E_NOPROGRAM;     // for the program
///     }
/// @endcode
#ifndef ZT_RUNTIME_STATUS_H
#define ZT_RUNTIME_STATUS_H

#include <zt/runtime/api.h>

#include <cstddef>
#include <cstdint>
#include <exception>

/// Room of a text in the record, and of the host name, terminators included.
enum { ZT_STATUS_TEXT = 256, ZT_STATUS_HOST = 64, ZT_STATUS_PARMS = 8 };

/// The plain record. Each text ends with a terminator within its field.
struct ubstatus {
    std::uint32_t code;     ///< The outcome: 0 is success, otherwise a code of the table in errors.h.
    std::uint32_t subcode;  ///< A second outcome beside `code`, such as how a child ended; 0 for a failure.
    std::uint32_t
        sys_errno;  ///< `errno` of the system call that failed; a signal number where a child ended by one.
    std::int32_t count;                   ///< Bytes read; set by reads only, `clear` keeps it.
    std::int32_t iparm[ZT_STATUS_PARMS];  ///< Numbers for the message; `clear` leaves them as they were.
    char msg[ZT_STATUS_TEXT];             ///< The message, or the name of what it is about.
    char sys_msg[ZT_STATUS_TEXT];         ///< The system's text for `sys_errno`.
    char where[ZT_STATUS_TEXT];           ///< Place of the failure: "source(routine):line".
    char object[ZT_STATUS_TEXT];          ///< Name of the object concerned.
    char sparm[ZT_STATUS_PARMS][ZT_STATUS_TEXT];  ///< Texts for the message.
    char host[ZT_STATUS_HOST];                    ///< The host on which it failed.
    char extra[ZT_STATUS_TEXT];                   ///< Free for the application; only emptied here.
};

static_assert(offsetof(ubstatus, sys_errno) == 8 && offsetof(ubstatus, iparm) == 16, "the words stand first");
static_assert(offsetof(ubstatus, msg) == 48 && offsetof(ubstatus, sparm) == 1072,
              "the texts follow in order");
static_assert(offsetof(ubstatus, host) == 3120 && sizeof(ubstatus) == 3440, "host and extra stand last");

namespace zt {

/// The record as an object. It is a `std::exception`, so that an application which prefers to throw can
/// `throw status;` after a failed operation; the library itself never throws.
class ZT_API Status : public std::exception, public ubstatus {
  public:
    /// An empty record: every word 0, every text empty.
    Status() noexcept;

    /// An empty record whose `code` is @p code, any value (0 for a working record).
    explicit Status(int code) noexcept;

    /// The copy has the words and texts of @p other.
    Status(const Status& other) noexcept;
    /// As the copy.
    Status& operator=(const Status& other) noexcept;

    ~Status() override = default;

    /// Makes the record say success: zeroes `code`, `subcode` and `sys_errno` and empties every text.
    /// `iparm` and `count` deliberately keep their values.
    void clear() noexcept
    {
        code = subcode = sys_errno = 0;
        msg[0] = sys_msg[0] = where[0] = object[0] = host[0] = extra[0] = '\0';
        for (auto& text : sparm) text[0] = '\0';
    }

    /// Makes the record as new: what `clear` does, and `iparm` and `count` zeroed too.
    void init() noexcept;

    /// Takes over the words and texts of a plain record.
    /// @param source the record to copy; null clears this one, the object itself changes nothing.
    ///        A text without a terminator is cut to its field.
    /// @return the `code` this record has now.
    std::uint32_t copy(const ubstatus* source) noexcept;

    /// One line for a person: the code's name and number, its meaning with this record's parameters filled
    /// in, the system's text, and the place, as in
    /// "ZT_PIPE_E_HANDLE (10138): 7 is not the handle of an open pipe [ztpipe(zt_pipe_read):1093]".
    /// A record with code 0 says "success", and then what `subcode` means where a table knows it: how the
    /// child ended, or of what a read warns.
    /// Control characters in parameters are shown as C escapes; a line longer than 2047 characters is cut.
    ///
    /// @return a text inside the object, never null, without a newline. It stays as it is until the next
    ///         call on the same object, and ends with the object. Since the call writes into the object,
    ///         two threads must not call it on one object at the same time, `const` or not.
    const char* what() const noexcept override;

  private:
    mutable char line_[2048];
};

}  // namespace zt

/// Clears a `zt::Status*`, which must not be null; see zt::Status::clear.
#define ZT_CLEAR_STATUS(status) ((status)->clear())

/// Makes a `zt::Status*`, which must not be null, as new; see zt::Status::init.
#define ZT_INIT_STATUS(status) ((status)->init())

/// Copies a `zt::Status*` into another; a null source clears @p dest. The result is the `code` that @p dest
/// has then. Each argument is evaluated once.
#define ZT_COPY_STATUS(dest, source) ((dest)->copy(source))

#endif
