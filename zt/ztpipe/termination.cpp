// From the class of a child's end to the caller's verdict.
#include <zt/runtime/exit_status.h>
#include <zt/runtime/text.h>
#include <zt/ztpipe.h>

extern "C" bool zt_pipe_termination(bool normal_is_success, zt::Status* status)
{
    const char* text = status != nullptr ? zt_exit_status_text(status->subcode) : nullptr;
    if (text == nullptr) return false;
    zt_strncpy(status->sparm[0], text, sizeof status->sparm[0]);
    if (normal_is_success && status->subcode == ZT_PIPE_S_NORMAL)
        status->subcode = 0;
    else
        status->code = status->subcode;
    return true;
}
