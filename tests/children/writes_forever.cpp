// writes_forever: writes "y" lines for as long as somebody takes them.
#include <unistd.h>

int main()
{
    while (write(STDOUT_FILENO, "y\n", 2) == 2) {
    }
}
