/// @file
/// The name of the machine.
///
/// @code
///     char host[64];
///     std::printf("on %s\n", zt_hostname_r(host, sizeof host));
/// @endcode
#ifndef ZT_RUNTIME_HOST_H
#define ZT_RUNTIME_HOST_H

#include <zt/runtime/api.h>

#include <cstddef>

extern "C" {

/// Writes the host name, as the system has it at this moment.
///
/// May be called from several threads at once, from a signal handler and in a forked child; `errno` is kept.
/// @param buffer takes the name, cut to fit and always terminated; empty when the system cannot tell. Null is
///        allowed and nothing happens.
/// @param size   its room in bytes; 0 leaves it alone.
/// @return @p buffer.
ZT_API char* zt_hostname_r(char* buffer, std::size_t size);

}  // extern "C"

#endif
