/// @file
/// A second, plain reading of option texts, to compare the option processor with.
#ifndef ZT_FUZZ_OPTION_MODEL_H
#define ZT_FUZZ_OPTION_MODEL_H

#include <zt/runtime/options.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace fuzz {

/// What a text gives: the rows found before anything wrong, and what was wrong.
struct Reading {
    std::map<std::size_t, std::optional<std::string>> found;
    int code = 0;
    std::string text;
};

class OptionModel {
  public:
    OptionModel(const std::vector<zt_option>& table, const std::string& text) : table_(table), text_(text) {}

    Reading read()
    {
        while (reading_.code == 0 && (at_ = skip(separators, at_)) < text_.size()) read_option();
        return reading_;
    }

  private:
    static constexpr const char* blanks = " \t\n\v\f\r";
    static constexpr const char* separators = " \t\n\v\f\r,";

    std::size_t skip(const char* set, std::size_t from) const
    {
        return std::min(text_.find_first_not_of(set, from), text_.size());
    }
    std::size_t word_end(std::size_t from) const
    {
        return std::min(text_.find_first_of(separators, from), text_.size());
    }

    void fail(int code, std::size_t begin, std::size_t end)
    {
        reading_.code = code;
        reading_.text = text_.substr(begin, std::min<std::size_t>(end - begin, 32));
    }

    static std::string upper(std::string text)
    {
        for (char& c : text)
            if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        return text;
    }

    std::size_t find(const std::string& word) const
    {
        for (std::size_t i = 0; i < table_.size(); ++i)
            if (!word.empty() && upper(word) == table_[i].keyword) return i;
        return table_.size();
    }

    bool excluded(const zt_option& option) const
    {
        return option.group != 0 && std::any_of(reading_.found.begin(), reading_.found.end(), [&](auto& row) {
                   return table_[row.first].group == option.group;
               });
    }

    void read_option()
    {
        const std::size_t begin = at_;
        const std::size_t end = std::min(word_end(begin), std::min(text_.find('=', begin), text_.size()));
        const std::size_t row = find(text_.substr(begin, end - begin));
        if (row == table_.size()) return fail(ZT_OPTION_E_UNKNOWN, begin, std::max(end, begin + 1));
        const zt_option& option = table_[row];
        if (reading_.found.count(row) != 0) return fail(ZT_OPTION_E_TWICE, begin, end);
        if (excluded(option)) return fail(ZT_OPTION_E_GROUP, begin, end);

        const std::size_t mark = skip(blanks, end);
        std::optional<std::string> value;
        at_ = end;
        if (mark < text_.size() && text_[mark] == '=') {
            value = read_value(option, begin, end, skip(blanks, mark + 1));
            if (reading_.code != 0) return;
        } else if (option.value_kind == ZT_OPTION_VALUE_REQUIRED) {
            return fail(ZT_OPTION_E_NOVALUE, begin, end);
        }
        reading_.found[row] = value;
    }

    std::optional<std::string> read_value(const zt_option& option, std::size_t keyword,
                                          std::size_t keyword_end, std::size_t at)
    {
        const bool takes_one = option.value_kind != ZT_OPTION_VALUE_NONE;
        const char quote = at < text_.size() ? text_[at] : '\0';
        std::string value;
        if (quote != '\'' && quote != '"') {
            at_ = word_end(at);
            if (!takes_one) fail(ZT_OPTION_E_VALUE, keyword, at_);
            if (takes_one && at_ == at) fail(ZT_OPTION_E_NOVALUE, keyword, keyword_end);
            return text_.substr(at, at_ - at);
        }
        std::size_t i = at + 1;
        for (;; ++i) {
            if (i >= text_.size()) return fail(ZT_OPTION_E_QUOTE, at, text_.size()), std::nullopt;
            const bool doubled = text_[i] == quote && text_[std::min(i + 1, text_.size() - 1)] == quote &&
                                 i + 1 < text_.size();
            if (text_[i] == quote && !doubled) break;
            value += text_[i];
            i += doubled ? 1 : 0;
        }
        at_ = word_end(i + 1);
        if (!takes_one || at_ != i + 1) fail(ZT_OPTION_E_VALUE, keyword, at_);
        return value;
    }

    const std::vector<zt_option>& table_;
    const std::string text_;
    std::size_t at_ = 0;
    Reading reading_;
};

}  // namespace fuzz

#endif
