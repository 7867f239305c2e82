// raises SIGNAL: ends by that signal (a number), at its default action and without leaving a core file.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>

int main(int argc, char** argv)
{
    const int signo = argc > 1 ? std::atoi(argv[1]) : SIGTERM;
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    signal(signo, SIG_DFL);
    raise(signo);
    for (;;) pause();
}
