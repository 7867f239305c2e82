// The rows of sites.tsv against the sites in the code, both ways.
#include <gtest/gtest.h>
#include <zt/runtime/errors.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/conformance/rows.h"

namespace {

/// A site as it is written in the code: {line, code}. The code is 0 where somebody else gives it.
struct CodeSite {
    std::string source, line, code;
};

std::string content(const std::filesystem::path& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

void find_sites(const std::filesystem::path& file, std::vector<CodeSite>& sites)
{
    const std::string text = content(file);
    for (auto brace = text.find('{'); brace != std::string::npos; brace = text.find('{', brace + 1)) {
        char line[8], code[64], end[2];
        const int found =
            std::sscanf(text.c_str() + brace, "{ %7[0-9] , %63[A-Z0-9_] %1[}]", line, code, end);
        if (found == 3) sites.push_back({file.filename(), line, code});
    }
}

std::vector<CodeSite> sites_in_code()
{
    std::vector<CodeSite> sites;
    for (const auto& file : std::filesystem::directory_iterator(ZT_TEST_SOURCE_DIR "/zt/ztpipe"))
        find_sites(file.path(), sites);
    return sites;
}

bool describes(const Row& row, const CodeSite& site)
{
    if (row.line != site.line || row.source != site.source) return false;
    const zt_code_text* const text = zt_error_code_text(row.code);
    return site.code == "0" || (text != nullptr && site.code == text->name);
}

}  // namespace

TEST(SitesInTheCode, AreFound)
{
    EXPECT_GT(sites_in_code().size(), 100U);
}

TEST(SitesInTheCode, HaveEachALineOfTheirOwn)
{
    std::set<std::string> lines;
    for (const CodeSite& site : sites_in_code())
        EXPECT_TRUE(lines.insert(site.line).second) << site.source << ' ' << site.line;
}

TEST(SitesInTheCode, HaveEachARow)
{
    for (const CodeSite& site : sites_in_code())
        EXPECT_TRUE(std::ranges::any_of(rows(), [&](const Row& row) { return describes(row, site); }))
            << site.source << ' ' << site.line << ' ' << site.code;
}

TEST(SitesInTheTable, HaveEachTheirPlaceInTheCode)
{
    const std::vector<CodeSite> sites = sites_in_code();
    for (const Row& row : rows())
        EXPECT_TRUE(std::ranges::any_of(sites, [&](const CodeSite& site) { return describes(row, site); }))
            << row << ' ' << row.code;
}
