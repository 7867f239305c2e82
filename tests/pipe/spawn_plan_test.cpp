// Where the system cannot be told how the child of a large parent is to be wired, a forked child does it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <utility>

#include "tests/support/faults.h"
#include "tests/support/forked_child.h"
#include "tests/support/leftovers.h"
#include "tests/support/limit.h"
#include "tests/support/parent_size.h"
#include "tests/support/pipes.h"

using faults::Function;
using forked::say;

namespace {

// How many calls of the plan's making succeed before one fails; negative for all.
int calls_until_failure = -1;

bool fails()
{
    return calls_until_failure >= 0 && calls_until_failure-- == 0;
}

class SpawnPlan : public NothingLeftTest {
  protected:
    SpawnPlan() { Zt_pipe_large_parent = always_large; }
    ~SpawnPlan() override { Zt_pipe_large_parent = usual_; }

    static std::string descriptors_of_a_child(const char* options, int& forks)
    {
        const faults::Plan only_counting{};
        const int handle = pipes::open(child("prints_fds"), options);
        forks = faults::calls(Function::fork);
        std::string said = pipes::read_all(handle);
        for (std::size_t at = 0; (at = said.find("pipe:[", at)) != std::string::npos; at += 4)
            said.erase(at + 4, said.find(']', at) - at - 3);
        EXPECT_EQ(pipes::close(handle), 0U);
        return said;
    }

    static int forks_of_true(const char* const* envp = nullptr)
    {
        const faults::Plan only_counting{};
        const int handle = pipes::open("true", "PROGRAM", nullptr, envp);
        const int forks = faults::calls(Function::fork);
        EXPECT_EQ(pipes::close(handle, "NOKILL"), 0U) << "also the system's own path has the program";
        return forks;
    }

  private:
    const long usual_ = Zt_pipe_large_parent;
};

}  // namespace

extern "C" {

int __real_posix_spawn_file_actions_init(posix_spawn_file_actions_t*);
int __real_posix_spawn_file_actions_addclose(posix_spawn_file_actions_t*, int);
int __real_posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t*, int, int);
int __real_posix_spawn_file_actions_addopen(posix_spawn_file_actions_t*, int, const char*, int, mode_t);
int __real_posix_spawnattr_init(posix_spawnattr_t*);
int __real_posix_spawnattr_setsigmask(posix_spawnattr_t*, const sigset_t*);
int __real_posix_spawnattr_setsigdefault(posix_spawnattr_t*, const sigset_t*);
int __real_posix_spawnattr_setflags(posix_spawnattr_t*, short);

int __wrap_posix_spawn_file_actions_init(posix_spawn_file_actions_t* actions)
{
    return fails() ? ENOMEM : __real_posix_spawn_file_actions_init(actions);
}

int __wrap_posix_spawn_file_actions_addclose(posix_spawn_file_actions_t* actions, int fd)
{
    return fails() ? ENOMEM : __real_posix_spawn_file_actions_addclose(actions, fd);
}

int __wrap_posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t* actions, int fd, int as)
{
    return fails() ? ENOMEM : __real_posix_spawn_file_actions_adddup2(actions, fd, as);
}

int __wrap_posix_spawn_file_actions_addopen(posix_spawn_file_actions_t* actions, int fd, const char* path,
                                            int flags, mode_t mode)
{
    return fails() ? ENOMEM : __real_posix_spawn_file_actions_addopen(actions, fd, path, flags, mode);
}

int __wrap_posix_spawnattr_init(posix_spawnattr_t* attributes)
{
    return fails() ? ENOMEM : __real_posix_spawnattr_init(attributes);
}

int __wrap_posix_spawnattr_setsigmask(posix_spawnattr_t* attributes, const sigset_t* mask)
{
    return fails() ? ENOMEM : __real_posix_spawnattr_setsigmask(attributes, mask);
}

int __wrap_posix_spawnattr_setsigdefault(posix_spawnattr_t* attributes, const sigset_t* signals)
{
    return fails() ? ENOMEM : __real_posix_spawnattr_setsigdefault(attributes, signals);
}

int __wrap_posix_spawnattr_setflags(posix_spawnattr_t* attributes, short flags)
{
    return fails() ? ENOMEM : __real_posix_spawnattr_setflags(attributes, flags);
}

}  // extern "C"

TEST_F(SpawnPlan, ThatCannotBeMadeLeavesTheChildToAForkWhateverIsMissing)
{
    for (const char* const options : {"PROGRAM", "PROGRAM STDERR=DISCARD", "PROGRAM STDERR=IGNORE"}) {
        int forks;
        const std::string planned = descriptors_of_a_child(options, forks);
        EXPECT_EQ(forks, 0);
        for (int call = 0; call < 12; ++call) {
            calls_until_failure = call;
            EXPECT_EQ(descriptors_of_a_child(options, forks), planned) << options << ", call " << call;
            EXPECT_EQ(forks, 1) << options << ", call " << call;
        }
        calls_until_failure = 12;
        EXPECT_EQ(descriptors_of_a_child(options, forks), planned);
        EXPECT_EQ(forks, 0) << "12 calls make a plan";
        calls_until_failure = -1;
    }
}

TEST_F(SpawnPlan, IsNotMadeForAStandardStreamThatHasAnotherDescriptor)
{
    for (std::FILE** const stream : {&stdin, &stdout, &stderr}) {
        std::FILE* const usual = *stream;
        *stream = fdopen(fcntl(fileno(usual), F_DUPFD, 20), stream == &stdin ? "r" : "w");
        EXPECT_EQ(forks_of_true(), 1);
        fclose(*stream);
        *stream = usual;
    }
    EXPECT_EQ(forks_of_true(), 0);
}

TEST_F(SpawnPlan, IsNotMadeWhereTheProcessesSizeCannotBeRead)
{
    forked::Child process([] {
        Leftovers::settle();
        Zt_pipe_large_parent = 1;
        const faults::Plan only_counting{};
        int free[4];
        for (int& fd : free) fd = dup(0);
        for (const int fd : free) ::close(fd);
        int handle;
        {
            const Limit room_for_two_pipes{RLIMIT_NOFILE, static_cast<rlim_t>(free[3]) + 1};
            handle = pipes::open("true", "PROGRAM");
        }
        say("forks ", faults::calls(Function::fork));
        pipes::close(handle, "NOKILL");
        pipes::close(pipes::open("true", "PROGRAM"), "NOKILL");
        say("then ", faults::calls(Function::fork));
    });
    EXPECT_EQ(process.said(), "forks 1 then 1 ");
}

TEST_F(SpawnPlan, IsNotMadeWithoutASearchPath)
{
    const char* const nothing_to_search[] = {"NAME=value", nullptr};
    EXPECT_EQ(forks_of_true(nothing_to_search), 1);
    const std::string path = getenv("PATH");
    unsetenv("PATH");
    EXPECT_EQ(forks_of_true(), 1);
    char** const own = std::exchange(environ, nullptr);
    EXPECT_EQ(forks_of_true(), 1);
    environ = own;
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(forks_of_true(), 0);
}

TEST_F(SpawnPlan, PassesOverAFolderWhoseFilesHaveNamesThatAreTooLong)
{
    const std::string path = getenv("PATH");
    setenv("PATH", ("/" + std::string(PATH_MAX, 'x') + ":" + path).c_str(), 1);
    EXPECT_EQ(forks_of_true(), 0);
    setenv("PATH", path.c_str(), 1);
}

// What is closed for standard error gives its number to the device, unless the stream has another one.
TEST_F(SpawnPlan, AForkedChildDiscardsTheErrorsOfAStreamThatHasAnotherDescriptor)
{
    Zt_pipe_large_parent = never_large;
    std::FILE* const usual = stderr;
    stderr = fdopen(fcntl(STDERR_FILENO, F_DUPFD, 20), "w");
    int forks;
    const std::string combined = descriptors_of_a_child("PROGRAM STDERR=COMBINE", forks);
    const std::string discarded = descriptors_of_a_child("PROGRAM STDERR=DISCARD", forks);
    fclose(stderr);
    stderr = usual;
    std::string expected = combined;
    expected.replace(expected.find("\n20 pipe\n"), 9, "\n20 /dev/null\n");
    EXPECT_EQ(discarded, expected) << "and no other descriptor of the device is left";
}
