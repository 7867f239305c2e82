// Writing to a child and reading from it: calls that fail, come back empty-handed or are interrupted.
#include <signal.h>
#include <zt/runtime/memory.h>

#include <climits>

#include "tests/conformance/firing.h"
#include "tests/support/pipes.h"

using faults::Fault;
using faults::Function;

namespace {

constexpr int retry_budget = 5;
constexpr char command_to_read[] = "COMMAND";
constexpr char command_to_write[] = "COMMAND WRITE";
constexpr char program[] = "PROGRAM";

/// What a child is used for until the call that fails, and that call.
struct Transfer {
    const char* child;
    const char* options;
    void (*call)(Firing&, int handle);
};

/// Some sites report whatever `errno` holds: this, so that the row can name it.
constexpr int left_over_errno = EDOM;

Scenario failing(const Transfer& transfer, Fault fault)
{
    return [=](Firing& firing) {
        const int handle = pipes::open(transfer.child, transfer.options);
        with_faults({fault}, [&] {
            errno = left_over_errno;
            transfer.call(firing, handle);
        });
        pipes::close(handle, transfer.options == program ? "NOKILL" : "");
    };
}

/// An attempt that is interrupted for good after all retries.
Scenario spent(const Transfer& transfer, Function function)
{
    const Scenario scenario = failing(transfer, {.function = function, .from_then_on = true, .error = EINTR});
    return [=](Firing& firing) {
        scenario(firing);
        EXPECT_EQ(faults::calls(function), 1 + retry_budget);
        EXPECT_EQ(faults::calls(Function::clearerr), function == Function::fread ? retry_budget : 0);
    };
}

/// The three ways in which a failed call counts as interrupted: by errno, by the other errno, by the latch.
void add_interrupted(Scenarios& scenarios, const std::string& line, const Transfer& transfer,
                     Function function)
{
    scenarios[line + "/again"] = failing(transfer, {.function = function, .error = EAGAIN});
    scenarios[line + "/pending"] = failing(transfer, {.function = function, .error = EIO, .raising = SIGINT});
}

void write(Firing& firing, int handle)
{
    firing.write(handle, "x", 1);
}

// -------------------------------------------------------------------------------------------------- reading

/// The lines of the sites that the two reads have each for itself.
struct ReadLines {
    const char *stream_interrupted, *stream_failed, *stream_empty;
    const char *read_interrupted, *read_failed, *not_collected, *interrupted_at_exit;
};

void add_reads(Scenarios& scenarios, const ReadLines& line, void (*read)(Firing&, int))
{
    const Transfer stream{"true", command_to_read, read};
    const Transfer descriptor{"true", program, read};
    scenarios[line.stream_interrupted + std::string("/spent")] = spent(stream, Function::fread);
    add_interrupted(scenarios, line.stream_interrupted, stream, Function::fread);
    scenarios[line.stream_failed] = failing(stream, {.function = Function::fread, .error = EIO});
    scenarios[line.stream_empty] =
        failing(stream, {.function = Function::fread, .from_then_on = true, .result = 0});
    scenarios[line.read_interrupted + std::string("/spent")] = spent(descriptor, Function::read);
    add_interrupted(scenarios, line.read_interrupted, descriptor, Function::read);
    scenarios[line.read_failed] = failing(descriptor, {.function = Function::read, .error = EIO});
    scenarios[line.read_failed + std::string("/no_child")] = [=](Firing& firing) {
        read(firing, Childless());
    };
    // The wait claims to have found something, but leaves the word that says "not collected".
    scenarios[line.not_collected] = failing(descriptor, {.function = Function::waitpid, .result = 1});
    scenarios[line.interrupted_at_exit] = failing(stream, {.function = Function::fread, .raising = SIGINT});
}

/// The buffer that the pipe lets go of is the caller's, who may still be reading in it.
void buffer_lost_by_growth(Firing& firing)
{
    zt::Status status;
    char* text = nullptr;
    const Childless handle;
    zt_pipe_read_unlimited(handle, &text, 0, nullptr, &status);  // takes the first buffer, reads nothing
    ASSERT_NE(text, nullptr);
    with_faults({{.function = Function::realloc, .error = ENOMEM}},
                [&] { firing.read_unlimited(handle, 1); });
    if (zt_heapsize() == firing.heap && pipes::block(handle)->buffer_size == 0) firing.left = "buffer";
    zt_mem_ifree(2, text, __FILE__, __LINE__);
}

void no_first_buffer(Firing& firing)
{
    const Childless handle;
    with_faults({{.function = Function::realloc, .error = ENOMEM}}, [&] { firing.read_unlimited(handle); });
}

}  // namespace

Scenarios write_scenarios()
{
    const Transfer stream{"cat", command_to_write, write};
    const Transfer descriptor{"cat", program, write};
    Scenarios scenarios{
        {"3207", [](Firing& firing) { firing.write(Childless(), nullptr, 1); }},
        {"3227/interrupted", failing(stream, {.function = Function::fwrite, .error = EINTR})},
        {"3231", failing(stream, {.function = Function::fwrite, .error = EIO})},
        {"3244/interrupted", failing(descriptor, {.function = Function::write, .error = EINTR})},
        {"3267", failing(descriptor, {.function = Function::write, .error = EIO})},
        {"3267/no_child", [](Firing& firing) { write(firing, Childless()); }},
        {"3278", failing(descriptor, {.function = Function::write, .raising = SIGINT})},
        {"4031", [](Firing& firing) { firing.write(Childless(), "x", -1); }},
    };
    add_interrupted(scenarios, "3227", stream, Function::fwrite);
    add_interrupted(scenarios, "3244", descriptor, Function::write);
    return scenarios;
}

Scenarios read_scenarios()
{
    Scenarios scenarios{
        {"2824", [](Firing& firing) { firing.read_without_buffer(Childless()); }},
        {"4041", [](Firing& firing) { firing.read(Childless(), -1); }},
        {"3013", [](Firing& firing) { firing.read_unlimited_without_result(Childless()); }},
        {"3035/first", no_first_buffer},
        {"3035/again", buffer_lost_by_growth},
        {"4051", [](Firing& firing) { firing.read_unlimited(Childless(), -1); }},
        {"4052", [](Firing& firing) { firing.read_unlimited(Childless("READSIZE=none")); }},
        {"4053", [](Firing& firing) { firing.read_unlimited(Childless(), INT_MAX - 32768); }},
    };
    add_reads(scenarios, {"2861", "2866", "2880", "2901", "2906", "2920", "2944"},
              [](Firing& firing, int handle) { firing.read(handle, 8); });
    add_reads(scenarios, {"3059", "3064", "3078", "3099", "3104", "3118", "3140"},
              [](Firing& firing, int handle) { firing.read_unlimited(handle); });
    return scenarios;
}
