// Switches the trace on while the program runs, and off again. The lines come on standard error, or in the
// file that ZT_TRACE_FILE names.
#include <zt/ztpipe.h>

#include <cstdio>

static void show_settings()
{
    zt::Status status;
    char text[512];
    zt_pipe_debug_settings(text, &status);
    std::fprintf(stderr, "settings: [%s]\n", text);
}

int main()
{
    zt::Status status;
    char answer[100];
    int bc = ZT_PIPE_OPEN("bc", "PROGRAM", nullptr, nullptr, &status);  // nothing is traced yet
    show_settings();

    if (zt_pipe_debug_config("PARMS='read,write', EXCEPTIONS", &status) != 0)
        std::fprintf(stderr, "%s\n", status.what());
    show_settings();
    zt_pipe_write(bc, "6*7\n", 4, &status);
    zt_pipe_read(bc, answer, sizeof answer, "\n", &status);
    zt_pipe_write(99, "6*7\n", 4, &status);  // no such handle

    zt_pipe_debug_config("OFF", &status);
    show_settings();
    return ZT_PIPE_CLOSE(bc, "NOKILL", &status);
}
