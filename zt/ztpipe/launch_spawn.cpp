// fork costs 30 to 50 microseconds for every MiB that the parent has resident; posix_spawn costs the same for
// every parent. It is taken only where its outcome is the one that fork would have.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zt/runtime/environment.h>
#include <zt/runtime/errno_guard.h>
#include <zt/ztpipe/launch.h>
#include <zt/ztpipe/launch_spawn.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <initializer_list>

extern "C" {
long Zt_pipe_large_parent = 64L * 1024 * 1024;
}

namespace zt::pipe {
namespace {

long resident_bytes()
{
    std::FILE* const figures = std::fopen("/proc/self/statm", "re");
    if (figures == nullptr) return 0;
    long pages = 0;
    if (std::fscanf(figures, "%*d %ld", &pages) != 1) pages = 0;
    std::fclose(figures);
    return pages * sysconf(_SC_PAGESIZE);
}

// The peak is asked first: it costs one cheap call, and most processes have never been large.
bool is_large_parent()
{
    rusage usage;
    if (getrusage(RUSAGE_SELF, &usage) != 0 || usage.ru_maxrss * 1024 < Zt_pipe_large_parent) return false;
    return resident_bytes() >= Zt_pipe_large_parent;
}

bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) >= 0;
}

// The wiring of the forked child fails at a standard stream that is closed, and leaves out calls where a
// pipe's end is a standard stream already. Neither is for file actions to imitate.
bool has_plain_descriptors(const Wires& wires)
{
    for (const int fd : {wires.to_child[0], wires.to_child[1], wires.from_child[0], wires.from_child[1]})
        if (fd <= STDERR_FILENO) return false;
    return fileno(stdin) == STDIN_FILENO && fileno(stdout) == STDOUT_FILENO &&
           fileno(stderr) == STDERR_FILENO && is_open(STDIN_FILENO) && is_open(STDOUT_FILENO) &&
           is_open(STDERR_FILENO);
}

const char* search_path(const char* const* environment)
{
    constexpr char name[] = "PATH=";
    constexpr std::size_t length = sizeof name - 1;
    for (; environment != nullptr && *environment != nullptr; ++environment)
        if (std::strncmp(*environment, name, length) == 0) return *environment + length;
    return nullptr;
}

bool find_on(const char* path, const char* name, char (&file)[PATH_MAX])
{
    for (const char* folder = path;;) {
        const char* const end = strchrnul(folder, ':');
        if (end == folder) return false;  // stands for the working directory
        const int needed =
            std::snprintf(file, sizeof file, "%.*s/%s", static_cast<int>(end - folder), folder, name);
        struct stat found;
        if (needed < PATH_MAX && stat(file, &found) == 0) return true;
        if (*end == '\0') return false;
        folder = end + 1;
    }
}

// The file to run, always with a slash in it, so that posix_spawnp does not search: it would take the path
// that another thread's shell launch may have lent the process at this moment. A path of the child's own is
// left to the forked child, and so is the rest of the search where the first file found cannot be run.
bool find_file(const char* name, const char* const* envp, char (&file)[PATH_MAX])
{
    if (std::strchr(name, '/') != nullptr) return std::snprintf(file, sizeof file, "%s", name) < PATH_MAX;
    const char* const path = search_path(zt_own_environ());
    const char* const childs = envp != nullptr ? search_path(envp) : path;
    return path != nullptr && childs != nullptr && std::strcmp(path, childs) == 0 &&
           find_on(path, name, file);
}

// The wiring of the child as the system is to do it, with the program's signal mask and SIGPIPE at its
// default.
class Plan {
  public:
    Plan() : made_(posix_spawn_file_actions_init(&actions_) == 0 && posix_spawnattr_init(&attributes_) == 0)
    {
    }
    ~Plan()
    {
        if (!made_) return;
        posix_spawnattr_destroy(&attributes_);
        posix_spawn_file_actions_destroy(&actions_);
    }
    Plan(const Plan&) = delete;
    Plan& operator=(const Plan&) = delete;

    bool wire(const Wires& wires, std::uint32_t stderr_mode)
    {
        return made_ && close(wires.to_child[1]) && close(wires.from_child[0]) &&
               lay_onto(wires.to_child[0], STDIN_FILENO) && lay_onto(wires.from_child[1], STDOUT_FILENO) &&
               arrange_stderr(stderr_mode);
    }

    bool set_signals(const sigset_t& mask)
    {
        sigset_t sigpipe;
        sigemptyset(&sigpipe);
        sigaddset(&sigpipe, SIGPIPE);
        return posix_spawnattr_setsigmask(&attributes_, &mask) == 0 &&
               posix_spawnattr_setsigdefault(&attributes_, &sigpipe) == 0 &&
               posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF) == 0;
    }

    bool run(zt_pipe& pipe, const char* file, char* const* words, char* const* environment)
    {
        pid_t pid;
        if (posix_spawnp(&pid, file, &actions_, &attributes_, words, environment) != 0) return false;
        pipe.pid = pid;
        return true;
    }

  private:
    bool close(int fd) { return posix_spawn_file_actions_addclose(&actions_, fd) == 0; }
    bool dup(int from, int onto) { return posix_spawn_file_actions_adddup2(&actions_, from, onto) == 0; }
    bool lay_onto(int end, int stream) { return dup(end, stream) && close(end); }

    bool arrange_stderr(std::uint32_t mode)
    {
        if (mode == ZT_PIPE_STDERR_COMBINE) return dup(STDOUT_FILENO, STDERR_FILENO);
        if (mode != ZT_PIPE_STDERR_DISCARD) return close(STDERR_FILENO);
        return posix_spawn_file_actions_addopen(&actions_, STDERR_FILENO, "/dev/null", O_WRONLY, 0) == 0;
    }

    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
    const bool made_;
};

}  // namespace

bool spawn_child(zt_pipe& pipe, const Wires& wires, char* const* words, const char* const* envp,
                 const sigset_t& mask)
{
    const ErrnoGuard keep;
    if (traces_launch_detail()) return false;  // details are traced by the forked child
    if (!is_large_parent() || !has_plain_descriptors(wires)) return false;
    char file[PATH_MAX];
    if (!find_file(pipe.cmdline, envp, file)) return false;
    char* const* const environment = envp != nullptr ? const_cast<char**>(envp) : zt_own_environ();
    Plan plan;
    return plan.wire(wires, pipe.stderr_mode) && plan.set_signals(mask) &&
           plan.run(pipe, file, words, environment);
}

}  // namespace zt::pipe
