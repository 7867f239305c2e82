// ignores_term: ignores SIGTERM, says "ready", and ends with its input.
#include <signal.h>

#include <cstdio>

int main()
{
    signal(SIGTERM, SIG_IGN);
    std::puts("ready");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
}
