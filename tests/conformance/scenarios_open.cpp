// What an open refuses, and what it lacks.
#include <signal.h>

#include "tests/conformance/firing.h"

using faults::Function;

namespace {

Scenario refused(std::string program, std::string options)
{
    return [=](Firing& firing) { firing.open(program.c_str(), options.c_str()); };
}

Scenario short_of_memory(int nth_allocation, const char* const* envp)
{
    return [=](Firing& firing) {
        with_faults({{.function = Function::calloc, .nth = nth_allocation, .error = ENOMEM}},
                    [&] { firing.open("cat", "PROGRAM MERGE_ENV", nullptr, envp); });
    };
}

Scenario interrupted_in(Function function, const char* options)
{
    return [=](Firing& firing) {
        with_faults({{.function = function, .raising = SIGINT}}, [&] { firing.open("cat", options); });
    };
}

const char* const environment[] = {"ZT_TEST_VARIABLE=1", nullptr};
const char* const no_words[] = {nullptr};

// As the exit of another thread does it in the middle of an open.
void take_out(int)
{
    Zt_pipes[1] = nullptr;
    --Zt_used_pipes;
}

void taken_out_by_an_exit(Firing& firing)
{
    signal(SIGUSR1, take_out);
    with_faults({{.function = Function::calloc, .nth = 2, .raising = SIGUSR1}},
                [&] { firing.open("cat", "", nullptr, environment); });
    signal(SIGUSR1, SIG_DFL);
}

}  // namespace

Scenarios open_scenarios()
{
    const std::string too_long_name(33, 'n');
    return {
        {"2544", [](Firing& firing) { firing.open(nullptr, "PROGRAM"); }},
        {"2549", refused(std::string(1025, 'p'), "PROGRAM")},
        {"2559", short_of_memory(1, environment)},
        {"2584/unknown", refused("cat", "PROGRAM BOGUS")},
        {"2584/twice", refused("cat", "COMMAND KORN KORN")},
        {"2584/group", refused("cat", "PROGRAM COMMAND")},
        {"2584/no_value", refused("cat", "COMMAND STDERR")},
        {"2584/value", refused("cat", "COMMAND KORN=yes")},
        {"2584/quote", refused("cat", "COMMAND USERNAME='me")},
        {"2592", refused("cat", "COMMAND WRITE STDERR=DISCARD")},
        {"2592/program", refused("cat", "PROGRAM WRITE STDERR=DISCARD PASSWORD=p")},
        {"2599", refused("cat", "PROGRAM READ PASSWORD=p")},
        {"2617/read", refused("cat", "PROGRAM KORN READ")},
        {"2617/write", refused("cat", "PROGRAM $POPEN WRITE")},
        {"2617/korn", refused("cat", "PROGRAM $POPEN KORN STDERR=elsewhere")},
        {"2617/popen", refused("cat", "PROGRAM $POPEN")},
        {"2671", refused("cat", "PROGRAM STDERR=elsewhere")},
        {"2685", refused("", "PROGRAM MERGE_ENV")},
        {"2691", refused("", "PROGRAM")},
        {"2734", short_of_memory(2, environment)},
        {"2762", interrupted_in(Function::calloc, "")},
        {"2762/launched", interrupted_in(Function::fork, "PROGRAM")},
        {"4001", [](Firing& firing) { firing.open("cat", nullptr); }},
        {"4002", refused("cat", std::string(257, ' '))},
        {"4003", refused("cat", "PROGRAM USERNAME=" + too_long_name)},
        {"4004", refused("cat", "PROGRAM USERNAME=u PASSWORD=" + too_long_name)},
        {"4006", taken_out_by_an_exit},
        {"4005", [](Firing& firing) { firing.open("cat", "PROGRAM", no_words); }},
    };
}
