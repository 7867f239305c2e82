// Command lines: counting and splitting agree, joining and quoting give what a real shell reads as the same
// words.
#include <zt/runtime/command.h>

#include <fstream>
#include <iterator>

#include "fuzz/check.h"

namespace {

using Words = std::vector<std::string>;

constexpr std::size_t lines_a_shell = 2000;

/// Collects lines with the words that a shell should read in them. When there are enough it asks one shell,
/// and ends the process where the two differ.
class Shell {
  public:
    Shell() : folder_("/tmp/zt-fuzz-XXXXXX") { fuzz::holds("folder", mkdtemp(folder_.data()) != nullptr); }
    ~Shell()
    {
        ask();
        std::remove(script().c_str());
        std::remove(answer().c_str());
        std::remove(folder_.c_str());
    }
    Shell(const Shell&) = delete;
    Shell& operator=(const Shell&) = delete;

    void reads(const std::string& line, const Words& words)
    {
        // Without words there would be nothing to print but an empty one.
        if (words.empty()) return;
        lines_.emplace_back(line, words);
        if (lines_.size() == lines_a_shell) ask();
    }

  private:
    std::string script() const { return folder_ + "/script"; }
    std::string answer() const { return folder_ + "/answer"; }

    void ask()
    {
        std::ofstream commands(script(), std::ios::binary);
        for (const auto& [line, words] : lines_) commands << "printf '%s\\0' " << line << "\n";
        commands.close();
        const std::string command = "exec /bin/sh " + script() + " >" + answer();
        fuzz::equal("shell", std::system(command.c_str()), 0);

        std::ifstream stream(answer(), std::ios::binary);
        const std::string said{std::istreambuf_iterator<char>(stream), {}};
        std::size_t at = 0;
        for (const auto& [line, words] : lines_)
            for (const std::string& word : words) {
                const std::string seen = at < said.size() ? said.c_str() + at : "";
                fuzz::equal(line.c_str(), seen, word);
                at += seen.size() + 1;
            }
        fuzz::equal("answer", at, said.size());
        lines_.clear();
    }

    std::string folder_;
    std::vector<std::pair<std::string, Words>> lines_;
};

Words split(const std::string& line)
{
    std::vector<char> text = fuzz::tight(line);
    const int count = zt_cmdline_to_argv(text.data(), nullptr);
    fuzz::equal("counted line", std::string(text.data()), line);
    std::vector<char*> argv(static_cast<std::size_t>(count));
    char* none = nullptr;  // an empty vector has no address, and null would mean to count
    fuzz::equal("words filled in", zt_cmdline_to_argv(text.data(), count > 0 ? argv.data() : &none), count);
    return Words(argv.begin(), argv.end());
}

std::string join(const Words& words)
{
    std::vector<const char*> argv;
    for (const std::string& word : words) argv.push_back(word.c_str());
    const int argc = static_cast<int>(argv.size());
    const std::size_t length = zt_argv_cmdline_length(argc, argv.data());
    std::vector<char> line(length + 1, '#');
    zt_argv_to_cmdline(line.data(), argc, argv.data());
    fuzz::equal("length", std::strlen(line.data()), length);
    return line.data();
}

std::string quote(const std::string& text)
{
    const std::size_t length = zt_shell_quote_length(text.c_str());
    std::vector<char> word(length + 1, '#');
    zt_shell_quote(word.data(), text.c_str());
    fuzz::equal("length", std::strlen(word.data()), length);
    return word.data();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Shell shell;
    const std::string text = fuzz::text(data, size);
    const Words words = split(text);
    const std::string line = join(words);
    fuzz::holds("joined and split again", split(line) == words);
    shell.reads(line, words);

    const std::string quoted = quote(text);
    fuzz::holds("quoted and split again", split(quoted) == Words{text});
    shell.reads(quoted, {text});
    return 0;
}
