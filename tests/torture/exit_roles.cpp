// The process that ends: each role is one way of ending, with open pipes of both kinds.
#include <sys/wait.h>
#include <unistd.h>
#include <zt/ztpipe/internal.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "tests/torture/process.h"
#include "tests/torture/work.h"

namespace torture {
namespace {

constexpr int failed = 90;

struct Pipes {
    int sleeper = -1;  // ends by a signal only
    int echo = -1;     // ends with its input
    int writer = -1;   // has bytes in its stream's buffer
};

// A child holds copies of the ends of the pipes opened before it, so the one that never ends comes first.
Pipes open_pipes(const char* file)
{
    zt::Status status;
    Pipes pipes;
    pipes.sleeper = open_pipe(child("never_reads"), "PROGRAM", status);
    char ready[6];
    if (!read_exactly(pipes.sleeper, ready, sizeof ready, status)) std::_Exit(failed);
    pipes.echo = open_pipe(child("echo_lines"), "PROGRAM", status);
    pipes.writer = open_pipe("cat >" + std::string(file), "COMMAND WRITE", status);
    if (zt_pipe_write(pipes.writer, "buffered\n", 9, &status) != 9) std::_Exit(failed);
    return pipes;
}

bool answers(int echo)
{
    zt::Status status;
    char line[6] = {};
    return zt_pipe_write(echo, "hello\n", 6, &status) == 6 && read_exactly(echo, line, 6, status) &&
           std::memcmp(line, "hello\n", 6) == 0;
}

int end_code_of(pid_t pid)
{
    const std::optional<int> status = wait_for_end(pid, 20);
    if (!status) kill(pid, SIGKILL);
    return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
}

// Lives longer than the module's exit function is registered: its destructor runs after the cleanup.
struct LateUser {
    ~LateUser()
    {
        if (file == nullptr) return;
        zt::Status status;
        const int echo = open_pipe(child("echo_lines"), "PROGRAM", status);
        if (echo < 0 || !answers(echo)) std::_Exit(failed);
        open_pipe(child("never_reads"), "PROGRAM", status);  // left to the exit functions
        if (ZT_PIPE_CLOSE(echo, "", &status) != static_cast<int>(ZT_PIPE_S_ABNORMAL)) std::_Exit(failed);
    }
    const char* file = nullptr;
};

LateUser late_user;

int by_return(const char* file)
{
    open_pipes(file);
    return 42;
}

// main is in the middle of a read that never ends while another thread exits.
int exit_in_a_thread(const char* file)
{
    const Pipes pipes = open_pipes(file);
    std::thread([] {
        pause_for(2000);
        std::exit(42);
    }).detach();
    zt::Status status;
    char byte;
    for (;;)
        if (zt_pipe_read(pipes.echo, &byte, 1, nullptr, &status) == 1) return failed;
}

// Other threads go on opening, using and closing pipes while main returns.
int exit_among_working_threads(const char* file)
{
    static std::atomic<long> cycles{0};
    for (std::uint64_t seed = 0; seed < 4; ++seed)
        std::thread([seed] {
            Worker worker{static_cast<std::uint64_t>(getpid()) * 8 + seed, cycles};
            for (;;) worker.cycle();
        }).detach();
    comes_true(20, [] { return cycles > 8; });
    open_pipes(file);
    return 42;
}

int forked_child_exits(const char* file)
{
    const Pipes pipes = open_pipes(file);
    const pid_t pid = fork();
    if (pid == 0) std::exit(7);
    if (end_code_of(pid) != 7) return failed;
    return answers(pipes.echo) ? 42 : failed + 1;
}

int forked_child_returns(const char* file)
{
    const Pipes pipes = open_pipes(file);
    const pid_t pid = fork();
    if (pid == 0) return 7;
    if (end_code_of(pid) != 7) return failed;
    return answers(pipes.echo) ? 42 : failed + 1;
}

// A child of the application is ended by a signal while it has its parent's pipes.
int forked_child_is_ended(const char* file)
{
    const Pipes pipes = open_pipes(file);
    const pid_t pid = fork();
    if (pid == 0) {
        raise(SIGTERM);
        std::_Exit(failed);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFSIGNALED(status)) return failed;
    return answers(pipes.echo) ? 42 : failed + 1;
}

int by_underscore_exit(const char* file)
{
    open_pipes(file);
    _exit(42);
}

// The sleeper holds a copy of the pipe whose end the writer's shell waits for.
int with_a_program_after_a_command(const char* file)
{
    open_pipes(file);
    zt::Status status;
    open_pipe(child("never_reads"), "PROGRAM", status);
    open_pipe(child("echo_lines"), "PROGRAM", status);
    return 42;
}

int by_quick_exit(const char* file)
{
    open_pipes(file);
    std::quick_exit(42);
}

int with_late_destructor(const char* file)
{
    late_user.file = file;
    open_pipes(file);
    std::exit(42);
}

struct Role {
    const char* name;
    int (*play)(const char* file);
};

constexpr Role roles[] = {
    {"return", by_return},
    {"thread", exit_in_a_thread},
    {"working-threads", exit_among_working_threads},
    {"forked-exit", forked_child_exits},
    {"forked-return", forked_child_returns},
    {"forked-signal", forked_child_is_ended},
    {"program-after-command", with_a_program_after_a_command},
    {"_exit", by_underscore_exit},
    {"quick_exit", by_quick_exit},
    {"late-destructor", with_late_destructor},
};

}  // namespace

int play_exit_role(const char* role, const char* file)
{
    for (const Role& one : roles)
        if (std::strcmp(one.name, role) == 0) return one.play(file);
    return failed + 2;
}

}  // namespace torture
