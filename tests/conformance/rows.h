/// @file
/// The table of failure sites, sites.tsv: a row each for what a failure at that site reports.
///
/// The first line names the columns. `line` is the location that people search for in logs, `case` tells
/// several ways to one site apart, `left` names what the failure is known to leave behind. The fields of the
/// record have their own names; "-" means that the failure leaves the field as it was. Values in <> depend on
/// the moment.
#ifndef ZT_TESTS_CONFORMANCE_ROWS_H
#define ZT_TESTS_CONFORMANCE_ROWS_H

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

struct Row {
    /// The file in zt/ztpipe where the site stands.
    std::string source;
    std::string routine;
    std::string line;
    /// Empty where one way is enough.
    std::string variant;
    std::uint32_t code = 0;
    /// The fields that the failure writes besides code, place and host.
    std::map<std::string, std::string> fields;
    bool names_host = false;
    /// Empty for nothing.
    std::string left;

    /// What the scenario that leads here is called: the line, or "line/case".
    std::string key() const { return variant.empty() ? line : line + "/" + variant; }
    /// The text of the location.
    std::string where() const { return "ztpipe(" + routine + "):" + line; }
};

/// Names a row in the messages of a test.
std::ostream& operator<<(std::ostream& out, const Row& row);

/// All rows of sites.tsv. A line that cannot be read ends the program.
const std::vector<Row>& rows();

#endif
