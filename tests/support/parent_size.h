/// @file
/// Large parents try posix_spawn before they fork, and nobody may be able to tell which of the two it was:
/// tests run as both kinds of parent, whatever the size of the process, which a sanitizer can make large.
#ifndef ZT_TESTS_SUPPORT_PARENT_SIZE_H
#define ZT_TESTS_SUPPORT_PARENT_SIZE_H

#include <zt/ztpipe/internal.h>

#include <climits>

/// Values for Zt_pipe_large_parent, the resident bytes from which on a process counts as large.
inline constexpr long always_large = 0;
inline constexpr long never_large = LONG_MAX;

#endif
