#include "tests/pipe/services.h"

#include <zt/runtime/environment.h>
#include <zt/runtime/exit_handlers.h>
#include <zt/runtime/host.h>
#include <zt/runtime/memory.h>
#include <zt/runtime/open_files.h>
#include <zt/runtime/signals.h>
#include <zt/ztpipe/internal.h>

#include <cstdlib>
#include <cstring>

namespace services {

std::function<int(char*, zt_option*, int, zt_option_error*)> process_options;

namespace {

Log* current = nullptr;

// Where nobody listens nothing is allocated: a call may come from a signal handler.
void note(const char* call)
{
    if (current != nullptr) current->note(call);
}

void note(const std::string& call)
{
    note(call.c_str());
}

std::uint32_t failure_of(const char* service, zt::Status* status)
{
    if (current == nullptr) return 0;
    const std::uint32_t code = current->failure_of(service);
    if (code != 0) status->code = code;
    return code;
}

bool is_to_be_noted(const char* file)
{
    return current != nullptr && file != nullptr && strcmp(file, "ztpipe") == 0;
}

std::string list(std::initializer_list<std::size_t> numbers, const char* file, int line)
{
    std::string text = "(";
    for (const std::size_t number : numbers) text += std::to_string(number) + ", ";
    return text + file + ", " + std::to_string(line) + ")";
}

std::string list(const char* first, const char* second, const char* third)
{
    return std::string("(") + first + ", " + second + ", " + third + ")";
}

}  // namespace

Log::Log()
{
    if (current != nullptr) abort();
    current = this;
}

Log::~Log()
{
    current = nullptr;
}

Lines Log::calls(const std::string& beginning) const
{
    Lines chosen;
    for (const std::string& call : calls_)
        if (call.starts_with(beginning)) chosen.push_back(call);
    return chosen;
}

void Log::fail(const std::string& service, std::uint32_t code)
{
    failing_ = service;
    code_ = code;
}

void Log::note(const std::string& call)
{
    calls_.push_back(call);
}

std::uint32_t Log::failure_of(const std::string& service) const
{
    return service == failing_ ? code_ : 0;
}

}  // namespace services

using services::failure_of;
using services::is_to_be_noted;
using services::list;
using services::note;

extern "C" {

int __real_zt_process_options(char*, zt_option*, int, zt_option_error*);
std::uint32_t __real_zt_file_init(int, zt::Status*);
std::uint32_t __real_zt_atexit(void (*)(int), const char*, const char*, const char*, zt::Status*);
std::uint32_t __real_zt_signal(void (*)(int), const char*, const char*, const char*, zt::Status*);
std::uint32_t __real_zt_pipe_debug_init(zt::Status*);
void* __real_zt_mem_icalloc(int, std::size_t, std::size_t, int, const char*, int);
void* __real_zt_mem_irecalloc(int, void*, std::size_t, std::size_t, std::size_t, int, const char*, int);
void __real_zt_mem_ifree(int, void*, const char*, int);
char** __real_zt_environ_lend(const char* const*);
void __real_zt_environ_take_back(char**);
char* __real_zt_hostname_r(char*, std::size_t);
int __real_zt_ipipe_close(int, const char*, zt::Status*, const char*, int);
// zt::Mtx::lock and zt::Mtx::unlock
void __real__ZN2zt3Mtx4lockEv(zt::Mtx*);
void __real__ZN2zt3Mtx6unlockEv(zt::Mtx*);

int __wrap_zt_process_options(char* text, zt_option* table, int count, zt_option_error* error)
{
    return services::process_options ? services::process_options(text, table, count, error)
                                     : __real_zt_process_options(text, table, count, error);
}

std::uint32_t __wrap_zt_file_init(int zero, zt::Status* status)
{
    note("zt_file_init(" + std::to_string(zero) + ")");
    const std::uint32_t failure = failure_of("zt_file_init", status);
    return failure != 0 ? failure : __real_zt_file_init(zero, status);
}

std::uint32_t __wrap_zt_atexit(void (*function)(int), const char* name, const char* module,
                               const char* options, zt::Status* status)
{
    if (function == zt_pipe_cleanup) note("zt_atexit" + list(name, module, options));
    const std::uint32_t failure = failure_of("zt_atexit", status);
    return failure != 0 ? failure : __real_zt_atexit(function, name, module, options, status);
}

std::uint32_t __wrap_zt_signal(void (*handler)(int), const char* name, const char* module,
                               const char* specification, zt::Status* status)
{
    if (handler == zt_pipe_signal) note("zt_signal" + list(name, module, specification));
    const std::uint32_t failure = failure_of("zt_signal", status);
    return failure != 0 ? failure : __real_zt_signal(handler, name, module, specification, status);
}

std::uint32_t __wrap_zt_pipe_debug_init(zt::Status* status)
{
    note("zt_pipe_debug_init");
    const std::uint32_t failure = failure_of("zt_pipe_debug_init", status);
    return failure != 0 ? failure : __real_zt_pipe_debug_init(status);
}

void* __wrap_zt_mem_icalloc(int memory_class, std::size_t count, std::size_t size, int zero, const char* file,
                            int line)
{
    if (is_to_be_noted(file))
        note("zt_mem_icalloc" + list({static_cast<std::size_t>(memory_class), count, size}, file, line));
    return __real_zt_mem_icalloc(memory_class, count, size, zero, file, line);
}

void* __wrap_zt_mem_irecalloc(int memory_class, void* old, std::size_t count, std::size_t size,
                              std::size_t old_count, int zero, const char* file, int line)
{
    if (is_to_be_noted(file))
        note("zt_mem_irecalloc" +
             list({static_cast<std::size_t>(memory_class), count, size, old_count}, file, line));
    return __real_zt_mem_irecalloc(memory_class, old, count, size, old_count, zero, file, line);
}

void __wrap_zt_mem_ifree(int memory_class, void* block, const char* file, int line)
{
    if (is_to_be_noted(file))
        note("zt_mem_ifree" + list({static_cast<std::size_t>(memory_class)}, file, line));
    __real_zt_mem_ifree(memory_class, block, file, line);
}

char** __wrap_zt_environ_lend(const char* const* envp)
{
    note("zt_environ_lend");
    return __real_zt_environ_lend(envp);
}

void __wrap_zt_environ_take_back(char** own)
{
    note("zt_environ_take_back");
    __real_zt_environ_take_back(own);
}

char* __wrap_zt_hostname_r(char* buffer, std::size_t size)
{
    note("zt_hostname_r");
    return __real_zt_hostname_r(buffer, size);
}

int __wrap_zt_ipipe_close(int handle, const char* options, zt::Status* status, const char* file, int line)
{
    if (is_to_be_noted(file)) note("zt_ipipe_close" + list({static_cast<std::size_t>(handle)}, file, line));
    return __real_zt_ipipe_close(handle, options, status, file, line);
}

void __wrap__ZN2zt3Mtx4lockEv(zt::Mtx* mutex)
{
    __real__ZN2zt3Mtx4lockEv(mutex);
    if (mutex == &Zt_pipe_mtx) note("lock");
}

void __wrap__ZN2zt3Mtx6unlockEv(zt::Mtx* mutex)
{
    if (mutex == &Zt_pipe_mtx && services::current != nullptr) {
        if (services::current->at_unlock) services::current->at_unlock();
        note("unlock");
    }
    __real__ZN2zt3Mtx6unlockEv(mutex);
}
}
