#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zt/runtime/command.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;

std::vector<const char*> pointers(const Words& words)
{
    std::vector<const char*> result;
    for (const std::string& word : words) result.push_back(word.c_str());
    return result;
}

/// Splits a line, having counted first; both must agree and counting must leave the line alone.
Words split(const std::string& line)
{
    std::vector<char> text(line.c_str(), line.c_str() + line.size() + 1);
    text.shrink_to_fit();  // so that a sanitizer sees a step past the terminator
    const int count = zt_cmdline_to_argv(text.data(), nullptr);
    EXPECT_EQ(line, text.data());
    std::vector<char*> argv(static_cast<size_t>(count), nullptr);
    EXPECT_EQ(zt_cmdline_to_argv(text.data(), argv.empty() ? nullptr : argv.data()), count) << line;
    return Words(argv.begin(), argv.end());
}

std::string join(const Words& words)
{
    const std::vector<const char*> argv = pointers(words);
    const int argc = static_cast<int>(argv.size());
    std::vector<char> line(zt_argv_cmdline_length(argc, argv.data()) + 1, '#');
    zt_argv_to_cmdline(line.data(), argc, argv.data());
    EXPECT_EQ(strlen(line.data()) + 1, line.size());
    return line.data();
}

std::string quote(const std::string& text)
{
    std::vector<char> word(zt_shell_quote_length(text.c_str()) + 1, '#');
    zt_shell_quote(word.data(), text.c_str());
    EXPECT_EQ(strlen(word.data()) + 1, word.size());
    return word.data();
}

std::string output_of(const std::string& command)
{
    FILE* stream = popen(command.c_str(), "r");
    if (!stream) return "popen failed";
    std::string output;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, stream)) > 0;) output.append(buffer, n);
    pclose(stream);
    return output;
}

std::string with_terminators(const Words& words)
{
    std::string result;
    for (const std::string& word : words) result.append(word).push_back('\0');
    return result;
}

/// What a shell makes of a line of words.
std::string seen_by_shell(const std::string& line, const std::string& shell = "/bin/sh")
{
    char script[] = "/tmp/zt-command-XXXXXX";
    const int descriptor = mkstemp(script);
    const std::string text = "printf '%s\\0' " + line + "\n";
    EXPECT_EQ(write(descriptor, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(descriptor);
    const std::string output = output_of(shell + " " + script);
    unlink(script);
    return output;
}

Words every_byte()
{
    Words words;
    for (int byte = 1; byte < 256; ++byte) {
        const std::string one(1, static_cast<char>(byte));
        words.insert(words.end(), {one, "a" + one + "b", one + one});
    }
    return words;
}

Words random_words(unsigned seed)
{
    std::mt19937 random(seed);
    const std::string alphabet = "ab'\"\\$` \t\n*?[]{}()<>|&;#~!=%^-\x80\xff";
    Words words(1 + random() % 200);
    for (std::string& word : words)
        for (size_t n = random() % 8; n > 0; --n) word.push_back(alphabet[random() % alphabet.size()]);
    return words;
}

TEST(CommandSplit, AnEmptyLineHasNoWords)
{
    EXPECT_EQ(split(""), Words());
    EXPECT_EQ(split(" \t\n "), Words());
}

TEST(CommandSplit, BlanksSeparate)
{
    EXPECT_EQ(split("sort -r"), (Words{"sort", "-r"}));
    EXPECT_EQ(split("  sort\t\t-r \n file "), (Words{"sort", "-r", "file"}));
}

TEST(CommandSplit, SingleQuotesKeepEverything)
{
    EXPECT_EQ(split("'a b' '\\n\"$x`'"), (Words{"a b", "\\n\"$x`"}));
}

TEST(CommandSplit, DoubleQuotesKeepAllButFourEscapes)
{
    EXPECT_EQ(split(R"("a b" "\"\\\$\`" "\n\'" "it's")"), (Words{"a b", "\"\\$`", "\\n\\'", "it's"}));
}

TEST(CommandSplit, ABackslashTakesTheNextCharacter)
{
    EXPECT_EQ(split("a\\ b \\'c \\\"d \\\\ \\n x\\\ny"), (Words{"a b", "'c", "\"d", "\\", "n", "x\ny"}));
}

TEST(CommandSplit, ABackslashAtTheEndIsItself)
{
    EXPECT_EQ(split("a\\"), (Words{"a\\"}));
    EXPECT_EQ(split("\\"), (Words{"\\"}));
    EXPECT_EQ(split("\"a\\"), (Words{"a\\"}));
}

TEST(CommandSplit, PiecesThatTouchAreOneWord)
{
    EXPECT_EQ(split("a'b c'\"d e\"f"), (Words{"ab cd ef"}));
}

TEST(CommandSplit, EmptyQuotesAreAWord)
{
    EXPECT_EQ(split("'' a \"\" ''"), (Words{"", "a", "", ""}));
}

TEST(CommandSplit, AnUnclosedQuoteReachesToTheEnd)
{
    EXPECT_EQ(split("a 'b c"), (Words{"a", "b c"}));
    EXPECT_EQ(split("a \"b c "), (Words{"a", "b c "}));
    EXPECT_EQ(split("a '"), (Words{"a", ""}));
    EXPECT_EQ(split("\"\\\""), (Words{"\""}));
}

TEST(CommandSplit, NothingIsExpanded)
{
    EXPECT_EQ(split("$HOME * ~ a;b #c `d`"), (Words{"$HOME", "*", "~", "a;b", "#c", "`d`"}));
}

TEST(CommandSplit, NoPointerIsStoredBehindTheLastWord)
{
    char line[] = "a b";
    char guard[] = "guard";
    char* argv[] = {nullptr, nullptr, guard};
    EXPECT_EQ(zt_cmdline_to_argv(line, argv), 2);
    EXPECT_EQ(argv[2], guard);
}

TEST(CommandSplit, ANullLineFails)
{
    char* argv[1];
    errno = 0;
    EXPECT_EQ(zt_cmdline_to_argv(nullptr, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(zt_cmdline_to_argv(nullptr, argv), -1);
}

TEST(CommandSplit, AgreesWithTheShellOnRandomLines)
{
    for (unsigned seed = 0; seed < 40; ++seed) {
        const Words words = random_words(seed);
        std::string line;
        for (const std::string& word : words) line += quote(word) + " ";
        EXPECT_EQ(split(line), words) << seed;
    }
}

TEST(CommandSplit, CountEqualsFillOnAnyInput)
{
    for (unsigned seed = 100; seed < 400; ++seed) {
        std::string line;
        for (const std::string& word : random_words(seed)) line += word;
        split(line);
    }
}

TEST(CommandJoin, NoWordsGiveTheEmptyLine)
{
    char line[4] = "###";
    zt_argv_to_cmdline(line, 0, nullptr);
    EXPECT_STREQ(line, "");
    const char* const words[] = {"a", nullptr};
    strcpy(line, "###");
    zt_argv_to_cmdline(line, -1, words);
    EXPECT_STREQ(line, "");
    EXPECT_EQ(zt_argv_cmdline_length(0, nullptr), 0U);
}

TEST(CommandJoin, ANullPointerEndsTheWords)
{
    const char* const words[] = {"a", nullptr, "b"};
    char line[8];
    zt_argv_to_cmdline(line, 3, words);
    EXPECT_STREQ(line, "a");
    EXPECT_EQ(zt_argv_cmdline_length(3, words), 1U);
}

TEST(CommandJoin, ANullDestinationIsLeftAlone)
{
    const char* const words[] = {"a"};
    zt_argv_to_cmdline(nullptr, 1, words);
    zt_shell_quote(nullptr, "a");
}

TEST(CommandJoin, PlainWordsStayAsTheyAre)
{
    EXPECT_EQ(join({"/bin/dd", "if=/dev/zero", "bs=4k", "a_b@c%d+e:f,g.h-i"}),
              "/bin/dd if=/dev/zero bs=4k a_b@c%d+e:f,g.h-i");
}

TEST(CommandJoin, WordsAreQuotedWhereTheShellNeedsIt)
{
    EXPECT_EQ(join({"grep", "it's", "a file", "", "$x", "*"}), "grep 'it'\\''s' 'a file' '' '$x' '*'");
}

TEST(CommandJoin, AFirstWordIsNoAssignmentAndNoSyntax)
{
    EXPECT_EQ(join({"A=b", "C=d"}), "'A=b' C=d");
    EXPECT_EQ(join({"if", "if"}), "'if' if");
    EXPECT_EQ(join({"!", "while"}), "'!' while");
}

TEST(CommandJoin, TheShellSeesEveryByte)
{
    const Words words = every_byte();
    for (const char* shell : {"/bin/sh", "/bin/bash", "/bin/ksh"}) {
        if (access(shell, X_OK) != 0) continue;
        EXPECT_EQ(seen_by_shell(join(words), shell), with_terminators(words)) << shell;
    }
}

TEST(CommandJoin, TheShellSeesRandomWords)
{
    for (unsigned seed = 1; seed < 30; ++seed) {
        const Words words = random_words(seed);
        EXPECT_EQ(seen_by_shell(join(words)), with_terminators(words)) << seed;
        EXPECT_EQ(split(join(words)), words) << seed;
    }
}

TEST(CommandJoin, TheShellRunsAnyFirstWord)
{
    char folder[] = "/tmp/zt-command-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string home = folder;
    for (const char* name :
         {"A=b", "if", "in", "do", "done", "while", "case", "{", "}", "!", "a b", "~", "#x"}) {
        const std::string path = home + "/" + name;
        ASSERT_EQ(symlink("/bin/echo", path.c_str()), 0) << path;
        EXPECT_EQ(output_of("PATH=" + home + "\n" + join({name, "hello"}) + " 2>&1"), "hello\n") << name;
        unlink(path.c_str());
    }
    rmdir(folder);
}

TEST(ShellQuote, OneWordInSingleQuotes)
{
    EXPECT_EQ(quote("ls -l"), "'ls -l'");
    EXPECT_EQ(quote("it's"), "'it'\\''s'");
    EXPECT_EQ(quote("'"), "''\\'''");
    EXPECT_EQ(quote(""), "''");
}

TEST(ShellQuote, ANullTextIsTheEmptyWord)
{
    char word[3];
    EXPECT_EQ(zt_shell_quote_length(nullptr), 2U);
    zt_shell_quote(word, nullptr);
    EXPECT_STREQ(word, "''");
}

TEST(ShellQuote, TheShellSeesEveryByte)
{
    const Words words = every_byte();
    std::string line;
    for (const std::string& word : words) line += quote(word) + " ";
    EXPECT_EQ(seen_by_shell(line), with_terminators(words));
}

TEST(ShellQuote, TheShellSeesAWholeCommandAsOneWord)
{
    const std::string command = "echo 'a  b' \"c\" `d` $e; exit 3 # \\";
    EXPECT_EQ(seen_by_shell(quote(command)), with_terminators({command}));
}

TEST(Command, ErrnoSurvives)
{
    errno = 4711;
    EXPECT_EQ(split("a 'b"), (Words{"a", "b"}));
    EXPECT_EQ(join({"a", "b c"}), "a 'b c'");
    EXPECT_EQ(errno, 4711);
}

}  // namespace
