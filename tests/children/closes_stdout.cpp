// closes_stdout [CODE]: closes its standard output and lives on until its input ends; ends with that code.
#include <unistd.h>

#include <cstdlib>

int main(int argc, char** argv)
{
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    char byte;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    return argc > 1 ? std::atoi(argv[1]) : 0;
}
