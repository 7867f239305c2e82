/// @file
/// The module's codes with their names, meanings and advice: the one table behind `what()`, the program and
/// the docs.
#ifndef ZT_ZTPIPE_CODES_H
#define ZT_ZTPIPE_CODES_H

#include <zt/runtime/errors.h>

#include <cstddef>

namespace zt::pipe {

inline constexpr std::size_t code_text_count = 25;
extern const zt_code_text code_texts[code_text_count];

}  // namespace zt::pipe

#endif
