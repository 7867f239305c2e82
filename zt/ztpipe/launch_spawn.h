/// @file
/// The road of large parents: starting a program without copying the parent's page tables.
#ifndef ZT_ZTPIPE_LAUNCH_SPAWN_H
#define ZT_ZTPIPE_LAUNCH_SPAWN_H

#include <signal.h>
#include <zt/ztpipe/wiring.h>

namespace zt::pipe {

/// Tries to start the program with everything in place and stores its pid in the block. False, with nothing
/// done, when this process is not large enough for the attempt, or when anything at all is in the way: the
/// caller then takes the road of fork with the same pipes, which reports whatever it was.
///
/// All signals are blocked; the program starts with `mask`.
bool spawn_child(zt_pipe& pipe, const Wires& wires, char* const* words, const char* const* envp,
                 const sigset_t& mask);

}  // namespace zt::pipe

#endif
