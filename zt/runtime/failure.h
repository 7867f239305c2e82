/// @file
/// How the runtime's own services fill a status record. Internal to the runtime.
///
/// @code
/// return zt::fail_null_argument(*status, {"signals", "zt_signal", 40}, "handler");
/// @endcode
#ifndef ZT_RUNTIME_FAILURE_H
#define ZT_RUNTIME_FAILURE_H

#include <zt/runtime/errors.h>
#include <zt/runtime/host.h>
#include <zt/runtime/status.h>
#include <zt/runtime/text.h>

#include <cstdint>
#include <cstdio>

namespace zt {

/// Codes that a service of the runtime gives where no code of its own fits.
inline constexpr std::uint32_t no_memory_code = 10021;
inline constexpr std::uint32_t null_argument_code = 10036;
inline constexpr std::uint32_t no_status_code = 10047;

/// Where a failure is reported from: `line` is a fixed number of the site, for the records people keep.
struct FailureSite {
    const char* file;
    const char* routine;
    int line;
};

/// Fills what every failure carries. Each of these functions returns the code, so that a service can return
/// it.
inline std::uint32_t fail(Status& status, const FailureSite& site, std::uint32_t code)
{
    status.code = code;
    status.subcode = 0;
    status.sys_errno = 0;
    std::snprintf(status.where, sizeof status.where, "%s(%s):%d", site.file, site.routine, site.line);
    zt_hostname_r(status.host, sizeof status.host);
    return code;
}

/// A required argument is null.
inline std::uint32_t fail_null_argument(Status& status, const FailureSite& site, const char* argument)
{
    zt_strncpy(status.sparm[0], argument, sizeof status.sparm[0]);
    zt_strncpy(status.sparm[1], site.routine, sizeof status.sparm[1]);
    return fail(status, site, null_argument_code);
}

/// A system call failed with `error`; `code` is zt_error_no(error) or the code that says it better.
inline std::uint32_t fail_system(Status& status, const FailureSite& site, std::uint32_t code, int error)
{
    fail(status, site, code);
    status.sys_errno = static_cast<std::uint32_t>(error);
    zt_error_msg_r(error, status.sys_msg, sizeof status.sys_msg);
    return code;
}

}  // namespace zt

#endif
