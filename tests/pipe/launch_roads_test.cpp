// A large parent starts programs by posix_spawn, a small one by fork: the program must not be able to tell.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zt/runtime/environment.h>
#include <zt/ztpipe/internal.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/pipes.h"

namespace {

enum class Road { fork, spawn };

class Roads : public NothingLeftTest {
  protected:
    void TearDown() override
    {
        Zt_pipe_large_parent = usual_;
        NothingLeftTest::TearDown();
    }

    // What a program says and how it ends, having been started on one road.
    static std::string outcome(Road road, const std::string& program, const char* options,
                               const char* const* argv = nullptr, const char* const* envp = nullptr)
    {
        Zt_pipe_large_parent = road == Road::spawn ? 0 : LONG_MAX;
        const faults::Plan only_counting{};
        const int handle = pipes::open(program, options, argv, envp);
        forks_ = faults::calls(faults::Function::fork);
        const std::string file = pipes::block(handle)->cmdline;
        char* said = nullptr;
        zt::Status status;
        zt_pipe_read_unlimited(handle, &said, 0, nullptr, &status);
        const std::string text = comparable(said);
        return file + "\n" + text + std::to_string(pipes::close(handle));
    }

    static void expect_same(const std::string& program, const char* options = "PROGRAM",
                            const char* const* argv = nullptr, const char* const* envp = nullptr)
    {
        const std::string forked = outcome(Road::fork, program, options, argv, envp);
        EXPECT_EQ(forks_, 1);
        EXPECT_EQ(outcome(Road::spawn, program, options, argv, envp), forked) << program << " " << options;
    }

    static int forks_;

  private:
    // Pipes are numbered by the system as they come. The C library has two signals of its own, 32 and 33,
    // ignored in what posix_spawn starts.
    static std::string comparable(std::string said)
    {
        for (std::size_t at = 0; (at = said.find("pipe:[", at)) != std::string::npos; at += 4)
            said.erase(at + 4, said.find(']', at) - at - 3);
        const std::string ignored = "SigIgn:\t", library_signals = "00000001800", none = "00000000000";
        const std::size_t set = said.find(ignored + library_signals);
        if (set != std::string::npos) said.replace(set + ignored.size(), none.size(), none);
        return said;
    }

    const long usual_ = Zt_pipe_large_parent;
};

int Roads::forks_;

TEST_F(Roads, ALargeParentDoesNotFork)
{
    outcome(Road::spawn, child("exits_with 0"), "PROGRAM");
    EXPECT_EQ(forks_, 0);
}

TEST_F(Roads, DescriptorsAreTheSameForEachKindOfStandardError)
{
    for (const char* options : {"PROGRAM", "PROGRAM STDERR=DISCARD", "PROGRAM STDERR=IGNORE"}) {
        expect_same(child("prints_fds"), options);
        EXPECT_EQ(forks_, 0) << options;
    }
}

TEST_F(Roads, WhatTheProgramWritesToStandardErrorGoesTheSameWay)
{
    for (const char* options : {"PROGRAM", "PROGRAM STDERR=DISCARD", "PROGRAM STDERR=IGNORE"})
        expect_same(child("writes_both"), options);
}

TEST_F(Roads, MaskAndDispositionsOfSignalsAreTheSame)
{
    sigset_t blocked, before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigprocmask(SIG_BLOCK, &blocked, &before);
    signal(SIGUSR2, SIG_IGN);
    expect_same(child("prints_signals"));
    EXPECT_EQ(forks_, 0);
    struct sigaction handler = {};
    handler.sa_handler = SIG_IGN;
    struct sigaction sigpipe, sigint;
    sigaction(SIGPIPE, &handler, &sigpipe);
    sigaction(SIGINT, &handler, &sigint);
    expect_same(child("prints_signals"));
    EXPECT_EQ(forks_, 0);
    sigaction(SIGPIPE, &sigpipe, nullptr);
    sigaction(SIGINT, &sigint, nullptr);
    signal(SIGUSR2, SIG_DFL);
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(Roads, WordsAndEnvironmentAreTheSame)
{
    const std::string program = child("prints_words");
    const char* const argv[] = {program.c_str(), "two words", "", "$HOME", nullptr};
    expect_same("ignored", "PROGRAM", argv);
    const char* const envp[] = {"NAME=value", nullptr};
    expect_same(child("prints_env NAME"), "PROGRAM", nullptr, envp);
    EXPECT_EQ(forks_, 0);
    expect_same(child("prints_env NAME"), "PROGRAM MERGE_ENV", nullptr, envp);
}

TEST_F(Roads, AProgramIsSearchedWithThePathOfItsOwnEnvironment)
{
    const char* const elsewhere[] = {"PATH=" ZT_TEST_CHILDREN_DIR, nullptr};
    expect_same("exits_with 3", "PROGRAM", nullptr, elsewhere);
    EXPECT_EQ(forks_, 1);
    expect_same("true");
    EXPECT_EQ(forks_, 0);
    const std::string path = std::string("PATH=") + getenv("PATH");
    const char* const as_here[] = {path.c_str(), nullptr};
    expect_same("true", "PROGRAM", nullptr, as_here);
    EXPECT_EQ(forks_, 0);
}

// A folder with a script of this name that says where it stands.
class Folder {
  public:
    explicit Folder(const std::string& where)
    {
        EXPECT_NE(mkdtemp(path_.data()), nullptr);
        std::ofstream(script()) << "#!/bin/sh\necho " + where + "\n";
        chmod(script().c_str(), 0700);
    }
    ~Folder()
    {
        unlink(script().c_str());
        rmdir(path_.c_str());
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string script() const { return path_ + "/" + name; }
    std::string variable() const { return "PATH=" + path_; }
    const std::string& path() const { return path_; }

    static constexpr char name[] = "zt_test_script";

  private:
    std::string path_ = "/tmp/zt-folder-XXXXXX";
};

// The launcher's own steps, because an open would wait for the lock under which the loan lasts.
TEST_F(Roads, TheProgramIsTheSameWhileAnotherThreadHasAnotherPathLent)
{
    const Folder own("own"), lent("lent");
    const std::string usual_path = getenv("PATH");
    setenv("PATH", (own.path() + ":" + usual_path).c_str(), 1);
    std::atomic<bool> lasts{false}, done{false};
    std::thread lender([&] {
        const std::string variable = lent.variable();
        const char* const envp[] = {variable.c_str(), nullptr};
        Zt_pipe_mtx.lock();
        char** const before = zt_environ_lend(envp);
        lasts = true;
        while (!done) std::this_thread::yield();
        zt_environ_take_back(before);
        Zt_pipe_mtx.unlock();
    });
    while (!lasts) std::this_thread::yield();
    for (const Road road : {Road::fork, Road::spawn}) {
        Zt_pipe_large_parent = road == Road::spawn ? 0 : LONG_MAX;
        const faults::Plan only_counting{};
        zt_pipe pipe{};
        zt::Status status;
        std::strcpy(pipe.program, Folder::name);
        EXPECT_EQ(zt_pipe_fork(&pipe, nullptr, nullptr, &status), 0U);
        EXPECT_EQ(faults::calls(faults::Function::fork), road == Road::fork ? 1 : 0);
        char said[16] = {};
        EXPECT_EQ(::read(pipe.read_fd, said, sizeof said - 1), 4);
        EXPECT_STREQ(said, "own\n");
        ::close(pipe.read_fd);
        ::close(pipe.write_fd);
        waitpid(pipe.pid, nullptr, 0);
    }
    done = true;
    lender.join();
    setenv("PATH", usual_path.c_str(), 1);
}

TEST_F(Roads, WhatTheSearchFindsButCannotRunIsPassedOver)
{
    const Folder locked("locked"), own("own");
    const std::string usual_path = getenv("PATH");
    setenv("PATH", ("/no/such/folder:" + locked.path() + ":" + own.path() + ":" + usual_path).c_str(), 1);
    expect_same(Folder::name);
    EXPECT_EQ(forks_, 0);
    chmod(locked.script().c_str(), 0600);
    expect_same(Folder::name);
    EXPECT_EQ(forks_, 1);
    setenv("PATH", (":" + usual_path).c_str(), 1);  // the working directory comes first
    expect_same("true");
    EXPECT_EQ(forks_, 1);
    unsetenv("PATH");
    expect_same("true");
    EXPECT_EQ(forks_, 1);
    setenv("PATH", usual_path.c_str(), 1);
}

TEST_F(Roads, WhatCannotBeStartedEndsWith127OnBothRoads)
{
    expect_same("/no/such/program");
    EXPECT_EQ(forks_, 1);
    expect_same("/etc/passwd");
    expect_same("no-such-program-on-the-path");
}

TEST_F(Roads, AScriptWithoutAFirstLineIsRunByTheShellOnBothRoads)
{
    char path[] = "/tmp/zt-script-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_EQ(::write(fd, "echo shell; exit 5\n", 19), 19);
    fchmod(fd, 0700);
    ::close(fd);
    expect_same(path);
    unlink(path);
}

TEST_F(Roads, AClosedStandardStreamTakesTheRoadOfFork)
{
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        const int saved = fcntl(stream, F_DUPFD_CLOEXEC, 10);
        ::close(stream);
        const std::string forked = outcome(Road::fork, child("prints_fds"), "PROGRAM");
        const std::string on_the_other = outcome(Road::spawn, child("prints_fds"), "PROGRAM");
        const int forks = forks_;
        dup2(saved, stream);
        ::close(saved);
        EXPECT_EQ(on_the_other, forked) << stream;
        EXPECT_EQ(forks, 1) << stream;
    }
}

TEST_F(Roads, DetailLinesAreTracedByAForkedChild)
{
    zt::Status status;
    zt_pipe_debug_config("DEBUG=open", &status);
    outcome(Road::spawn, child("exits_with 0"), "PROGRAM");
    zt_pipe_debug_config("OFF", &status);
    EXPECT_EQ(forks_, 1);
}

}  // namespace
