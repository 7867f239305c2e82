// Asking for a child's end, closing, the debug options.
#include <signal.h>
#include <sys/wait.h>

#include "tests/conformance/firing.h"
#include "tests/support/pipes.h"

using faults::Fault;
using faults::Function;

namespace {

constexpr Fault wait_fails{.function = Function::waitpid, .error = EINVAL};
constexpr Fault wait_finds_it_running{.function = Function::waitpid, .result = 0};

Scenario poll_with(Fault fault, bool wait)
{
    return [=](Firing& firing) {
        const int handle = pipes::open("cat");
        with_faults({fault}, [&] { firing.poll(handle, wait); });
        pipes::close(handle);
    };
}

// At the end of its output the child's end is waited for.
Scenario read_to_end_with(Fault fault)
{
    return [=](Firing& firing) {
        const int handle = pipes::open("true");
        with_faults({fault}, [&] { firing.read(handle, 8); });
        pipes::close(handle, "NOKILL");
    };
}

// After a failed write it is asked how the child does.
void poll_fails_after_write(Firing& firing)
{
    const int handle = pipes::open("cat");
    with_faults({{.function = Function::write, .error = EIO}, wait_fails},
                [&] { firing.write(handle, "x", 1); });
    pipes::close(handle);
}

Scenario close_with(Fault fault, const char* program, const char* open_options, const char* options)
{
    return [=](Firing& firing) {
        const int handle = pipes::open(program, open_options);
        with_faults({fault}, [&] {
            errno = EDOM;
            firing.close(handle, options);
        });
        EXPECT_EQ(pipes::block(handle), nullptr) << "released all the same";
    };
}

// The pipe stays open when its options are refused.
Scenario close_refused(const char* open_options, std::string options)
{
    return [=](Firing& firing) {
        const int handle = pipes::open("true", open_options);
        firing.close(handle, options.c_str());
        EXPECT_NE(pipes::block(handle), nullptr);
        pipes::close(handle);
    };
}

void close_without_options(Firing& firing)
{
    const Childless handle;
    firing.close(handle, nullptr);
}

// The wait that follows the failed kill ends, because cat ends when its input does.
void kill_fails(Firing& firing)
{
    const int handle = pipes::open("cat");
    with_faults({wait_finds_it_running, {.function = Function::kill, .error = EPERM}},
                [&] { firing.close(handle); });
}

void killed(Firing& firing)
{
    firing.close(pipes::open("sleep 60"));
}

void killed_and_not_waited_for(Firing& firing)
{
    const int handle = pipes::open("sleep 60");
    const pid_t pid = pipes::block(handle)->pid;
    firing.close(handle, "NOWAIT");
    int wait_status = 0;
    EXPECT_EQ(waitpid(pid, &wait_status, 0), pid) << "the child stays ours to collect";
    EXPECT_EQ(wait_status, SIGTERM);
}

Scenario configured(std::string options)
{
    return [=](Firing& firing) { firing.configure(options.c_str()); };
}

}  // namespace

Scenarios status_scenarios()
{
    return {
        {"1490", poll_with(wait_fails, false)},
        {"1490/read", read_to_end_with(wait_fails)},
        {"1490/write", poll_fails_after_write},
        {"1502", poll_with(wait_finds_it_running, true)},
        {"1502/read", read_to_end_with(wait_finds_it_running)},
    };
}

Scenarios close_scenarios()
{
    const auto close_fails = [](int nth) {
        return Fault{.function = Function::close, .nth = nth, .error = EIO};
    };
    constexpr Fault every_close_fails{.function = Function::close, .from_then_on = true, .error = EINTR};
    return {
        {"3342/unknown", close_refused("PROGRAM", "NOWAIT BOGUS")},
        {"3342/twice", close_refused("PROGRAM", "NOWAIT NOWAIT")},
        {"3342/value", close_refused("PROGRAM", "NOKILL=yes")},
        {"3342/quote", close_refused("PROGRAM", "NOKILL='yes")},
        {"3540", close_refused("COMMAND", "NOWAIT")},
        {"3576", close_with({.function = Function::pclose, .error = EIO}, "true", "COMMAND", "")},
        {"3582", close_with({.function = Function::pclose, .result = 127}, "true", "COMMAND", "")},
        {"3601", close_with(close_fails(1), "cat", "PROGRAM", "NOKILL")},
        {"3609", close_with(close_fails(2), "cat", "PROGRAM", "NOKILL")},
        {"3609/both", close_with(every_close_fails, "cat", "PROGRAM", "NOKILL")},
        {"3636", kill_fails},
        {"3647", killed},
        {"3647/no_wait", killed_and_not_waited_for},
        {"3694", close_with({.function = Function::pclose, .raising = SIGINT}, "true", "COMMAND", "")},
        {"4061", close_without_options},
        {"4062", close_refused("PROGRAM", std::string(257, ' '))},
    };
}

Scenarios debug_scenarios()
{
    Scenarios scenarios{
        {"655", [](Firing& firing) { firing.configure(nullptr); }},
        {"660", configured(std::string(257, ' '))},
        {"669/unknown", configured("PARMS BOGUS")},
        {"669/twice", configured("PARMS PARMS")},
        {"669/no_value", configured("PARMS=")},
        {"669/value", configured("OFF=yes")},
        {"669/quote", configured("PARMS='read")},
        {"697", configured("OFF MEMORY PARMS")},
        {"4071", [](Firing& firing) { firing.report_settings_nowhere(); }},
    };
    const struct {
        std::string keyword, misplaced_not, unknown_category;
    } flags[] = {{"PARMS", "721", "742"}, {"CLOCKS", "777", "798"},     {"CTRLBLKS", "832", "853"},
                 {"DEBUG", "887", "908"}, {"EXCEPTIONS", "942", "963"}, {"MEMORY", "998", "1019"}};
    for (const auto& flag : flags) {
        scenarios[flag.misplaced_not] = configured(flag.keyword + "='read,not'");
        scenarios[flag.unknown_category] = configured(flag.keyword + "='write zt_pipe_rd'");
    }
    return scenarios;
}
