/// @file
/// The values in trace lines that differ from run to run.
#ifndef ZT_TESTS_TRACE_KNOWN_H
#define ZT_TESTS_TRACE_KNOWN_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace trace {

/// The children and streams of all pipes, in the order of their handles. A value in a line is replaced by its
/// name only where it is the right one: another child's number stays, and shows.
class Known {
  public:
    /// Adds those of the pipes that are open now.
    void look();
    /// Adds a child whose pipe may be gone already; 0 for none.
    void look_at_child(pid_t pid);

    std::string without_varying_values(std::string line) const;

    /// Ends and collects what is left of the children.
    void end_children() const;

  private:
    std::vector<std::string> pids_, streams_;
};

}  // namespace trace

#endif
