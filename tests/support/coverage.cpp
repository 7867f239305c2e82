#include "tests/support/coverage.h"

#include <signal.h>
#include <unistd.h>

extern "C" {
void __gcov_dump(void);
void __gcov_reset(void);
[[noreturn]] void __real__exit(int);
int __real_raise(int);
}

namespace coverage {

void forget()
{
    __gcov_reset();
}

void save()
{
    __gcov_dump();
    __gcov_reset();
}

}  // namespace coverage

extern "C" {

[[noreturn]] void __wrap__exit(int code)
{
    coverage::save();
    __real__exit(code);
}

/// A signal that nobody handles ends the process.
int __wrap_raise(int signal)
{
    struct sigaction action;
    if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) coverage::save();
    return __real_raise(signal);
}

}  // extern "C"
