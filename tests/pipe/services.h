/// @file
/// The services that the module calls, as a list of calls to compare.
///
/// The linker sends these calls here (option --wrap); from here they go on to the real services.
///
/// @code
///     services::Log log;
///     zt_pipe_get_handle(7, &pipe, "caller", &status);
///     EXPECT_EQ(log.calls(), (Lines{"lock", "zt_hostname_r", "unlock"}));
/// @endcode
#ifndef ZT_TESTS_PIPE_SERVICES_H
#define ZT_TESTS_PIPE_SERVICES_H

#include <zt/runtime/options.h>

#include <functional>
#include <string>
#include <vector>

namespace services {

using Lines = std::vector<std::string>;

/// While it lives, calls are noted. One at a time; for one thread.
///
/// "lock" and "unlock" are those of the handle table's lock. Of the allocator only the module's own calls are
/// noted, with all arguments but the blocks.
class Log {
  public:
    Log();
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    /// What was called so far.
    const Lines& calls() const { return calls_; }
    /// Only the calls that begin with this text.
    Lines calls(const std::string& beginning) const;

    /// zt_file_init, zt_atexit, zt_signal or zt_pipe_debug_init fails with this code instead of doing
    /// anything.
    void fail(const std::string& service, std::uint32_t code);
    /// To be looked at when the table's lock is about to be given back.
    std::function<void()> at_unlock;

    /// For the services: notes a call.
    void note(const std::string& call);
    /// For the services: the code with which this one is to fail, or 0.
    std::uint32_t failure_of(const std::string& service) const;

  private:
    Lines calls_;
    std::string failing_;
    std::uint32_t code_ = 0;
};

/// What stands in for the option processor; null for the processor itself.
extern std::function<int(char*, zt_option*, int, zt_option_error*)> process_options;

}  // namespace services

#endif
