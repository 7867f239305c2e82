#include "tests/support/faults.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>

#include "tests/support/coverage.h"

namespace faults {
namespace {

constexpr int max_faults = 8;

Fault planned[max_faults];
std::atomic<int> planned_count{0};
std::atomic<bool> armed{false};
std::atomic<pid_t> planner{0};
std::atomic<int> counts[static_cast<int>(Function::count_)];
/// Children started by posix_spawnp.
std::atomic<int> spawned{0};
std::atomic<pid_t> started_last{0};
/// The stream that a faked transfer has broken: what its own error mark would say.
std::atomic<FILE*> broken_stream{nullptr};

/// Shared with forked children, so that the planner learns what happened there.
std::atomic<int>* fired_count()
{
    static void* const page =
        mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return static_cast<std::atomic<int>*>(page);
}

void reset_counts()
{
    for (auto& count : counts) count = 0;
    spawned = 0;
}

bool is_due(const Fault& fault, Function function, int call)
{
    return fault.function == function && fault.in_child == (getpid() != planner) &&
           (fault.from_then_on ? call >= fault.nth : call == fault.nth);
}

/// The fault happens now.
void fire(const Fault& fault)
{
    ++*fired_count();
    if (fault.raising) raise(fault.raising);
}

/// What a call has to do: nothing of its own (null), or to fail as the fault says.
const Fault* consult(Function function)
{
    if (!armed) return nullptr;
    const int saved_errno = errno;
    int call = ++counts[static_cast<int>(function)];
    if (function == Function::fork) call += spawned;
    const Fault* failure = nullptr;
    for (int i = 0; i < planned_count; ++i) {
        if (!is_due(planned[i], function, call)) continue;
        fire(planned[i]);
        if (planned[i].error || planned[i].result) failure = &planned[i];
    }
    errno = saved_errno;
    return failure;
}

/// Why posix_spawnp cannot start a child: what is planned for a fork in its place, or for that child. Such a
/// fault is left for the fork that follows. A signal alone is raised here.
int reason_not_to_spawn()
{
    if (!armed) return 0;
    const int call = counts[static_cast<int>(Function::fork)] + spawned + 1;
    for (int i = 0; i < planned_count; ++i) {
        const Fault& fault = planned[i];
        if (fault.in_child) return fault.error ? fault.error : EAGAIN;
        if (!is_due(fault, Function::fork, call)) continue;
        if (fault.error) return fault.error;
        fire(fault);
    }
    return 0;
}

/// Leaves the call with what the fault says.
template <class Result>
Result fail(const Fault& fault, Result usual)
{
    if (fault.error) errno = fault.error;
    return fault.result ? static_cast<Result>(*fault.result) : usual;
}

/// How much a transfer that is to fall short really moves; 0 when it fails altogether.
size_t part(const Fault& fault, size_t asked)
{
    return fault.result.value_or(0) > 0 ? std::min(asked, static_cast<size_t>(*fault.result)) : 0;
}

template <class Result, class Real>
Result call(Function function, Result usual, Real real)
{
    const Fault* fault = consult(function);
    return fault ? fail(*fault, usual) : real();
}

/// For the calls that give an object: a failure is null.
template <class Real>
auto obtain(Function function, Real real) -> decltype(real())
{
    const Fault* fault = consult(function);
    if (!fault) return real();
    errno = fault->error;
    return nullptr;
}

/// For the calls that give something back: they do it even when they report a failure.
template <class Real>
int release(Function function, Real real)
{
    const Fault* fault = consult(function);
    const int result = real();
    return fault ? fail(*fault, -1) : result;
}

template <class Real>
ssize_t transfer(Function function, size_t asked, Real real)
{
    const Fault* fault = consult(function);
    if (!fault) return real(asked);
    if (fault->result.value_or(0) <= 0) return fail<ssize_t>(*fault, -1);
    const ssize_t moved = real(part(*fault, asked));
    if (fault->error) errno = fault->error;
    return moved;
}

template <class Real>
size_t transfer_items(Function function, size_t asked, FILE* stream, Real real)
{
    const Fault* fault = consult(function);
    if (!fault) return real(asked);
    const size_t moved = part(*fault, asked) > 0 ? real(part(*fault, asked)) : 0;
    if (fault->error) {
        broken_stream = stream;
        errno = fault->error;
    }
    return moved;
}

}  // namespace

Plan::Plan(std::initializer_list<Fault> faults)
{
    if (armed || faults.size() > max_faults) abort();
    std::copy(faults.begin(), faults.end(), planned);
    planned_count = static_cast<int>(faults.size());
    planner = getpid();
    broken_stream = nullptr;
    started_last = 0;
    *fired_count() = 0;
    reset_counts();
    armed = true;
}

Plan::~Plan()
{
    armed = false;
}

bool Plan::fired() const
{
    return *fired_count() > 0;
}

int calls(Function function)
{
    return counts[static_cast<int>(function)];
}

pid_t last_child()
{
    return started_last;
}

}  // namespace faults

using faults::Function;

extern "C" {

pid_t __real_fork(void);
int __real_posix_spawnp(pid_t*, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*,
                        char* const*, char* const*);
int __real_execvp(const char*, char* const*);
int __real_pipe(int*);
int __real_dup2(int, int);
int __real_open(const char*, int, ...);
int __real_close(int);
ssize_t __real_read(int, void*, size_t);
ssize_t __real_write(int, const void*, size_t);
pid_t __real_waitpid(pid_t, int*, int);
int __real_kill(pid_t, int);
FILE* __real_popen(const char*, const char*);
int __real_pclose(FILE*);
size_t __real_fread(void*, size_t, size_t, FILE*);
size_t __real_fwrite(const void*, size_t, size_t, FILE*);
int __real_ferror(FILE*);
int __real_feof(FILE*);
void __real_clearerr(FILE*);
int __real_poll(pollfd*, nfds_t, int);
void* __real_malloc(size_t);
void* __real_calloc(size_t, size_t);
void* __real_realloc(void*, size_t);

pid_t __wrap_fork(void)
{
    const pid_t pid = faults::call(Function::fork, pid_t{-1}, [] { return __real_fork(); });
    if (pid > 0) faults::started_last = pid;
    if (pid == 0) faults::reset_counts();
    return pid;
}

int __wrap_posix_spawnp(pid_t* pid, const char* file, const posix_spawn_file_actions_t* actions,
                        const posix_spawnattr_t* attributes, char* const* argv, char* const* envp)
{
    if (const faults::Fault* fault = faults::consult(Function::posix_spawnp)) return fault->error;
    if (const int error = faults::reason_not_to_spawn()) return error;
    const int error = __real_posix_spawnp(pid, file, actions, attributes, argv, envp);
    if (error == 0) {
        ++faults::spawned;
        faults::started_last = *pid;
    }
    return error;
}

int __wrap_execvp(const char* file, char* const* argv)
{
    coverage::save();
    return faults::call(Function::execvp, -1, [=] { return __real_execvp(file, argv); });
}

int __wrap_pipe(int* ends)
{
    return faults::call(Function::pipe, -1, [=] { return __real_pipe(ends); });
}

int __wrap_dup2(int from, int to)
{
    return faults::call(Function::dup2, -1, [=] { return __real_dup2(from, to); });
}

int __wrap_open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return faults::call(Function::open, -1, [=] { return __real_open(path, flags, mode); });
}

/// Offsets are 64 bits wide here whatever the name.
int __wrap_open64(const char* path, int flags, ...) __attribute__((alias("__wrap_open")));

int __wrap_close(int fd)
{
    return faults::release(Function::close, [=] { return __real_close(fd); });
}

ssize_t __wrap_read(int fd, void* buffer, size_t size)
{
    return faults::transfer(Function::read, size, [=](size_t part) { return __real_read(fd, buffer, part); });
}

ssize_t __wrap_write(int fd, const void* buffer, size_t size)
{
    return faults::transfer(Function::write, size,
                            [=](size_t part) { return __real_write(fd, buffer, part); });
}

pid_t __wrap_waitpid(pid_t pid, int* status, int options)
{
    const faults::Fault* fault = faults::consult(Function::waitpid);
    if (!fault) return __real_waitpid(pid, status, options);
    // No such child: somebody else has collected it, so the fake does that too.
    if (fault->error == ECHILD) __real_waitpid(pid, nullptr, options);
    return faults::fail(*fault, pid_t{-1});
}

int __wrap_kill(pid_t pid, int signal)
{
    return faults::call(Function::kill, -1, [=] { return __real_kill(pid, signal); });
}

FILE* __wrap_popen(const char* command, const char* type)
{
    return faults::obtain(Function::popen, [=] { return __real_popen(command, type); });
}

int __wrap_pclose(FILE* stream)
{
    return faults::release(Function::pclose, [=] { return __real_pclose(stream); });
}

size_t __wrap_fread(void* buffer, size_t size, size_t count, FILE* stream)
{
    return faults::transfer_items(Function::fread, count, stream,
                                  [=](size_t part) { return __real_fread(buffer, size, part, stream); });
}

size_t __wrap_fwrite(const void* buffer, size_t size, size_t count, FILE* stream)
{
    return faults::transfer_items(Function::fwrite, count, stream,
                                  [=](size_t part) { return __real_fwrite(buffer, size, part, stream); });
}

int __wrap_ferror(FILE* stream)
{
    return faults::call(Function::ferror, 0, [=] {
        return faults::armed && faults::broken_stream == stream ? 1 : __real_ferror(stream);
    });
}

int __wrap_feof(FILE* stream)
{
    return faults::call(Function::feof, 0, [=] { return __real_feof(stream); });
}

void __wrap_clearerr(FILE* stream)
{
    faults::consult(Function::clearerr);
    faults::broken_stream = nullptr;
    __real_clearerr(stream);
}

int __wrap_poll(pollfd* ends, nfds_t count, int timeout)
{
    return faults::call(Function::poll, -1, [=] { return __real_poll(ends, count, timeout); });
}

void* __wrap_malloc(size_t size)
{
    return faults::obtain(Function::malloc, [=] { return __real_malloc(size); });
}

void* __wrap_calloc(size_t count, size_t size)
{
    return faults::obtain(Function::calloc, [=] { return __real_calloc(count, size); });
}

void* __wrap_realloc(void* block, size_t size)
{
    return faults::obtain(Function::realloc, [=] { return __real_realloc(block, size); });
}

}  // extern "C"
