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

bool answers(const Child& child)
{
    char byte;
    return write(child.to, "x", 1) == 1 && read(child.from, &byte, 1) == 1;
}

bool answers(int handle)
{
    zt::Status status;
    char byte;
    return zt_pipe_write(handle, "x", 1, &status) == 1 &&
           zt_pipe_read(handle, &byte, 1, nullptr, &status) == 1;
}

template <class Step>
double seconds(Step step)
{
    const auto begin = Clock::now();
    step();
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// What the opens and the closes of a round took, by hand and by zt.
struct Round {
    double opening[2] = {}, closing[2] = {};
    double bytes = 0;
};

// So many children open at once, one by hand and one by zt in turn, so that both meet the same machine.
// Memory that was freed before is given back first: every fork would copy its pages. Before the closes every
// child has answered: what they measure is the end of programs, not the start.
Round play_round(int pairs)
{
    malloc_trim(0);
    const std::string program = child("echoes");
    const char* const words[] = {program.c_str(), "", nullptr};
    std::vector<Child> children(static_cast<std::size_t>(pairs));
    std::vector<int> handles(children.size());
    Round round;
    const int heap = zt_heapsize();
    for (std::size_t i = 0; i < handles.size(); ++i) {
        round.opening[0] += seconds([&] { children[i] = start(Starter::fork, words[0], words[1]); });
        round.opening[1] += seconds([&] { handles[i] = open(words[0], "PROGRAM", words); });
    }
    round.bytes = zt_heapsize() - heap;
    for (std::size_t i = 0; i < handles.size(); ++i)
        if (!answers(children[i]) || !answers(handles[i])) give_up("a child does not answer");
    for (std::size_t i = 0; i < handles.size(); ++i) {
        round.closing[0] += seconds([&] {
            kill(children[i].pid, SIGTERM);
            finish(children[i]);
        });
        round.closing[1] += seconds([&] { close(handles[i]); });
    }
    return round;
}

// Four benchmarks take their figures from the same rounds; one is played when it is first asked for.
class Rounds {
  public:
    explicit Rounds(int pairs) : pairs_(pairs) {}

    const Round& at(std::size_t number)
    {
        while (played_.size() <= number) played_.push_back(play_round(pairs_));
        return played_[number];
    }

  private:
    const int pairs_;
    std::vector<Round> played_;
};

void add_at_once(int count)
{
    const int pairs = count / 2;
    const auto rounds = std::make_shared<Rounds>(pairs);
    for (const bool opening : {true, false}) {
        for (const int contestant : {0, 1}) {
            const auto measure = [=, next = std::size_t{0}](benchmark::State& state) mutable {
                for (auto _ : state) {
                    const Round& round = rounds->at(next++);
                    state.SetIterationTime((opening ? round.opening : round.closing)[contestant] / pairs);
                    state.counters["KiB a pipe"] = round.bytes / 1024 / pairs;
                }
            };
            const std::string row = (opening ? "open one of " : "close one of ") + std::to_string(count);
            benchmark::RegisterBenchmark((row + (contestant == 0 ? "/fork+exec" : "/zt")).c_str(), measure)
                ->UseManualTime()
                ->Iterations(4000 / count);
        }
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
