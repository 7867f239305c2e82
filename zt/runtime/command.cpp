#include <zt/runtime/command.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr const char* bare_characters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_@%+:,./-=";

/// What sh, ksh and bash take as syntax where they look for a command.
constexpr const char* reserved_words[] = {"if",    "then",   "else",     "elif", "fi",     "for",
                                          "in",    "do",     "done",     "case", "esac",   "while",
                                          "until", "select", "function", "time", "coproc", "namespace"};

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\n';
}

bool is_escapable(char c)
{
    return c == '"' || c == '\\' || c == '$' || c == '`';
}

/// Reads one word after the other. With an output the words are also written, each terminated; the output may
/// be the line itself, since a word never gets longer.
class WordReader {
  public:
    WordReader(const char* line, char* out) : in_(line), out_(out) {}

    bool skip_to_word()
    {
        while (is_blank(*in_)) ++in_;
        return *in_ != '\0';
    }

    char* word()
    {
        char* const begin = out_;
        while (*in_ != '\0' && !is_blank(*in_)) piece();
        // The separator is passed before the terminator is put, which may take its place.
        if (*in_ != '\0') ++in_;
        put('\0');
        return begin;
    }

  private:
    void piece()
    {
        const char c = *in_++;
        if (c == '\'')
            single_quoted();
        else if (c == '"')
            double_quoted();
        else if (c == '\\' && *in_ != '\0')
            put(*in_++);
        else
            put(c);
    }

    void single_quoted()
    {
        while (*in_ != '\0' && *in_ != '\'') put(*in_++);
        skip_quote();
    }

    void double_quoted()
    {
        while (*in_ != '\0' && *in_ != '"') {
            if (*in_ == '\\' && is_escapable(in_[1])) ++in_;
            put(*in_++);
        }
        skip_quote();
    }

    void skip_quote()
    {
        if (*in_ != '\0') ++in_;
    }

    void put(char c)
    {
        if (out_) *out_++ = c;
    }

    const char* in_;
    char* out_;
};

/// Counts characters, and writes them where there is an output.
class Line {
  public:
    explicit Line(char* out) : out_(out) {}

    void put(const char* text, size_t length)
    {
        if (out_) memcpy(out_ + length_, text, length);
        length_ += length;
    }

    void put(const char* text) { put(text, strlen(text)); }

    void put_quoted(const char* text)
    {
        put("'");
        for (const char* quote; (quote = strchr(text, '\'')) != nullptr; text = quote + 1) {
            put(text, static_cast<size_t>(quote - text));
            put("'\\''");
        }
        put(text);
        put("'");
    }

    size_t finish()
    {
        if (out_) out_[length_] = '\0';
        return length_;
    }

  private:
    char* const out_;
    size_t length_ = 0;
};

bool is_reserved(const char* word)
{
    for (const char* reserved : reserved_words)
        if (strcmp(word, reserved) == 0) return true;
    return false;
}

bool needs_quotes(const char* word, bool first)
{
    if (*word == '\0' || word[strspn(word, bare_characters)] != '\0') return true;
    return first && (strchr(word, '=') || is_reserved(word));
}

size_t join(char* dst, int argc, const char* const* argv)
{
    Line line(dst);
    for (int i = 0; argv && i < argc && argv[i]; ++i) {
        if (i > 0) line.put(" ");
        if (needs_quotes(argv[i], i == 0))
            line.put_quoted(argv[i]);
        else
            line.put(argv[i]);
    }
    return line.finish();
}

size_t quote(char* dst, const char* src)
{
    Line line(dst);
    line.put_quoted(src ? src : "");
    return line.finish();
}

}  // namespace

extern "C" int zt_cmdline_to_argv(char* cmdline, char** argv)
{
    if (!cmdline) {
        errno = EINVAL;
        return -1;
    }
    WordReader reader(cmdline, argv ? cmdline : nullptr);
    int count = 0;
    for (; reader.skip_to_word(); ++count) {
        char* const word = reader.word();
        if (argv) argv[count] = word;
    }
    return count;
}

extern "C" void zt_argv_to_cmdline(char* dst, int argc, const char* const* argv)
{
    if (dst) join(dst, argc, argv);
}

extern "C" size_t zt_argv_cmdline_length(int argc, const char* const* argv)
{
    return join(nullptr, argc, argv);
}

extern "C" void zt_shell_quote(char* dst, const char* src)
{
    if (dst) quote(dst, src);
}

extern "C" size_t zt_shell_quote_length(const char* src)
{
    return quote(nullptr, src);
}
