/// @file
/// What every operation shares: its failure table, the report that fills a record, the frame of a public
/// call.
#ifndef ZT_ZTPIPE_OPERATION_H
#define ZT_ZTPIPE_OPERATION_H

#include <zt/runtime/exit_handlers.h>
#include <zt/runtime/interrupt.h>
#include <zt/runtime/memory.h>
#include <zt/runtime/options.h>
#include <zt/runtime/trace.h>
#include <zt/ztpipe/internal.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>

namespace zt::pipe {

/// The source file name in every location and in every allocation of the module.
inline constexpr char module_name[] = "ztpipe";

/// Allocation classes.
inline constexpr int table_memory = 1;
inline constexpr int pipe_memory = 2;

/// The kind under which pipes stand in the open-file registry.
inline constexpr int pipe_entry = 6;

/// One row of an operation's failure table. The line is a fixed number that people search for in logs; it is
/// interface and has nothing to do with the source line.
struct Site {
    int line;
    std::uint32_t code;
};

enum class Category { global, open, close, read, write };

/// Whether a debug category has a flag on. Read without a lock: the flags may change at any time.
bool traces(Category category, int flag);

/// The text, or "(null)" for a trace line.
inline const char* shown(const char* text)
{
    return text != nullptr ? text : "(null)";
}

/// Fills a record at a failure site. Each filler writes exactly the fields that its kind of failure carries
/// and leaves the others as they stand. The fillers return nothing, so that a site can fill and leave in one
/// statement.
class Report {
  public:
    Report(const char* operation, zt::Status& record) : routine(operation), status(record) {}

    bool failed() const { return status.code != 0; }

    /// Code and location only.
    void fail(Site site, int error = 0);
    /// A required argument is null.
    void fail_null_argument(Site site, const char* argument);
    /// A text is longer, or a number outside, what is allowed.
    void fail_limit(Site site, const char* argument, int value, int limit);
    /// An allocation failed.
    void fail_memory(Site site, const char* object, int bytes, int error = errno);
    /// A system call failed that has no subject worth naming.
    void fail_system(Site site, int error = errno);
    /// A system call failed on a program or a descriptor.
    void fail_system(Site site, const char* subject, int error = errno);
    /// Two option keywords that exclude each other.
    void fail_conflict(Site site, const char* first, const char* second);

    const char* const routine;
    zt::Status& status;
};

/// Hands an option text to the option processor: copies it into `copy`, which holds ZT_PIPE_OPTIONS_LIMIT
/// characters and must live as long as the values are read. An empty text never reaches the processor.
/// Returns false when the processor refused, with the report filled at `refused`.
bool process_options(Report& report, Site refused, const char* options, char* copy, zt_option* table,
                     int count, int* found = nullptr);

/// The frame of a public operation: arms the interrupt latch and clears the record, in this order; names the
/// pipe being worked on. `finish` must come before the result is computed, because an interrupt replaces any
/// outcome.
class Operation : public Report {
  public:
    Operation(const char* operation, zt::Status& record, Category trace_category);
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;
    ~Operation();

    /// Finds the pipe that the handle names. Until this operation is over the pipe is busy, so that a thread
    /// that exits meanwhile does not close it. False with the failure in the report.
    bool enter(int handle, zt_pipe*& pipe);
    /// From now on a SIGPIPE is booked to this pipe.
    void work_on(zt_pipe* pipe);
    /// The pipe is about to be freed.
    void leave_pipe();
    /// As leave_pipe, but the pipe stays busy: another operation takes it over.
    void hand_over();
    /// An interrupt that arrived meanwhile becomes the outcome; the latch is disarmed.
    void finish(Site interrupted);
    /// Whether the entry line is asked for.
    bool traces_entry() const { return traces(category, ZT_PIPE_PARMS); }
    /// Whether the exit line is asked for; a warning makes it due as a failure does where an operation has
    /// them.
    bool traces_exit(bool warned = false) const;
    /// Whether detail lines are asked for.
    bool traces_detail() const { return traces(category, ZT_PIPE_DEBUG_FLAG); }

    const Category category;

  private:
    zt_pipe* pipe_ = nullptr;
    bool armed_;
};

/// A length as a message parameter: the largest number stands for everything beyond it.
inline int saturated(std::size_t length)
{
    return length > INT_MAX ? INT_MAX : static_cast<int>(length);
}

/// The mark of an exit line.
inline char mark(bool failed)
{
    return failed ? '*' : ' ';
}

/// Consumes a pending interrupt after a failed transfer: true when the transfer was interrupted rather than
/// failed.
bool interrupted();

/// Holds the table's lock for a scope. Not taken by the thread that ends the process from a signal handler:
/// the code that the signal interrupted may hold it.
class TableLock {
  public:
    TableLock();
    ~TableLock();
    TableLock(const TableLock&) = delete;
    TableLock& operator=(const TableLock&) = delete;

  private:
    const bool taken_;
};

/// Whether the table still has this block; an exit of the process takes blocks out. To be asked with the
/// lock.
bool is_in_table(const zt_pipe& pipe);

/// Empties a block's slot; a fatal signal finds the slot either full or empty. To be called with the lock.
void empty_slot(const zt_pipe& pipe);

/// Finds a handle's block. To be called with the lock.
std::uint32_t find_pipe(Report& report, int handle, zt_pipe** pipe);

/// Keeps the exit functions out of a few instructions, and this thread's signals back: a fatal signal finds
/// the table and a child's pid either before or after them, never in between.
class ExitHold {
  public:
    ExitHold();
    ~ExitHold();
    ExitHold(const ExitHold&) = delete;
    ExitHold& operator=(const ExitHold&) = delete;
    void release();
    /// The thread's signal mask outside the hold.
    const sigset_t& mask_before() const { return state_.old_mask; }

  private:
    zt_exit_hold_state state_;
    bool held_ = true;
};

}  // namespace zt::pipe

#endif
