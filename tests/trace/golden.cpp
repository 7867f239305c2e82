#include "tests/trace/golden.h"

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <vector>

namespace golden {
namespace {

// Consecutive headings share the lines below the last of them.
std::map<std::string, std::string> sections(const std::string& text)
{
    std::map<std::string, std::string> result;
    std::vector<std::string> headings;
    bool in_headings = false;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const bool heading = line.starts_with("== ");
        if (heading && !in_headings) headings.clear();
        in_headings = heading;
        if (heading) headings.push_back(line);
        for (const std::string& name : headings) result[name] += heading ? std::string() : line + "\n";
    }
    return result;
}

}  // namespace

bool is_to_be_updated()
{
    const char* value = std::getenv("ZT_UPDATE_GOLDEN");
    return value != nullptr && std::string(value) == "1";
}

std::string path(const std::string& name)
{
    return ZT_TEST_SOURCE_DIR "/tests/trace/golden/" + name + ".txt";
}

std::string content(const std::string& name)
{
    std::ostringstream text;
    std::ifstream file(path(name), std::ios::binary);
    if (file) text << file.rdbuf();
    return text.str();
}

void update(const std::string& name, const std::string& text)
{
    std::ofstream(path(name), std::ios::binary) << text;
}

std::string difference(const std::string& expected, const std::string& actual)
{
    if (expected == actual) return "";
    const auto before = sections(expected);
    const auto now = sections(actual);
    std::string text;
    for (const auto& [heading, lines] : now) {
        const auto old = before.find(heading);
        if (old == before.end())
            text += heading + "\nis not in the file; now:\n" + lines;
        else if (old->second != lines)
            text += heading + "\nexpected:\n" + old->second + "now:\n" + lines;
    }
    for (const auto& [heading, lines] : before)
        if (now.count(heading) == 0) text += heading + "\nis only in the file:\n" + lines;
    return text.empty() ? "The sections agree, but their order or grouping does not.\n" : text;
}

}  // namespace golden
