/// @file
/// Golden files: what is expected, as a person reads it.
#ifndef ZT_TESTS_TRACE_GOLDEN_H
#define ZT_TESTS_TRACE_GOLDEN_H

#include <string>

namespace golden {

/// Whether the environment asks for the files to be written instead of compared (ZT_UPDATE_GOLDEN=1).
bool is_to_be_updated();

std::string path(const std::string& name);
/// The content, empty when there is no such file.
std::string content(const std::string& name);
void update(const std::string& name, const std::string& text);

/// The sections in which two texts differ, with the lines that were expected and those that came. Empty when
/// the texts are equal.
std::string difference(const std::string& expected, const std::string& actual);

}  // namespace golden

#endif
