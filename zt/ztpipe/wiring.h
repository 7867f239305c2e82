/// @file
/// Descriptor work of the launch by fork and exec.
#ifndef ZT_ZTPIPE_WIRING_H
#define ZT_ZTPIPE_WIRING_H

#include <zt/ztpipe/operation.h>

namespace zt::pipe {

/// The two pipes between parent and child, each with its read end first. People know them from the messages
/// as fd1 (`to_child`) and fd2 (`from_child`).
struct Wires {
    int to_child[2];
    int from_child[2];
};

/// Descriptor calls that report a failure under the label of the descriptor concerned.
class Wiring {
  public:
    explicit Wiring(Report& report) : report_(report) {}

    bool close(Site site, int fd, const char* label);
    bool dup(Site site, int from, int onto, const char* label);

  private:
    Report& report_;
};

/// In the child: lays the pipes onto its standard streams and arranges standard error as the pipe's options
/// say. Stops at the first failure, which stands in the report then. Does only what a forked child of a
/// threaded process may do.
void wire_child(Report& report, const zt_pipe& pipe, const Wires& wires);

}  // namespace zt::pipe

#endif
