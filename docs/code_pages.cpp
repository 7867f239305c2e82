// Writes the page of codes, as Markdown or for man: names, meanings and advice from the table in the library,
// the places and the fields they fill from the table of failure sites that the tests fire one by one, and
// what a place is called from the module's sources. Usage: code_pages markdown|mdoc SOURCE-DIRECTORY
#include <zt/runtime/errors.h>
#include <zt/ztpipe.h>
#include <zt/ztpipe/codes.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct Place {
    std::set<std::string> routines;
    std::set<std::uint32_t> codes;
    std::string what;
};

struct Knowledge {
    std::map<int, Place> places;                                   // by line
    std::map<std::uint32_t, std::vector<std::string>> parameters;  // by code, in the order of the record
};

// --------------------------------------------------------------------------------- what there is to write

std::vector<std::string> split(const std::string& line)
{
    std::vector<std::string> fields;
    std::istringstream text(line);
    for (std::string field; std::getline(text, field, '\t');) fields.push_back(field);
    return fields;
}

/// Whether a column of the table of sites is a parameter that this row fills.
bool fills(const std::string& column, const std::string& value)
{
    static const std::set<std::string> others{"source",  "routine", "line", "case", "code",
                                              "subcode", "count",   "host", "left"};
    return !others.contains(column) && value != "-" && !(column == "sys_errno" && value == "0");
}

void add_site(const std::vector<std::string>& columns, const std::vector<std::string>& row, Knowledge& all)
{
    enum { routine = 1, line = 2, code = 4 };
    Place& place = all.places[std::stoi(row.at(line))];
    const auto number = static_cast<std::uint32_t>(std::stoul(row.at(code)));
    place.routines.insert(row.at(routine));
    place.codes.insert(number);
    auto& parameters = all.parameters[number];
    for (std::size_t i = 0; i < columns.size() && i < row.size(); ++i) {
        if (!fills(columns[i], row[i])) continue;
        if (std::find(parameters.begin(), parameters.end(), columns[i]) == parameters.end())
            parameters.push_back(columns[i]);
        if ((columns[i] == "sparm[0]" || columns[i] == "msg") && place.what.empty()) place.what = row[i];
    }
}

/// What the runtime fills for a child's own end, which has no place in the module. An interrupt carries
/// nothing; what a record shows beside it is left from what the operation had found before.
void correct_parameters(Knowledge& all)
{
    all.parameters[ZT_PIPE_E_INTERRUPTED].clear();
    all.parameters[ZT_PIPE_S_NORMAL] = all.parameters[ZT_PIPE_S_ERROR] = {"iparm[0]", "sparm[0]", "msg"};
    all.parameters[ZT_PIPE_S_ABNORMAL] = {"sys_errno", "iparm[0]", "sparm[0]", "msg"};
}

/// The two places of each debug flag stand in one line of the sources, the flag behind it.
void name_flag_places(const std::string& line, Knowledge& all)
{
    static const std::regex pair(R"(\{\{(\d+), \w+\}, \{(\d+), \w+\}\},\s*// (\w+))");
    std::smatch found;
    if (!std::regex_search(line, found, pair)) return;
    all.places[std::stoi(found[1])].what = "misplaced not of " + found[3].str();
    all.places[std::stoi(found[2])].what = "unknown category of " + found[3].str();
}

/// The name a place has in the sources says more than the label it reports.
void name_places(const std::filesystem::path& file, Knowledge& all)
{
    static const std::regex named(R"((?:Site (\w+)|\.(\w+) = )\{(\d{3,4}), )");
    std::ifstream source(file);
    for (std::string line; std::getline(source, line);) {
        for (std::sregex_iterator i(line.begin(), line.end(), named), end; i != end; ++i) {
            std::string name = (*i)[1].matched ? (*i)[1] : (*i)[2];
            std::replace(name.begin(), name.end(), '_', ' ');
            all.places[std::stoi((*i)[3])].what = name;
        }
        name_flag_places(line, all);
    }
}

Knowledge read_knowledge(const std::filesystem::path& source)
{
    Knowledge all;
    std::ifstream table(source / "tests/conformance/sites.tsv");
    std::string line;
    std::getline(table, line);
    const auto columns = split(line);
    while (std::getline(table, line)) add_site(columns, split(line), all);
    correct_parameters(all);
    for (const auto& entry : std::filesystem::directory_iterator(source / "zt/ztpipe"))
        if (entry.path().extension() == ".cpp") name_places(entry.path(), all);
    return all;
}

// ---------------------------------------------------------------------------- texts, the same in both
// formats

std::string sentence(std::string text)
{
    if (text[0] >= 'a' && text[0] <= 'z') text[0] = static_cast<char>(text[0] - 'a' + 'A');
    return text.back() == '.' ? text : text + '.';
}

/// A meaning with the place-holders as the fields they stand for.
std::string meaning_of(const zt_code_text& row)
{
    const std::string numbered =
        std::regex_replace(sentence(row.meaning), std::regex("\\{([si]parm)([0-7])\\}"), "$1[$2]");
    return std::regex_replace(numbered, std::regex("\\{([a-z_]+)\\}"), "$1");
}

std::string joined(const std::vector<std::string>& words)
{
    std::string result;
    for (const std::string& word : words) result += (result.empty() ? "" : ", ") + word;
    return result;
}

std::string parameters_of(std::uint32_t code, const Knowledge& all)
{
    const auto found = all.parameters.find(code);
    return found == all.parameters.end() || found->second.empty() ? "none" : joined(found->second);
}

std::string lines_of(std::uint32_t code, const Knowledge& all)
{
    std::vector<std::string> lines;
    for (const auto& [line, place] : all.places)
        if (place.codes.contains(code)) lines.push_back(std::to_string(line));
    return lines.empty() ? "none" : joined(lines);
}

/// The codes of a place; the option language's six are one word.
std::string codes_of(const Place& place)
{
    std::vector<std::string> names;
    for (const std::uint32_t code : place.codes) {
        const zt_code_text* row = zt_error_code_text(code);
        std::string name = row ? row->name : "20000 + errno";
        if (name.rfind("ZT_OPTION_E_", 0) == 0) name = "ZT_OPTION_E_...";
        if (names.empty() || names.back() != name) names.push_back(name);
    }
    return joined(names);
}

std::string routines_of(const Place& place)
{
    if (place.routines.size() > 2) return "any operation";
    return joined({place.routines.begin(), place.routines.end()});
}

template <class Write>
void for_each_code(Write write)
{
    for (std::uint32_t code = 1; code < ZT_ERROR_SYSTEM; ++code)
        if (const zt_code_text* row = zt_error_code_text(code)) write(*row);
}

// -------------------------------------------------------------------------------------------------- Markdown

void write_markdown(const Knowledge& all)
{
    std::fputs(R"(# Codes

Made by `scripts/docs` from the table in the library; do not edit.

`status.code` (or `status.subcode`, where a read warns) holds one of these numbers. A parameter is a field of the
record that the code fills, in some places not all of them. Beside them `where` has the place,
"ztpipe(routine):line". A child's own end (10144, 10145, 10147) has no place: there `where` is empty. A system error
without a code of its own is 20000 + `errno`.

)",
               stdout);
    for_each_code([&](const zt_code_text& row) {
        std::printf("## %u %s\n\n%s\n\n- Parameters: %s\n- Lines: %s\n", row.code, row.name,
                    meaning_of(row).c_str(), parameters_of(row.code, all).c_str(),
                    lines_of(row.code, all).c_str());
        if (row.advice) std::printf("- What to do: %s\n", row.advice);
        std::puts("");
    });
    std::fputs(R"(## Places

The number behind the colon in `where` is fixed for each place where something can fail.

| line | routine | code | what |
|---|---|---|---|
)",
               stdout);
    for (const auto& [line, place] : all.places)
        std::printf("| %d | %s | %s | %s |\n", line, routines_of(place).c_str(), codes_of(place).c_str(),
                    place.what.c_str());
}

// ------------------------------------------------------------------------------------------------------ mdoc

/// Each sentence begins a line, no line is long, and none may begin with a quote, which would make it a
/// request.
std::string for_man(const std::string& text)
{
    std::string lines = std::regex_replace(text, std::regex("([.:;]) "), "$1\n");
    lines = std::regex_replace(lines, std::regex("([^\n]{60}[^ \n]*) "), "$1\n");
    return std::regex_replace(lines, std::regex("(^|\n)'"), "$1\\&'");
}

void write_mdoc(const Knowledge& all)
{
    std::fputs(R"(.\" Made by scripts/docs from the table in the library; do not edit.
.Dd November 21, 2026
.Dt ZT_PIPE_CODES 7
.Os
.Sh NAME
.Nm zt_pipe_codes
.Nd every code of the zt library and what to do about it
.Sh DESCRIPTION
The outcome of an operation stands in the status record:
.Fa code ,
or
.Fa subcode
where a read warns, holds one of the numbers below.
A parameter is a field of the record that the code fills, in some places
not all of them.
Beside them
.Fa where
has the place,
.Dq ztpipe(routine):line .
The own end of a child (10144, 10145, 10147) has no place: there
.Fa where
is empty.
A system error without a code of its own is 20000 +
.Va errno .
.Bl -tag -width Ds
)",
               stdout);
    for_each_code([&](const zt_code_text& row) {
        std::printf(".It Sy %u Dv %s\n%s\n", row.code, row.name, for_man(meaning_of(row)).c_str());
        if (row.advice) std::printf("%s\n", for_man(row.advice).c_str());
        std::printf(".br\n%s\n", for_man("Parameters: " + parameters_of(row.code, all) + '.').c_str());
        std::printf(".br\n%s\n", for_man("Lines: " + lines_of(row.code, all) + '.').c_str());
    });
    std::fputs(R"(.El
.Sh PLACES
The number behind the colon in
.Fa where
is fixed for each place where something can fail.
.Bl -tag -width 00000 -compact
)",
               stdout);
    for (const auto& [line, place] : all.places)
        std::printf(".It %d\n%s: %s (%s)\n", line, routines_of(place).c_str(), place.what.c_str(),
                    codes_of(place).c_str());
    std::fputs(R"(.El
.Sh SEE ALSO
.Xr ztpipe 1 ,
.Xr zt_pipe 3 ,
.Xr zt_pipe_options 7 ,
.Xr zt_pipe_trace 7
)",
               stdout);
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string_view format = argc == 3 ? argv[1] : "";
    if (format != "markdown" && format != "mdoc") {
        std::fputs("usage: code_pages markdown|mdoc SOURCE-DIRECTORY\n", stderr);
        return 64;
    }
    zt_error_add_codes(zt::pipe::code_texts, zt::pipe::code_text_count);
    const Knowledge all = read_knowledge(argv[2]);
    format == "markdown" ? write_markdown(all) : write_mdoc(all);
}
