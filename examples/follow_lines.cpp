// Follows a long output line by line, each as soon as it is there, however long it is.
#include <zt/ztpipe.h>

#include <cstdio>
#include <string>

int main()
{
    zt::Status status;
    // A read notices the delimiter where the bytes it got end; asking for one at a time stops at each line.
    // The stream of a COMMAND pipe has them at hand, so this costs no system call a byte.
    int handle =
        ZT_PIPE_OPEN("seq 100000; seq -s ' ' 2000", "COMMAND, READSIZE=1", nullptr, nullptr, &status);
    if (handle < 0) {
        std::fprintf(stderr, "%s\n", status.what());
        return 1;
    }
    long lines = 0, longest = 0;
    char* line = nullptr;
    for (int length; (length = zt_pipe_read_unlimited(handle, &line, 0, "\n", &status)) > 0 && line;) {
        ++lines;
        if (length > longest) longest = length;
        if (lines % 25000 == 0) std::printf("line %ld: %s", lines, line);
    }
    if (status.code != 0 || !line) std::fprintf(stderr, "%s\n", status.what());
    std::printf("%ld lines, the longest has %ld bytes\n", lines, longest);
    return ZT_PIPE_CLOSE(handle, "", &status);
}
