// The handle table: who has which handle.
#include <pthread.h>
#include <zt/runtime/errors.h>
#include <zt/ztpipe/codes.h>
#include <zt/ztpipe/operation.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <new>

extern "C" {
zt_pipe** Zt_pipes = nullptr;
int Zt_avail_pipes = 0;
int Zt_used_pipes = 1;
zt_pipe* Zt_pipe_current = nullptr;
zt::Mtx Zt_pipe_mtx;
}

namespace zt::pipe {
namespace {

constexpr int slots_per_growth = 16;
constexpr int growth_line = 1057;

// Known from the program's start on, so that what() can name a code that comes before the first open.
[[maybe_unused]] const bool codes_are_known = (zt_error_add_codes(code_texts, code_text_count), true);

// The lock is not held across a fork, but another thread may have it at that moment; in the child nobody
// would ever give it back.
void unlock_in_child()
{
    new (&Zt_pipe_mtx) zt::Mtx;
}

[[maybe_unused]] const int fork_handler = pthread_atfork(nullptr, nullptr, unlock_in_child);

namespace at {
constexpr Site no_room{1059, ZT_PIPE_E_NOMEM};
constexpr Site bad_handle{1093, ZT_PIPE_E_HANDLE};
constexpr Site table_lost{4081, ZT_PIPE_E_HANDLE};
constexpr Site no_table{4082, ZT_PIPE_E_NOMEM};
}  // namespace at

// The result goes straight into the table's pointer: when memory is out, the table is lost and its size
// stands. Losing it was accepted; the next growth starts a new table.
bool grow_table(Report& report)
{
    const int slots = Zt_used_pipes + slots_per_growth;
    const ExitHold hold;
    Zt_pipes = static_cast<zt_pipe**>(
        zt_mem_irecalloc(table_memory, Zt_pipes, static_cast<std::size_t>(slots), sizeof(zt_pipe*),
                         static_cast<std::size_t>(Zt_avail_pipes), 0, module_name, growth_line));
    if (Zt_pipes == nullptr) {
        report.fail_memory(at::no_room, "Zt_pipes", slots * static_cast<int>(sizeof(zt_pipe*)));
        return false;
    }
    std::atomic_ref(Zt_avail_pipes)
        .store(slots, std::memory_order_release);  // read without the lock by opens
    return true;
}

}  // namespace

bool is_in_table(const zt_pipe& pipe)
{
    const int handle = static_cast<int>(pipe.handle);
    return Zt_pipes != nullptr && handle > 0 && handle < Zt_avail_pipes && Zt_pipes[handle] == &pipe;
}

// The handler of a fatal signal on another thread walks the table without the lock: it is kept out of this
// instant, and afterwards does not find the block that is about to be freed.
void empty_slot(const zt_pipe& pipe)
{
    const ExitHold hold;
    Zt_pipes[pipe.handle] = nullptr;
    --Zt_used_pipes;
}

// While another thread's exit closes the pipes nobody finds any: none may be entered just as it goes.
std::uint32_t find_pipe(Report& report, int handle, zt_pipe** pipe)
{
    const bool lost = Zt_pipes == nullptr && Zt_avail_pipes > 0;  // by a growth that found no memory
    if (!lost && handle > 0 && handle < Zt_avail_pipes && !zt_exit_elsewhere() &&
        (*pipe = Zt_pipes[handle]) != nullptr)
        return report.status.code;
    report.fail(lost ? at::table_lost : at::bad_handle);
    report.status.iparm[0] = handle;
    return report.status.code;
}

}  // namespace zt::pipe

using namespace zt::pipe;

extern "C" std::uint32_t zt_pipe_assign_handle(zt_pipe* pipe, zt::Status* status)
{
    Report report{"zt_pipe_assign_handle", *status};
    ZT_CLEAR_STATUS(status);
    const TableLock lock;
    if (Zt_used_pipes >= Zt_avail_pipes && !grow_table(report)) return status->code;
    if (Zt_pipes == nullptr) {
        report.fail_memory(at::no_table, "Zt_pipes", Zt_avail_pipes * static_cast<int>(sizeof(zt_pipe*)),
                           ENOMEM);
        return status->code;
    }
    int handle = 1;
    while (handle < Zt_avail_pipes && Zt_pipes[handle] != nullptr) ++handle;
    pipe->handle = static_cast<std::uint32_t>(handle);
    Zt_pipes[handle] = pipe;
    ++Zt_used_pipes;
    return 0;
}

extern "C" std::uint32_t zt_pipe_get_handle(int handle, zt_pipe** pipe, const char* routine,
                                            zt::Status* status)
{
    Report report{routine, *status};
    const TableLock lock;
    return find_pipe(report, handle, pipe);
}
