// Which operation traces what: the debug flags, read from option texts.
#include <zt/runtime/environment.h>
#include <zt/runtime/text.h>
#include <zt/ztpipe/debug.h>
#include <zt/ztpipe/operation.h>

#include <cstring>

extern "C" {
zt_pipe_debug_category Zt_pipe_debug[zt::pipe::debug_categories] = {};
std::uint32_t Zt_pipe_debug_initialized = 0;
}

namespace zt::pipe {
namespace {

constexpr char environment_variable[] = "ZT_PIPE_DEBUG";
constexpr char name_prefix[] = "zt_pipe_";
constexpr const char* category_names[debug_categories] = {"global", "open", "close", "read", "write"};

constexpr int keyword_count = debug_flags + 1;
constexpr int off = debug_flags;

namespace at {
constexpr Site no_options{655, ZT_PIPE_E_NULLARG};
constexpr Site options_too_long{660, ZT_PIPE_E_TOOLONG};
constexpr Site options_refused{669, 0};
constexpr Site off_with_others{697, ZT_PIPE_E_CONFLICT};

struct FlagSites {
    Site misplaced_not, unknown_category;
};
constexpr FlagSites flag[debug_flags] = {
    {{721, ZT_PIPE_E_DEBUGOPT}, {742, ZT_PIPE_E_DEBUGOPT}},   // PARMS
    {{777, ZT_PIPE_E_DEBUGOPT}, {798, ZT_PIPE_E_DEBUGOPT}},   // CLOCKS
    {{832, ZT_PIPE_E_DEBUGOPT}, {853, ZT_PIPE_E_DEBUGOPT}},   // CTRLBLKS
    {{887, ZT_PIPE_E_DEBUGOPT}, {908, ZT_PIPE_E_DEBUGOPT}},   // DEBUG
    {{942, ZT_PIPE_E_DEBUGOPT}, {963, ZT_PIPE_E_DEBUGOPT}},   // EXCEPTIONS
    {{998, ZT_PIPE_E_DEBUGOPT}, {1019, ZT_PIPE_E_DEBUGOPT}},  // MEMORY
};
}  // namespace at

void set_everywhere(int slot, std::uint32_t setting)
{
    for (auto& category : Zt_pipe_debug) set_flag(category, slot, setting);
}

void reset_category(zt_pipe_debug_category& category, const char* name)
{
    for (int slot = 0; slot < debug_slots; ++slot) set_flag(category, slot, 0);
    std::memset(category.name, 0, sizeof category.name);
    zt_strncpy(category.name, name, sizeof category.name);
}

zt_pipe_debug_category* find_category(const char* name)
{
    for (int i = 0; i < debug_categories; ++i)
        if (std::strcmp(name, category_names[i]) == 0) return &Zt_pipe_debug[i];
    return nullptr;
}

// Only A to Z, whatever the locale: option texts are the same everywhere.
void lower_case(char* text)
{
    for (; *text != '\0'; ++text)
        if (*text >= 'A' && *text <= 'Z') *text = static_cast<char>(*text - 'A' + 'a');
}

void fail_word(Report& report, Site site, const char* word)
{
    report.fail(site);
    zt_strncpy(report.status.msg, word, sizeof report.status.msg);
}

// A list of categories, or "not" and the categories to leave out. What comes before a bad word stays set.
void apply_list(Report& report, int slot, char* list)
{
    constexpr char separators[] = ", ";
    lower_case(list);
    std::uint32_t setting = 1;
    bool first = true;
    char* rest =
        nullptr;  // strtok's own position is the application's: it may be splitting a text of its own
    for (char* word = strtok_r(list, separators, &rest); word; word = strtok_r(nullptr, separators, &rest)) {
        if (std::strcmp(word, "not") == 0) {
            if (!first) return fail_word(report, at::flag[slot].misplaced_not, word);
            set_everywhere(slot, setting);
            setting = 0;
        } else {
            if (std::strncmp(word, name_prefix, sizeof name_prefix - 1) == 0) word += sizeof name_prefix - 1;
            zt_pipe_debug_category* category = find_category(word);
            if (category == nullptr) return fail_word(report, at::flag[slot].unknown_category, word);
            set_flag(*category, slot, setting);
        }
        first = false;
    }
}

void apply_flag(Report& report, int slot, const zt_option& option)
{
    set_flag(Zt_pipe_debug[static_cast<int>(Category::global)], slot, 1);
    if (option.value == nullptr) return set_everywhere(slot, 1);
    apply_list(report, slot, option.value);
}

void refuse_company(Report& report, const zt_option* table)
{
    for (int slot = 0; slot < debug_flags; ++slot)
        if (table[slot].present) return report.fail_conflict(at::off_with_others, "OFF", table[slot].keyword);
}

void build_table(zt_option* table)
{
    for (int slot = 0; slot < debug_flags; ++slot) {
        zt_strncpy(table[slot].keyword, flag_names[slot], sizeof table[slot].keyword);
        table[slot].value_kind = ZT_OPTION_VALUE_OPTIONAL;
    }
    zt_strncpy(table[off].keyword, "OFF", sizeof table[off].keyword);
}

void configure(Report& report, const char* options)
{
    if (options == nullptr) return report.fail_null_argument(at::no_options, "options");
    const std::size_t length = std::strlen(options);
    if (length > ZT_PIPE_OPTIONS_LIMIT)
        return report.fail_limit(at::options_too_long, "options", saturated(length), ZT_PIPE_OPTIONS_LIMIT);

    zt_option table[keyword_count] = {};
    build_table(table);
    char copy[ZT_PIPE_OPTIONS_LIMIT + 1];
    int found;
    if (!process_options(report, at::options_refused, options, copy, table, keyword_count, &found)) return;
    if (found == 0) return;
    if (Zt_pipe_debug_initialized == 0 && zt_pipe_debug_init(&report.status) != 0) return;

    // Settings do not accumulate: each text states all of them.
    for (int slot = 0; slot < debug_flags; ++slot) set_everywhere(slot, 0);
    if (table[off].present) return refuse_company(report, table);
    for (int slot = 0; slot < debug_flags && !report.failed(); ++slot)
        if (table[slot].present) apply_flag(report, slot, table[slot]);
}

}  // namespace
}  // namespace zt::pipe

using namespace zt::pipe;

extern "C" std::uint32_t zt_pipe_debug_init(zt::Status* status)
{
    ZT_CLEAR_STATUS(status);
    if (Zt_pipe_debug_initialized != 0) return status->code;
    for (int i = 0; i < debug_categories; ++i) reset_category(Zt_pipe_debug[i], category_names[i]);
    Zt_pipe_debug_initialized = 1;  // before the environment is read: configuring would initialise again

    const char* value = zt_getenv(environment_variable);
    if (value == nullptr || value[0] == '\0') return status->code;
    char options[ZT_PIPE_OPTIONS_LIMIT + 1];
    zt_strncpy(options, value, sizeof options);
    zt_trace_msg("%s:  initializing options [%s]", environment_variable, options);
    if (zt_pipe_debug_config(options, status) !=
        0) {  // a typing error in the environment must not stop the program
        zt_trace_msg("%s:  WARNING: invalid options [%s]", environment_variable, options);
        ZT_CLEAR_STATUS(status);
    }
    return status->code;
}

extern "C" std::uint32_t zt_pipe_debug_config(const char* options, zt::Status* status)
{
    if (status == nullptr) return ZT_PIPE_E_NOSTATUS;
    Report report{"zt_pipe_debug_config", *status};
    ZT_CLEAR_STATUS(status);
    configure(report, options);
    return status->code;
}
