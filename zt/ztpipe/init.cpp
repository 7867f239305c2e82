// The module sets itself up at the first open.
#include <zt/runtime/open_files.h>
#include <zt/runtime/signals.h>
#include <zt/ztpipe/operation.h>

#include <atomic>

namespace zt::pipe {
namespace {

constexpr int first_slots = 16;
constexpr int table_line = 281;
constexpr char build_date[] = "Dec  4 2010";
constexpr char build_time[] = "09:15:44";

namespace at {
constexpr Site no_table{284, ZT_PIPE_E_NOMEM};
}

// After a failure the table stays, and with it whatever was registered: the next open does not try again.
std::uint32_t register_services(zt::Status* status)
{
    std::uint32_t code = zt_file_init(0, status);
    if (code == 0) code = zt_atexit(zt_pipe_cleanup, "zt_pipe_cleanup", "zt", "", status);
    if (code == 0) code = zt_signal(zt_pipe_signal, "zt_pipe_signal", "zt", "SIGPIPE, REINSTALL", status);
    if (code == 0) code = zt_pipe_debug_init(status);
    return code;
}

void initialise(Report& report)
{
    constexpr std::size_t slot = sizeof(zt_pipe*);
    Zt_pipes =
        static_cast<zt_pipe**>(zt_mem_icalloc(table_memory, first_slots, slot, 0, module_name, table_line));
    if (Zt_pipes == nullptr) return report.fail_memory(at::no_table, "Zt_pipes", first_slots * slot);
    std::atomic_ref(Zt_avail_pipes).store(first_slots, std::memory_order_release);
    Zt_used_pipes = 1;
    if (register_services(&report.status) == 0 && traces(Category::global, ZT_PIPE_DEBUG_FLAG))
        zt_trace_msg("   %s: Version: %d  Compiled: %s %s", report.routine, ZT_PIPE_VERSION, build_date,
                     build_time);
}

}  // namespace
}  // namespace zt::pipe

using namespace zt::pipe;

extern "C" std::uint32_t zt_pipe_init(zt::Status* status)
{
    Report report{"zt_pipe_init", *status};
    ZT_CLEAR_STATUS(status);
    const TableLock lock;
    if (Zt_avail_pipes < 1) initialise(report);  // another thread's first open may have been faster
    return status->code;
}
