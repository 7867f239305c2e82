// Asks bc for the answer and prints it.
#include <zt/ztpipe.h>

#include <cstdio>

int main()
{
    zt::Status status;
    int bc = ZT_PIPE_OPEN("bc -l", "PROGRAM", nullptr, nullptr, &status);
    char answer[100];
    int length = -1;
    if (bc > 0 && zt_pipe_write(bc, "6*7\n", 4, &status) == 4)
        length = zt_pipe_read(bc, answer, sizeof answer, "\n", &status);
    if (length < 0) {
        std::fprintf(stderr, "%s\n", status.what());
        return 1;
    }
    std::printf("6*7 is %.*s", length, answer);
    return ZT_PIPE_CLOSE(bc, "NOKILL", &status);
}
