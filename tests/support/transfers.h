/// @file
/// What tests of writing and reading share: pipes that close themselves, trace flags, places.
#ifndef ZT_TESTS_SUPPORT_TRANSFERS_H
#define ZT_TESTS_SUPPORT_TRANSFERS_H

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "tests/support/pipes.h"

namespace pipes {

/// A runner in the background of a shell is started with SIGINT ignored, and hands that on to its tests.
inline const auto interrupt_action_of_the_runner = std::signal(SIGINT, SIG_DFL);

/// A pipe that must open, and that is closed at the end of the scope unless the test has closed it.
class Pipe {
  public:
    Pipe(const std::string& program, const std::string& options) : handle_(open(program, options.c_str())) {}
    ~Pipe() { close(); }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    operator int() const { return handle_; }
    zt_pipe* operator->() const { return Zt_pipes[handle_]; }

    /// The code of the close; 0 when the pipe is closed already.
    int close(const char* options = "")
    {
        if (handle_ < 0) return 0;
        const int code = static_cast<int>(pipes::close(handle_, options));
        handle_ = -1;
        return code;
    }

  private:
    int handle_;
};

/// To one of the child programs of the tests.
inline Pipe to_program(const std::string& name_and_arguments, const std::string& more_options = "")
{
    return Pipe(child(name_and_arguments), "PROGRAM " + more_options);
}

inline Pipe to_command(const std::string& command, const std::string& more_options = "READ")
{
    return Pipe(command, "COMMAND " + more_options);
}

/// Waits until a child of this process has ended, and leaves it to be collected by the code under test.
inline void wait_for_a_child_to_end()
{
    siginfo_t info;
    while (waitid(P_ALL, 0, &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
}

/// The categories of Zt_pipe_debug, in order.
enum class Category { global, open, close, read, write };

/// A debug flag that is on while this object lives. The flags must be initialised.
class Flag {
  public:
    Flag(Category category, int flag) : word_(Zt_pipe_debug[static_cast<int>(category)].flags[flag])
    {
        word_ = 1;
    }
    ~Flag() { word_ = 0; }
    Flag(const Flag&) = delete;
    Flag& operator=(const Flag&) = delete;

  private:
    std::uint32_t& word_;
};

/// The trace's dump of at most 16 bytes.
inline std::string dump_of(const std::string& bytes)
{
    std::string line = "      00000000 ";
    for (size_t i = 0; i < 16; ++i) {
        char hex[4] = "   ";
        if (i < bytes.size()) std::snprintf(hex, sizeof hex, " %02x", static_cast<unsigned char>(bytes[i]));
        line += hex;
    }
    line += " |";
    for (const char c : bytes) line += c >= ' ' && c <= '~' ? c : '.';
    return line + "|";
}

/// The place of a failure as the record names it.
inline std::string at(const char* routine, int line)
{
    return "ztpipe(" + std::string(routine) + "):" + std::to_string(line);
}

}  // namespace pipes

#endif
