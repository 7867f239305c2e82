// Opening: what the arguments and the option text can be refused for, and the module's own set-up.
#include <cerrno>
#include <csignal>

#include "tests/trace/scenario.h"

namespace trace {
namespace {

using faults::Function;

Step open(const char* program, const char* options, const char* const* argv = nullptr)
{
    return [=](Stage& stage) { stage.handle = ZT_PIPE_OPEN(program, options, argv, nullptr, &stage.status); };
}

/// As before the process's first open.
void uninitialise(Stage&)
{
    zt_pipe_cleanup(0);
}

void uninitialise_flags_too(Stage&)
{
    zt_pipe_cleanup(0);
    Zt_pipe_debug_initialized = 0;
}

}  // namespace

Operation first_open()
{
    std::vector<Setting> settings{{"without ZT_PIPE_DEBUG", ""}};
    for (const char* options :
         {"OFF", "PARMS", "DEBUG", "EXCEPTIONS", "MEMORY", "DEBUG='open'", "DEBUG='not global'",
          "PARMS='bogus'", "DEBUG=bogus", "DEBUG PARMS='read,not'", "PARMS OFF", "BOGUS", "PARMS='open"})
        settings.push_back({std::string("ZT_PIPE_DEBUG=\"") + options + "\"", options});
    return {
        .name = "first_open",
        .title = "first open of the process",
        .settings = settings,
        .act = open("no child", ""),
        .scenarios =
            {
                {.name = "success", .before = uninitialise_flags_too},
                {.name = "no memory for the handle table",
                 .before = uninitialise_flags_too,
                 .faults = {{{.function = Function::calloc, .error = ENOMEM}, no_fault}}},
            },
        .by_environment = true,
    };
}

Operation open_any()
{
    static const std::string too_long(1025, 'x');
    return {
        .name = "open_any",
        .title = "open",
        .settings = settings_of("open", "read"),
        .act = open("no child", ""),
        .scenarios =
            {
                {.name = "success without a child"},
                {.name = "success, module set up anew", .before = uninitialise},
                {.name = "no memory for the handle table",
                 .before = uninitialise,
                 .faults = {{{.function = Function::calloc, .error = ENOMEM}, no_fault}}},
                {.name = "no memory for the control block",
                 .faults = {{{.function = Function::calloc, .error = ENOMEM}, no_fault}}},
                {.name = "null program", .act = open(nullptr, "PROGRAM")},
                {.name = "null options", .act = open("true", nullptr)},
                {.name = "program too long", .act = open(too_long.c_str(), "PROGRAM")},
                {.name = "empty program", .act = open("", "PROGRAM")},
                {.name = "unknown option", .act = open("true", "PROGRAM, BOGUS")},
                {.name = "PROGRAM with WRITE", .act = open("true", "PROGRAM, WRITE")},
                {.name = "STDERR with WRITE", .act = open("true", "COMMAND, WRITE, STDERR=IGNORE")},
                {.name = "STDERR of an unknown kind", .act = open("true", "COMMAND, STDERR=bogus")},
                {.name = "PASSWORD without USERNAME", .act = open("true", "COMMAND, PASSWORD=x")},
                {.name = "MERGE_ENV without an environment", .act = open("true", "COMMAND, MERGE_ENV")},
            },
    };
}

Operation open_program()
{
    static const char* const words[] = {"./exits_with", "0", "two words", nullptr};
    return {
        .name = "open_program",
        .title = "open a program",
        .settings = settings_of("open", "close"),
        .act = open("./exits_with 0", "PROGRAM"),
        .scenarios =
            {
                {.name = "success"},
                {.name = "success with a word vector",
                 .act = open("a name", "PROGRAM, STDERR=DISCARD", words)},
                {.name = "success, though there is no such program",
                 .act = open("./no_such_program", "PROGRAM")},
                {.name = "no memory for the words",
                 .faults = {{{.function = Function::calloc, .nth = 2, .error = ENOMEM}, no_fault}}},
                {.name = "no words", .act = open("  ", "PROGRAM")},
                {.name = "no first pipe",
                 .faults = {{{.function = Function::pipe, .error = EMFILE}, no_fault}}},
                {.name = "fork fails", .faults = {{{.function = Function::fork, .error = EAGAIN}, no_fault}}},
                {.name = "interrupted, so that the child is ended again",
                 .faults = {{{.function = Function::pipe, .raising = SIGINT}, no_fault}},
                 .act = open("sleep 1000", "PROGRAM")},
                {.name = "child's standard input cannot be laid",
                 .faults = {{{.function = Function::dup2, .error = EBUSY, .in_child = true}, no_fault}}},
                {.name = "child's standard output cannot be laid",
                 .faults = {{{.function = Function::dup2, .nth = 2, .error = EBUSY, .in_child = true},
                             no_fault}}},
                {.name = "child's standard error cannot be laid",
                 .faults = {{{.function = Function::dup2, .nth = 3, .error = EBUSY, .in_child = true},
                             no_fault}},
                 .closes_stderr = true},
                {.name = "null device cannot be laid",
                 .faults = {{{.function = Function::dup2, .nth = 3, .error = EBUSY, .in_child = true},
                             no_fault}},
                 .act = open("./exits_with 0", "PROGRAM, STDERR=DISCARD"),
                 .closes_stderr = true},
            },
        .starts_children = true,
    };
}

Operation open_command()
{
    static const char* const words[] = {"echo", "two words", nullptr};
    static const std::string fits_not(1020, 'x');
    static const std::string fits_not_in_korn(1011, 'x');
    static const std::string fits_not_discarded(1013, 'x');
    return {
        .name = "open_command",
        .title = "open a command",
        .settings = settings_of("open", "close"),
        .act = open("echo Hello", "COMMAND"),
        .scenarios =
            {
                {.name = "success"},
                {.name = "success, to write to", .act = open("cat >/dev/null", "COMMAND, WRITE")},
                {.name = "success, standard error discarded", .act = open("echo", "COMMAND, STDERR=DISCARD")},
                {.name = "success under the Korn shell", .act = open("echo 'a b'", "COMMAND, KORN")},
                {.name = "success with a word vector", .act = open("a name", "COMMAND", words)},
                {.name = "popen fails",
                 .faults = {{{.function = Function::popen, .error = EMFILE}, no_fault}}},
                {.name = "no room for combining", .act = open(fits_not.c_str(), "COMMAND")},
                {.name = "no room for discarding",
                 .act = open(fits_not_discarded.c_str(), "COMMAND, STDERR=DISCARD")},
                {.name = "no room for the Korn shell",
                 .act = open(fits_not_in_korn.c_str(), "COMMAND, KORN")},
            },
    };
}

}  // namespace trace
