// Both reads, of both kinds of pipe.
#include <zt/runtime/memory.h>

#include <cerrno>
#include <csignal>

#include "tests/trace/scenario.h"

namespace trace {
namespace {

using faults::Function;

Step read(int size, const char* delimiter = nullptr)
{
    return [=](Stage& stage) { zt_pipe_read(stage.handle, stage.buffer, size, delimiter, &stage.status); };
}

Step read_unlimited(int offset, const char* delimiter = nullptr)
{
    return [=](Stage& stage) {
        zt_pipe_read_unlimited(stage.handle, &stage.text, offset, delimiter, &stage.status);
    };
}

const Opened echo{"./echo_lines", "PROGRAM"};
const Opened says_hello{"./prints_then_waits Hello", "PROGRAM"};
const Opened prints_words{"./prints_words word", "PROGRAM"};
const Opened says_nothing{"./exits_with 0", "PROGRAM"};

constexpr faults::Fault raise_during_read{.function = Function::read, .raising = SIGINT};

// Leaves room for 15 bytes behind offset 10.
void make_room(Stage& stage)
{
    read_unlimited(20, "|./pr")(stage);
}

// A buffer that cannot grow is the caller's from then on.
void read_beyond_room(Stage& stage)
{
    char* const before = stage.text;
    read_unlimited(10)(stage);
    zt_mem_ifree(2, before, "test", 0);
}

faults::Fault failing(Function function, int error, int nth = 1)
{
    return {.function = function, .nth = nth, .error = error};
}

faults::Fault always_failing(Function function, int error)
{
    return {.function = function, .from_then_on = true, .error = error};
}

// What both reads of a program have in common.
std::vector<Scenario> of_program()
{
    return {
        {.name = "success to the end", .pipe = prints_words},
        {.name = "success, end already known", .pipe = prints_words, .before = collect},
        {.name = "success, child says nothing", .pipe = says_nothing},
        {.name = "interrupted once by a signal, then success",
         .pipe = prints_words,
         .faults = {{failing(Function::read, EINTR), no_fault}}},
        {.name = "interrupted by signals for good",
         .pipe = prints_words,
         .faults = {{always_failing(Function::read, EINTR), no_fault}}},
        {.name = "read fails", .pipe = prints_words, .faults = {{failing(Function::read, EIO), no_fault}}},
        {.name = "read fails after some bytes",
         .pipe = says_hello,
         .faults = {{failing(Function::read, EIO, 2), no_fault}}},
        {.name = "interrupted by the user", .pipe = prints_words, .faults = {{raise_during_read, no_fault}}},
        {.name = "interrupted by the user, no bytes",
         .pipe = says_nothing,
         .faults = {{raise_during_read, no_fault}}},
        {.name = "SIGPIPE meanwhile",
         .pipe = prints_words,
         .faults = {{{.function = Function::read, .raising = SIGPIPE}, no_fault}}},
        {.name = "child ended with an error", .pipe = {"./exits_with 3", "PROGRAM"}},
        {.name = "child was ended by a signal", .pipe = {"./raises 9", "PROGRAM"}},
        {.name = "child ended with an error after some bytes",
         .pipe = {"sh -c 'echo Hi; exit 3'", "PROGRAM"}},
        {.name = "waitpid fails",
         .pipe = says_nothing,
         .faults = {{failing(Function::waitpid, EINVAL), no_fault}}},
        {.name = "child collected by somebody else",
         .pipe = says_nothing,
         .faults = {{failing(Function::waitpid, ECHILD), no_fault}}},
        {.name = "no child", .pipe = {"no child", ""}},
        {.name = "bad handle"},
    };
}

std::vector<Scenario> of_command()
{
    const Opened command{"printf Hello", "COMMAND"};
    return {
        {.name = "success to the end", .pipe = command},
        {.name = "success, command says nothing", .pipe = {"true", "COMMAND"}},
        {.name = "interrupted once by a signal, then success",
         .pipe = command,
         .faults = {{failing(Function::fread, EINTR), no_fault}}},
        {.name = "interrupted by signals for good",
         .pipe = command,
         .faults = {{always_failing(Function::fread, EINTR), no_fault}}},
        {.name = "stream fails", .pipe = command, .faults = {{failing(Function::fread, EIO), no_fault}}},
        {.name = "stream gives nothing and no reason",
         .pipe = command,
         .faults = {{{.function = Function::fread, .from_then_on = true, .result = 0}, no_fault}}},
        {.name = "stream fails after some bytes",
         .pipe = command,
         .faults = {{failing(Function::fread, EIO, 2), {.function = Function::fread, .result = 3}}}},
    };
}

std::vector<Scenario> with(std::vector<Scenario> scenarios, const std::vector<Scenario>& more)
{
    scenarios.insert(scenarios.end(), more.begin(), more.end());
    return scenarios;
}

}  // namespace

Operation read_program()
{
    return {
        .name = "read_program",
        .title = "read from a program",
        .settings = settings_of("read", "write"),
        .act = read(60),
        .scenarios = with(
            of_program(),
            {
                {.name = "success, buffer full", .pipe = says_hello, .act = read(5)},
                {.name = "success up to a delimiter", .pipe = echo, .before = say_hi, .act = read(60, "i\n")},
                {.name = "success, size 0", .pipe = says_hello, .act = read(0)},
                {.name = "null buffer",
                 .pipe = says_hello,
                 .act = [](Stage& s) { zt_pipe_read(s.handle, nullptr, 5, nullptr, &s.status); }},
                {.name = "negative size", .pipe = says_hello, .act = read(-1)},
            }),
    };
}

Operation read_command()
{
    return {
        .name = "read_command",
        .title = "read from a command",
        .settings = settings_of("read", "write"),
        .act = read(60),
        .scenarios =
            with(of_command(),
                 {
                     {.name = "success, buffer full", .pipe = {"printf Hello", "COMMAND"}, .act = read(5)},
                     {.name = "success up to a delimiter",
                      .pipe = {"printf Hello", "COMMAND"},
                      .act = read(60, "lo")},
                     {.name = "buffer full without the delimiter",
                      .pipe = {"printf Hello", "COMMAND"},
                      .act = read(5, "\n")},
                 }),
    };
}

Operation unlimited_program()
{
    const Opened in_fives{"./prints_words word", "PROGRAM, READSIZE=5"};
    return {
        .name = "unlimited_program",
        .title = "unlimited read from a program",
        .settings = settings_of("read", "close"),
        .act = read_unlimited(0),
        .scenarios = with(
            of_program(),
            {
                {.name = "success up to a delimiter",
                 .pipe = echo,
                 .before = say_hi,
                 .act = read_unlimited(0, "i\n")},
                {.name = "success behind an offset", .pipe = prints_words, .act = read_unlimited(4)},
                {.name = "no memory for the buffer",
                 .pipe = says_hello,
                 .faults = {{failing(Function::realloc, ENOMEM), no_fault}}},
                {.name = "no memory for more",
                 .pipe = in_fives,
                 .before = make_room,
                 .faults = {{failing(Function::realloc, ENOMEM), no_fault}},
                 .act = read_beyond_room},
                {.name = "null result",
                 .pipe = says_hello,
                 .act = [](Stage& s) { zt_pipe_read_unlimited(s.handle, nullptr, 0, nullptr, &s.status); }},
                {.name = "negative offset", .pipe = says_hello, .act = read_unlimited(-1)},
                {.name = "READSIZE 0", .pipe = {"./prints_then_waits Hello", "PROGRAM, READSIZE=0"}},
            }),
    };
}

Operation unlimited_command()
{
    return {
        .name = "unlimited_command",
        .title = "unlimited read from a command",
        .settings = settings_of("read", "close"),
        .act = read_unlimited(0),
        .scenarios = with(of_command(),
                          {
                              {.name = "success up to a delimiter",
                               .pipe = {"printf Hello", "COMMAND"},
                               .act = read_unlimited(0, "lo")},
                          }),
    };
}

}  // namespace trace
