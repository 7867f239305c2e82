// echoes: writes back whatever it reads, as it comes.
#include <unistd.h>

int main()
{
    static char block[65536];
    for (ssize_t count; (count = read(STDIN_FILENO, block, sizeof block)) > 0;)
        if (write(STDOUT_FILENO, block, static_cast<size_t>(count)) != count) return 1;
}
