#include <gtest/gtest.h>
#include <zt/runtime/text.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace {

/// A destination of exactly the room given, so that the sanitizer sees every overrun.
std::string copied(const char* text, std::size_t size)
{
    std::vector<char> dst(size, '#');
    EXPECT_EQ(zt_strncpy(dst.data(), text, size), dst.data());
    return dst.data();
}

std::string trimmed(const char* path, std::size_t width)
{
    std::vector<char> dst(width, '#');
    EXPECT_EQ(zt_trim_filename(path, width, dst.data()), dst.data());
    return dst.data();
}

std::string rendered(const std::string& text)
{
    std::vector<char> dst(4 * text.size() + 1, '#');
    EXPECT_EQ(zt_character_to_string(text.data(), text.size(), dst.data()), dst.data());
    return dst.data();
}

TEST(Strncpy, CopiesWhatFitsAndAlwaysTerminates)
{
    EXPECT_EQ(copied("abc", 10), "abc");
    EXPECT_EQ(copied("abc", 4), "abc");
    EXPECT_EQ(copied("abc", 3), "ab");
    EXPECT_EQ(copied("abc", 1), "");
    EXPECT_EQ(copied("", 1), "");
}

TEST(Strncpy, LeavesTheRestOfTheDestinationAlone)
{
    char dst[] = "########";
    zt_strncpy(dst, "ab", sizeof dst);
    EXPECT_EQ(std::memcmp(dst, "ab\0#####", sizeof dst), 0);
}

TEST(Strncpy, ReadsNoFurtherThanItNeeds)
{
    const std::vector<char> unterminated(3, 'x');
    char dst[4];
    EXPECT_STREQ(zt_strncpy(dst, unterminated.data(), sizeof dst), "xxx");
}

TEST(Strncpy, TakesNullAndNoRoom)
{
    char dst[] = "ab";
    EXPECT_EQ(zt_strncpy(nullptr, "x", 5), nullptr);
    EXPECT_STREQ(zt_strncpy(dst, "x", 0), "ab");
    EXPECT_STREQ(zt_strncpy(dst, nullptr, sizeof dst), "");
}

TEST(Strncpy, TextsMayOverlap)
{
    char text[] = "abcdef";
    EXPECT_STREQ(zt_strncpy(text, text + 2, sizeof text), "cdef");
    EXPECT_STREQ(zt_strncpy(text + 1, text, 4), "cde");
    EXPECT_STREQ(text, "ccde");
}

TEST(TrimFilename, LeavesWhatFitsAsItIs)
{
    EXPECT_EQ(trimmed("/bin/sort", 32), "/bin/sort");
    EXPECT_EQ(trimmed("/bin/sort", 10), "/bin/sort");
    EXPECT_EQ(trimmed("", 1), "");
}

TEST(TrimFilename, KeepsTheEndBehindDots)
{
    EXPECT_EQ(trimmed("abcdefghij", 10), "...efghij");
    EXPECT_EQ(trimmed("abcdefghij", 5), "...j");
}

TEST(TrimFilename, PrefersToBeginAtASlash)
{
    EXPECT_EQ(trimmed("/usr/lib/very/long/path/to/program", 24), ".../path/to/program");
    EXPECT_EQ(trimmed("/usr/local/program", 14), ".../program");
}

TEST(TrimFilename, ASlashFarBackDoesNotThrowTheRestAway)
{
    EXPECT_EQ(trimmed("abcdefghijklmnop/x", 12), "...klmnop/x");
}

TEST(TrimFilename, WorksAtEveryWidth)
{
    const std::string path = "/one/two/three/four";
    for (std::size_t width = 1; width < path.size() + 3; ++width) {
        const std::string result = trimmed(path.c_str(), width);
        EXPECT_LT(result.size(), width);
        const std::string tail = result.substr(result.rfind("...", 0) == 0 ? 3 : 0);
        EXPECT_EQ(path.substr(path.size() - tail.size()), tail) << width;
    }
    EXPECT_EQ(trimmed("abcdef", 1), "");
    EXPECT_EQ(trimmed("abcdef", 2), "f");
    EXPECT_EQ(trimmed("abcdef", 4), "def");
}

TEST(TrimFilename, TakesNullAndNoRoom)
{
    char dst[] = "ab";
    EXPECT_EQ(zt_trim_filename("abcdefgh", 5, nullptr), nullptr);
    EXPECT_STREQ(zt_trim_filename("abcdefgh", 0, dst), "ab");
    EXPECT_STREQ(zt_trim_filename(nullptr, 3, dst), "");
}

TEST(TrimFilename, MayShortenATextInPlace)
{
    char path[] = "/usr/lib/long/program";
    EXPECT_STREQ(zt_trim_filename(path, 16, path), ".../program");
}

TEST(Stricmp, IgnoresTheCaseOfLetters)
{
    EXPECT_EQ(zt_stricmp("discard", "DISCARD"), 0);
    EXPECT_EQ(zt_stricmp("", ""), 0);
    EXPECT_NE(zt_stricmp("discard", "DISCAR"), 0);
    EXPECT_NE(zt_stricmp("[", "{"), 0);
    EXPECT_NE(zt_stricmp("\xc4", "\xe4"), 0);
}

TEST(Stricmp, OrdersTexts)
{
    EXPECT_LT(zt_stricmp("A", "b"), 0);
    EXPECT_GT(zt_stricmp("b", "A"), 0);
    EXPECT_LT(zt_stricmp("ab", "ABC"), 0);
    EXPECT_GT(zt_stricmp("\xff", "a"), 0);
}

TEST(Stricmp, TakesNull)
{
    EXPECT_EQ(zt_stricmp(nullptr, nullptr), 0);
    EXPECT_LT(zt_stricmp(nullptr, ""), 0);
    EXPECT_GT(zt_stricmp("", nullptr), 0);
}

TEST(CharacterToString, ShowsControlCharactersAsEscapes)
{
    EXPECT_EQ(rendered("a b~"), "a b~");
    EXPECT_EQ(rendered("\n\t\r\\"), "\\n\\t\\r\\\\");
    EXPECT_EQ(rendered("\x01\x1b\x7f"), "\\x01\\x1B\\x7F");
    EXPECT_EQ(rendered(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(rendered("\xc3\xa4"), "\\xC3\\xA4");
    EXPECT_EQ(rendered(""), "");
}

TEST(CharacterToString, NeedsFourBytesForEachAndTheTerminator)
{
    std::string every;
    for (int c = 0; c < 256; ++c) every += static_cast<char>(c);
    EXPECT_LE(rendered(every).size(), 4 * every.size());
    EXPECT_EQ(rendered("\1\2\3"), "\\x01\\x02\\x03");
}

TEST(CharacterToString, TakesNull)
{
    char dst[] = "ab";
    EXPECT_EQ(zt_character_to_string("x", 1, nullptr), nullptr);
    EXPECT_STREQ(zt_character_to_string(nullptr, 3, dst), "");
}

TEST(Texts, KeepErrno)
{
    char dst[64];
    errno = EXDEV;
    zt_strncpy(dst, "abc", sizeof dst);
    zt_trim_filename("/a/b/c/d", 6, dst);
    zt_stricmp("a", "b");
    zt_character_to_string("\n", 1, dst);
    EXPECT_EQ(errno, EXDEV);
}

}  // namespace
