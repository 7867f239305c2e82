#include "tests/conformance/rows.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

namespace {

using Cells = std::vector<std::string>;

Cells split(const std::string& line)
{
    Cells cells;
    std::istringstream text(line);
    for (std::string cell; std::getline(text, cell, '\t');) cells.push_back(cell == "-" ? "" : cell);
    return cells;
}

void set(Row& row, const std::string& column, const std::string& value)
{
    if (column == "source")
        row.source = value;
    else if (column == "routine")
        row.routine = value;
    else if (column == "line")
        row.line = value;
    else if (column == "case")
        row.variant = value;
    else if (column == "code")
        row.code = static_cast<std::uint32_t>(std::stoul(value));
    else if (column == "host")
        row.names_host = value == "<host>";
    else if (column == "left")
        row.left = value;
    else if (!value.empty())
        row.fields[column] = value;
}

std::vector<Row> read_table()
{
    std::ifstream file(ZT_TEST_SOURCE_DIR "/tests/conformance/sites.tsv");
    std::string line;
    std::getline(file, line);
    const Cells columns = split(line);
    std::vector<Row> rows;
    while (std::getline(file, line)) {
        const Cells cells = split(line);
        if (cells.size() != columns.size()) {
            std::cerr << "sites.tsv: not as many columns as in the first line: " << line << '\n';
            std::abort();
        }
        Row& row = rows.emplace_back();
        for (std::size_t i = 0; i < cells.size(); ++i) set(row, columns[i], cells[i]);
    }
    return rows;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Row& row)
{
    return out << row.routine << ' ' << row.key();
}

const std::vector<Row>& rows()
{
    static const std::vector<Row> table = read_table();
    return table;
}
