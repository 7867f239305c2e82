#include <zt/runtime/errors.h>
#include <zt/runtime/host.h>
#include <zt/runtime/text.h>
#include <zt/ztpipe/operation.h>

#include <atomic>
#include <cstdio>
#include <cstring>

namespace zt::pipe {

namespace {

template <std::size_t size>
void set(char (&field)[size], const char* text)
{
    zt_strncpy(field, text, size);
}

void set_current(zt_pipe* pipe)
{
    std::atomic_ref(Zt_pipe_current).store(pipe, std::memory_order_relaxed);
}

}  // namespace

bool traces(Category category, int flag)
{
    auto& word = Zt_pipe_debug[static_cast<int>(category)].flags[flag];
    return std::atomic_ref(word).load(std::memory_order_relaxed) != 0;
}

void Report::fail(Site site, int error)
{
    status.code = site.code;
    status.subcode = 0;
    status.sys_errno = static_cast<std::uint32_t>(error);
    std::snprintf(status.where, sizeof status.where, "%s(%s):%d", module_name, routine, site.line);
    zt_hostname_r(status.host, sizeof status.host);
}

void Report::fail_null_argument(Site site, const char* argument)
{
    fail(site);
    set(status.sparm[0], argument);
    set(status.sparm[1], routine);
}

void Report::fail_limit(Site site, const char* argument, int value, int limit)
{
    fail(site);
    set(status.sparm[0], argument);
    status.iparm[0] = value;
    status.iparm[1] = limit;
}

void Report::fail_memory(Site site, const char* object, int bytes, int error)
{
    fail_system(site, error);
    set(status.object, object);
    status.iparm[0] = bytes;
    status.iparm[1] = zt_heapsize();
}

void Report::fail_system(Site site, int error)
{
    fail(site, error);
    zt_error_msg_r(error, status.sys_msg, sizeof status.sys_msg);
}

void Report::fail_system(Site site, const char* subject, int error)
{
    fail_system(site, error);
    set(status.sparm[0], subject);
    zt_trim_filename(subject, 32, status.sparm[1]);
    set(status.msg, status.sparm[0]);
}

void Report::fail_conflict(Site site, const char* first, const char* second)
{
    fail(site);
    set(status.sparm[0], first);
    set(status.sparm[1], second);
}

bool process_options(Report& report, Site refused, const char* options, char* copy, zt_option* table,
                     int count, int* found)
{
    if (found != nullptr) *found = 0;
    if (options[0] == '\0') return true;
    std::strcpy(copy, options);
    zt_option_error error;
    const int result = zt_process_options(copy, table, count, &error);
    if (result < 0) {
        refused.code = static_cast<std::uint32_t>(error.code);
        report.fail(refused);
        set(report.status.sparm[0], error.text);
        return false;
    }
    if (found != nullptr) *found = result;
    return true;
}

// On the thread that ends the process from a signal handler the latch is of no use any more, and its lock may
// be held by the code that the signal interrupted.
Operation::Operation(const char* operation, zt::Status& record, Category trace_category)
    : Report(operation, record), category(trace_category), armed_(!zt_exit_in_signal())
{
    if (armed_) zt_sys_arm_interrupt();
    ZT_CLEAR_STATUS(&status);
}

Operation::~Operation()
{
    leave_pipe();
    set_current(nullptr);
    if (armed_) zt_sys_disarm_interrupt();
}

bool Operation::enter(int handle, zt_pipe*& pipe)
{
    const TableLock lock;
    if (find_pipe(*this, handle, &pipe) != 0) return false;
    pipe_ = pipe;
    std::atomic_ref(pipe->busy).store(1, std::memory_order_relaxed);
    return true;
}

void Operation::work_on(zt_pipe* pipe)
{
    pipe_ = pipe;
    std::atomic_ref(pipe->busy).store(1, std::memory_order_relaxed);
    set_current(pipe);
}

void Operation::leave_pipe()
{
    if (pipe_ == nullptr) return;
    std::atomic_ref(pipe_->busy).store(0, std::memory_order_release);
    hand_over();
}

void Operation::hand_over()
{
    set_current(nullptr);
    pipe_ = nullptr;
}

void Operation::finish(Site interrupted)
{
    if (!armed_) return;
    if (zt_sys_poll_interrupt(1) != 0) fail(interrupted);
    zt_sys_disarm_interrupt();
    armed_ = false;
}

bool Operation::traces_exit(bool warned) const
{
    return traces(category, ZT_PIPE_PARMS) || ((failed() || warned) && traces(category, ZT_PIPE_EXCEPTIONS));
}

bool interrupted()
{
    if (errno != EINTR && errno != EAGAIN && zt_sys_poll_interrupt(0) == 0) return false;
    zt_sys_poll_interrupt(1);
    return true;
}

TableLock::TableLock() : taken_(!zt_exit_in_signal())
{
    if (taken_) Zt_pipe_mtx.lock();
}

TableLock::~TableLock()
{
    if (taken_) Zt_pipe_mtx.unlock();
}

ExitHold::ExitHold()
{
    zt_exit_hold(&state_);
}

ExitHold::~ExitHold()
{
    release();
}

void ExitHold::release()
{
    if (!held_) return;
    held_ = false;
    zt_exit_release(&state_);
}

}  // namespace zt::pipe
