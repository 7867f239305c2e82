// torture ITEM [--seed N] [--count N] [--seconds N] [--threads N] [--size BYTES]
// Runs one item of the torture and ends with one line: "ITEM: PASS seed=... figures". The exit code says it
// too.
#include <sys/resource.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "tests/torture/process.h"
#include "tests/torture/torture.h"

namespace {

using torture::Report;
using torture::Settings;

struct Item {
    const char* name;
    const char* count_means;
    Settings defaults;
    void (*run)(const Settings&, Report&);
};

constexpr int hour = 3600;
constexpr Item items[] = {
    {"signals", "processes ended by a fatal signal", {0, 2000, hour, 1}, torture::torture_signals},
    {"exit", "times that each way of ending is taken", {0, 20, hour, 1}, torture::torture_exit},
    {"interrupts", "operations of each kind", {0, 10000, hour, 1}, torture::torture_interrupts},
    {"threads", "cycles of each thread", {0, 2000, hour, 16}, torture::torture_threads},
    {"volume", "pipes opened and closed", {0, 100000, hour, 1}, torture::torture_volume},
    {"children", "children that misbehave", {0, 1000, hour, 1}, torture::torture_children},
    {"scarcity", "opens without enough of something", {0, 2000, hour, 1}, torture::torture_scarcity},
    {"data", "messages of random size", {0, 100000, hour, 1, 1L << 30}, torture::torture_data},
};

const Item* find(const char* name)
{
    for (const Item& item : items)
        if (std::strcmp(item.name, name) == 0) return &item;
    return nullptr;
}

int usage()
{
    std::fprintf(stderr,
                 "usage: torture ITEM [--seed N] [--count N] [--seconds N] [--threads N] [--size BYTES]\n");
    for (const Item& item : items)
        std::fprintf(stderr, "  %-10s  count: %s (%ld)\n", item.name, item.count_means, item.defaults.count);
    return 64;
}

bool take(Settings& settings, const char* option, const char* text)
{
    char* end;
    errno = 0;
    const long long value = std::strtoll(text, &end, 10);
    if (*end != '\0' || end == text || errno != 0 || value < 0) return false;
    if (std::strcmp(option, "--seed") == 0)
        settings.seed = static_cast<std::uint64_t>(value);
    else if (std::strcmp(option, "--count") == 0)
        settings.count = static_cast<long>(value);
    else if (std::strcmp(option, "--seconds") == 0)
        settings.seconds = static_cast<int>(value);
    else if (std::strcmp(option, "--threads") == 0)
        settings.threads = static_cast<int>(value);
    else if (std::strcmp(option, "--size") == 0)
        settings.size = static_cast<long>(value);
    else
        return false;
    return true;
}

int run(const Item& item, const Settings& settings)
{
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    Report* const report = Report::make();
    std::fprintf(stderr, "%s: seed %llu\n", item.name, static_cast<unsigned long long>(settings.seed));
    torture::adopt_orphans();
    const auto begin = std::chrono::steady_clock::now();
    item.run(settings, *report);
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
    const int left = torture::collect_children(5, [](pid_t, int) {});
    if (left > 0) report->fail("%d processes were left running", left);
    std::printf("%s: %s seed=%llu failures=%d", item.name, report->failures() == 0 ? "PASS" : "FAIL",
                static_cast<unsigned long long>(settings.seed), report->failures());
    report->print_figures();
    std::printf(" seconds=%.1f\n", time.count());
    return report->failures() == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && std::strcmp(argv[1], "exit-role") == 0) return torture::play_exit_role(argv[2], argv[3]);
    const Item* const item = argc > 1 ? find(argv[1]) : nullptr;
    if (item == nullptr || argc % 2 != 0) return usage();
    Settings settings = item->defaults;
    settings.seed = std::random_device{}();
    for (int i = 2; i < argc; i += 2)
        if (!take(settings, argv[i], argv[i + 1])) return usage();
    return run(*item, settings);
}
