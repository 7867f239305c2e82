/// @file
/// Marks for declarations.
#ifndef ZT_RUNTIME_API_H
#define ZT_RUNTIME_API_H

/// Marks what the shared library exports; everything without the mark is hidden.
#define ZT_API __attribute__((visibility("default")))

/// Lets the compiler check the values against a printf-like format text.
#define ZT_PRINTF(format_index, first_value) __attribute__((format(printf, format_index, first_value)))

#endif
