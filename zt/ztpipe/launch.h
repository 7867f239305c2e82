/// @file
/// What the two launchers share.
#ifndef ZT_ZTPIPE_LAUNCH_H
#define ZT_ZTPIPE_LAUNCH_H

#include <zt/ztpipe/operation.h>

namespace zt::pipe {

inline bool traces_launch_detail()
{
    return traces(Category::open, ZT_PIPE_DEBUG_FLAG);
}

inline void trace_launch_entry(const Report& report, const zt_pipe& pipe)
{
    if (traces(Category::open, ZT_PIPE_PARMS))
        zt_trace_msg("-> %s: [%d] [] [] []", report.routine, pipe.handle);
}

/// Traces the exit of a launcher and returns its result.
inline std::uint32_t trace_launch_exit(const Report& report, const zt_pipe& pipe)
{
    const zt::Status& status = report.status;
    if (traces(Category::open, ZT_PIPE_PARMS))
        zt_trace_msg("<-%c%s: [%d] [] [] [%d %d %d %s] returned %d", mark(report.failed()), report.routine,
                     pipe.handle, status.code, status.subcode, status.sys_errno, status.msg, status.code);
    return status.code;
}

}  // namespace zt::pipe

#endif
