#include "bench/floor.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>

namespace bench {
namespace {

constexpr std::size_t request = 32768;

[[noreturn]] void give_up(const char* call)
{
    std::perror(call);
    std::exit(1);
}

// In the child: only what may stand between fork (or vfork) and exec.
[[noreturn]] void become(const char* program, char* const* words, const int* in, const int* out)
{
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    for (const int fd : {in[0], in[1], out[0], out[1]}) close(fd);
    execv(program, words);
    _exit(127);
}

pid_t spawn(const char* program, char* const* words, const int* in, const int* out)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    for (const int fd : {in[0], in[1], out[0], out[1]}) posix_spawn_file_actions_addclose(&actions, fd);
    pid_t pid = -1;
    if (posix_spawn(&pid, program, &actions, nullptr, words, environ) != 0) give_up("posix_spawn");
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

std::size_t read_to_end(int fd, std::size_t expected)
{
    char* const buffer = static_cast<char*>(std::malloc(expected + request));
    std::size_t total = 0;
    for (ssize_t count; (count = read(fd, buffer + total, request)) > 0;)
        total += static_cast<std::size_t>(count);
    std::free(buffer);
    return total;
}

}  // namespace

Child start(Starter starter, const char* program, const char* argument)
{
    int in[2], out[2];
    if (pipe(in) != 0 || pipe(out) != 0) give_up("pipe");
    char* const words[] = {const_cast<char*>(program), const_cast<char*>(argument), nullptr};
    pid_t pid;
    if (starter == Starter::spawn) {
        pid = spawn(program, words, in, out);
    } else {
        pid = starter == Starter::fork ? fork() : vfork();
        if (pid == 0) become(program, words, in, out);
    }
    if (pid < 0) give_up("fork");
    close(in[0]);
    close(out[1]);
    return {pid, in[1], out[0]};
}

void finish(const Child& child)
{
    close(child.to);
    close(child.from);
    int status;
    waitpid(child.pid, &status, 0);
}

template <Starter starter>
std::size_t run(const char* program, const char* argument)
{
    const Child child = start(starter, program, argument);
    const std::size_t total = read_to_end(child.from, static_cast<std::size_t>(std::atol(argument)));
    finish(child);
    return total;
}

template std::size_t run<Starter::fork>(const char*, const char*);
template std::size_t run<Starter::vfork>(const char*, const char*);
template std::size_t run<Starter::spawn>(const char*, const char*);

std::size_t run_popen(const char* command)
{
    std::FILE* const stream = popen(command, "r");
    if (stream == nullptr) give_up("popen");
    static char buffer[request];
    std::size_t total = 0;
    for (std::size_t count; (count = std::fread(buffer, 1, sizeof buffer, stream)) > 0;) total += count;
    pclose(stream);
    return total;
}

}  // namespace bench
