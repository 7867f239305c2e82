/// @file
/// The option table of the open.
#ifndef ZT_ZTPIPE_OPEN_OPTIONS_H
#define ZT_ZTPIPE_OPEN_OPTIONS_H

#include <zt/ztpipe/operation.h>

namespace zt::pipe {

/// SIZE when the caller gives none.
inline constexpr int default_size = 65536;

/// What the options say beside the fields of the control block.
struct OpenOptions {
    bool merge_environment = false;
};

/// Writes the defaults into the block, then what the option text says. A refused option fills the report.
void apply_open_options(Report& report, const char* options, zt_pipe& pipe, OpenOptions& others);

}  // namespace zt::pipe

#endif
