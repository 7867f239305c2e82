/// @file
/// Keeps `errno` over a service that stands between a failing call and its report.
///
/// Shared by the library's own sources.
///
/// @code
///     int trace_something()
///     {
///         const zt::ErrnoGuard keep;
///         return write_the_line();      // may set errno; the caller never sees it
///     }
/// @endcode
#ifndef ZT_RUNTIME_ERRNO_GUARD_H
#define ZT_RUNTIME_ERRNO_GUARD_H

#include <cerrno>

namespace zt {

/// Takes `errno` when it is made and puts it back when the scope ends. Safe in a signal handler.
class ErrnoGuard {
  public:
    ErrnoGuard() noexcept : error_(errno) {}
    ~ErrnoGuard() { errno = error_; }
    ErrnoGuard(const ErrnoGuard&) = delete;
    ErrnoGuard& operator=(const ErrnoGuard&) = delete;

  private:
    const int error_;
};

}  // namespace zt

#endif
