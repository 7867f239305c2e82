// Sends lines through sort. It prints nothing before it has seen the end of its input, so this is a COMMAND
// pipe: the close is that end, and waits until sort has written everything. The result goes to a file on its
// way.
#include <zt/ztpipe.h>

#include <cstdio>
#include <cstdlib>
#include <string>

int main()
{
    const char* fruit[] = {"pear", "apple", "fig", "apple"};
    char file[] = "/tmp/sorted-XXXXXX";
    int fd = mkstemp(file);
    if (fd < 0) return 1;
    std::string command = std::string("sort -u >") + file;

    zt::Status status;
    int sort = ZT_PIPE_OPEN(command.c_str(), "COMMAND, WRITE", nullptr, nullptr, &status);
    for (const char* name : fruit) {
        std::string line = std::string(name) + "\n";
        if (status.code == 0) zt_pipe_write(sort, line.data(), static_cast<int>(line.size()), &status);
    }
    if (status.code == 0) ZT_PIPE_CLOSE(sort, "", &status);
    if (status.code != 0) std::fprintf(stderr, "%s\n", status.what());

    std::FILE* sorted = fdopen(fd, "r");
    char line[80];
    while (sorted && std::fgets(line, sizeof line, sorted)) std::fputs(line, stdout);
    if (sorted) std::fclose(sorted);
    std::remove(file);
    return status.code == 0 ? 0 : 1;
}
