// Moving bytes: bulk reads and writes in a caller's buffer.
#include <benchmark/benchmark.h>
#include <unistd.h>
#include <zt/ztpipe.h>

#include "bench/floor.h"
#include "bench/rows.h"

namespace bench {
namespace {

constexpr std::size_t block_size = 65536;
char block[block_size];

std::size_t read_by_hand(const std::string& bytes)
{
    const Child child = start(Starter::fork, bench::child("pours").c_str(), bytes.c_str());
    std::size_t total = 0;
    for (ssize_t count; (count = read(child.from, block, block_size)) > 0;)
        total += static_cast<std::size_t>(count);
    finish(child);
    return total;
}

std::size_t write_by_hand(const std::string& bytes)
{
    const Child child = start(Starter::fork, bench::child("swallows").c_str(), "");
    const std::size_t wanted = std::stoul(bytes);
    std::size_t total = 0;
    while (total < wanted && write(child.to, block, block_size) == static_cast<ssize_t>(block_size))
        total += block_size;
    finish(child);
    return total;
}

std::size_t read_by_zt(const std::string& bytes)
{
    zt::Status status;
    const int handle =
        ZT_PIPE_OPEN((child("pours") + " " + bytes).c_str(), "PROGRAM", nullptr, nullptr, &status);
    std::size_t total = 0;
    for (int count; (count = zt_pipe_read(handle, block, block_size, nullptr, &status)) > 0;)
        total += static_cast<std::size_t>(count);
    ZT_PIPE_CLOSE(handle, "", &status);
    return total;
}

std::size_t write_by_zt(const std::string& bytes)
{
    zt::Status status;
    const int handle = ZT_PIPE_OPEN(child("swallows").c_str(), "PROGRAM", nullptr, nullptr, &status);
    const std::size_t wanted = std::stoul(bytes);
    std::size_t total = 0;
    while (total < wanted && zt_pipe_write(handle, block, block_size, &status) > 0) total += block_size;
    ZT_PIPE_CLOSE(handle, "NOKILL", &status);
    return total;
}

void add(const std::string& row, const char* contestant, std::size_t (*move)(const std::string&), long mib)
{
    const auto measure = [=](benchmark::State& state) {
        const std::string bytes = std::to_string(mib << 20);
        for (auto _ : state)
            if (move(bytes) != std::stoul(bytes)) give_up("bytes are missing");
        state.SetBytesProcessed(state.iterations() * (mib << 20));
    };
    const std::string name = row + ", " + std::to_string(mib) + " MiB/" + contestant;
    benchmark::RegisterBenchmark(name.c_str(), measure)->UseRealTime();
}

}  // namespace

void register_transfers()
{
    for (const long mib : {256, 512, 1024}) {
        add("bounded reads of 64 KiB", "read loop", read_by_hand, mib);
        add("bounded reads of 64 KiB", "zt", read_by_zt, mib);
        add("writes of 64 KiB", "write loop", write_by_hand, mib);
        add("writes of 64 KiB", "zt", write_by_zt, mib);
    }
}

}  // namespace bench
