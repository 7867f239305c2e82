// Closing, the status poll, and what the runtime calls at exit and on SIGPIPE.
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "tests/support/pipes.h"
#include "tests/trace/scenario.h"

namespace trace {
namespace {

using faults::Function;

Step close(const char* options)
{
    return [=](Stage& stage) { ZT_PIPE_CLOSE(stage.handle, options, &stage.status); };
}

Step status(bool wait)
{
    return [=](Stage& stage) { zt_pipe_status(stage.handle, wait, &stage.status); };
}

faults::Fault failing(Function function, int error)
{
    return {.function = function, .error = error};
}

// The poll says that the child is running, although it may be ending.
constexpr faults::Fault polled_as_running{.function = Function::waitpid, .result = 0};

const Opened running{"./never_reads", "PROGRAM"};
const Opened ends_with_input{"./echo_lines", "PROGRAM"};
const Opened ends{"./exits_with 0", "PROGRAM"};
const Opened fails{"./exits_with 3", "PROGRAM"};

// A descriptor that cannot be closed; the real one is given back here.
void spoil_read_end(Stage& stage)
{
    await_end(stage);
    zt_pipe& pipe = *pipes::block(stage.handle);
    ::close(pipe.read_fd);
    pipe.read_fd = -1;
}

void raise_sigpipe(Stage&)
{
    raise(SIGPIPE);
}

void raise_sigpipe_while_current(Stage& stage)
{
    Zt_pipe_current = pipes::block(stage.handle);
    raise(SIGPIPE);
    Zt_pipe_current = nullptr;
}

Step clean_up(int signo)
{
    return [=](Stage&) { zt_pipe_cleanup(signo); };
}

void open_a_command_too(Stage& stage)
{
    await_line(stage);
    pipes::open("exit 3", "COMMAND");
    stage.handle = pipes::open("./never_reads", "PROGRAM");
    await_line(stage);
}

}  // namespace

Operation status_program()
{
    return {
        .name = "status_program",
        .title = "status",
        .settings = settings_of("global", "not global"),
        .act = status(false),
        .scenarios =
            {
                {.name = "success, child running", .pipe = running},
                {.name = "success, child ended normally", .pipe = ends, .before = await_end},
                {.name = "success, child ended with an error", .pipe = fails, .before = await_end},
                {.name = "success, child was ended by a signal",
                 .pipe = {"./raises 9", "PROGRAM"},
                 .before = await_end},
                {.name = "success, waited for", .pipe = fails, .act = status(true)},
                {.name = "success, end already known", .pipe = fails, .before = collect},
                {.name = "success, collected by somebody else",
                 .pipe = ends,
                 .faults = {{failing(Function::waitpid, ECHILD), no_fault}}},
                {.name = "success, a command", .pipe = {"true", "COMMAND"}},
                {.name = "waitpid fails",
                 .pipe = running,
                 .faults = {{failing(Function::waitpid, EINVAL), no_fault}},
                 .act = status(true)},
                {.name = "still active after a wait",
                 .pipe = running,
                 .faults = {{polled_as_running, no_fault}},
                 .act = status(true)},
                {.name = "bad handle"},
            },
    };
}

Operation close_program()
{
    return {
        .name = "close_program",
        .title = "close a program",
        .settings = settings_of("close", "open"),
        .act = close(""),
        .scenarios =
            {
                {.name = "success", .pipe = ends, .before = await_end},
                {.name = "success, end already known", .pipe = ends, .before = collect},
                {.name = "success, waited for",
                 .pipe = ends_with_input,
                 .faults = {{polled_as_running, no_fault}},
                 .act = close("NOKILL")},
                {.name = "success, left running",
                 .pipe = running,
                 .before = await_line,
                 .act = close("NOKILL, NOWAIT")},
                {.name = "success, collected by somebody else",
                 .pipe = ends,
                 .before = await_end,
                 .faults = {{failing(Function::waitpid, ECHILD), no_fault}}},
                {.name = "success without a child", .pipe = {"no child", ""}},
                {.name = "child had to be ended", .pipe = running, .before = await_line},
                {.name = "child had to be ended, not waited for",
                 .pipe = running,
                 .before = await_line,
                 .act = close("nowait")},
                {.name = "child ended with an error", .pipe = fails, .before = await_end},
                {.name = "child ended with an error, end already known", .pipe = fails, .before = collect},
                {.name = "child was ended by a signal",
                 .pipe = {"./raises 9", "PROGRAM"},
                 .before = await_end},
                {.name = "kill fails, child waited for",
                 .pipe = ends_with_input,
                 .faults = {{polled_as_running, failing(Function::kill, EPERM)}}},
                {.name = "descriptor cannot be closed", .pipe = ends, .before = spoil_read_end},
                {.name = "waitpid fails",
                 .pipe = ends,
                 .before = await_end,
                 .faults = {{{.function = Function::waitpid, .from_then_on = true, .error = EINVAL},
                             no_fault}},
                 .act = close("NOKILL")},
                {.name = "interrupted",
                 .pipe = ends,
                 .before = await_end,
                 .faults = {{{.function = Function::waitpid, .raising = SIGINT}, no_fault}}},
                {.name = "unknown option", .pipe = ends, .before = await_end, .act = close("BOGUS")},
                {.name = "null options", .pipe = ends, .before = await_end, .act = close(nullptr)},
                {.name = "bad handle"},
            },
    };
}

Operation close_command()
{
    const Opened command{"true", "COMMAND"};
    const auto pclose_gives = [](long result) {
        return faults::Fault{.function = Function::pclose, .error = EIO, .result = result};
    };
    return {
        .name = "close_command",
        .title = "close a command",
        .settings = settings_of("close", "open"),
        .act = close(""),
        .scenarios =
            {
                {.name = "success", .pipe = command},
                {.name = "success, collected by somebody else",
                 .pipe = command,
                 .faults = {{failing(Function::pclose, ECHILD), no_fault}}},
                {.name = "command ended with an error", .pipe = {"exit 3", "COMMAND"}},
                {.name = "command was ended by a signal", .pipe = {"kill -9 $$", "COMMAND"}},
                {.name = "command not found", .pipe = {"./no_such_command", "COMMAND"}, .before = collect},
                {.name = "pclose fails",
                 .pipe = command,
                 .faults = {{failing(Function::pclose, EIO), no_fault}}},
                {.name = "no shell", .pipe = command, .faults = {{pclose_gives(127), no_fault}}},
                {.name = "NOWAIT", .pipe = command, .act = close("NOWAIT")},
                {.name = "interrupted",
                 .pipe = command,
                 .faults = {{{.function = Function::pclose, .raising = SIGINT}, no_fault}}},
            },
    };
}

Operation cleanup()
{
    return {
        .name = "cleanup",
        .title = "cleanup",
        .settings = settings_of("global", "not global"),
        .act = clean_up(0),
        .scenarios =
            {
                {.name = "at exit, nothing open"},
                {.name = "at exit, one running program", .pipe = running, .before = await_line},
                {.name = "at exit, two programs and a command",
                 .pipe = running,
                 .before = open_a_command_too},
                {.name = "on SIGTERM, one running program",
                 .pipe = running,
                 .before = await_line,
                 .act = clean_up(SIGTERM)},
                {.name = "on SIGSEGV, which leaves everything open",
                 .pipe = running,
                 .before = await_line,
                 .act = clean_up(SIGSEGV)},
            },
    };
}

Operation sigpipe()
{
    return {
        .name = "sigpipe",
        .title = "SIGPIPE",
        .settings = settings_of("global", "not global"),
        .act = raise_sigpipe,
        .scenarios =
            {
                {.name = "between operations", .pipe = running},
                {.name = "while a pipe is worked on", .pipe = running, .act = raise_sigpipe_while_current},
            },
    };
}

}  // namespace trace
