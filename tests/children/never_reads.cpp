// never_reads: says "ready", keeps its standard input open without reading it, and lives until a signal ends
// it.
#include <unistd.h>

int main()
{
    if (write(STDOUT_FILENO, "ready\n", 6) != 6) return 1;
    for (;;) pause();
}
