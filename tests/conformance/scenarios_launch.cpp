// Starting a child: the command line that does not fit, the calls that fail in the parent and in the child.
#include <fcntl.h>
#include <unistd.h>

#include "tests/conformance/firing.h"

using faults::Fault;
using faults::Function;

namespace {

Scenario refused(std::string program, const char* options)
{
    return [=](Firing& firing) { firing.open(program.c_str(), options); };
}

Scenario refused_words(std::string word, const char* options)
{
    return [=](Firing& firing) {
        const char* const words[] = {word.c_str(), nullptr};
        firing.open("cat", options, words);
    };
}

Scenario failing(Fault fault, const char* program, const char* options)
{
    return [=](Firing& firing) { with_faults({fault}, [&] { firing.open(program, options); }); };
}

// The environment that is swapped in for the shell must be gone again afterwards.
void no_shell_with_environment(Firing& firing)
{
    const char* const environment[] = {"ZT_TEST_VARIABLE=1", nullptr};
    char** const before = environ;
    with_faults({{.function = Function::popen, .error = EMFILE}},
                [&] { firing.open("sort", "COMMAND", nullptr, environment); });
    EXPECT_EQ(environ, before);
}

int lowest_free_descriptor()
{
    const int fd = dup(STDIN_FILENO);
    close(fd);
    return fd;
}

// Two ends of the first pipe stay open, and nothing else.
void second_pipe_fails(Firing& firing)
{
    const int end = lowest_free_descriptor();
    with_faults({{.function = Function::pipe, .nth = 2, .error = ENFILE}},
                [&] { firing.open("cat", "PROGRAM"); });
    const int after = lowest_free_descriptor();
    int closed = 0;
    for (int fd = end; fd < after; ++fd) closed += close(fd) == 0 ? 1 : 0;
    if (closed == 2) firing.left = "descriptors";
}

Scenario in_child(Fault fault, const char* options = "PROGRAM")
{
    return [=](Firing& firing) { firing.open_in_child(options, fault); };
}

constexpr Fault close_fails(int nth)
{
    return {.function = Function::close, .nth = nth, .error = EIO};
}

constexpr Fault every_close_fails{.function = Function::close, .from_then_on = true, .error = EINTR};

constexpr Fault dup_fails(int nth)
{
    return {.function = Function::dup2, .nth = nth, .error = EBUSY};
}

}  // namespace

Scenarios launch_scenarios()
{
    static constexpr char long_program[] = "sort --reverse --unique --ignore-case";
    return {
        {"1945", refused(std::string(1011, 'c'), "COMMAND KORN")},
        {"1960", refused(std::string(1013, 'c'), "COMMAND STDERR=DISCARD")},
        {"1971", refused(std::string(1020, 'c'), "COMMAND")},
        {"2014", failing({.function = Function::popen, .error = EMFILE}, long_program, "COMMAND")},
        {"2014/environment", no_shell_with_environment},
        {"4011", refused_words(std::string(1025, 'w'), "COMMAND")},
        {"4012", refused(std::string(1010, '\''), "COMMAND KORN")},
        {"2259", failing({.function = Function::calloc, .nth = 2, .error = ENOMEM}, "cat -u", "PROGRAM")},
        {"2282/first", failing({.function = Function::pipe, .error = EMFILE}, "cat", "PROGRAM")},
        {"2282/second", second_pipe_fails},
        {"2292", failing({.function = Function::fork, .error = EAGAIN}, "cat", "PROGRAM")},
        {"2320", failing(close_fails(1), "cat", "PROGRAM")},
        {"2325", failing(close_fails(2), "cat", "PROGRAM")},
        {"2325/both", failing(every_close_fails, "cat", "PROGRAM")},
        {"4021", refused_words(std::string(1025, 'w'), "PROGRAM")},
        {"4022", refused("  ", "PROGRAM")},
    };
}

Scenarios child_scenarios()
{
    static constexpr char discard[] = "PROGRAM STDERR=DISCARD";
    return {
        {"2340", in_child(close_fails(1))},
        {"2345", in_child(close_fails(2))},
        {"2345/both", in_child(every_close_fails)},
        {"2362", in_child(close_fails(3))},
        {"2368", in_child(dup_fails(1))},
        {"2374", in_child(close_fails(4))},
        {"2385", in_child(close_fails(5))},
        {"2391", in_child(dup_fails(2))},
        {"2397", in_child(close_fails(6))},
        {"2406", in_child(close_fails(7))},
        {"2415", in_child({.function = Function::open, .error = ENFILE}, discard)},
        {"2421", in_child(dup_fails(3), discard)},
        {"2428", in_child(close_fails(8), discard)},
        {"2438", in_child(dup_fails(3))},
    };
}
