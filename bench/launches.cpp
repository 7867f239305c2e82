// Starting children: one after the other, from a large parent, and a thousand at once.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <signal.h>
#include <unistd.h>
#include <zt/runtime/memory.h>
#include <zt/ztpipe.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

#include "bench/floor.h"
#include "bench/peers.h"
#include "bench/rows.h"

namespace bench {
namespace {

using Run = std::size_t (*)(const char* program, const char* argument);
using RunCommand = std::size_t (*)(const char* command);
using Clock = std::chrono::steady_clock;

int open(const char* program, const char* options, const char* const* words)
{
    zt::Status status;
    const int handle = ZT_PIPE_OPEN(program, options, words, nullptr, &status);
    if (handle < 0) give_up(status.what());
    return handle;
}

void close(int handle)
{
    zt::Status status;
    ZT_PIPE_CLOSE(handle, "", &status);
}

std::size_t read_to_end(int handle)
{
    zt::Status status;
    char* text;
    const int count = zt_pipe_read_unlimited(handle, &text, 0, nullptr, &status);
    if (count < 0) give_up(status.what());
    return static_cast<std::size_t>(count);
}

std::size_t run_zt(const char* program, const char* argument)
{
    const char* const words[] = {program, argument, nullptr};
    const int handle = open(program, "PROGRAM", words);
    const std::size_t count = read_to_end(handle);
    close(handle);
    return count;
}

std::size_t run_zt_command(const char* command)
{
    const int handle = open(command, "COMMAND STDERR=IGNORE", nullptr);
    const std::size_t count = read_to_end(handle);
    close(handle);
    return count;
}

void add(const std::string& row, const char* contestant, Run run, const std::string& bytes)
{
    const auto measure = [=](benchmark::State& state) {
        const std::string program = child("pours");
        for (auto _ : state)
            if (run(program.c_str(), bytes.c_str()) != std::stoul(bytes)) give_up("bytes are missing");
        state.SetBytesProcessed(state.iterations() * std::stol(bytes));
    };
    benchmark::RegisterBenchmark((row + "/" + contestant).c_str(), measure)->UseRealTime();
}

void add_python(const std::string& row, const std::string& bytes, int count)
{
    const auto measure = [=](benchmark::State& state) {
        for (auto _ : state)
            state.SetIterationTime(seconds_in_python(child("pours").c_str(), bytes.c_str(), count));
        state.SetBytesProcessed(state.iterations() * std::stol(bytes));
    };
    benchmark::RegisterBenchmark((row + "/python subprocess").c_str(), measure)
        ->UseManualTime()
        ->Iterations(1);
}

void add_peers(const std::string& row, const std::string& bytes)
{
    add(row, "boost v1", run_boost_v1, bytes);
    add(row, "boost v2", run_boost_v2, bytes);
    add(row, "boost v2 vfork", run_boost_v2_vfork, bytes);
    add(row, "pstreams", run_pstreams, bytes);
    add(row, "poco", run_poco, bytes);
    add(row, "glib", run_glib, bytes);
    add(row, "libuv", run_libuv, bytes);
}

void add_command(const char* contestant, RunCommand run)
{
    const auto measure = [=](benchmark::State& state) {
        const std::string command = child("pours") + " 100";
        for (auto _ : state)
            if (run(command.c_str()) != 100) give_up("bytes are missing");
    };
    benchmark::RegisterBenchmark((std::string("launch COMMAND/") + contestant).c_str(), measure)
        ->UseRealTime();
}

// What differs between the contestants of "children at once".
struct ByHand {
    using Handle = Child;
    static Child open(const std::string& program) { return start(Starter::fork, program.c_str(), ""); }
    static bool answers(const Child& child)
    {
        char byte;
        return write(child.to, "x", 1) == 1 && read(child.from, &byte, 1) == 1;
    }
    static void close(const Child& child)
    {
        kill(child.pid, SIGTERM);
        finish(child);
    }
};

struct ByZt {
    using Handle = int;
    static int open(const std::string& program)
    {
        const char* const words[] = {program.c_str(), "", nullptr};
        return bench::open(program.c_str(), "PROGRAM", words);
    }
    static bool answers(int handle)
    {
        zt::Status status;
        char byte;
        return zt_pipe_write(handle, "x", 1, &status) == 1 &&
               zt_pipe_read(handle, &byte, 1, nullptr, &status) == 1;
    }
    static void close(int handle) { bench::close(handle); }
};

template <class Step>
double seconds(Step step)
{
    const auto begin = Clock::now();
    step();
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// What one of the children of a round took.
struct Round {
    double opening, closing, kib;
};

// So many children open at once. Memory that was freed before is given back first: every fork would copy its
// pages. Before the closes every child has answered: what they measure is the end of programs, not the start.
template <class Contestant>
Round play(int count)
{
    malloc_trim(0);
    const std::string program = child("echoes");
    std::vector<typename Contestant::Handle> handles;
    handles.reserve(static_cast<std::size_t>(count));
    const int heap = zt_heapsize();
    Round round;
    round.opening = seconds([&] {
        for (int i = 0; i < count; ++i) handles.push_back(Contestant::open(program));
    });
    round.kib = (zt_heapsize() - heap) / 1024.0;
    for (const auto& handle : handles)
        if (!Contestant::answers(handle)) give_up("a child does not answer");
    round.closing = seconds([&] {
        for (const auto& handle : handles) Contestant::close(handle);
    });
    return {round.opening / count, round.closing / count, round.kib / count};
}

// The contestants' rounds, in turn, so that both meet the same machine. Four benchmarks take their figures
// from them; a round is played when it is first asked for.
class Rounds {
  public:
    explicit Rounds(int count) : count_(count) {}

    const Round& at(std::size_t number, bool by_zt)
    {
        while (by_zt_.size() <= number) {
            by_hand_.push_back(play<ByHand>(count_));
            by_zt_.push_back(play<ByZt>(count_));
        }
        return by_zt ? by_zt_[number] : by_hand_[number];
    }

  private:
    const int count_;
    std::vector<Round> by_hand_, by_zt_;
};

void add_at_once(int count)
{
    const auto rounds = std::make_shared<Rounds>(count);
    for (const bool opening : {true, false})
        for (const bool by_zt : {false, true}) {
            const auto measure = [=, next = std::size_t{0}](benchmark::State& state) mutable {
                for (auto _ : state) {
                    const Round& round = rounds->at(next++, by_zt);
                    state.SetIterationTime(opening ? round.opening : round.closing);
                    state.counters["KiB a pipe"] = round.kib;
                }
            };
            const std::string row = (opening ? "open one of " : "close one of ") + std::to_string(count);
            benchmark::RegisterBenchmark((row + (by_zt ? "/zt" : "/fork+exec")).c_str(), measure)
                ->UseManualTime()
                ->Iterations(2000 / count);
        }
}

}  // namespace

void register_launches()
{
    add("launch PROGRAM", "fork+exec", run<Starter::fork>, "100");
    add("launch PROGRAM", "vfork+exec", run<Starter::vfork>, "100");
    add("launch PROGRAM", "posix_spawn", run<Starter::spawn>, "100");
    add("launch PROGRAM", "zt", run_zt, "100");
    add_peers("launch PROGRAM", "100");
    add_python("launch PROGRAM", "100", 200);

    add_command("popen", run_popen);
    add_command("zt", run_zt_command);
    add_command("pstreams", run_pstreams_command);

    for (const char* mib : {"256", "512", "1024"}) {
        const std::string row = std::string("read everything, ") + mib + " MiB";
        const std::string bytes = std::to_string(std::stol(mib) << 20);
        add(row, "read loop", run<Starter::fork>, bytes);
        add(row, "zt", run_zt, bytes);
        if (mib == std::string("512")) continue;
        add_peers(row, bytes);
        add_python(row, bytes, 1);
    }
    for (const int count : {250, 500, 1000}) add_at_once(count);
}

void register_launches_of_large_parent(long mib)
{
    const std::string row = "launch PROGRAM, " + std::to_string(mib) + " MiB resident";
    add(row, "vfork+exec", run<Starter::vfork>, "100");
    add(row, "fork+exec", run<Starter::fork>, "100");
    add(row, "zt", run_zt, "100");
    add_peers(row, "100");
}

}  // namespace bench
