// closes_stdin: closes its standard input, says "closed" and lives on until a signal ends it.
#include <unistd.h>

int main()
{
    close(STDIN_FILENO);
    if (write(STDOUT_FILENO, "closed\n", 7) != 7) return 1;
    for (;;) pause();
}
