// writes_both: "out" to standard output, then "err" to standard error; ends with 1 where one of them is
// closed.
#include <unistd.h>

int main()
{
    const bool out = write(STDOUT_FILENO, "out\n", 4) == 4;
    const bool err = write(STDERR_FILENO, "err\n", 4) == 4;
    return out && err ? 0 : 1;
}
