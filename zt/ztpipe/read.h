/// @file
/// The loop that both reads share. They differ in where the bytes go and when to stop.
#ifndef ZT_ZTPIPE_READ_H
#define ZT_ZTPIPE_READ_H

#include <zt/runtime/text.h>
#include <zt/ztpipe/operation.h>

namespace zt::pipe {

/// The failure table of a read.
struct ReadSites {
    Site stream_interrupted, stream_failed, stream_empty;
    Site read_interrupted, read_failed, not_collected;
};

/// How far a call has come.
struct Progress {
    int reads = 0;    ///< passes that stored something or are to be repeated
    int retries = 0;  ///< empty or interrupted attempts that count against the budget
    int total = 0;    ///< bytes stored
};

/// What the trace lines of a read show of its arguments.
struct Call {
    int handle;
    int size_or_offset;
    const char* delimiter;
};

/// Where the bytes of a read go.
class Destination {
  public:
    virtual ~Destination() = default;
    /// Before each transfer; false ends the read with the failure in the report.
    virtual bool make_room(Operation& op, int total) = 0;
    /// Where the byte number `total` of this call is stored.
    virtual char* at(int total) = 0;
    /// How many bytes to ask for.
    virtual std::size_t request(int total) const = 0;
    /// Whether that is all the caller wants.
    virtual bool full(int total) const = 0;
};

/// The printable form of a delimiter; a very long one is cut and ends in "...".
class Rendering {
  public:
    explicit Rendering(const char* delimiter);
    const char* text() const { return text_; }

  private:
    static constexpr std::size_t rendered_limit = 200;
    static constexpr std::size_t room = 4 * rendered_limit + sizeof "...";
    char text_[room] = "<NULL>";
};

/// Sets the byte count to 0 and writes the entry line.
void begin_read(Operation& op, const Call& call);

/// Transfers until the destination is full, the stored bytes end with the delimiter, the data ends, or a
/// failure.
void read_until(Operation& op, zt_pipe& pipe, Destination& into, const char* delimiter, const ReadSites& at,
                Progress& progress);

/// After the operation's finish: detail line, warnings, count, exit line with the data read. Returns the
/// result.
int conclude_read(Operation& op, const Call& call, const Progress& progress, const char* data);

}  // namespace zt::pipe

#endif
