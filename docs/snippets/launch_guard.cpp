// A child whose streams cannot be wired returns from the open. It must not go on as a second application.
#include <unistd.h>
#include <zt/ztpipe.h>

#include <cstdio>

static int open_or_end(const char* program, zt::Status* status)
{
    const pid_t self = getpid();
    const int handle = ZT_PIPE_OPEN(program, "PROGRAM", nullptr, nullptr, status);
    if (getpid() != self) _exit(127);  // the child: the parent learns of it as of any child that ended so
    return handle;
}

int main()
{
    close(STDERR_FILENO);  // so that the child cannot close its own
    zt::Status status;
    const int handle = open_or_end("cat", &status);
    char byte;
    zt_pipe_read(handle, &byte, 1, nullptr, &status);
    std::printf("exit code %d\n", status.iparm[0]);
    ZT_PIPE_CLOSE(handle, "", &status);
}
