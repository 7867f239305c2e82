// Measures one thing after the other in one process, interleaved and repeated; scripts/bench makes the table.
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench/rows.h"

namespace bench {

void give_up(const char* what)
{
    std::fprintf(stderr, "bench: %s\n", what);
    std::exit(1);
}

}  // namespace bench

namespace {

void make_resident(long mib)
{
    const auto bytes = static_cast<std::size_t>(mib) << 20;
    void* const memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) bench::give_up("no memory to be resident");
    madvise(memory, bytes, MADV_NOHUGEPAGE);  // as in a process that grew over months
    std::memset(memory, 1, bytes);
}

void allow_many_descriptors()
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv)
{
    allow_many_descriptors();
    if (const char* mib = std::getenv("ZT_BENCH_RESIDENT_MIB")) {
        make_resident(std::atol(mib));
        bench::register_launches_of_large_parent(std::atol(mib));
    } else {
        bench::register_launches();
        bench::register_transfers();
        bench::register_calls();
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
