// The debug options: the flags are as a model says, and the report is a text that sets them again.
#include <zt/ztpipe.h>

#include <array>

#include "fuzz/check.h"
#include "fuzz/option_model.h"

namespace {

constexpr std::size_t categories = 5;
constexpr std::size_t flags = 6;
constexpr std::size_t off = flags;
constexpr const char* keywords[] = {"PARMS", "CLOCKS", "CTRLBLKS", "DEBUG", "EXCEPTIONS", "MEMORY", "OFF"};
constexpr const char* names[categories] = {"global", "open", "close", "read", "write"};
constexpr std::size_t limit = 256;
constexpr std::size_t report_room = 512;

/// Which flags are on, by category and slot.
using Flags = std::array<std::array<bool, flags>, categories>;

Flags current()
{
    Flags result{};
    for (std::size_t c = 0; c < categories; ++c)
        for (std::size_t slot = 0; slot < flags; ++slot) result[c][slot] = Zt_pipe_debug[c].flags[slot] != 0;
    return result;
}

/// False for a list that is refused; what stands before the bad word is set all the same.
bool apply_list(Flags& on, std::size_t slot, std::string list)
{
    for (char& c : list)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    bool setting = true;
    bool first = true;
    for (std::size_t end = 0, at; (at = list.find_first_not_of(", ", end)) != std::string::npos;
         first = false) {
        end = std::min(list.find_first_of(", ", at), list.size());
        std::string word = list.substr(at, end - at);
        if (word == "not") {
            if (!first) return false;
            for (auto& category : on) category[slot] = true;
            setting = false;
            continue;
        }
        if (word.starts_with("zt_pipe_")) word.erase(0, 8);
        const auto name = std::find(std::begin(names), std::end(names), word);
        if (name == std::end(names)) return false;
        on[static_cast<std::size_t>(name - names)][slot] = setting;
    }
    return true;
}

/// What a text makes of the flags; false when it is refused.
bool apply(Flags& on, const std::string& text)
{
    std::vector<zt_option> table(flags + 1);
    for (std::size_t slot = 0; slot < flags; ++slot) table[slot].value_kind = ZT_OPTION_VALUE_OPTIONAL;
    for (std::size_t slot = 0; slot <= flags; ++slot) std::strcpy(table[slot].keyword, keywords[slot]);
    if (text.size() > limit) return false;
    const fuzz::Reading reading = fuzz::OptionModel(table, text).read();
    if (reading.code != 0) return false;
    if (reading.found.empty()) return true;
    on = {};
    if (reading.found.count(off) != 0) return reading.found.size() == 1;
    for (const auto& [slot, list] : reading.found) {
        on[0][slot] = true;
        if (!list)
            for (auto& category : on) category[slot] = true;
        else if (!apply_list(on, slot, *list))
            return false;
    }
    return true;
}

bool configure(const std::string& text)
{
    const std::vector<char> copy = fuzz::tight(text);
    zt::Status status;
    const std::uint32_t code = zt_pipe_debug_config(copy.data(), &status);
    fuzz::equal("code", code, status.code);
    return code == 0;
}

std::string report()
{
    std::vector<char> text(report_room, '#');
    zt::Status status;
    fuzz::equal("report", zt_pipe_debug_settings(text.data(), &status), 0);
    return text.data();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text = fuzz::text(data, size);
    fuzz::holds("off", configure("OFF"));
    Flags expected{};
    const bool accepted = apply(expected, text);
    fuzz::equal("accepted", configure(text), accepted);
    fuzz::holds("flags", current() == expected);

    const std::string settings = report();
    // The report leaves "global" out: it is on where any other category is, so that only this half returns.
    for (std::size_t slot = 0; slot < flags; ++slot) {
        expected[0][slot] = false;
        for (std::size_t c = 1; c < categories; ++c) expected[0][slot] |= expected[c][slot];
    }
    fuzz::holds("off", configure("OFF"));
    if (settings.size() > limit) return 0;  // longer than any option text may be
    fuzz::holds("the report is accepted", configure(settings));
    fuzz::holds("flags of the report", current() == expected);
    fuzz::equal("report of the report", report(), settings);
    return 0;
}
