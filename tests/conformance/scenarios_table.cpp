// The handle table: set up, grown, asked, lost.
#include <fcntl.h>
#include <zt/runtime/memory.h>

#include <utility>
#include <vector>

#include "tests/conformance/firing.h"
#include "tests/support/leftovers.h"
#include "tests/support/pipes.h"

using faults::Function;

namespace {

void no_table_at_first_open(Firing& firing)
{
    zt_pipe_cleanup(0);
    with_faults({{.function = Function::calloc, .error = ENOMEM}}, [&] { firing.open("cat", "PROGRAM"); });
    EXPECT_EQ(Zt_pipes, nullptr);
    EXPECT_EQ(Zt_avail_pipes, 0) << "the next open has to try again";
    Leftovers::settle();
}

// The growth takes the old table along when it fails: its memory stays taken, its size stands, its pipes
// cannot be reached any more.
void table_lost_by_growth(Firing& firing)
{
    std::vector<int> handles;
    while (Zt_used_pipes < Zt_avail_pipes) handles.push_back(pipes::open("no child", ""));
    zt_pipe** const old_table = Zt_pipes;
    const int old_size = Zt_avail_pipes;
    const long old_bytes = zt_heapsize_class(1);
    with_faults({{.function = Function::realloc, .error = ENOMEM}}, [&] { firing.open("cat", "PROGRAM"); });
    if (Zt_pipes == nullptr && Zt_avail_pipes == old_size && zt_heapsize_class(1) == old_bytes)
        firing.left = "table";
    Zt_pipes = old_table;
    for (const int handle : handles) EXPECT_EQ(pipes::close(handle), 0U);
}

// While this object lives the table is lost.
class LostTable {
  public:
    ~LostTable() { Zt_pipes = table_; }

  private:
    zt_pipe** const table_ = std::exchange(Zt_pipes, nullptr);
};

// With a handle that no operation knows.
void ask(Scenarios& scenarios, const std::string& line, int handle, bool lost)
{
    const auto add = [&](const char* variant, auto call) {
        scenarios[line + "/" + variant] = [=](Firing& firing) {
            if (!lost) return call(firing);
            const LostTable meanwhile;
            call(firing);
        };
    };
    add("read", [=](Firing& firing) { firing.read(handle, 1); });
    add("unlimited", [=](Firing& firing) { firing.read_unlimited(handle); });
    add("write", [=](Firing& firing) { firing.write(handle, "x", 1); });
    add("close", [=](Firing& firing) { firing.close(handle); });
    add("status", [=](Firing& firing) { firing.poll(handle, false); });
}

void open_without_table(Firing& firing)
{
    const LostTable meanwhile;
    firing.open("cat", "PROGRAM");
}

}  // namespace

Scenarios table_scenarios()
{
    Scenarios scenarios{
        {"284", no_table_at_first_open},
        {"1059", table_lost_by_growth},
        {"1093/zero", [](Firing& firing) { firing.read(0, 1); }},
        {"1093/negative", [](Firing& firing) { firing.read(-1, 1); }},
        {"1093/beyond", [](Firing& firing) { firing.read(Zt_avail_pipes, 1); }},
        {"4082", open_without_table},
    };
    ask(scenarios, "1093", 99, false);
    ask(scenarios, "4081", 1, true);
    return scenarios;
}
