#include <zt/runtime/errors.h>
#include <zt/runtime/options.h>

#include <cerrno>
#include <cstring>

namespace {

bool is_blank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool ends_word(char c)
{
    return c == '\0' || c == ',' || is_blank(c);
}

char* skip_blanks(char* at)
{
    while (is_blank(*at)) ++at;
    return at;
}

char upper(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

/// A stretch of the option text, its end not included.
struct Piece {
    char* begin;
    char* end;
};

bool names(const zt_option& option, Piece word)
{
    const size_t length = strnlen(option.keyword, sizeof option.keyword);
    if (length != static_cast<size_t>(word.end - word.begin)) return false;
    for (size_t i = 0; i < length; ++i)
        if (upper(option.keyword[i]) != upper(word.begin[i])) return false;
    return true;
}

/// Takes the doubled quotes of a quoted value back to single ones and terminates it.
void unquote(Piece value, char quote)
{
    char* out = value.begin;
    for (const char* in = value.begin; in < value.end; in += *in == quote ? 2 : 1) *out++ = *in;
    *out = '\0';
}

class Processor {
  public:
    Processor(char* text, zt_option* table, int count, zt_option_error* error)
        : at_(text), table_(table), table_end_(table + count), error_(error)
    {
    }

    int run()
    {
        for (zt_option* row = table_; row < table_end_; ++row) row->present = 0, row->value = nullptr;
        int found = 0;
        while (skip_separators()) {
            if (!take_option()) return -1;
            ++found;
        }
        return found;
    }

  private:
    bool skip_separators()
    {
        while (*at_ != '\0' && ends_word(*at_)) ++at_;
        return *at_ != '\0';
    }

    bool take_option()
    {
        keyword_.begin = at_;
        while (!ends_word(*at_) && *at_ != '=') ++at_;
        keyword_.end = at_;
        zt_option* option = find();
        if (!option) return fail_unknown();
        if (option->present) return fail(ZT_OPTION_E_TWICE, keyword_.begin, keyword_.end);
        if (excluded(*option)) return fail(ZT_OPTION_E_GROUP, keyword_.begin, keyword_.end);
        if (!take_value(*option)) return false;
        option->present = 1;
        return true;
    }

    zt_option* find() const
    {
        if (keyword_.begin == keyword_.end) return nullptr;
        for (zt_option* row = table_; row < table_end_; ++row)
            if (names(*row, keyword_)) return row;
        return nullptr;
    }

    bool excluded(const zt_option& option) const
    {
        if (option.group == 0) return false;
        for (const zt_option* row = table_; row < table_end_; ++row)
            if (row->present && row->group == option.group) return true;
        return false;
    }

    bool take_value(zt_option& option)
    {
        char* const mark = skip_blanks(at_);
        if (*mark != '=') {
            if (option.value_kind == ZT_OPTION_VALUE_REQUIRED)
                return fail(ZT_OPTION_E_NOVALUE, keyword_.begin, keyword_.end);
            return true;
        }
        at_ = skip_blanks(mark + 1);
        const bool quoted = *at_ == '\'' || *at_ == '"';
        return quoted ? take_quoted(option) : take_bare(option);
    }

    bool take_bare(zt_option& option)
    {
        char* const begin = at_;
        skip_word();
        if (!takes_value(option)) return fail(ZT_OPTION_E_VALUE, keyword_.begin, at_);
        if (at_ == begin) return fail(ZT_OPTION_E_NOVALUE, keyword_.begin, keyword_.end);
        option.value = begin;
        terminate_word();
        return true;
    }

    bool take_quoted(zt_option& option)
    {
        char* const open = at_;
        char* const close = closing_quote();
        if (!close) return fail(ZT_OPTION_E_QUOTE, open, open + strlen(open));
        at_ = close + 1;
        skip_word();
        if (!takes_value(option) || at_ != close + 1) return fail(ZT_OPTION_E_VALUE, keyword_.begin, at_);
        unquote({open + 1, close}, *open);
        option.value = open + 1;
        return true;
    }

    static bool takes_value(const zt_option& option) { return option.value_kind != ZT_OPTION_VALUE_NONE; }

    char* closing_quote() const
    {
        for (char* quote = strchr(at_ + 1, *at_); quote; quote = strchr(quote + 2, *at_))
            if (quote[1] != *at_) return quote;
        return nullptr;
    }

    void skip_word()
    {
        while (!ends_word(*at_)) ++at_;
    }

    void terminate_word()
    {
        if (*at_ != '\0') *at_++ = '\0';
    }

    bool fail_unknown()
    {
        const bool stray_mark = keyword_.begin == keyword_.end;
        return fail(ZT_OPTION_E_UNKNOWN, keyword_.begin, stray_mark ? keyword_.end + 1 : keyword_.end);
    }

    bool fail(int32_t code, const char* begin, const char* end)
    {
        if (!error_) return false;
        const size_t room = sizeof error_->text - 1;
        const size_t length = static_cast<size_t>(end - begin);
        const size_t shown = length < room ? length : room;
        error_->code = code;
        memcpy(error_->text, begin, shown);
        error_->text[shown] = '\0';
        return false;
    }

    char* at_;
    zt_option* const table_;
    zt_option* const table_end_;
    zt_option_error* const error_;
    Piece keyword_{};
};

int bad_argument(zt_option_error* error, const char* name)
{
    if (!error) return -1;
    error->code = static_cast<int32_t>(zt_error_no(EINVAL));
    strcpy(error->text, name);
    return -1;
}

}  // namespace

extern "C" int zt_process_options(char* text, zt_option* table, int count, zt_option_error* error)
{
    if (!text) return bad_argument(error, "text");
    if (count < 0) return bad_argument(error, "count");
    if (!table && count > 0) return bad_argument(error, "table");
    return Processor(text, table, count, error).run();
}
