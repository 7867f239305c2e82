// prints_fds: lists its open descriptors, a line "NUMBER TARGET" each, in order.
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <string>

int main()
{
    for (int fd = 0; fd < 1024; ++fd) {
        char target[PATH_MAX];
        const ssize_t length =
            readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target);
        if (length >= 0) std::printf("%d %.*s\n", fd, static_cast<int>(length), target);
    }
}
