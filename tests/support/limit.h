/// @file
/// Too little of something: the limits of this process, lowered for a while.
#ifndef ZT_TESTS_SUPPORT_LIMIT_H
#define ZT_TESTS_SUPPORT_LIMIT_H

#include <sys/resource.h>

#include <algorithm>

/// A limit of this process that is lower while the object lives.
class Limit {
  public:
    Limit(__rlimit_resource resource, rlim_t value) : resource_(resource)
    {
        getrlimit(resource, &before_);
        const rlimit lower{std::min(value, before_.rlim_max), before_.rlim_max};
        setrlimit(resource, &lower);
    }
    ~Limit() { setrlimit(resource_, &before_); }
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;

  private:
    const __rlimit_resource resource_;
    rlimit before_;
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool addresses_can_be_limited = false;  // a sanitizer reserves terabytes of them
#else
inline constexpr bool addresses_can_be_limited = true;
#endif

#endif
