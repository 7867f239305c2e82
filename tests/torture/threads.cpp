// Many threads with pipes of mixed kinds at once, one that looks up handles that name none, and first opens
// that race.
#include <unistd.h>

#include <barrier>
#include <cstdio>
#include <mutex>
#include <set>
#include <thread>

#include "tests/torture/process.h"
#include "tests/torture/work.h"

namespace torture {
namespace {

constexpr Seconds race_ends_within = 30;

// Out of range in both directions, and numbers that no thread gets as far as.
constexpr int bad_handles[] = {0, -1, -2147483647, 100000, 2147483647};

void look_up_bad_handles(const std::atomic<bool>& over, Report& report)
{
    zt::Status status;
    char byte;
    while (!over) {
        for (const int handle : bad_handles) {
            if (zt_pipe_read(handle, &byte, 1, nullptr, &status) != -1 || status.code != ZT_PIPE_E_HANDLE)
                report.fail("handle %d: %s", handle, status.what());
            report.count("bad_lookups");
        }
    }
}

void run_workers(const Settings& settings, Report& report)
{
    std::atomic<long> cycles{0};
    std::atomic<bool> over{false};
    std::thread bad{[&] { look_up_bad_handles(over, report); }};
    std::vector<std::thread> threads;
    for (int i = 0; i < settings.threads; ++i)
        threads.emplace_back([&, i] {
            Worker worker{settings.seed + static_cast<std::uint64_t>(i), cycles};
            for (Rounds rounds{settings}; rounds.more();) worker.cycle();
            if (!worker.complaint().empty()) report.fail("thread %d: %s", i, worker.complaint().c_str());
        });
    for (std::thread& thread : threads) thread.join();
    over = true;
    bad.join();
    report.figure("cycles", static_cast<double>(cycles));
}

void check_nothing_left(const Resources& before, Report& report)
{
    const Resources after = Resources::now();
    if (after.descriptors != before.descriptors)
        report.fail("%d descriptors, before %d", after.descriptors, before.descriptors);
    if (after.children != 0) report.fail("%d children are left", after.children);
    report.figure("descriptors_more", after.descriptors - before.descriptors);
    report.figure("children_left", after.children);
}

void many_threads(const Settings& settings, Report& report)
{
    zt::Status status;
    ZT_PIPE_CLOSE(open_pipe("no child", "", status), "", &status);
    const Resources before = Resources::now();
    run_workers(settings, report);
    check_nothing_left(before, report);
}

// All threads make their first open at the same moment: the module sets itself up once, each has its handle.
void first_open_race(int threads, Report& report)
{
    std::barrier start(threads);
    std::mutex lock;
    std::set<int> handles;
    std::vector<std::thread> racers;
    for (int i = 0; i < threads; ++i)
        racers.emplace_back([&] {
            zt::Status status;
            start.arrive_and_wait();
            const int handle = open_pipe("no child", "", status);
            if (handle < 1) report.fail("first open: %s", status.what());
            const std::lock_guard guard(lock);
            if (!handles.insert(handle).second) report.fail("handle %d was given twice", handle);
        });
    for (std::thread& racer : racers) racer.join();
    for (const int handle : handles) {
        zt::Status status;
        if (ZT_PIPE_CLOSE(handle, "", &status) != 0) report.fail("close %d: %s", handle, status.what());
    }
}

}  // namespace

void torture_threads(const Settings& settings, Report& report)
{
    constexpr int races_of_a_run = 100;
    for (Rounds races{races_of_a_run, settings.seconds / 4 + 1}; races.more();) {
        run_apart(report, "first open race", race_ends_within,
                  [&] { first_open_race(settings.threads, report); });
        report.count("first_open_races");
    }
    report.figure("threads", settings.threads);
    run_apart(report, "many threads", settings.seconds + 120.0, [&] { many_threads(settings, report); });
}

}  // namespace torture
