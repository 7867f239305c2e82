// Reads all that a command prints, standard error included, and says how it ended.
// Usage: example_read_output [COMMAND]
#include <zt/ztpipe.h>

#include <cstdio>

int main(int argc, char** argv)
{
    const char* command = argc > 1 ? argv[1] : "echo 'two words' | wc -w; ls /no/such/place";
    zt::Status status;
    int handle = ZT_PIPE_OPEN(command, "COMMAND, READ", nullptr, nullptr, &status);
    char* text = nullptr;  // the pipe's own buffer: valid until the close
    int length = handle > 0 ? zt_pipe_read_unlimited(handle, &text, 0, nullptr, &status) : -1;
    if (length < 0 || !text) {  // no text: memory ran out while it was read
        std::fprintf(stderr, "%s\n", status.what());
        return 1;
    }
    std::printf("It printed %d bytes:\n%s", length, text);

    ZT_PIPE_CLOSE(handle, "", &status);  // the shell's end is collected here
    if (status.code == ZT_PIPE_S_ERROR)
        std::printf("It ended with exit code %d.\n", status.iparm[0]);
    else if (status.code != 0)
        std::printf("%s\n", status.what());
}
