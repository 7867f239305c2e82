/// @file
/// What the tests of closing share.
#ifndef ZT_TESTS_SUPPORT_CLOSING_H
#define ZT_TESTS_SUPPORT_CLOSING_H

#include <csignal>
#include <cstring>
#include <string>

#include "tests/support/leftovers.h"
#include "tests/support/record.h"
#include "tests/support/transfers.h"

/// Closes into a poisoned record.
class CloseTest : public NothingLeftTest {
  protected:
    std::uint32_t close(int handle, const char* options = "")
    {
        record::poison(status);
        return static_cast<std::uint32_t>(ZT_PIPE_CLOSE(handle, options, &status));
    }

    record::Fields fields() const { return record::fields(status); }

    static constexpr char routine[] = "zt_ipipe_close";

    /// The whole record of a system call that failed. The program's short form is not looked at where its
    /// text is longer than that.
    record::Fields errno_report(std::uint32_t code, int line, int error, const std::string& program)
    {
        return record::failure(code, pipes::at(routine, line),
                               {{"sys_errno", std::to_string(error)},
                                {"sys_msg", strerror(error)},
                                {"sparm[0]", program},
                                {"sparm[1]", program.size() < 32 ? program : status.sparm[1]},
                                {"msg", program}});
    }

    /// The whole record of a child that the close had to end.
    static record::Fields killed(const std::string& program)
    {
        return record::failure(ZT_PIPE_S_ABNORMAL, pipes::at(routine, 3647),
                               {{"sys_errno", "15"}, {"msg", program}});
    }

    /// Collects a child that the close has left uncollected; its wait status.
    static int collect(pid_t pid)
    {
        int word = -1;
        EXPECT_EQ(waitpid(pid, &word, 0), pid) << "nobody else has collected it";
        return word;
    }

    /// Ends and collects a child that the close has left running.
    static void end(pid_t pid)
    {
        EXPECT_EQ(kill(pid, SIGKILL), 0);
        collect(pid);
    }

    zt::Status status;
};

/// A pipe to a child program that has ended and is not collected yet.
inline int open_ended(const char* name_and_arguments)
{
    const int handle = pipes::open(child(name_and_arguments));
    pipes::wait_for_a_child_to_end();
    return handle;
}

#endif
