#include <sys/utsname.h>
#include <zt/runtime/errno_guard.h>
#include <zt/runtime/host.h>
#include <zt/runtime/text.h>

// Asked for at every call: the name may change while a service runs, and only failures ask.
extern "C" char* zt_hostname_r(char* buffer, std::size_t size)
{
    const zt::ErrnoGuard keep;
    utsname system;
    return zt_strncpy(buffer, uname(&system) == 0 ? system.nodename : "", size);
}
