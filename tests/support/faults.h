/// @file
/// Failures on demand: system calls and allocations of the code under test fail when a test says so.
///
/// The linker sends the calls named in `Function` here (option --wrap), in the library and in the test alike.
/// Without a plan they go straight on to the real ones. With a plan they are counted, and those that the plan
/// names fail, in the way in which the real call would: a failed close still closes, a short write really
/// writes that part, a stream whose read failed shows it in ferror until clearerr.
///
/// @code
///     faults::Plan plan{{.function = Function::close, .nth = 2, .error = EIO}};
///     EXPECT_EQ(ZT_PIPE_CLOSE(handle, "", &status), ZT_PIPE_E_CLOSE);
///     EXPECT_TRUE(plan.fired());
///     EXPECT_EQ(faults::calls(Function::close), 2);
/// @endcode
///
/// posix_spawnp starts a child as fork does, so it cannot be told from outside what goes on in that child:
/// where the plan has a fault for the fork that would stand in its place, or for any forked child,
/// posix_spawnp refuses with that fault's error and starts nothing. A caller that then forks meets the fault
/// itself.
///
/// What a C++ object takes with `new` is not counted: that call is inside the standard library. Safe in
/// signal handlers, in several threads and after fork; nothing is allocated.
#ifndef ZT_TESTS_SUPPORT_FAULTS_H
#define ZT_TESTS_SUPPORT_FAULTS_H

#include <sys/types.h>

#include <initializer_list>
#include <optional>

namespace faults {

/// `open` is also open64.
enum class Function {
    fork,
    posix_spawnp,
    execvp,
    pipe,
    dup2,
    open,
    close,
    read,
    write,
    waitpid,
    kill,
    popen,
    pclose,
    fread,
    fwrite,
    ferror,
    feof,
    clearerr,
    poll,
    malloc,
    calloc,
    realloc,
    count_
};

struct Fault {
    Function function;
    /// Which call, counted from 1 since the plan was made (in a forked child: since the fork). A child
    /// started by posix_spawnp counts as a fork.
    int nth = 1;
    /// Every later call too.
    bool from_then_on = false;
    /// The `errno` of the failure. With neither `error` nor `result` the call is not failed, only `raising`
    /// acts.
    int error = 0;
    /// What the call returns instead of its usual failure (-1, null, 0 for stream transfers). More than 0
    /// from read, write, fread and fwrite: that many at most are really transferred. From pclose: the wait
    /// status.
    std::optional<long> result = {};
    /// Only in processes forked from the one that planned; otherwise only in that one.
    bool in_child = false;
    /// A signal to raise inside the call before anything else happens; 0 for none.
    int raising = 0;
};

/// The faults are armed while this object lives. One plan at a time; up to 8 faults.
class Plan {
  public:
    /// An empty list only counts.
    Plan(std::initializer_list<Fault> faults);
    ~Plan();
    Plan(const Plan&) = delete;
    Plan& operator=(const Plan&) = delete;

    /// Whether any fault happened, here or in a forked child.
    bool fired() const;
};

/// Calls in this process since the last plan was made, while it lived.
int calls(Function function);

/// The child that fork or posix_spawnp started last since the last plan was made; 0 for none.
pid_t last_child();

}  // namespace faults

#endif
