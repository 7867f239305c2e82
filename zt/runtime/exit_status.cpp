#include <sys/wait.h>
#include <zt/runtime/exit_status.h>
#include <zt/runtime/text.h>

namespace {

void fill(zt::Status& status, uint32_t code, int number, int error)
{
    status.code = code;
    status.subcode = 0;
    status.sys_errno = static_cast<uint32_t>(error);
    status.iparm[0] = number;
    zt_strncpy(status.sparm[0], zt_exit_status_text(code), sizeof status.sparm[0]);
}

}  // namespace

extern "C" const char* zt_exit_status_text(uint32_t code)
{
    switch (code) {
        case ZT_EXIT_S_NORMAL:
            return "normally";
        case ZT_EXIT_S_ERROR:
            return "with an error";
        case ZT_EXIT_S_ABNORMAL:
            return "abnormally";
        default:
            return nullptr;
    }
}

extern "C" int zt_exit_status(int wait_status, zt::Status* status)
{
    const bool exited = WIFEXITED(wait_status);
    if (!exited && !WIFSIGNALED(wait_status)) return 0;
    if (!status) return 1;
    if (exited) {
        const int exit_code = WEXITSTATUS(wait_status);
        fill(*status, exit_code == 0 ? ZT_EXIT_S_NORMAL : ZT_EXIT_S_ERROR, exit_code, 0);
    } else {
        const int signo = WTERMSIG(wait_status);
        fill(*status, ZT_EXIT_S_ABNORMAL, signo, signo);
    }
    return 1;
}
