// Writing.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "tests/support/pipes.h"
#include "tests/trace/scenario.h"

namespace trace {
namespace {

using faults::Function;

constexpr char text[] = "seventeen bytes.\n";

Step write(const char* data, int length)
{
    return [=](Stage& stage) { zt_pipe_write(stage.handle, data, length, &stage.status); };
}

void write_to_bad_handle(Stage& stage)
{
    zt_pipe_write(99, text, 17, &stage.status);
}

// The read end refuses what is written to it, while the child lives on.
void write_to_read_end(Stage& stage)
{
    zt_pipe& pipe = *pipes::block(stage.handle);
    const int write_fd = std::exchange(pipe.write_fd, pipe.read_fd);
    zt_pipe_write(stage.handle, text, 17, &stage.status);
    pipe.write_fd = write_fd;
}

}  // namespace

Operation write_program()
{
    const Opened reader{"./never_reads", "PROGRAM"};
    return {
        .name = "write_program",
        .title = "write to a program",
        .settings = settings_of("write", "read"),
        .act = write(text, 17),
        .scenarios =
            {
                {.name = "success", .pipe = reader, .before = await_line},
                {.name = "success, no bytes", .pipe = reader, .before = await_line, .act = write(text, 0)},
                {.name = "child has ended normally",
                 .pipe = {"./exits_with 0", "PROGRAM"},
                 .before = await_end},
                {.name = "child has ended with an error",
                 .pipe = {"./exits_with 3", "PROGRAM"},
                 .before = await_end},
                {.name = "child was ended by a signal",
                 .pipe = {"./raises 9", "PROGRAM"},
                 .before = await_end},
                {.name = "child has ended and was collected",
                 .pipe = {"./exits_with 3", "PROGRAM"},
                 .before = collect},
                {.name = "child has ended, but waitpid fails",
                 .pipe = {"./exits_with 0", "PROGRAM"},
                 .before = await_end,
                 .faults = {{{.function = Function::waitpid, .error = EINVAL}, no_fault}}},
                {.name = "refused, child alive",
                 .pipe = reader,
                 .before = await_line,
                 .act = write_to_read_end},
                {.name = "interrupted",
                 .pipe = reader,
                 .before = await_line,
                 .faults = {{{.function = Function::write, .raising = SIGINT}, no_fault}}},
                {.name = "no child", .pipe = {"no child", ""}},
                {.name = "bad handle", .act = write_to_bad_handle},
                {.name = "null buffer", .pipe = reader, .before = await_line, .act = write(nullptr, 17)},
                {.name = "negative length", .pipe = reader, .before = await_line, .act = write(text, -1)},
            },
    };
}

Operation write_command()
{
    const Opened reader{"cat >/dev/null", "COMMAND, WRITE"};
    return {
        .name = "write_command",
        .title = "write to a command",
        .settings = settings_of("write", "read"),
        .act = write(text, 17),
        .scenarios =
            {
                {.name = "success", .pipe = reader},
                {.name = "success, no bytes", .pipe = reader, .act = write(text, 0)},
                {.name = "stream fails",
                 .pipe = reader,
                 .faults = {{{.function = Function::fwrite, .error = EIO}, no_fault}}},
                {.name = "stream interrupted",
                 .pipe = reader,
                 .faults = {{{.function = Function::fwrite, .error = EINTR}, no_fault}}},
                {.name = "null buffer", .pipe = reader, .act = write(nullptr, 17)},
            },
    };
}

}  // namespace trace
