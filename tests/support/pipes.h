/// @file
/// The steps that nearly every test of the pipes takes.
#ifndef ZT_TESTS_SUPPORT_PIPES_H
#define ZT_TESTS_SUPPORT_PIPES_H

#include <gtest/gtest.h>
#include <zt/ztpipe/internal.h>

#include <string>
#include <string_view>

#include "tests/support/children.h"
#include "tests/support/record.h"

namespace pipes {

/// Opens a pipe that has to open.
///
/// @code
///     const int handle = pipes::open(child("echo_lines"));
/// @endcode
inline int open(const std::string& program, const char* options = "PROGRAM",
                const char* const* argv = nullptr, const char* const* envp = nullptr)
{
    zt::Status status;
    const int handle = ZT_PIPE_OPEN(program.c_str(), options, argv, envp, &status);
    EXPECT_GT(handle, 0) << status.what();
    return handle;
}

/// Closes a pipe; how that went, or how the child ended.
inline std::uint32_t close(int handle, const char* options = "")
{
    zt::Status status;
    return static_cast<std::uint32_t>(ZT_PIPE_CLOSE(handle, options, &status));
}

/// A pipe's control block, or null.
inline zt_pipe* block(int handle)
{
    return Zt_pipes != nullptr && handle > 0 && handle < Zt_avail_pipes ? Zt_pipes[handle] : nullptr;
}

/// What the child writes up to the first time that it ends with this text, or to its end.
inline std::string read_until(int handle, std::string_view text)
{
    zt::Status status;
    std::string said;
    char byte;
    while (!said.ends_with(text) && zt_pipe_read(handle, &byte, 1, nullptr, &status) == 1) said += byte;
    return said;
}

/// Everything that the child writes.
inline std::string read_all(int handle)
{
    zt::Status status;
    char* text = nullptr;
    const int count = zt_pipe_read_unlimited(handle, &text, 0, nullptr, &status);
    EXPECT_GE(count, 0) << status.what();
    return count > 0 ? std::string(text, static_cast<std::size_t>(count)) : std::string();
}

/// Writes a text that has to arrive.
inline void write(int handle, std::string_view text)
{
    zt::Status status;
    const int length = static_cast<int>(text.size());
    EXPECT_EQ(zt_pipe_write(handle, text.data(), length, &status), length) << status.what();
}

/// The whole record of an open that has to fail.
inline record::Fields refused(const char* program, const char* options, const char* const* argv = nullptr,
                              const char* const* envp = nullptr)
{
    zt::Status status;
    record::poison(status);
    EXPECT_EQ(ZT_PIPE_OPEN(program, options, argv, envp, &status), -1);
    return record::fields(status);
}

/// Opens a pipe to a program that only a signal ends. It has started and written its line, so that it does
/// not end by SIGPIPE when the pipe is closed under it.
inline int open_lasting(const std::string& arguments = "")
{
    const int handle = open(child("never_reads") + arguments);
    EXPECT_EQ(read_until(handle, "ready\n"), "ready\n");
    return handle;
}

}  // namespace pipes

#endif
