// Reading the child's output: into the caller's buffer, or into one that the pipe owns and grows.
#include <unistd.h>
#include <zt/ztpipe/capacity.h>
#include <zt/ztpipe/read.h>

#include <cstdio>
#include <cstring>

namespace zt::pipe {
namespace {

// The retries that one run of empty or interrupted attempts may take.
constexpr int retry_budget = 5;

bool retry_allowed(Progress& progress)
{
    if (progress.retries >= retry_budget) return false;
    ++progress.retries;
    return true;
}

// Both kinds of transfer return the bytes stored, 0 for "once more", or `stop` when the read is over: at the
// end of the data, or with a failure in the report.
constexpr int stop = -1;

int fail_transfer(Operation& op, const zt_pipe& pipe, Site interrupted_site, Site failed_site)
{
    if (interrupted())
        op.fail(interrupted_site);
    else
        op.fail_system(failed_site, pipe.program);
    return stop;
}

int transfer_stream(Operation& op, zt_pipe& pipe, char* into, std::size_t request, const ReadSites& at,
                    Progress& progress)
{
    const std::size_t count = std::fread(into, 1, request, pipe.fh);
    if (count > 0) {
        progress.retries = 0;
        note_read(pipe, count, request);
        return static_cast<int>(count);
    }
    if (std::ferror(pipe.fh)) {
        if (errno != EINTR || !retry_allowed(progress))
            return fail_transfer(op, pipe, at.stream_interrupted, at.stream_failed);
        std::clearerr(pipe.fh);
        // Under CTRLBLKS, not DEBUG, by design: a person who asks for details does not ask for every retry.
        if (traces(op.category, ZT_PIPE_CTRLBLKS))
            zt_trace_msg("   %s: looping because EINTR (%d)", op.routine, progress.retries);
        return 0;
    }
    if (std::feof(pipe.fh)) return stop;
    if (retry_allowed(progress)) return 0;
    op.fail_system(at.stream_empty, pipe.program);
    zt_strncpy(op.status.object, "infinite loop of fread <= 0", sizeof op.status.object);
    return stop;
}

// A successful read does not give retries back: here the budget is one for the whole call.
int transfer_descriptor(Operation& op, zt_pipe& pipe, char* into, std::size_t request, const ReadSites& at,
                        Progress& progress)
{
    const ssize_t count = read(pipe.read_fd, into, request);
    if (count > 0) {
        note_read(pipe, static_cast<std::size_t>(count), request);
        return static_cast<int>(count);
    }
    if (count < 0) {
        if (errno == EINTR && retry_allowed(progress)) return 0;
        return fail_transfer(op, pipe, at.read_interrupted, at.read_failed);
    }
    if (zt_pipe_status(static_cast<int>(pipe.handle), true, &op.status) == 0 && pipe.wait_status == -1)
        op.fail_system(at.not_collected, pipe.program);
    return stop;
}

int transfer(Operation& op, zt_pipe& pipe, char* into, std::size_t request, const ReadSites& at,
             Progress& progress)
{
    if (pipe.mode == ZT_PIPE_MODE_COMMAND) return transfer_stream(op, pipe, into, request, at, progress);
    if (pipe.mode == ZT_PIPE_MODE_PROGRAM) return transfer_descriptor(op, pipe, into, request, at, progress);
    errno = EBADF;  // no child: never the application's own descriptor 0
    return fail_transfer(op, pipe, at.read_interrupted, at.read_failed);
}

}  // namespace

void read_until(Operation& op, zt_pipe& pipe, Destination& into, const char* delimiter, const ReadSites& at,
                Progress& progress)
{
    const std::size_t delimiter_length = delimiter != nullptr ? std::strlen(delimiter) : 0;
    while (into.make_room(op, progress.total)) {
        const int count =
            transfer(op, pipe, into.at(progress.total), into.request(progress.total), at, progress);
        if (count == stop) return;
        ++progress.reads;
        progress.total += count;
        // Deliberately, with enough bytes to hold a delimiter only the delimiter is asked, not whether the
        // buffer is full: a caller who names one wants to see it, or to learn that it never came.
        if (delimiter != nullptr && static_cast<std::size_t>(progress.total) >= delimiter_length) {
            const char* tail = into.at(progress.total) - delimiter_length;
            if (std::memcmp(tail, delimiter, delimiter_length) == 0) return;
        } else if (into.full(progress.total)) {
            return;
        }
    }
}

Rendering::Rendering(const char* delimiter)
{
    if (delimiter == nullptr) return;
    const std::size_t length = std::strlen(delimiter);
    const bool cut = length > rendered_limit;
    zt_character_to_string(delimiter, cut ? rendered_limit : length, text_);
    if (cut) std::strcat(text_, "...");
}

// Data that came before a failure is delivered as success with a warning, and a normal end is no failure at
// all.
void demote_to_warning(zt::Status& status, int total)
{
    if (status.code == 0 || (total == 0 && status.code != ZT_PIPE_S_NORMAL)) return;
    status.subcode = status.code;
    status.code = 0;
}

int conclude_read(Operation& op, const Call& call, const Progress& progress, const char* data)
{
    zt::Status& status = op.status;
    if (progress.reads != 0 && op.traces_detail())
        zt_trace_msg("   %s: performed %d read%s for %d bytes", op.routine, progress.reads,
                     progress.reads == 1 ? "" : "s", progress.total);
    demote_to_warning(status, progress.total);
    status.count = progress.total;
    const int result = op.failed() ? -1 : progress.total;
    if (op.traces_exit(status.subcode != 0)) {
        zt_trace_msg("<-%c%s: [%d] [see below] [%d] [%s] [%d %d %d %s] returned %d", mark(op.failed()),
                     op.routine, call.handle, call.size_or_offset, Rendering(call.delimiter).text(),
                     status.code, status.subcode, status.sys_errno, status.msg, result);
        zt_trace_buffer(0, data, data != nullptr ? progress.total : 0);
    }
    return result;
}

void begin_read(Operation& op, const Call& call)
{
    op.status.count = 0;
    if (op.traces_entry())
        zt_trace_msg("-> %s: [%d] [] [%d] [%s] []", op.routine, call.handle, call.size_or_offset,
                     Rendering(call.delimiter).text());
}

}  // namespace zt::pipe
