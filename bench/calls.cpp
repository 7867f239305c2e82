// The cost of one call: small writes, a request with its reply, the interrupt latch and the trace calls by
// themselves.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>
#include <zt/runtime/interrupt.h>

#include "bench/floor.h"
#include "bench/library.h"
#include "bench/rows.h"

namespace bench {
namespace {

char line[] = "0123456789012345678901234567890\n";
constexpr int line_length = sizeof line - 1;

void latch()
{
    zt_sys_arm_interrupt();
    benchmark::DoNotOptimize(zt_sys_poll_interrupt(1));
    zt_sys_disarm_interrupt();
}

// Child and parent on one processor: what is measured is the work, not where the scheduler puts the two.
class OneProcessor {
  public:
    OneProcessor()
    {
        sched_getaffinity(0, sizeof before_, &before_);
        cpu_set_t first;
        CPU_ZERO(&first);
        CPU_SET(0, &first);
        sched_setaffinity(0, sizeof first, &first);
    }
    ~OneProcessor() { sched_setaffinity(0, sizeof before_, &before_); }
    OneProcessor(const OneProcessor&) = delete;
    OneProcessor& operator=(const OneProcessor&) = delete;

  private:
    cpu_set_t before_;
};

void write_by_hand(benchmark::State& state, bool with_latch)
{
    const Child child = start(Starter::fork, bench::child("swallows").c_str(), "");
    for (auto _ : state) {
        if (write(child.to, "x", 1) != 1) give_up("write");
        if (with_latch) latch();
    }
    finish(child);
}

int open(const Library& zt, const char* name)
{
    zt::Status status;
    const int handle = zt.open(child(name).c_str(), "PROGRAM", nullptr, nullptr, &status, __FILE__, __LINE__);
    if (handle < 0) give_up(status.what());
    return handle;
}

void close(const Library& zt, int handle)
{
    zt::Status status;
    zt.close(handle, "", &status, __FILE__, __LINE__);
}

void write_by_zt(benchmark::State& state, const Library& zt)
{
    const int handle = open(zt, "swallows");
    zt::Status status;
    for (auto _ : state)
        if (zt.write(handle, "x", 1, &status) != 1) give_up(status.what());
    close(zt, handle);
}

void converse_by_hand(benchmark::State& state, bool with_latch)
{
    const OneProcessor here;
    const Child child = start(Starter::fork, bench::child("echoes").c_str(), "");
    char reply[line_length];
    for (auto _ : state) {
        if (write(child.to, line, line_length) != line_length) give_up("write");
        if (with_latch) latch();
        if (read(child.from, reply, line_length) != line_length) give_up("read");
        if (with_latch) latch();
    }
    finish(child);
}

void converse_by_zt(benchmark::State& state, const Library& zt)
{
    const OneProcessor here;
    const int handle = open(zt, "echoes");
    zt::Status status;
    char reply[line_length];
    for (auto _ : state) {
        if (zt.write(handle, line, line_length, &status) != line_length) give_up(status.what());
        if (zt.read(handle, reply, line_length, "\n", &status) != line_length) give_up(status.what());
    }
    close(zt, handle);
}

void launch_by_zt(benchmark::State& state, const Library& zt)
{
    zt::Status status;
    char block[128];
    for (auto _ : state) {
        const int handle = open(zt, "pours 100");
        while (zt.read(handle, block, sizeof block, nullptr, &status) > 0) {
        }
        close(zt, handle);
    }
}

void two_sigactions(benchmark::State& state)
{
    struct sigaction action = {}, before;
    action.sa_handler = [](int) {};
    for (auto _ : state) {
        sigaction(SIGINT, &action, &before);
        sigaction(SIGINT, &before, nullptr);
    }
}

void two_masks_and_a_look(benchmark::State& state)
{
    sigset_t sigint, before, pending;
    sigemptyset(&sigint);
    sigaddset(&sigint, SIGINT);
    for (auto _ : state) {
        sigprocmask(SIG_BLOCK, &sigint, &before);
        sigpending(&pending);
        sigprocmask(SIG_SETMASK, &before, nullptr);
    }
}

template <class Function>
void add(const std::string& name, Function function)
{
    benchmark::RegisterBenchmark(name.c_str(), function)->UseRealTime();
}

// Trace flags are off unless the environment says otherwise. The difference is small: one processor keeps the
// figures together.
void add_with_tracing_off(const std::string& contestant, const Library& zt)
{
    const auto add_row = [&](const std::string& what, void (*measure)(benchmark::State&, const Library&)) {
        add("tracing off, " + what + "/" + contestant, [=](benchmark::State& state) {
            const OneProcessor here;
            measure(state, zt);
        });
    };
    add_row("write of 1 byte", write_by_zt);
    add_row("request and reply", converse_by_zt);
    add_row("launch PROGRAM", launch_by_zt);
}

}  // namespace

void register_calls()
{
    add("write of 1 byte/write", [](benchmark::State& state) { write_by_hand(state, false); });
    add("write of 1 byte/write + latch", [](benchmark::State& state) { write_by_hand(state, true); });
    add("write of 1 byte/zt", [](benchmark::State& state) { write_by_zt(state, linked); });
    add("request and reply/write + read", [](benchmark::State& state) { converse_by_hand(state, false); });
    add("request and reply/write + read + latch",
        [](benchmark::State& state) { converse_by_hand(state, true); });
    add("request and reply/zt", [](benchmark::State& state) { converse_by_zt(state, linked); });
    add_with_tracing_off("without trace calls", load(ZT_BENCH_UNTRACED));
    add_with_tracing_off("zt", load(ZT_BENCH_SHARED));
    add("latch/arm, poll, disarm", [](benchmark::State& state) {
        for (auto _ : state) latch();
    });
    add("latch/two sigaction calls", two_sigactions);
    add("latch/blocking and looking", two_masks_and_a_look);
}

}  // namespace bench
