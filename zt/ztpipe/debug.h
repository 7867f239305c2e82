/// @file
/// The shape of the debug flags, shared by the parser and the report of the settings.
#ifndef ZT_ZTPIPE_DEBUG_H
#define ZT_ZTPIPE_DEBUG_H

#include <zt/ztpipe.h>

#include <atomic>
#include <cstdint>

namespace zt::pipe {

inline constexpr int debug_categories = 5;
inline constexpr int debug_flags = 6;
inline constexpr int debug_slots = 8;

/// Flag keywords, in the order of their slots.
inline constexpr const char* flag_names[debug_flags] = {"PARMS", "CLOCKS",     "CTRLBLKS",
                                                        "DEBUG", "EXCEPTIONS", "MEMORY"};

inline bool is_on(zt_pipe_debug_category& category, int slot)
{
    return std::atomic_ref(category.flags[slot]).load(std::memory_order_relaxed) != 0;
}

/// Operations of other threads look at the flags at any time, without a lock.
inline void set_flag(zt_pipe_debug_category& category, int slot, std::uint32_t setting)
{
    std::atomic_ref(category.flags[slot]).store(setting, std::memory_order_relaxed);
}

}  // namespace zt::pipe

#endif
