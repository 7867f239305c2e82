// pours COUNT: writes that many bytes, 64 KiB at a time.
#include <unistd.h>

#include <cstdlib>

int main(int, char** argv)
{
    static char block[65536];
    for (long left = std::atol(argv[1]); left > 0;) {
        const long wanted = left < 65536 ? left : 65536;
        const ssize_t written = write(STDOUT_FILENO, block, static_cast<size_t>(wanted));
        if (written < 0) return 1;
        left -= written;
    }
}
