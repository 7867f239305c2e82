// Prints the words of its command line in order, sorted by a child program.
#include <zt/runtime/errors.h>
#include <zt/ztpipe.h>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv)
{
    zt::Status status;
    int sort = ZT_PIPE_OPEN("sort", "COMMAND, WRITE", nullptr, nullptr, &status);
    for (int i = 1; i < argc && status.code == 0; ++i) {
        zt_pipe_write(sort, argv[i], static_cast<int>(std::strlen(argv[i])), &status);
        if (status.code == 0) zt_pipe_write(sort, "\n", 1, &status);
    }
    if (status.code == 0) ZT_PIPE_CLOSE(sort, "", &status);
    if (status.code != 0) std::fprintf(stderr, "%s\n", status.what());
    return status.code == 0 ? 0 : 1;
}
