/// @file
/// Children that a process leaves behind when it ends: the test adopts them and learns how they end.
#ifndef ZT_TESTS_SUPPORT_ORPHANS_H
#define ZT_TESTS_SUPPORT_ORPHANS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "tests/support/forked_child.h"
#include "tests/support/transfers.h"
#include "tests/support/waiting.h"

namespace orphans {

/// In the test: what a scenario leaves behind becomes a child of the test.
inline void adopt()
{
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
}

/// In the scenario: keeps the way home from the children, so that it ends with the scenario.
inline void prepare()
{
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    fcntl(forked::to_parent, F_SETFD, FD_CLOEXEC);
    fcntl(forked::from_parent, F_SETFD, FD_CLOEXEC);
}

/// In the scenario: opens a pipe to a program that only a signal ends, and tells the test its process id.
inline int open_program(const char* label = "pid ")
{
    const int handle = pipes::open_lasting();
    forked::say(label, pipes::block(handle)->pid);
    return handle;
}

/// A number that a scenario has said after this label.
inline int number_after(const std::string& label, const std::string& said)
{
    const size_t found = said.find(label);
    if (found == std::string::npos) ADD_FAILURE() << "no '" << label << "' in '" << said << "'";
    return found != std::string::npos ? atoi(said.c_str() + found + label.size()) : -1;
}

/// Whether an adopted child lives.
inline bool lives(pid_t orphan)
{
    return waitpid(orphan, nullptr, WNOHANG) == 0;
}

/// The signal that ends an adopted child; 0 when it exits, -1 when it does not end in time.
inline int ended_by(pid_t orphan)
{
    int word = 0;
    if (orphan <= 0 || !wait_until([&] { return waitpid(orphan, &word, WNOHANG) == orphan; })) return -1;
    return WIFSIGNALED(word) ? WTERMSIG(word) : 0;
}

/// Ends an adopted child that nobody else will end.
inline void end(pid_t orphan)
{
    if (orphan > 0 && kill(orphan, SIGKILL) == 0) waitpid(orphan, nullptr, 0);
}

}  // namespace orphans

#endif
