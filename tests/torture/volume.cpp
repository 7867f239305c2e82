// Many pipes one after the other, many at once, and as many bytes as a count can hold.
#include <sys/resource.h>
#include <unistd.h>
#include <zt/runtime/memory.h>

#include <climits>
#include <cstdlib>
#include <vector>

#include "tests/torture/process.h"
#include "tests/torture/work.h"

namespace torture {
namespace {

constexpr long resident_may_grow_kib = 4096;
constexpr long rounds_before_measuring = 200;
constexpr long full_size_count = 100000;
constexpr int most_pipes_at_once = 1000;

void expect(Report& report, bool held, const char* what, zt::Status& status)
{
    if (!held) report.fail("%s: %s", what, status.what());
}

void one_cycle(long number, Report& report)
{
    zt::Status status;
    char text[8];
    const bool command = number % 2 == 1;
    const int handle = open_pipe(command ? "echo hello" : child("prints_then_exits") + " 0 hello\n",
                                 command ? "COMMAND" : "PROGRAM", status);
    if (handle < 0) return report.fail("open: %s", status.what());
    const int count = zt_pipe_read(handle, text, sizeof text, nullptr, &status);
    expect(report, count >= 5, "read", status);
    expect(report, ZT_PIPE_CLOSE(handle, "", &status) == 0, "close", status);
}

void cycles(const Settings& settings, Report& report)
{
    for (long i = 0; i < rounds_before_measuring && i < settings.count; ++i) one_cycle(i, report);
    const Resources before = Resources::now();
    Rounds rounds{settings};
    while (rounds.more()) one_cycle(rounds.done(), report);
    const Resources after = Resources::now();
    report.figure("cycles", static_cast<double>(rounds.done()));
    report.figure("heap_more", after.heap - before.heap);
    report.figure("descriptors_more", after.descriptors - before.descriptors);
    report.figure("children_left", after.children);
    report.figure("resident_more_kib", static_cast<double>(after.resident_kib - before.resident_kib));
    if (after.heap != before.heap) report.fail("heap %d, before %d", after.heap, before.heap);
    if (after.descriptors != before.descriptors)
        report.fail("%d descriptors, before %d", after.descriptors, before.descriptors);
    if (after.children != 0) report.fail("%d children are left", after.children);
    if (after.resident_kib > before.resident_kib + resident_may_grow_kib)
        report.fail("%ld KiB resident, before %ld", after.resident_kib, before.resident_kib);
}

void allow_descriptors()
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// Each child answers while all the others are there too.
void at_once(int pipes, Report& report)
{
    allow_descriptors();
    const Resources before = Resources::now();
    std::vector<int> handles;
    zt::Status status;
    for (int i = 0; i < pipes; ++i) {
        const int handle = open_pipe("cat", "PROGRAM", status);
        if (handle < 0) {
            report.fail("pipe %d: %s", i, status.what());
            break;
        }
        handles.push_back(handle);
    }
    report.figure("pipes_at_once", static_cast<double>(handles.size()));
    for (const int handle : handles) {
        char text[5];
        expect(report,
               zt_pipe_write(handle, "hello", 5, &status) == 5 && read_exactly(handle, text, 5, status),
               "exchange", status);
    }
    for (const int handle : handles) {
        // A child whose input nobody else holds open may end with it before the signal comes.
        const int code = ZT_PIPE_CLOSE(handle, "", &status);
        expect(report, code == 0 || code == static_cast<int>(ZT_PIPE_S_ABNORMAL), "close", status);
    }
    const Resources after = Resources::now();
    // The first open makes the handle table, which stays and has grown.
    if (zt_heapsize_class(2) != 0) report.fail("%ld bytes of pipes are left", zt_heapsize_class(2));
    if (after.descriptors != before.descriptors || after.children != 0)
        report.fail("%d descriptors (before %d), %d children", after.descriptors, before.descriptors,
                    after.children);
}

void close_normal(int handle, Report& report)
{
    zt::Status status;
    ZT_PIPE_CLOSE(handle, "", &status);
    if (zt_heapsize_class(2) != 0) report.fail("%ld bytes of pipes are left", zt_heapsize_class(2));
}

// The last count that fits, then one more: the bytes that came are delivered with 10021 as the warning.
void to_the_end_of_the_count(Report& report)
{
    constexpr int nearly_all = INT_MAX - 200000;
    zt::Status status;
    char* text = nullptr;
    int handle = open_pipe("head -c " + std::to_string(nearly_all) + " /dev/zero", "PROGRAM", status);
    int count = zt_pipe_read_unlimited(handle, &text, 0, nullptr, &status);
    expect(report, count == nearly_all && status.code == 0, "2 GiB less a little", status);
    report.figure("unlimited_bytes", count);
    close_normal(handle, report);

    handle = open_pipe("head -c 3000000000 /dev/zero", "PROGRAM", status);
    count = zt_pipe_read_unlimited(handle, &text, 0, nullptr, &status);
    expect(report, count > INT_MAX - 100000 && status.subcode == ZT_PIPE_E_NOMEM, "beyond the count", status);
    expect(report, text != nullptr && text[count] == '\0', "beyond the count: the text", status);
    report.figure("count_ends_at", count);
    close_normal(handle, report);
}

void bounded_to_the_limit(Report& report)
{
    zt::Status status;
    std::vector<char> buffer(INT_MAX, 'x');
    for (const char* options : {"PROGRAM", "COMMAND READ"}) {
        const int handle = open_pipe("head -c 3000000000 /dev/zero", options, status);
        const int count = zt_pipe_read(handle, buffer.data(), INT_MAX, nullptr, &status);
        expect(report, count == INT_MAX && status.code == 0 && buffer.back() == '\0', options, status);
        report.figure("bounded_bytes", count);
        close_normal(handle, report);
    }
}

// The same bounded transfer over and over.
void repeat_a_transfer(const Settings& settings, Report& report)
{
    constexpr int size = 1 << 20;
    static char buffer[size];
    zt::Status status;
    const int handle = open_pipe("cat /dev/zero", "PROGRAM", status);
    Rounds rounds{settings.count * 2, settings.seconds};
    const long before = Resources::now().resident_kib;
    while (rounds.more())
        if (zt_pipe_read(handle, buffer, size, nullptr, &status) != size)
            return report.fail("transfer %ld: %s", rounds.done(), status.what());
    report.figure("repeated_gib", static_cast<double>(rounds.done()) / 1024);
    if (Resources::now().resident_kib > before + resident_may_grow_kib) report.fail("memory has grown");
    ZT_PIPE_CLOSE(handle, "", &status);
}

}  // namespace

void torture_volume(const Settings& settings, Report& report)
{
    const bool large = settings.count >= full_size_count;
    const Settings third{settings.seed, settings.count, settings.seconds / 3 + 1};
    run_apart(report, "cycles", third.seconds + 120.0, [&] { cycles(third, report); });
    run_apart(report, "at once", 300, [&] { at_once(large ? most_pipes_at_once : 50, report); });
    run_apart(report, "repeated transfer", third.seconds + 120.0, [&] { repeat_a_transfer(third, report); });
    if (!large) return;
    run_apart(report, "end of the count", 300, [&] { to_the_end_of_the_count(report); });
    run_apart(report, "bounded limit", 300, [&] { bounded_to_the_limit(report); });
}

}  // namespace torture
