/// @file
/// Comparing whole status records: every field, by name, with those that must stay as they were.
///
/// @code
///     zt::Status status;
///     record::poison(status);
///     zt_pipe_read(99, buffer, 1, nullptr, &status);
///     EXPECT_EQ(record::fields(status),
///               record::cleared({{"code", "10138"}, {"iparm[0]", "99"}, {"where", "..."}, {"host", host}}));
/// @endcode
#ifndef ZT_TESTS_SUPPORT_RECORD_H
#define ZT_TESTS_SUPPORT_RECORD_H

#include <zt/runtime/status.h>

#include <map>
#include <string>

namespace record {

/// A record's fields by name ("code", "iparm[0]", "sparm[7]", "host", ...), numbers in decimal, texts as they
/// are (up to the terminator, and never beyond the field).
using Fields = std::map<std::string, std::string>;

Fields fields(const zt::Status& status);

/// Fills every byte of the record, terminators apart, with something that no operation writes.
void poison(zt::Status& status);

/// Whether not one byte has changed since `poison`.
bool is_still_poisoned(const zt::Status& status);

/// What a poisoned record looks like once an operation has cleared it and then set these fields: the words
/// and texts that a clear resets are empty, the others (iparm, count) still poisoned.
Fields cleared(const Fields& and_then_set = {});

/// As `cleared`, for a failure: code, place and this host's name besides the fields given.
Fields failure(std::uint32_t code, const std::string& where, const Fields& and_then_set = {});

}  // namespace record

#endif
